// Cameras of OrvikService and their SCSI commands, on orvik.dll. docs/bindings.md is an introduction.
//
// Everything is called on the thread that has loaded this module. Nothing here waits: the DLL's own
// threads and libuv's do.

import { EventEmitter } from 'node:events';

/** Why a call failed, as in orvik/orvik.h. */
export type ErrorKind =
    | 'notInstalled'
    | 'stopped'
    | 'starting'
    | 'busy'
    | 'accessDenied'
    | 'wrongServer'
    | 'serviceGone'
    | 'timedOut'
    | 'cancelled'
    | 'noSuchCamera'
    | 'refused'
    | 'badAnswer'
    | 'invalidArgument'
    | 'system'
    | 'cameraGone'
    | 'outOfMemory'
    | 'bufferTooSmall'
    | 'notOutstanding'
    | 'unknown';

/** Every failure except an argument of the wrong type (TypeError) or range (RangeError). */
export class OrvikError extends Error {
    private constructor();
    readonly kind: ErrorKind;
    /** The number of orvik_status. */
    readonly code: number;
    /** The Windows error code that caused it; 0 if there is none. */
    readonly systemCode: number;
    /** `signal.reason` if an AbortSignal has ended the transfer. */
    readonly cause?: unknown;
}

/**
 * One camera, from the time when it is attached until it is detached. A value of an earlier run of the
 * service never means another camera. Compare with ===.
 */
export type Camera = bigint;

export interface ClientOptions {
    /** Of each attempt to connect, in milliseconds; 5000. Infinity waits any time. */
    timeout?: number;
    /** How long a refusal waits for the report that the camera has gone, in milliseconds; 100. */
    goneWait?: number;
    /** Maximum length of the data of transferOut(); 65536. Read orvik/orvik.h before you raise it. */
    transferOutLimit?: number;
    /** Checks that the pipe's server is the service; true. false for a service in a console. */
    checkServer?: boolean;
    /** The name of the pipe, for tests. */
    pipe?: string;
}

export interface TransferOptions {
    /** In milliseconds; 30000. Infinity waits any time. */
    timeout?: number;
    /**
     * Ends the transfer with the kind 'cancelled'. The camera still executes a command that has been
     * sent.
     */
    signal?: AbortSignal;
}

export interface ClientEvents {
    connected: [];
    /** Or, while disconnected, connecting fails for another kind of reason. */
    disconnected: [error: OrvikError];
    attached: [camera: Camera];
    detached: [camera: Camera];
}

/**
 * A client that connects when the service can be reached, and again when a connection has ended. Make
 * one at the start of the program.
 *
 * Events: 'attached' and 'detached' come in turn for each camera. When the connection ends, all cameras
 * are detached first. The first event comes after the code that made the client has returned.
 *
 * An open client keeps the process running. Call close(), also before process.exit(): a program that
 * ends without it may end the service's run.
 */
export class PersistentClient extends EventEmitter {
    /** Begins to connect, and returns at once. */
    constructor(options?: ClientOptions);

    /** The cameras present, in the order in which they were attached. */
    cameras(): Camera[];

    /**
     * Sends a command (CDB) of 1 to CDB_LIMIT bytes that returns data. The result often has fewer bytes
     * than the command asked for. Requests are sent in the order of the calls, and end in any order.
     */
    transferIn(camera: Camera, cdb: Uint8Array, options?: TransferOptions): Promise<Buffer>;
    /** Sends a command with data for the camera. `cdb` and `data` are copied. */
    transferOut(
        camera: Camera,
        cdb: Uint8Array,
        data: Uint8Array,
        options?: TransferOptions,
    ): Promise<void>;
    /** Sends a command without data. */
    transferNoData(camera: Camera, cdb: Uint8Array, options?: TransferOptions): Promise<void>;

    /**
     * Asks why the camera refused a command: call it right after the kind 'refused'. Windows decides
     * whether the camera still has the sense data; otherwise it says NO SENSE.
     */
    requestSense(camera: Camera, options?: TransferOptions): Promise<Sense>;

    /**
     * Disconnects at a moment that is safe for the service, usually within one round trip and at most
     * two seconds after requests that are still being sent. Outstanding transfers end with the kind
     * 'cancelled'. No event comes after the call. Further calls return the same promise.
     */
    close(): Promise<void>;

    on<K extends keyof ClientEvents>(name: K, listener: (...args: ClientEvents[K]) => void): this;
    once<K extends keyof ClientEvents>(name: K, listener: (...args: ClientEvents[K]) => void): this;
    off<K extends keyof ClientEvents>(name: K, listener: (...args: ClientEvents[K]) => void): this;
}

export interface Inquiry {
    /** Peripheral device type: 0 is a disk, 5 a CD-ROM drive. */
    deviceType: number;
    removable: boolean;
    vendor: string;
    product: string;
    revision: string;
}
export interface Capacity {
    /** In bytes, never 0. */
    blockLength: number;
    blockCount: number;
}
export interface Sense {
    key: number;
    code: number;
    qualifier: number;
    /** About a command before the last one. */
    deferred: boolean;
    /** In the words of SPC, such as "NOT READY: MEDIUM NOT PRESENT". */
    text: string;
}

// Commands (SPC, SBC) for the functions above.
export function inquiryCdb(): Buffer;
export function testUnitReadyCdb(): Buffer;
export function readCapacityCdb(): Buffer;
export function requestSenseCdb(): Buffer;
/** `count` blocks, 1 to 255, beginning with block `first`; `first` + `count` is at most 2097152. */
export function read6Cdb(first: number, count: number): Buffer;
export function write6Cdb(first: number, count: number): Buffer;

// These throw OrvikError with the kind 'badAnswer' for data that is too short or invalid.
export function decodeInquiry(data: Uint8Array): Inquiry;
export function decodeCapacity(data: Uint8Array): Capacity;
export function decodeSense(data: Uint8Array): Sense;

/** Bytes of a CDB that the service passes on. */
export const CDB_LIMIT: 8;
/** No transfer returns more bytes. */
export const TRANSFER_IN_LIMIT: 65536;
/** The default time-out of transfers, in milliseconds. */
export const TRANSFER_TIMEOUT: 30000;
/** The version of orvik.dll, such as "4.0.4". */
export const version: string;
