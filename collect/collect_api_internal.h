/* Steps shared by a collection and a self test. Not installed. */
#ifndef DTKIT_COLLECT_API_INTERNAL_H
#define DTKIT_COLLECT_API_INTERNAL_H

#include <stdint.h>

#include "collect/collect_api.h"

#ifdef __cplusplus
extern "C" {
#endif
/* Kept out of the shared library's symbol table: only the library itself, the
 * tests and the fuzz targets (both linked statically) call these. */
#pragma GCC visibility push(hidden)

/* One line in the agent's log: pattern holds a %s for the time, then one for the name. */
void Collect_LogSection_(const char *pattern, const char *name);
/* One fixed text in the agent's log. */
void Collect_Log_(const char *text);
/* Connects ("connect to server fail." on failure) and sends the identity message. */
int32_t Collect_Open_(const char *requester, uint32_t port, int32_t sequence, uint8_t id1,
                      uint8_t id2);
/* Logs "flush to server fail." and ends the connection; returns 0 for the caller's result. */
int32_t Collect_Abandon_(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
