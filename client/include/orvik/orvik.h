/*
 * The C interface of the client library of OrvikService, in orvik.dll: cameras and their SCSI
 * commands for C and for every language that can call a DLL.
 *
 *     orvik_client *client;
 *     orvik_camera camera;
 *     uint32_t count;
 *     if (orvik_client_connect(NULL, &client) != ORVIK_OK)
 *         return Fail(orvik_last_error_text());
 *     if (orvik_client_cameras(client, &camera, 1, &count) == ORVIK_OK && count == 1)
 *         ...
 *     orvik_client_close(client);
 *
 * docs/c-api.md is an introduction.
 *
 * Status: most functions return an orvik_status, ORVIK_OK for success. Numbers are never given
 * another meaning; later versions may add some.
 *
 * Pointers: NULL is accepted only where the description says so, and gives
 * ORVIK_ERROR_INVALID_ARGUMENT elsewhere. After an error, a handle that a function should have made
 * is NULL, and other results are not written unless the description says so. All texts are UTF-8
 * and end with a zero byte. Lengths are in bytes.
 *
 * Structures begin with their size, which the caller sets, so that later versions can add members
 * at the end. A size smaller than that of the first version gives ORVIK_ERROR_INVALID_ARGUMENT. Of
 * a greater one, the library uses the part that it knows. In the structures that callbacks receive,
 * the library sets the size: an older DLL sets a smaller one, and members beyond it do not exist.
 *
 * Threads: any thread may make any call at any time, except the functions ..._close(), which need
 * exclusive access to what they close.
 *
 * Callbacks: each client has one thread that calls its event callback and its completions, one
 * after the other. They may make every call, also synchronous ones, and may close every object,
 * also the client. They must return normally: no C++ exception, no longjmp(). A callback that takes
 * long delays the ones after it.
 *
 * Unloading: the DLL may be unloaded when all clients have been closed. If a callback has closed
 * its client, the DLL stays in memory until that callback has returned.
 */
#ifndef ORVIK_ORVIK_H
#define ORVIK_ORVIK_H

#include <stdint.h>

/* The version of this header. */
#define ORVIK_API_VERSION "4.0.4"
#define ORVIK_API_VERSION_MAJOR 4
#define ORVIK_API_VERSION_MINOR 0
#define ORVIK_API_VERSION_PATCH 4

/* The calling convention of functions and callbacks. It matters in 32-bit programs only. */
#define ORVIK_CALL __cdecl

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Status and errors ---- */

typedef int32_t orvik_status;

enum {
    ORVIK_OK = 0,
    ORVIK_ERROR_NOT_INSTALLED = 1,   /* the service OrvikService is not installed */
    ORVIK_ERROR_STOPPED = 2,         /* the service is not running, or is stopping */
    ORVIK_ERROR_STARTING = 3,        /* the service was still starting at the deadline */
    ORVIK_ERROR_BUSY = 4,            /* the service runs, but accepted no connection in time */
    ORVIK_ERROR_ACCESS_DENIED = 5,   /* this user may not open the camera pipe, or query the
                                        service's state */
    ORVIK_ERROR_WRONG_SERVER = 6,    /* a process that is not the service serves the camera pipe */
    ORVIK_ERROR_SERVICE_GONE = 7,    /* the service has ended, or an earlier error has closed the
                                        connection */
    ORVIK_ERROR_TIMED_OUT = 8,       /* the deadline passed */
    ORVIK_ERROR_CANCELLED = 9,       /* the request or the attempt to connect was cancelled, or the
                                        client was closed */
    ORVIK_ERROR_NO_SUCH_CAMERA = 10, /* the service has not announced this camera, or has
                                        reported it gone, or it is of an earlier connection */
    ORVIK_ERROR_REFUSED = 11,        /* the camera or its driver refused the command */
    ORVIK_ERROR_BAD_ANSWER = 12,     /* the service or the camera sent invalid data */
    ORVIK_ERROR_INVALID_ARGUMENT = 13, /* an argument is NULL or outside its range; nothing was
                                          sent */
    ORVIK_ERROR_SYSTEM = 14,           /* another system call failed */
    ORVIK_ERROR_CAMERA_GONE = 15,      /* the camera was unplugged, or given up by the service,
                                          during the command */
    ORVIK_ERROR_OUT_OF_MEMORY = 16,
    ORVIK_ERROR_BUFFER_TOO_SMALL = 17, /* the result is longer than the caller's buffer */
    ORVIK_ERROR_NOT_OUTSTANDING = 18   /* the request has ended, or is about to */
};

/* The status in words, such as "timed out"; "unknown" for another number. The text is constant. */
const char* ORVIK_CALL orvik_status_text(orvik_status status);

/*
 * About the last call that failed on this thread: the description of the error; "" if there is
 * none. The text stays valid until the next call of this library on the same thread. Long texts are
 * cut at 1023 bytes. Callbacks receive the description of their error in a structure instead.
 */
const char* ORVIK_CALL orvik_last_error_text(void);

/* The Windows error code that caused it; 0 if there is none. */
uint32_t ORVIK_CALL orvik_last_error_system_code(void);

/* The version of the DLL, such as "4.0.4". */
const char* ORVIK_CALL orvik_version(void);

/* ---- Clients ---- */

/*
 * A connection to the service, of one of two kinds:
 *
 * Plain (orvik_client_connect): one connection, for tools. It ends with the service. Of cameras
 * that come and go it hears only if it is the main communicator, the first program that connected.
 *
 * Persistent (orvik_client_open): for applications. It connects when the service can be reached,
 * and again when a connection has ended, and hears of every camera.
 *
 * A program that ends without orvik_client_close() may end the service's run.
 */
typedef struct orvik_client orvik_client;

/*
 * One camera, from the time when it is attached until it is detached; never 0. A value means one
 * camera of one client. A persistent client gives no value a second meaning, also when the service
 * has been restarted. The lower 32 bits are the service's identifier.
 */
typedef uint64_t orvik_camera;

enum {
    ORVIK_EVENT_CONNECTED = 1,    /* persistent clients only */
    ORVIK_EVENT_DISCONNECTED = 2, /* persistent clients: or, while disconnected, connecting fails
                                     for another kind of reason. Plain: the last event. */
    ORVIK_EVENT_ATTACHED = 3,
    ORVIK_EVENT_DETACHED = 4
};

typedef struct orvik_event {
    uint32_t size;
    int32_t kind;         /* ORVIK_EVENT_...; ignore numbers that you do not know */
    orvik_camera camera;  /* ATTACHED and DETACHED; else 0 */
    orvik_status status;  /* DISCONNECTED: why; else ORVIK_OK */
    uint32_t system_code; /* DISCONNECTED: the Windows error code, or 0 */
    const char* text;     /* DISCONNECTED: the description; else "" */
} orvik_event;

/*
 * `event` is valid during the call. `user` is the value from orvik_options. The first call may
 * begin just before the function that makes the client returns; `*client` has been written then.
 *
 * A plain client reports ATTACHED for each camera present, then each change. A persistent client
 * reports CONNECTED or DISCONNECTED for each change of the connection, and ATTACHED and DETACHED
 * for each camera in turn, never one of them twice. When its connection ends, all cameras are
 * detached first.
 */
typedef void(ORVIK_CALL* orvik_event_callback)(orvik_client* client, const orvik_event* event,
                                               void* user);

/* Cancels attempts to connect. */
typedef struct orvik_canceller orvik_canceller;

orvik_status ORVIK_CALL orvik_canceller_create(orvik_canceller** canceller);

/* Ends the attempts in progress that were given `canceller`, and each later one. */
orvik_status ORVIK_CALL orvik_canceller_cancel(orvik_canceller* canceller);

/* Attempts in progress continue. NULL is accepted. */
void ORVIK_CALL orvik_canceller_close(orvik_canceller* canceller);

#define ORVIK_CONNECT_TIMEOUT 5000u
#define ORVIK_TRANSFER_TIMEOUT 30000u   /* a useful time-out of transfers */
#define ORVIK_NO_TIMEOUT 0xFFFFFFFFu    /* waits any time */
#define ORVIK_CDB_LIMIT 8u              /* the service passes on no longer CDB */
#define ORVIK_TRANSFER_IN_LIMIT 65536u  /* no transfer returns more */
#define ORVIK_TRANSFER_OUT_LIMIT 65536u /* default of orvik_options.transfer_out_limit */

/* How to connect. orvik_options_init() sets the defaults. */
typedef struct orvik_options {
    uint32_t size;       /* sizeof(orvik_options) */
    uint32_t timeout_ms; /* of each attempt to connect; ORVIK_CONNECT_TIMEOUT */
    /* How long a refusal waits for the report that the camera has gone, which turns
       ORVIK_ERROR_REFUSED into ORVIK_ERROR_CAMERA_GONE; 100. */
    uint32_t gone_wait_ms;
    /* Maximum length of the data of orvik_transfer_out(), at most 0x7FFFFFFF;
       ORVIK_TRANSFER_OUT_LIMIT. Set more only for a camera that is known to accept it: otherwise
       the service gives up the camera until it is plugged in again. */
    uint32_t transfer_out_limit;
    /* Not 0: checks, before anything is sent, that the pipe's server is the process that runs as
       OrvikService; 1. Set 0 for a service that runs in a console. */
    uint32_t check_server;
    const char* pipe;              /* the name of the pipe, for tests; NULL: the service's own */
    orvik_canceller* canceller;    /* NULL. Without effect on a persistent client. */
    orvik_event_callback on_event; /* NULL: events are not reported */
    void* user;                    /* NULL. Passed to `on_event`. */
} orvik_options;

/* Sets all members of `options`, which has `size` bytes: sizeof(orvik_options). */
orvik_status ORVIK_CALL orvik_options_init(orvik_options* options, uint32_t size);

/*
 * Makes a plain client. Returns when the cameras present are known. `options` may be NULL.
 * Errors: all up to ORVIK_ERROR_CANCELLED except ORVIK_ERROR_SERVICE_GONE.
 */
orvik_status ORVIK_CALL orvik_client_connect(const orvik_options* options, orvik_client** client);

/* Makes a persistent client. Begins to connect, and returns at once. `options` may be NULL. */
orvik_status ORVIK_CALL orvik_client_open(const orvik_options* options, orvik_client** client);

/*
 * Disconnects at a moment that is safe for the service. That usually takes as long as one round
 * trip to the service, and at most two seconds if the service is busy with a command. NULL is
 * accepted.
 *
 * Waits first for the callback in progress, unless that callback is the caller. So a thread must
 * not hold, while it closes a client, what a callback waits for. Then ends each outstanding
 * request: its completion is called by this function, with ORVIK_ERROR_CANCELLED. When this
 * function has returned, no callback of this client begins.
 *
 * Thread: no other call with this client, or with a request of it, may be in progress, except in
 * the client's own callback.
 */
void ORVIK_CALL orvik_client_close(orvik_client* client);

/*
 * Writes the cameras present, in the order in which they were attached, and their number. If there
 * are more than `capacity`: ORVIK_ERROR_BUFFER_TOO_SMALL; `*count` is their number all the same,
 * and `cameras` has the first ones. `cameras` may be NULL if `capacity` is 0.
 */
orvik_status ORVIK_CALL orvik_client_cameras(orvik_client* client, orvik_camera* cameras,
                                             uint32_t capacity, uint32_t* count);

/*
 * Makes a round trip to the service that touches no camera. Plain clients only;
 * ORVIK_ERROR_INVALID_ARGUMENT for a persistent one.
 */
orvik_status ORVIK_CALL orvik_client_round_trip(orvik_client* client, uint32_t timeout_ms);

/* ---- Transfers ---- */

/*
 * `cdb`, the command descriptor block, has 1 to ORVIK_CDB_LIMIT bytes. `timeout_ms` may be
 * ORVIK_NO_TIMEOUT. After ORVIK_ERROR_TIMED_OUT the answer is discarded when it arrives; the camera
 * still executes the command.
 */

/*
 * Sends a command that returns data, and waits for the data. `*length` is the number of bytes that
 * the camera returned: often fewer than the command asked for. If that is more than `capacity`:
 * ORVIK_ERROR_BUFFER_TOO_SMALL; `*length` is written all the same, and `data` has the first bytes.
 * `data` may be NULL if `capacity` is 0.
 */
orvik_status ORVIK_CALL orvik_transfer_in(orvik_client* client, orvik_camera camera,
                                          const uint8_t* cdb, uint32_t cdb_length, void* data,
                                          uint32_t capacity, uint32_t* length, uint32_t timeout_ms);

/*
 * Sends a command with data for the camera, and waits until the camera has executed it. `data` may
 * be NULL if `length` is 0.
 */
orvik_status ORVIK_CALL orvik_transfer_out(orvik_client* client, orvik_camera camera,
                                           const uint8_t* cdb, uint32_t cdb_length,
                                           const void* data, uint32_t length, uint32_t timeout_ms);

/* Sends a command without data, and waits until the camera has executed it. */
orvik_status ORVIK_CALL orvik_transfer_no_data(orvik_client* client, orvik_camera camera,
                                               const uint8_t* cdb, uint32_t cdb_length,
                                               uint32_t timeout_ms);

/* An asynchronous request. */
typedef struct orvik_request orvik_request;

/* How an asynchronous request ended. */
typedef struct orvik_result {
    uint32_t size;
    orvik_status status;  /* ORVIK_OK, or why the request failed */
    uint32_t system_code; /* failed: the Windows error code, or 0 */
    uint32_t length;      /* of `data` */
    const void* data;     /* what the camera returned to orvik_start_in(); NULL if nothing */
    const char* text;     /* failed: the description; else "" */
} orvik_result;

/*
 * Called exactly once for each request that was started, on the client's thread or by
 * orvik_client_close(). `result`, its data and its text are valid during the call.
 */
typedef void(ORVIK_CALL* orvik_completion)(const orvik_result* result, void* user);

/*
 * These return when the request has been sent, at most 30 s later. `cdb` and `data` are copied.
 * When the camera has not answered within `timeout_ms`, the request ends with
 * ORVIK_ERROR_TIMED_OUT. Any number of requests can be outstanding, and they end in any order.
 *
 * `request` may be NULL. Otherwise `*request` is a handle for orvik_request_cancel(), to be closed
 * with orvik_request_close(). It is written before the completion can be called, which may be
 * before these functions return. If they fail, the completion is not called and `*request` is NULL.
 */
orvik_status ORVIK_CALL orvik_start_in(orvik_client* client, orvik_camera camera,
                                       const uint8_t* cdb, uint32_t cdb_length,
                                       orvik_completion completion, void* user, uint32_t timeout_ms,
                                       orvik_request** request);
orvik_status ORVIK_CALL orvik_start_out(orvik_client* client, orvik_camera camera,
                                        const uint8_t* cdb, uint32_t cdb_length, const void* data,
                                        uint32_t length, orvik_completion completion, void* user,
                                        uint32_t timeout_ms, orvik_request** request);
orvik_status ORVIK_CALL orvik_start_no_data(orvik_client* client, orvik_camera camera,
                                            const uint8_t* cdb, uint32_t cdb_length,
                                            orvik_completion completion, void* user,
                                            uint32_t timeout_ms, orvik_request** request);

/*
 * Ends a request: its completion is called with ORVIK_ERROR_CANCELLED on the client's thread. The
 * camera still executes the command. Returns at once. ORVIK_ERROR_NOT_OUTSTANDING if the completion
 * has been called or is about to be, if the request is still being sent, or if the client has been
 * closed.
 */
orvik_status ORVIK_CALL orvik_request_cancel(orvik_request* request);

/*
 * Frees the handle. Has no effect on the request. The handle may be closed at any time, also in the
 * completion and after the client. NULL is accepted.
 */
void ORVIK_CALL orvik_request_close(orvik_request* request);

/* ---- SCSI commands (SPC, SBC) ---- */

/* CDBs, to be passed to the functions above with the length of the array here. */

orvik_status ORVIK_CALL orvik_cdb_inquiry(uint8_t cdb[6]); /* orvik_decode_inquiry() */
orvik_status ORVIK_CALL orvik_cdb_test_unit_ready(uint8_t cdb[6]);
orvik_status ORVIK_CALL orvik_cdb_read_capacity(uint8_t cdb[8]); /* orvik_decode_capacity() */
orvik_status ORVIK_CALL orvik_cdb_request_sense(uint8_t cdb[6]); /* orvik_decode_sense() */

/*
 * READ(6) and WRITE(6) of `count` blocks, 1 to 255, beginning with block `first`. `first` + `count`
 * is at most 2097152. A read returns at most ORVIK_TRANSFER_IN_LIMIT bytes: 128 blocks of 512.
 */
orvik_status ORVIK_CALL orvik_cdb_read6(uint32_t first, uint32_t count, uint8_t cdb[6]);
orvik_status ORVIK_CALL orvik_cdb_write6(uint32_t first, uint32_t count, uint8_t cdb[6]);

/* Standard INQUIRY data. The texts have no trailing spaces, and '?' for unprintable bytes. */
typedef struct orvik_inquiry {
    uint32_t size;       /* sizeof(orvik_inquiry), set by the caller */
    uint8_t device_type; /* peripheral device type: 0 is a disk, 5 a CD-ROM drive */
    uint8_t removable;   /* 0 or 1 */
    char vendor[9];
    char product[17];
    char revision[5];
    uint8_t reserved[3]; /* 0 */
} orvik_inquiry;

/* ORVIK_ERROR_BAD_ANSWER if `data` has fewer than 36 bytes. */
orvik_status ORVIK_CALL orvik_decode_inquiry(const void* data, uint32_t length,
                                             orvik_inquiry* inquiry);

typedef struct orvik_capacity {
    uint32_t size;         /* sizeof(orvik_capacity), set by the caller */
    uint32_t block_length; /* in bytes, never 0 */
    uint64_t block_count;
} orvik_capacity;

/* ORVIK_ERROR_BAD_ANSWER if `data` has fewer than 8 bytes, or the block length is 0. */
orvik_status ORVIK_CALL orvik_decode_capacity(const void* data, uint32_t length,
                                              orvik_capacity* capacity);

/* Sense data: why a camera refused a command. */
typedef struct orvik_sense {
    uint32_t size;     /* sizeof(orvik_sense), set by the caller */
    uint8_t key;       /* sense key, 0 to 15 */
    uint8_t code;      /* additional sense code */
    uint8_t qualifier; /* additional sense code qualifier */
    uint8_t deferred;  /* 1: about a command before the last one */
    char text[128];    /* in the words of SPC, such as "NOT READY: MEDIUM NOT PRESENT" */
} orvik_sense;

/* ORVIK_ERROR_BAD_ANSWER if `data` has fewer than 8 bytes, or another format. */
orvik_status ORVIK_CALL orvik_decode_sense(const void* data, uint32_t length, orvik_sense* sense);

/*
 * Asks the camera for the sense data: call it right after ORVIK_ERROR_REFUSED. Windows decides
 * whether there is any: its driver may have asked for the sense data itself, and then the camera
 * says NO SENSE.
 */
orvik_status ORVIK_CALL orvik_get_sense(orvik_client* client, orvik_camera camera,
                                        orvik_sense* sense, uint32_t timeout_ms);

#ifdef __cplusplus
}
#endif

#endif
