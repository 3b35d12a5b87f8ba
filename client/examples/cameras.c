/*
 * The C interface: cameras list | watch | read FILE
 *
 * list    prints the cameras with their vendors and products.
 * watch   prints which cameras are attached and detached, until Ctrl-C.
 * read    waits for a camera and reads its whole memory into a file, with several transfers
 *         outstanding, and prints the progress. Ctrl-C ends it cleanly.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <windows.h>

#include <orvik/orvik.h>

#define OUTSTANDING 4

static HANDLE stop; /* an event: Ctrl-C was pressed */

static BOOL WINAPI OnCtrlC(DWORD type) {
    return type == CTRL_C_EVENT && SetEvent(stop);
}

static int Fail(const char* what) {
    fprintf(stderr, "error: %s: %s\n", what, orvik_last_error_text());
    return 1;
}

/* ---- list ---- */

static int List(void) {
    orvik_client* client;
    orvik_camera cameras[16];
    uint32_t count = 0, i;
    if (orvik_client_connect(NULL, &client) != ORVIK_OK)
        return Fail("cannot connect");
    if (orvik_client_cameras(client, cameras, 16, &count) != ORVIK_OK)
        Fail("cameras");
    for (i = 0; i < count && i < 16; ++i) {
        uint8_t cdb[6], data[36];
        uint32_t length;
        orvik_inquiry inquiry;
        inquiry.size = sizeof(inquiry);
        orvik_cdb_inquiry(cdb);
        if (orvik_transfer_in(client, cameras[i], cdb, sizeof(cdb), data, sizeof(data), &length,
                              ORVIK_TRANSFER_TIMEOUT) != ORVIK_OK ||
            orvik_decode_inquiry(data, length, &inquiry) != ORVIK_OK)
            Fail("INQUIRY");
        else
            printf("%u: %s %s\n", (unsigned)cameras[i], inquiry.vendor, inquiry.product);
    }
    orvik_client_close(client);
    return 0;
}

/* ---- watch ---- */

static void ORVIK_CALL PrintEvent(orvik_client* client, const orvik_event* event, void* user) {
    (void)client;
    (void)user;
    switch (event->kind) {
        case ORVIK_EVENT_CONNECTED:
            puts("connected");
            break;
        case ORVIK_EVENT_DISCONNECTED:
            printf("disconnected: %s\n", orvik_status_text(event->status));
            break;
        case ORVIK_EVENT_ATTACHED:
            printf("camera %u is attached\n", (unsigned)event->camera);
            break;
        case ORVIK_EVENT_DETACHED:
            printf("camera %u is detached\n", (unsigned)event->camera);
            break;
        default: /* of a later version */
            break;
    }
    fflush(stdout);
}

static int Watch(void) {
    orvik_options options;
    orvik_client* client;
    orvik_options_init(&options, sizeof(options));
    options.on_event = PrintEvent;
    if (orvik_client_open(&options, &client) != ORVIK_OK)
        return Fail("cannot start");
    WaitForSingleObject(stop, INFINITE);
    orvik_client_close(client);
    return 0;
}

/* ---- read ---- */

/* One of the transfers that are outstanding. */
typedef struct Piece {
    HANDLE done; /* an event */
    orvik_status status;
    char text[256];
    uint32_t expected, length;
    uint8_t* data;
} Piece;

typedef struct Arrival {
    HANDLE attached; /* an event */
    orvik_camera camera;
} Arrival;

static void ORVIK_CALL TakeFirstCamera(orvik_client* client, const orvik_event* event, void* user) {
    Arrival* arrival = user;
    (void)client;
    if (event->kind == ORVIK_EVENT_ATTACHED && arrival->camera == 0) {
        arrival->camera = event->camera;
        SetEvent(arrival->attached);
    }
}

static void ORVIK_CALL OnRead(const orvik_result* result, void* user) {
    Piece* piece = user;
    piece->status = result->status;
    piece->length = result->length;
    snprintf(piece->text, sizeof(piece->text), "%s", result->text);
    if (result->length != 0 && result->length <= piece->expected)
        memcpy(piece->data, result->data, result->length);
    SetEvent(piece->done);
}

static int GetCapacity(orvik_client* client, orvik_camera camera, orvik_capacity* capacity) {
    uint8_t cdb[8], data[8];
    uint32_t length;
    capacity->size = sizeof(*capacity);
    orvik_cdb_read_capacity(cdb);
    return orvik_transfer_in(client, camera, cdb, sizeof(cdb), data, sizeof(data), &length,
                             ORVIK_TRANSFER_TIMEOUT) == ORVIK_OK &&
           orvik_decode_capacity(data, length, capacity) == ORVIK_OK;
}

/* Starts the read of the next blocks. */
static int StartPiece(orvik_client* client, orvik_camera camera, const orvik_capacity* capacity,
                      uint32_t* next, Piece* piece) {
    uint8_t cdb[6];
    uint32_t count = ORVIK_TRANSFER_IN_LIMIT / capacity->block_length;
    if (count > 255)
        count = 255;
    if (count > capacity->block_count - *next)
        count = (uint32_t)(capacity->block_count - *next);
    piece->expected = count * capacity->block_length;
    if (orvik_cdb_read6(*next, count, cdb) != ORVIK_OK ||
        orvik_start_in(client, camera, cdb, sizeof(cdb), OnRead, piece, ORVIK_TRANSFER_TIMEOUT,
                       NULL) != ORVIK_OK)
        return 0;
    *next += count;
    return 1;
}

static int ReadBlocks(orvik_client* client, orvik_camera camera, const orvik_capacity* capacity,
                      Piece* pieces, FILE* file) {
    const uint64_t total = capacity->block_count * capacity->block_length;
    uint64_t written = 0;
    uint32_t next = 0, first = 0, last = 0; /* the pieces from `first` to `last` are outstanding */
    int percent = -1;
    while (written < total) {
        Piece* piece;
        HANDLE events[2];
        while (last - first < OUTSTANDING && next < capacity->block_count) {
            if (!StartPiece(client, camera, capacity, &next, &pieces[last % OUTSTANDING]))
                return Fail("cannot start to read");
            ++last;
        }
        piece = &pieces[first++ % OUTSTANDING];
        events[0] = stop;
        events[1] = piece->done;
        if (WaitForMultipleObjects(2, events, FALSE, INFINITE) == WAIT_OBJECT_0) {
            fprintf(stderr, "\nstopped\n");
            return 1;
        }
        if (piece->status != ORVIK_OK || piece->length != piece->expected) {
            fprintf(stderr, "\nerror: %s\n",
                    piece->status != ORVIK_OK ? piece->text : "the camera returned too few bytes");
            return 1;
        }
        if (fwrite(piece->data, 1, piece->length, file) != piece->length) {
            fprintf(stderr, "\nerror: the file cannot be written\n");
            return 1;
        }
        written += piece->length;
        if (percent != (int)(written * 100 / total)) {
            percent = (int)(written * 100 / total);
            fprintf(stderr, "\r%d %%", percent);
        }
    }
    fprintf(stderr, "\n");
    printf("read %u blocks\n", (unsigned)capacity->block_count);
    return 0;
}

static int Read(const char* path) {
    Arrival arrival = {NULL, 0};
    Piece pieces[OUTSTANDING];
    HANDLE events[2];
    orvik_options options;
    orvik_client* client;
    orvik_capacity capacity;
    FILE* file;
    int i, result = 1;
    memset(pieces, 0, sizeof(pieces));
    for (i = 0; i < OUTSTANDING; ++i) {
        pieces[i].done = CreateEventW(NULL, FALSE, FALSE, NULL);
        pieces[i].data = malloc(ORVIK_TRANSFER_IN_LIMIT);
        if (pieces[i].done == NULL || pieces[i].data == NULL) {
            fprintf(stderr, "error: out of memory\n");
            return 1;
        }
    }
    arrival.attached = events[1] = CreateEventW(NULL, FALSE, FALSE, NULL);
    events[0] = stop;
    orvik_options_init(&options, sizeof(options));
    options.on_event = TakeFirstCamera;
    options.user = &arrival;
    if (orvik_client_open(&options, &client) != ORVIK_OK)
        return Fail("cannot start");
    if (WaitForMultipleObjects(2, events, FALSE, INFINITE) == WAIT_OBJECT_0) {
        fprintf(stderr, "stopped\n");
    } else if (!GetCapacity(client, arrival.camera, &capacity)) {
        Fail("READ CAPACITY");
    } else if (capacity.block_count > 2097152 || capacity.block_length > ORVIK_TRANSFER_IN_LIMIT) {
        fprintf(stderr, "error: the camera is too large for READ(6)\n");
    } else if ((file = fopen(path, "wb")) == NULL) {
        fprintf(stderr, "error: cannot create %s\n", path);
    } else {
        result = ReadBlocks(client, arrival.camera, &capacity, pieces, file);
        if (fclose(file) != 0)
            result = 1;
    }
    orvik_client_close(client); /* ends what is outstanding: now the pieces may be freed */
    for (i = 0; i < OUTSTANDING; ++i) {
        CloseHandle(pieces[i].done);
        free(pieces[i].data);
    }
    CloseHandle(arrival.attached);
    return result;
}

int main(int argc, char** argv) {
    stop = CreateEventW(NULL, TRUE, FALSE, NULL);
    SetConsoleCtrlHandler(OnCtrlC, TRUE);
    if (argc == 2 && strcmp(argv[1], "list") == 0)
        return List();
    if (argc == 2 && strcmp(argv[1], "watch") == 0)
        return Watch();
    if (argc == 3 && strcmp(argv[1], "read") == 0)
        return Read(argv[2]);
    fprintf(stderr, "usage: cameras list | watch | read FILE\n");
    return 2;
}
