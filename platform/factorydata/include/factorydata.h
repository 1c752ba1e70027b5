/*
 * factorydata: what the factory wrote into this unit, read from factory.json in
 * $LUMD_PLATFORM_DIR (default /etc/lumd):
 *     {"board": "...", "hw": "...", "serial": "...", "mac": "00:11:22:33:44:50"}
 */
#ifndef PLATFORM_FACTORYDATA_H
#define PLATFORM_FACTORYDATA_H

#ifdef __cplusplus
extern "C" {
#endif

enum { FACTORYDATA_TEXT_BYTES = 64 };

/* NUL-terminated texts; a longer value is cut, a missing one is empty. */
struct factorydata_record {
    char board[FACTORYDATA_TEXT_BYTES];
    char hw[FACTORYDATA_TEXT_BYTES];
    char serial[FACTORYDATA_TEXT_BYTES];
    char mac[FACTORYDATA_TEXT_BYTES]; /* base MAC address as text */
};

/* Fills `record` and returns 0; on a missing or malformed file logs one error line, empties the
 * record and returns -1. Any thread. */
int factorydata_load(struct factorydata_record* record);

#ifdef __cplusplus
}
#endif

#endif
