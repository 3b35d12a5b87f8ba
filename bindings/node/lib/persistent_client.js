'use strict';

const { EventEmitter } = require('node:events');
const { Code, OrvikError, check } = require('./error');
const { koffi, native, event, limits, types } = require('./native');
const { Request } = require('./request');
const { decodeSense, requestSenseCdb } = require('./scsi');

/** The open clients, by the number that the DLL passes on. */
const clients = new Map();
let newest = 0;

// Called on this thread, while the DLL's thread waits for it. Listeners are called afterwards, so that
// their exceptions do not get into koffi.
const onEvent = koffi.register((handle, pointer, number) => {
    const { kind, camera, status, systemCode, text } = koffi.decode(pointer, types.Event);
    const client = clients.get(Number(number));
    if (kind === event.connected) deliver(client, 'connected');
    else if (kind === event.disconnected)
        deliver(client, 'disconnected', new OrvikError(status, text, { systemCode }));
    else if (kind === event.attached) deliver(client, 'attached', BigInt(camera));
    else if (kind === event.detached) deliver(client, 'detached', BigInt(camera));
}, koffi.pointer(types.EventCallback));

function deliver(client, name, ...args) {
    process.nextTick(() => {
        if (!client.closing) client.emit(name, ...args);
    });
}

function milliseconds(value, name) {
    if (value === Infinity) return limits.noTimeout;
    if (typeof value !== 'number') throw new TypeError(`${name} must be a number`);
    if (!(value >= 0 && value < limits.noTimeout))
        throw new RangeError(`${name} must be Infinity or from 0 to ${limits.noTimeout - 1}`);
    return Math.ceil(value);
}

function copyOf(value, name) {
    if (!(value instanceof Uint8Array))
        throw new TypeError(`${name} must be a Buffer or Uint8Array`);
    return Buffer.from(value);
}

class PersistentClient extends EventEmitter {
    #number = ++newest;
    #handle;
    #keepAlive;
    #starting = Promise.resolve(); // fulfilled when the newest request has been sent
    #closed;

    constructor({ timeout, goneWait, transferOutLimit, checkServer, pipe } = {}) {
        super();
        const options = {};
        check(native.optionsInit(options, koffi.sizeof(types.Options)));
        if (timeout !== undefined) options.timeout = milliseconds(timeout, 'timeout');
        if (goneWait !== undefined) options.goneWait = milliseconds(goneWait, 'goneWait');
        if (transferOutLimit !== undefined) {
            if (!Number.isInteger(transferOutLimit))
                throw new TypeError('transferOutLimit must be an integer');
            if (transferOutLimit < 0 || transferOutLimit > 0x7fffffff)
                throw new RangeError('transferOutLimit must be from 0 to 2147483647');
            options.transferOutLimit = transferOutLimit;
        }
        if (checkServer !== undefined) options.checkServer = checkServer ? 1 : 0;
        if (pipe !== undefined) {
            // koffi takes a number for an address.
            if (typeof pipe !== 'string') throw new TypeError('pipe must be a string');
            options.pipe = pipe;
        }
        options.onEvent = onEvent;
        options.user = this.#number;
        const handle = [null];
        check(native.clientOpen(options, handle));
        this.#handle = handle[0];
        clients.set(this.#number, this); // the first event comes when this script has returned
        // koffi's callbacks do not keep the process running.
        this.#keepAlive = setInterval(() => {}, 0x7fffffff);
    }

    /** Whether close() has been called. */
    get closing() {
        return this.#closed !== undefined;
    }

    cameras() {
        if (this.closing) return [];
        for (let capacity = 16; ; ) {
            const cameras = new BigUint64Array(capacity);
            const count = [0];
            const code = native.clientCameras(this.#handle, cameras, capacity, count);
            if (code !== Code.bufferTooSmall) {
                check(code);
                return Array.from(cameras.subarray(0, count[0]));
            }
            capacity = count[0];
        }
    }

    async transferIn(camera, cdb, options) {
        return this.#transfer(native.startIn, camera, cdb, [], options);
    }

    async transferOut(camera, cdb, data, options) {
        const bytes = copyOf(data, 'data');
        await this.#transfer(
            native.startOut,
            camera,
            cdb,
            [bytes.length === 0 ? null : bytes, bytes.length],
            options,
        );
    }

    async transferNoData(camera, cdb, options) {
        await this.#transfer(native.startNoData, camera, cdb, [], options);
    }

    async requestSense(camera, options) {
        return decodeSense(await this.transferIn(camera, requestSenseCdb(), options));
    }

    close() {
        return (this.#closed ??= this.#close());
    }

    #transfer(func, camera, cdb, data, { timeout = limits.transferTimeout, signal } = {}) {
        if (typeof camera !== 'bigint') throw new TypeError('camera must be a bigint');
        const command = copyOf(cdb, 'cdb');
        if (command.length === 0 || command.length > limits.cdb)
            throw new RangeError(`cdb must have from 1 to ${limits.cdb} bytes`);
        const limit = milliseconds(timeout, 'timeout');
        const request = new Request(signal, () => !this.closing);
        const args = [this.#handle, camera, command, command.length, ...data];
        // One after the other, so that they reach the service in the order of the calls.
        this.#starting = this.#starting.then(() => {
            if (this.closing)
                request.fail(new OrvikError(Code.cancelled, 'the client was closed'));
            else if (!request.settled) return request.start(func, args, limit);
        });
        return request.promise;
    }

    async #close() {
        await this.#starting; // no other call may be in progress
        // Not on this thread: it waits for callbacks, which run here.
        await new Promise((resolve) => native.clientClose.async(this.#handle, resolve));
        clients.delete(this.#number);
        clearInterval(this.#keepAlive);
    }
}

module.exports = { PersistentClient };
