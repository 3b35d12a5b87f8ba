/* Compiled by each compiler as C99, C17 and C++20, and linked as MSVC does, without a C runtime. */
#include <orvik/orvik.h>

static void ORVIK_CALL OnEvent(orvik_client *client, const orvik_event *event, void *user) {
    if (event->kind == ORVIK_EVENT_ATTACHED)
        *(orvik_camera *)user = event->camera;
    orvik_client_close(client);
}

/* 0 if the DLL has the header's version. */
int main(void) {
    static orvik_camera camera;
    const char expected[] = ORVIK_API_VERSION;
    const char *version = orvik_version();
    orvik_options options;
    uint8_t cdb[6];
    unsigned i;
    for (i = 0; i < sizeof(expected); ++i)
        if (version[i] != expected[i])
            return 1;
    if (orvik_options_init(&options, sizeof(options)) != ORVIK_OK)
        return 2;
    options.on_event = OnEvent;
    options.user = &camera;
    return orvik_cdb_read6(0, 0, cdb) == ORVIK_ERROR_INVALID_ARGUMENT ? 0 : 3;
}
