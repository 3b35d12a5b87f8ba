'use strict';

const { once } = require('node:events');
const orvik = require('..');
const { FakeService } = require('./fake_service');

/** A client of a new fake service with camera 1; both end with the test. */
async function connect(t, answer, options = {}) {
    const service = new FakeService([1], answer);
    await service.start();
    const client = new orvik.PersistentClient({ ...service.options, ...options });
    t.after(async () => {
        await client.close();
        await service.stop();
    });
    const [camera] = await once(client, 'attached');
    return { service, client, camera };
}

module.exports = { connect };
