// orvik.dll as koffi sees it: the declarations of orvik/orvik.h.
'use strict';

const path = require('node:path');
const koffi = require('koffi');

// By its full path: with a bare name Windows would search other folders too.
const dll = koffi.load(path.join(__dirname, '..', 'orvik.dll'));

// The types have no names, because koffi shares the names with every other user in the process.
const handle = koffi.pointer(koffi.opaque());
const status = 'int32_t';
const bytes = koffi.pointer('uint8_t');
const user = 'uintptr_t'; // a number that this binding chooses

const Event = koffi.struct({
    size: 'uint32_t',
    kind: 'int32_t',
    camera: 'uint64_t',
    status,
    systemCode: 'uint32_t',
    text: 'str',
});
const EventCallback = koffi.proto('void', [handle, koffi.pointer(Event), user]);
const Result = koffi.struct({
    size: 'uint32_t',
    status,
    systemCode: 'uint32_t',
    length: 'uint32_t',
    data: 'void *',
    text: 'str',
});
const Completion = koffi.proto('void', [koffi.pointer(Result), user]);

const Options = koffi.struct({
    size: 'uint32_t',
    timeout: 'uint32_t',
    goneWait: 'uint32_t',
    transferOutLimit: 'uint32_t',
    checkServer: 'uint32_t',
    pipe: 'str',
    canceller: handle,
    onEvent: koffi.pointer(EventCallback),
    user,
});
const Inquiry = koffi.struct({
    size: 'uint32_t',
    deviceType: 'uint8_t',
    removable: 'uint8_t',
    vendor: koffi.array('char', 9),
    product: koffi.array('char', 17),
    revision: koffi.array('char', 5),
    reserved: koffi.array('uint8_t', 3),
});
const Capacity = koffi.struct({ size: 'uint32_t', blockLength: 'uint32_t', blockCount: 'uint64_t' });
const Sense = koffi.struct({
    size: 'uint32_t',
    key: 'uint8_t',
    code: 'uint8_t',
    qualifier: 'uint8_t',
    deferred: 'uint8_t',
    text: koffi.array('char', 128),
});

const request = koffi.out(koffi.pointer(handle));
const command = [handle, 'uint64_t', bytes, 'uint32_t'];
const ending = [koffi.pointer(Completion), user, 'uint32_t', request];

const native = {
    statusText: dll.func('orvik_status_text', 'str', [status]),
    lastErrorText: dll.func('orvik_last_error_text', 'str', []),
    lastErrorSystemCode: dll.func('orvik_last_error_system_code', 'uint32_t', []),
    version: dll.func('orvik_version', 'str', []),
    optionsInit: dll.func('orvik_options_init', status, [
        koffi.out(koffi.pointer(Options)),
        'uint32_t',
    ]),
    clientOpen: dll.func('orvik_client_open', status, [
        koffi.pointer(Options),
        koffi.out(koffi.pointer(handle)),
    ]),
    clientClose: dll.func('orvik_client_close', 'void', [handle]),
    clientCameras: dll.func('orvik_client_cameras', status, [
        handle,
        koffi.pointer('uint64_t'),
        'uint32_t',
        koffi.out(koffi.pointer('uint32_t')),
    ]),
    startIn: dll.func('orvik_start_in', status, [...command, ...ending]),
    startOut: dll.func('orvik_start_out', status, [...command, bytes, 'uint32_t', ...ending]),
    startNoData: dll.func('orvik_start_no_data', status, [...command, ...ending]),
    requestCancel: dll.func('orvik_request_cancel', status, [handle]),
    requestClose: dll.func('orvik_request_close', 'void', [handle]),
    cdbInquiry: dll.func('orvik_cdb_inquiry', status, [bytes]),
    cdbTestUnitReady: dll.func('orvik_cdb_test_unit_ready', status, [bytes]),
    cdbReadCapacity: dll.func('orvik_cdb_read_capacity', status, [bytes]),
    cdbRequestSense: dll.func('orvik_cdb_request_sense', status, [bytes]),
    cdbRead6: dll.func('orvik_cdb_read6', status, ['uint32_t', 'uint32_t', bytes]),
    cdbWrite6: dll.func('orvik_cdb_write6', status, ['uint32_t', 'uint32_t', bytes]),
    decodeInquiry: dll.func('orvik_decode_inquiry', status, [bytes, 'uint32_t', bytes]),
    decodeCapacity: dll.func('orvik_decode_capacity', status, [bytes, 'uint32_t', bytes]),
    decodeSense: dll.func('orvik_decode_sense', status, [bytes, 'uint32_t', bytes]),
};

const event = { connected: 1, disconnected: 2, attached: 3, detached: 4 };

const limits = {
    cdb: 8,
    transferIn: 65536,
    transferTimeout: 30000,
    noTimeout: 0xffffffff,
};

module.exports = {
    koffi,
    native,
    event,
    limits,
    types: { Event, EventCallback, Result, Completion, Options, Inquiry, Capacity, Sense },
};
