// A fake service: a camera pipe whose answers the test decides. docs/protocol.md has the messages.
'use strict';

const net = require('node:net');

const type = {
    transferOut: 2,
    transferIn: 3,
    transferNoData: 4,
    succeeded: 2,
    failed: 3,
    attached: 4,
    detached: 5,
};
const notification = 0xffffffff;
let newest = 0;

/** The service's end of one connection. `answer(request, peer)` is called for each transfer. */
class Peer {
    #socket;
    #bytes = Buffer.alloc(0);
    #answer;

    constructor(socket, cameras, answer) {
        this.#socket = socket;
        this.#answer = answer;
        socket.on('error', () => {}); // the client may disconnect at any time
        socket.on('data', (bytes) => this.#receive(bytes));
        for (const camera of cameras) this.notify(type.attached, camera);
    }

    succeed(request, data = Buffer.alloc(0)) {
        this.#send(type.succeeded, request.id, request.camera, data);
    }
    refuse(request) {
        this.#send(type.failed, request.id, request.camera);
    }
    notify(messageType, camera) {
        this.#send(messageType, notification, camera);
    }
    close() {
        this.#socket.destroy();
    }

    #send(messageType, id, camera, body = Buffer.alloc(0)) {
        const header = Buffer.alloc(16);
        [messageType, id, camera, body.length].forEach((n, i) => header.writeUInt32LE(n, 4 * i));
        this.#socket.write(Buffer.concat([header, body]));
    }

    #receive(bytes) {
        this.#bytes = Buffer.concat([this.#bytes, bytes]);
        while (this.#bytes.length >= 16) {
            const [messageType, id, camera, length] = [0, 4, 8, 12].map((at) =>
                this.#bytes.readUInt32LE(at),
            );
            if (this.#bytes.length < 16 + length) return;
            const body = this.#bytes.subarray(16, 16 + length);
            this.#bytes = this.#bytes.subarray(16 + length);
            const [cdb, data] = [body.subarray(0, 8), body.subarray(16)];
            const request = { messageType, id, camera, cdb, data };
            if (length < 16) this.refuse(request); // a round trip
            else this.#answer(request, this);
        }
    }
}

/**
 * Serves a pipe with a new name. `options` are for a client of it. The cameras are announced to each
 * client that connects.
 */
class FakeService {
    peers = [];

    constructor(cameras, answer = (request, peer) => peer.succeed(request)) {
        this.cameras = cameras;
        this.options = {
            pipe: `\\\\.\\pipe\\orvik-node-test-${process.pid}-${++newest}`,
            checkServer: false,
        };
        this.server = net.createServer((socket) =>
            this.peers.push(new Peer(socket, this.cameras, answer)),
        );
    }

    start() {
        return new Promise((resolve) => this.server.listen(this.options.pipe, resolve));
    }

    /** As when the service's process ends. */
    stop() {
        const closed = new Promise((resolve) => this.server.close(resolve));
        for (const peer of this.peers) peer.close();
        this.peers = [];
        return closed;
    }
}

module.exports = { FakeService, type };
