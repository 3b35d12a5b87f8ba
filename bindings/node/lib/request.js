'use strict';

const { Code, OrvikError } = require('./error');
const { koffi, native, types } = require('./native');

/** The requests whose completion the DLL will call, by the number that it passes on. */
const outstanding = new Map();
let newest = 0;

// Called on this thread, while the DLL's thread waits for it. Registered until the process ends, because
// koffi has a limited number of places for callbacks.
const completion = koffi.register((pointer, number) => {
    const { status, systemCode, length, data, text } = koffi.decode(pointer, types.Result);
    const bytes = length === 0 ? Buffer.alloc(0) : Buffer.from(koffi.decode(data, 'uint8_t', length));
    const error = status === Code.ok ? null : new OrvikError(status, text, { systemCode });
    outstanding.get(Number(number)).complete(error, bytes);
}, koffi.pointer(types.Completion));

/** The DLL keeps the details for the thread of libuv that made the call. */
function notStarted(code) {
    return new OrvikError(code, `the transfer could not be started: ${native.statusText(code)}`);
}

/** One transfer of a client. */
class Request {
    #number = ++newest;
    #signal;
    #settle;
    #settled = false;
    #completed = false;
    #handle = null;
    #mayCancel;

    /** `mayCancel()`: whether calls with a request of the client are allowed. */
    constructor(signal, mayCancel) {
        this.#signal = signal;
        this.#mayCancel = mayCancel;
        this.promise = new Promise((resolve, reject) => (this.#settle = { resolve, reject }));
        signal?.addEventListener('abort', this.#onAbort);
        if (signal?.aborted) this.#onAbort();
    }

    get settled() {
        return this.#settled;
    }

    /**
     * Calls orvik_start_...() with `args` on a thread of libuv, because it may wait for the service.
     * The promise that it returns is fulfilled when that has returned.
     */
    start(func, args, timeout) {
        return new Promise((resolve) => {
            const handle = [null];
            outstanding.set(this.#number, this);
            func.async(...args, completion, this.#number, timeout, handle, (error, code) => {
                // koffi keeps no reference to the buffers of `args`: this function does.
                args = null;
                if (error || code !== Code.ok) {
                    outstanding.delete(this.#number);
                    this.fail(error ?? notStarted(code));
                } else if (this.#completed) {
                    native.requestClose(handle[0]);
                } else {
                    this.#handle = handle[0];
                    if (this.#settled) this.#cancel();
                }
                resolve();
            });
        });
    }

    complete(error, data) {
        this.#completed = true;
        outstanding.delete(this.#number);
        if (this.#handle !== null) native.requestClose(this.#handle);
        this.#handle = null;
        if (error === null) this.#end(() => this.#settle.resolve(data));
        else this.fail(error);
    }

    fail(error) {
        this.#end(() => this.#settle.reject(error));
    }

    // The promise does not wait for the DLL: while a request is being sent, it cannot be cancelled.
    #onAbort = () => {
        this.fail(
            new OrvikError(Code.cancelled, 'the transfer was cancelled', {
                cause: this.#signal.reason,
            }),
        );
        if (this.#handle !== null) this.#cancel();
    };

    #cancel() {
        // Fails if the completion is about to be called, which is as good.
        if (this.#mayCancel()) native.requestCancel(this.#handle);
    }

    #end(settle) {
        if (this.#settled) return;
        this.#settled = true;
        this.#signal?.removeEventListener('abort', this.#onAbort);
        settle();
    }
}

module.exports = { Request, outstanding };
