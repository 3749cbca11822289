/* The reply conversions of the configuration query, callable without a
 * socket (the fuzz target and the tests drive them directly). */
#ifndef DTKIT_DTCONFIG_INTERNAL_H
#define DTKIT_DTCONFIG_INTERNAL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
/* Kept out of the shared library's symbol table: only the library itself, the
 * tests and the fuzz targets (both linked statically) call these. */
#pragma GCC visibility push(hidden)

/* Size of the request and reply buffer; a reply takes at most one byte less. */
#define DTCONFIG_BUFFER_SIZE 1000

/* The integer a query result stands for: reply read as an integer when
 * result > 0, else defaultValue. reply must be NUL-terminated. */
int32_t DTConfig_IntFromReply_(int32_t result, const char *reply, int32_t defaultValue);
/* Copies the reply (result > 0) or defaultText into out; returns 1. */
int32_t DTConfig_TextFromReply_(int32_t result, const char *reply, const char *defaultText,
                                char *out);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
