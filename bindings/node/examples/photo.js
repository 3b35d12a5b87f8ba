// Reads the first mebibyte of a camera into a file: node photo.js FILE
'use strict';

const { once } = require('node:events');
const fs = require('node:fs');
const orvik = require('..');

const LENGTH = 1 << 20;
const OUTSTANDING = 4; // transfers at a time, so that the camera never waits for this program

/** Reads all pieces. When a transfer fails, the others are cancelled. */
async function read(client, camera, stop) {
    const failed = new AbortController();
    const options = { signal: AbortSignal.any([stop, failed.signal]) };
    const capacity = await client.transferIn(camera, orvik.readCapacityCdb(), options);
    const { blockLength } = orvik.decodeCapacity(capacity);
    const blocks = LENGTH / blockLength;
    const most = Math.min(255, Math.floor(orvik.TRANSFER_IN_LIMIT / blockLength));
    const photo = Buffer.alloc(LENGTH);
    let next = 0;
    let done = 0;
    async function readPieces() {
        while (next < blocks) {
            const first = next;
            const count = Math.min(most, blocks - first);
            next += count;
            const data = await client.transferIn(camera, orvik.read6Cdb(first, count), options);
            if (data.length !== count * blockLength)
                throw new Error('the camera returned too few bytes');
            data.copy(photo, first * blockLength);
            done += data.length;
            process.stdout.write(`\r${Math.floor((100 * done) / LENGTH)} %`);
        }
    }
    try {
        await Promise.all(Array.from({ length: OUTSTANDING }, readPieces));
    } finally {
        failed.abort();
        process.stdout.write('\n');
    }
    return photo;
}

async function main(path) {
    const stop = new AbortController();
    const { signal } = stop;
    process.on('SIGINT', () => stop.abort()); // Ctrl-C
    const client = new orvik.PersistentClient();
    client.on('disconnected', (error) => console.log(error.message));
    try {
        for (;;) {
            console.log('waiting for a camera');
            while (client.cameras().length === 0) await once(client, 'attached', { signal });
            const [camera] = client.cameras();
            console.log('reading');
            try {
                fs.writeFileSync(path, await read(client, camera, signal));
                return console.log(`saved ${path}`);
            } catch (error) {
                if (signal.aborted || !(error instanceof orvik.OrvikError)) throw error;
                console.log(`the transfer failed: ${error.message}`);
            }
            while (client.cameras().includes(camera)) await once(client, 'detached', { signal });
        }
    } catch (error) {
        process.exitCode = 1;
        console.log(signal.aborted ? 'stopped' : `error: ${error.message}`);
    } finally {
        await client.close(); // a program that only ends may end the service's run
    }
}

if (process.argv.length === 3) main(process.argv[2]);
else console.error('usage: node photo.js FILE');
