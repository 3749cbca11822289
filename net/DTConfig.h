/* dtkit configuration query: single values from a configuration server on
 * the local network. The first query broadcasts from UDP port 8998 to port
 * 8999; whoever answers is asked directly from then on. With no answer to
 * that first broadcast, every getter returns its default at once, for good.
 * Queries must not overlap: one thread at a time. */
#ifndef DTKIT_DTCONFIG_H
#define DTKIT_DTCONFIG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Always 1; out gets the reply text (1 byte or more), else a copy of defaultText.
 * Choice: a reply is taken up to 999 bytes, so out needs 1000 bytes at most for a
 * reply; out must also hold defaultText (not checked). A null section, key or
 * defaultText counts as empty text; a null out receives nothing.
 * Choice: a request longer than 999 characters ("=>config " and the three texts
 * with their spaces) is not sent and leaves the module's state as it was; the
 * default is used. */
int32_t DTConfig_GetString(const char *section, const char *key, const char *defaultText,
                           char *out);
/* The reply read with strtoll in base 0, cut to its low 32 bits; defaultValue
 * when no reply of 1 byte or more came. A reply without digits gives 0. */
int32_t DTConfig_GetInt(const char *section, const char *key, int32_t defaultValue);
/* The same bits as DTConfig_GetInt; the default travels as its signed decimal text. */
uint32_t DTConfig_GetUInt(const char *section, const char *key, uint32_t defaultValue);

#ifdef __cplusplus
}
#endif

#endif
