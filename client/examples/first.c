/* Lists the cameras with their vendors and products. */
#include <stdio.h>

#include <orvik/orvik.h>

static void Print(orvik_client *client, orvik_camera camera) {
    uint8_t cdb[6], data[36];
    uint32_t length;
    orvik_inquiry inquiry;
    inquiry.size = sizeof(inquiry);
    orvik_cdb_inquiry(cdb);
    if (orvik_transfer_in(client, camera, cdb, sizeof(cdb), data, sizeof(data), &length,
                          ORVIK_TRANSFER_TIMEOUT) == ORVIK_OK &&
        orvik_decode_inquiry(data, length, &inquiry) == ORVIK_OK)
        printf("%u: %s %s\n", (unsigned)camera, inquiry.vendor, inquiry.product);
    else
        fprintf(stderr, "error: %s\n", orvik_last_error_text());
}

int main(void) {
    orvik_client *client;
    orvik_camera cameras[16];
    uint32_t count = 0, i;
    if (orvik_client_connect(NULL, &client) != ORVIK_OK) {
        fprintf(stderr, "error: %s\n", orvik_last_error_text());
        return 1;
    }
    orvik_client_cameras(client, cameras, 16, &count);
    for (i = 0; i < count && i < 16; ++i)
        Print(client, cameras[i]);
    orvik_client_close(client);
    return 0;
}
