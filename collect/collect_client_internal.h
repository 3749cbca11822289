/* Pieces of the collection client shared with the agent, the tests and the
 * fuzz target. Not installed. */
#ifndef DTKIT_COLLECT_CLIENT_INTERNAL_H
#define DTKIT_COLLECT_CLIENT_INTERNAL_H

#include <stdint.h>

#include "collect/collect_client.h"

#ifdef __cplusplus
extern "C" {
#endif
/* Kept out of the shared library's symbol table: only the library itself, the
 * tests and the fuzz targets (both linked statically) call these. */
#pragma GCC visibility push(hidden)

/* Validates a request of which `received` bytes arrived (at most 16 read into req):
 * its sequence, or -1. On success *type and port4 (request bytes 12..15) are set. */
int32_t CollectClient_ParseRequest_(const uint8_t *req, int32_t received, uint32_t *type,
                                    uint8_t *port4);
/* One piece of exactly len bytes (0 allowed, the text is never measured): the shared
 * body of the string and buffer writers and of the fault log walk. kind is 3 or 4. */
int32_t CollectClient_CollectPiece_(uint8_t kind, uint32_t section, uint32_t block,
                                    uint32_t code, const void *data, int32_t len);
/* Acknowledgement receive time-out in milliseconds for connections made from now on;
 * 0 = wait for ever. */
void CollectClient_SetAckTimeout_(uint32_t ms);
/* Nonzero while a send buffer exists. */
int32_t CollectClient_Active_(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
