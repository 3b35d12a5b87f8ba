// Apart from the other tests, because these run with one thread of libuv.
'use strict';

const assert = require('node:assert');
const test = require('node:test');
const orvik = require('..');
const { connect } = require('./connected_client');

test('requests reach the service in the order of the calls', async (t) => {
    const order = [];
    const { client, camera } = await connect(t, (request, peer) => {
        order.push(request.cdb[3]);
        peer.succeed(request);
    });
    const all = Array.from({ length: 50 }, (_, i) => i);
    await Promise.all(all.map((i) => client.transferIn(camera, orvik.read6Cdb(i, 1))));
    assert.deepStrictEqual(order, all);
});
