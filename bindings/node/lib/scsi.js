'use strict';

const { check } = require('./error');
const { koffi, native, types } = require('./native');

function cdb(length, write) {
    const bytes = Buffer.alloc(length);
    check(write(bytes));
    return bytes;
}

function blocks(write, first, count) {
    for (const [name, value] of Object.entries({ first, count })) {
        if (!Number.isInteger(value)) throw new TypeError(`${name} must be an integer`);
        // koffi would drop the bits above the lower 32.
        if (value < 0 || value > 0xffffffff)
            throw new RangeError(`${name} must be a number from 0 to 4294967295`);
    }
    return cdb(6, (bytes) => write(first, count, bytes));
}

function decode(type, read, data) {
    if (!(data instanceof Uint8Array)) throw new TypeError('data must be a Buffer or Uint8Array');
    const structure = Buffer.alloc(koffi.sizeof(type));
    structure.writeUInt32LE(structure.length);
    // An empty array has no address.
    check(read(data.length === 0 ? Buffer.alloc(1) : data, data.length, structure));
    return koffi.decode(structure, type);
}

module.exports = {
    inquiryCdb: () => cdb(6, native.cdbInquiry),
    testUnitReadyCdb: () => cdb(6, native.cdbTestUnitReady),
    readCapacityCdb: () => cdb(8, native.cdbReadCapacity),
    requestSenseCdb: () => cdb(6, native.cdbRequestSense),
    read6Cdb: (first, count) => blocks(native.cdbRead6, first, count),
    write6Cdb: (first, count) => blocks(native.cdbWrite6, first, count),

    decodeInquiry(data) {
        const { deviceType, removable, vendor, product, revision } = decode(
            types.Inquiry,
            native.decodeInquiry,
            data,
        );
        return { deviceType, removable: removable !== 0, vendor, product, revision };
    },
    decodeCapacity(data) {
        const { blockLength, blockCount } = decode(types.Capacity, native.decodeCapacity, data);
        return { blockLength, blockCount };
    },
    decodeSense(data) {
        const { key, code, qualifier, deferred, text } = decode(
            types.Sense,
            native.decodeSense,
            data,
        );
        return { key, code, qualifier, deferred: deferred !== 0, text };
    },
};
