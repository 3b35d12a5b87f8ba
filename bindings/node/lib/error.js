'use strict';

const { native } = require('./native');

// The names of the numbers 1 to 18 of orvik_status, in order.
const kinds = [
    'notInstalled',
    'stopped',
    'starting',
    'busy',
    'accessDenied',
    'wrongServer',
    'serviceGone',
    'timedOut',
    'cancelled',
    'noSuchCamera',
    'refused',
    'badAnswer',
    'invalidArgument',
    'system',
    'cameraGone',
    'outOfMemory',
    'bufferTooSmall',
    'notOutstanding',
];

const Code = Object.freeze({ ok: 0, ...Object.fromEntries(kinds.map((kind, i) => [kind, i + 1])) });

class OrvikError extends Error {
    constructor(code, message, { systemCode = 0, cause } = {}) {
        super(message, cause === undefined ? undefined : { cause });
        this.name = 'OrvikError';
        this.code = code;
        this.kind = kinds[code - 1] ?? 'unknown';
        this.systemCode = systemCode;
    }
}

/** After a call that has failed on this thread, which keeps the description. */
function lastError(code) {
    return new OrvikError(code, native.lastErrorText(), {
        systemCode: native.lastErrorSystemCode(),
    });
}

/** Throws unless a call on this thread has succeeded. */
function check(code) {
    if (code !== Code.ok) throw lastError(code);
}

module.exports = { Code, OrvikError, check };
