// Compiled with TypeScript and not run: index.d.ts is valid, and describes what programs write.

import { once } from 'node:events';
import * as orvik from '..';

const client = new orvik.PersistentClient({
    timeout: 5000,
    goneWait: 100,
    transferOutLimit: 65536,
    checkServer: false,
    pipe: '\\\\.\\pipe\\none',
});

async function use(camera: orvik.Camera): Promise<string> {
    const { signal } = new AbortController();
    const answer: Buffer = await client.transferIn(camera, orvik.inquiryCdb(), { signal });
    const { deviceType, removable, vendor }: orvik.Inquiry = orvik.decodeInquiry(answer);
    const capacity = await client.transferIn(camera, orvik.readCapacityCdb(), { timeout: Infinity });
    const { blockLength, blockCount }: orvik.Capacity = orvik.decodeCapacity(capacity);
    await client.transferOut(camera, orvik.write6Cdb(0, 1), new Uint8Array(blockLength));
    await client.transferNoData(camera, orvik.testUnitReadyCdb(), { timeout: 100, signal });
    const sense: orvik.Sense = await client.requestSense(camera);
    const same: boolean = client.cameras()[0] === camera && orvik.CDB_LIMIT === 8;
    return [deviceType, removable, vendor, blockCount, sense.text, same, orvik.version].join();
}

client.on('connected', () => {});
client.once('attached', (camera) => use(camera).then(console.log));
client.off('detached', (camera: bigint) => console.log(camera));
client.on('disconnected', (error) => {
    const kind: orvik.ErrorKind = error.kind;
    console.log(kind, error.code.toFixed(), error.systemCode.toFixed(), error.message, error.cause);
});
once(client, 'attached').then(() => client.close());

// @ts-expect-error There is no such event.
client.on('arrived', () => {});
// @ts-expect-error A camera is a bigint.
client.transferIn(1, orvik.inquiryCdb());
// @ts-expect-error A command is bytes.
client.transferIn(1n, '12 00 00 00 24 00');
// @ts-expect-error There is no such option.
client.transferIn(1n, orvik.inquiryCdb(), { timeoutSeconds: 1 });
// @ts-expect-error Only the library makes errors.
new orvik.OrvikError();
