// The binding against a fake service.
'use strict';

const assert = require('node:assert');
const { once } = require('node:events');
const test = require('node:test');
const { setImmediate } = require('node:timers/promises');
const orvik = require('..');
const { FakeService, type } = require('./fake_service');
const { connect } = require('./connected_client');
const { outstanding } = require('../lib/request');

test('events tell of the connection and of cameras, in order', async (t) => {
    const service = new FakeService([7]);
    await service.start();
    const client = new orvik.PersistentClient(service.options);
    t.after(() => client.close());
    const seen = [];
    for (const name of ['connected', 'attached', 'detached', 'disconnected'])
        client.on(name, (value) => seen.push(value instanceof Error ? value.kind : [name, value]));
    const [camera] = await once(client, 'attached');
    assert.deepStrictEqual(client.cameras(), [camera]);
    service.peers[0].notify(type.attached, 9);
    const [second] = await once(client, 'attached');
    assert.notStrictEqual(second, camera);
    assert.deepStrictEqual(client.cameras(), [camera, second]);
    service.peers[0].notify(type.detached, 7);
    await once(client, 'detached');
    assert.deepStrictEqual(client.cameras(), [second]);
    await service.stop();
    await once(client, 'disconnected');
    assert.deepStrictEqual(client.cameras(), []);
    assert.deepStrictEqual(seen, [
        ['connected', undefined],
        ['attached', camera],
        ['attached', second],
        ['detached', camera],
        ['detached', second],
        'serviceGone',
    ]);
});

test('a camera of an earlier run of the service is refused', async (t) => {
    const { service, client, camera } = await connect(t);
    await service.stop();
    await service.start();
    const [again] = await once(client, 'attached');
    assert.notStrictEqual(again, camera);
    await assert.rejects(client.transferNoData(camera, orvik.testUnitReadyCdb()), {
        name: 'OrvikError',
        kind: 'noSuchCamera',
        code: 10,
        message: 'the transfer could not be started: no such camera',
    });
    await client.transferNoData(again, orvik.testUnitReadyCdb());
});

test('a transfer sends its command and data, and returns the data', async (t) => {
    const requests = [];
    const { client, camera } = await connect(t, (request, peer) => {
        requests.push(request);
        peer.succeed(request, request.messageType === type.transferIn ? Buffer.from('abc') : undefined);
    });
    const data = await client.transferIn(camera, orvik.read6Cdb(0x12345, 2));
    assert.ok(Buffer.isBuffer(data));
    assert.strictEqual(data.toString(), 'abc');
    const sent = Buffer.from('data');
    const out = client.transferOut(camera, orvik.write6Cdb(1, 1), sent);
    sent.fill(0); // the call has copied it
    assert.strictEqual(await out, undefined);
    assert.strictEqual(await client.transferNoData(camera, orvik.testUnitReadyCdb()), undefined);
    assert.deepStrictEqual(
        requests.map(({ messageType, cdb, data: bytes }) => [
            messageType,
            cdb.toString('hex'),
            messageType === type.transferOut ? bytes.toString() : '',
        ]),
        [
            [type.transferIn, '0801234502000000', ''],
            [type.transferOut, '0a00000101000000', 'data'],
            [type.transferNoData, '0000000000000000', ''],
        ],
    );
});

test('a transfer may return no data, and 64 KiB', async (t) => {
    const most = Buffer.alloc(orvik.TRANSFER_IN_LIMIT, 'pattern');
    const { client, camera } = await connect(t, (request, peer) =>
        peer.succeed(request, request.cdb[4] === 1 ? undefined : most),
    );
    assert.strictEqual((await client.transferIn(camera, orvik.read6Cdb(0, 1))).length, 0);
    assert.ok((await client.transferIn(camera, orvik.read6Cdb(0, 128))).equals(most));
});

test('a transfer without an answer ends at its time-out', async (t) => {
    const { client, camera } = await connect(t, () => {});
    await assert.rejects(client.transferIn(camera, orvik.inquiryCdb(), { timeout: 50 }), {
        kind: 'timedOut',
    });
});

test('an AbortSignal ends an outstanding transfer and no other', async (t) => {
    const held = [];
    let reached;
    const second = new Promise((resolve) => (reached = resolve));
    const { client, camera } = await connect(t, (request) => {
        held.push(request);
        if (held.length === 2) reached();
    });
    const abort = new AbortController();
    const cancelled = client.transferIn(camera, orvik.inquiryCdb(), { signal: abort.signal });
    const other = assert.rejects(client.transferIn(camera, orvik.inquiryCdb()), {
        message: 'the client was closed',
    });
    await second;
    abort.abort('not needed');
    await assert.rejects(cancelled, { kind: 'cancelled', code: 9, cause: 'not needed' });
    await client.close();
    await other;
});

test('a transfer that an AbortSignal has ended ends in the DLL too', async (t) => {
    const abort = new AbortController();
    const { client, camera } = await connect(t, () => abort.abort());
    const options = { signal: abort.signal, timeout: Infinity };
    await assert.rejects(client.transferIn(camera, orvik.inquiryCdb(), options));
    const end = Date.now() + 30000;
    while (outstanding.size !== 0) {
        assert.ok(Date.now() < end, 'the request is still outstanding');
        await setImmediate(); // no event reports it
    }
});

test('a transfer with an aborted signal is not sent', async (t) => {
    const requests = [];
    const { client, camera } = await connect(t, (request, peer) => {
        requests.push(request.cdb[0]);
        peer.succeed(request);
    });
    const signal = AbortSignal.abort();
    await assert.rejects(client.transferIn(camera, orvik.inquiryCdb(), { signal }), {
        kind: 'cancelled',
    });
    await client.transferNoData(camera, orvik.testUnitReadyCdb());
    assert.deepStrictEqual(requests, [0]);
});

test('a refusal is apart from a camera that has gone', async (t) => {
    const { client, camera } = await connect(t, (request, peer) => {
        peer.refuse(request);
        if (request.cdb[0] === 0x12) peer.notify(type.detached, 1);
    });
    await assert.rejects(client.transferNoData(camera, orvik.testUnitReadyCdb()), {
        kind: 'refused',
    });
    await assert.rejects(client.transferIn(camera, orvik.inquiryCdb()), { kind: 'cameraGone' });
});

test('the error of a transfer has the description and the system code', async (t) => {
    const { client, camera } = await connect(t, (request, peer) => {
        if (request.cdb[0] === 0x12) peer.close();
        else peer.refuse(request);
    });
    await assert.rejects(client.transferNoData(camera, orvik.testUnitReadyCdb()), {
        kind: 'refused',
        message: 'the command failed on camera 1',
        systemCode: 0,
    });
    await assert.rejects(client.transferIn(camera, orvik.inquiryCdb()), {
        kind: 'serviceGone',
        message: /^the service has closed the connection: .+ \(error 109\)$/,
        systemCode: 109,
    });
});

test('requestSense decodes what the camera returns', async (t) => {
    const sense = Buffer.from('700002000000000a000000003a0000000000', 'hex');
    const { client, camera } = await connect(t, (request, peer) => peer.succeed(request, sense));
    assert.deepStrictEqual(await client.requestSense(camera), {
        key: 2,
        code: 0x3a,
        qualifier: 0,
        deferred: false,
        text: 'NOT READY: MEDIUM NOT PRESENT',
    });
});

test('close() ends transfers, and nothing is called after it', async (t) => {
    const { service, client, camera } = await connect(t, () => {});
    const outstanding = client.transferIn(camera, orvik.inquiryCdb());
    const ended = assert.rejects(outstanding, { kind: 'cancelled' });
    let events = 0;
    client.on('detached', () => ++events);
    client.on('disconnected', () => ++events);
    const closed = client.close();
    service.peers[0].notify(type.detached, 1);
    assert.strictEqual(client.close(), closed);
    await closed;
    await ended;
    assert.strictEqual(events, 0);
    assert.deepStrictEqual(client.cameras(), []);
    await assert.rejects(client.transferIn(camera, orvik.inquiryCdb()), { kind: 'cancelled' });
});

test('close() may be called by a listener, which gets no event after that', async (t) => {
    const { service, client } = await connect(t);
    let events = 0;
    client.on('attached', () => ++events);
    const closed = new Promise((resolve) =>
        client.once('detached', () => {
            // Until the DLL's thread waits with the next event, which nothing shows.
            for (const end = Date.now() + 100; Date.now() < end; );
            client.close().then(resolve);
        }),
    );
    service.peers[0].notify(type.detached, 1);
    for (let camera = 2; camera < 10; ++camera) service.peers[0].notify(type.attached, camera);
    await closed;
    assert.strictEqual(events, 0);
});

test('a disconnected event has the reason', async (t) => {
    const client = new orvik.PersistentClient({
        pipe: '\\\\.\\pipe\\orvik-node-test-none',
        checkServer: false,
    });
    t.after(() => client.close());
    const [error] = await once(client, 'disconnected');
    assert.ok(error instanceof orvik.OrvikError);
    assert.ok(['notInstalled', 'stopped'].includes(error.kind), error.kind);
    assert.notStrictEqual(error.message, '');
    assert.strictEqual(typeof error.systemCode, 'number');
});

test('arguments are checked before anything is sent', async (t) => {
    const { client, camera } = await connect(t);
    const cdb = orvik.inquiryCdb();
    for (const [call, expected] of [
        [() => client.transferIn(1, cdb), TypeError],
        [() => client.transferIn(camera, 'text'), TypeError],
        [() => client.transferIn(camera, Buffer.alloc(0)), RangeError],
        [() => client.transferIn(camera, Buffer.alloc(9)), RangeError],
        [() => client.transferIn(camera, cdb, { timeout: '1' }), TypeError],
        [() => client.transferIn(camera, cdb, { timeout: -1 }), RangeError],
        [() => client.transferIn(camera, cdb, { timeout: NaN }), RangeError],
        [() => client.transferOut(camera, cdb, 'text'), TypeError],
        [() => client.transferOut(camera, cdb, Buffer.alloc(65537)), { kind: 'invalidArgument' }],
    ])
        await assert.rejects(call, expected, String(call));
    assert.throws(() => new orvik.PersistentClient({ timeout: -1 }), RangeError);
    assert.throws(() => new orvik.PersistentClient({ transferOutLimit: 2 ** 31 }), RangeError);
    assert.throws(() => new orvik.PersistentClient({ pipe: 1 }), TypeError);
});

test('commands and data of SCSI', () => {
    assert.strictEqual(orvik.inquiryCdb().toString('hex'), '120000002400');
    assert.strictEqual(orvik.testUnitReadyCdb().toString('hex'), '000000000000');
    assert.strictEqual(orvik.readCapacityCdb().toString('hex'), '2500000000000000');
    assert.strictEqual(orvik.requestSenseCdb().toString('hex'), '03000000fc00');
    assert.strictEqual(orvik.write6Cdb(0x1fffff, 1).toString('hex'), '0a1fffff0100');
    const invalid = { kind: 'invalidArgument' };
    assert.throws(() => orvik.read6Cdb(0, 0), invalid);
    assert.throws(() => orvik.read6Cdb(0x1fffff, 2), invalid);
    assert.throws(() => orvik.read6Cdb(2 ** 32, 1), RangeError);
    assert.throws(() => orvik.read6Cdb(-1, 1), RangeError);
    assert.throws(() => orvik.read6Cdb(0.5, 1), TypeError);

    const inquiry = Buffer.from('058004021f000000Orvik   Virtual Camera  F01 '.slice(16), 'latin1');
    const data = Buffer.concat([Buffer.from('058004021f000000', 'hex'), inquiry]);
    assert.deepStrictEqual(orvik.decodeInquiry(data), {
        deviceType: 5,
        removable: true,
        vendor: 'Orvik',
        product: 'Virtual Camera',
        revision: 'F01',
    });
    assert.deepStrictEqual(orvik.decodeCapacity(Buffer.from('000007ff00000200', 'hex')), {
        blockLength: 512,
        blockCount: 2048,
    });
    const bad = { name: 'OrvikError', kind: 'badAnswer', code: 12 };
    assert.throws(() => orvik.decodeInquiry(Buffer.alloc(35)), bad);
    assert.throws(() => orvik.decodeCapacity(Buffer.alloc(8)), bad);
    assert.throws(() => orvik.decodeSense(Buffer.alloc(0)), bad);
    assert.throws(() => orvik.decodeSense('text'), TypeError);
});

test('the version is that of the DLL', () => {
    assert.strictEqual(orvik.version, require('../package.json').version);
});
