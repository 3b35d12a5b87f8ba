// Preloaded by the tests (node -r). It changes something under Wine only.
//
// koffi calls native functions on a stack of its own. Wine keeps a list of its exception handlers
// for each thread, and takes those whose address is below the stack pointer for inner ones. If
// koffi's stack is above the thread's own, Wine calls its outermost handler before it looks for one
// in orvik.dll, and an exception that orvik.dll would catch ends the process. Windows has no such
// list on x64. So this empties the list of the main thread and of the one thread that libuv then
// has: UV_THREADPOOL_SIZE must be 1.
'use strict';

const koffi = require('koffi');

const ntdll = koffi.load('ntdll.dll');

function isWine() {
    try {
        return Boolean(ntdll.func('wine_get_version', 'str', []));
    } catch {
        return false;
    }
}

const queryThread = ntdll.func('NtQueryInformationThread', 'int32_t', [
    'intptr_t',
    'int32_t',
    koffi.pointer('uint8_t'),
    'uint32_t',
    'void *',
]);
const query = (information) => [-2, 0, information, information.length, null]; // the current thread

function emptyHandlerList(information) {
    const threadBlock = information.readBigUInt64LE(8);
    koffi.encode(threadBlock, 'int64_t', -1); // its first member is the list; -1 is the end
}

if (isWine()) {
    const ofMain = Buffer.alloc(48);
    queryThread(...query(ofMain));
    emptyHandlerList(ofMain);
    const ofPool = Buffer.alloc(48);
    queryThread.async(...query(ofPool), () => {});
    // The thread must not begin with other work before, so the event loop waits.
    for (const end = Date.now() + 10000; ofPool.readBigUInt64LE(8) === 0n; )
        if (Date.now() > end) throw new Error('the thread of libuv does not answer');
    emptyHandlerList(ofPool);
}
