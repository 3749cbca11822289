#include "foundation/DTString.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

namespace {

const int32_t kSBufferSize = 1000;
const int32_t kSHBufferSize = 10000;
// The largest dump that fits the shared hex buffer: 3 * n + (n - 1) / 16 + 1 <= 10000.
const int32_t kSHMaxBytes = 3265;

}  // namespace

static char sg_SBuffer[kSBufferSize];
static char sg_SHBuffer[kSHBufferSize];

extern "C" {

char *DTString_Format(char *buf, const char *fmt, ...) {
    if (!buf || !fmt) return buf;
    va_list ap;
    va_start(ap, fmt);
    vsprintf(buf, fmt, ap);
    va_end(ap);
    return buf;
}

char *DTString_SFormat(const char *fmt, ...) {
    sg_SBuffer[0] = '\0';
    if (!fmt) return sg_SBuffer;
    va_list ap;
    va_start(ap, fmt);
    // Bounded: a runaway line is cut rather than trampling the state behind it.
    vsnprintf(sg_SBuffer, sizeof sg_SBuffer, fmt, ap);
    va_end(ap);
    return sg_SBuffer;
}

char *DTString_HFormat(char *out, const void *bytes, int32_t len) {
    if (!out) return out;
    out[0] = '\0';
    if (len <= 0 || !bytes) return out;
    static const char kDigits[] = "0123456789ABCDEF";
    const uint8_t *b = static_cast<const uint8_t *>(bytes);
    char *w = out;
    for (int32_t i = 0; i < len; ++i) {
        *w++ = kDigits[b[i] >> 4];
        *w++ = kDigits[b[i] & 0x0F];
        *w++ = ' ';
        if ((i + 1) % 16 == 0 && i + 1 < len) *w++ = '\n';
    }
    *w = '\0';
    return out;
}

char *DTString_SHFormat(const void *bytes, int32_t len) {
    return DTString_HFormat(sg_SHBuffer, bytes, len > kSHMaxBytes ? kSHMaxBytes : len);
}

int32_t DTString_Split(char *str, const char *sep, char **parts, int32_t max) {
    if (!str || !sep || !parts) return 0;
    size_t n = strlen(sep);
    parts[0] = str;
    int32_t count = 1;
    // An empty separator would match everywhere; the string stays one part.
    if (n == 0) return count;
    size_t i = 0;
    while (str[i] != '\0') {
        if (max != 0 && count >= max) break;
        if (strncmp(str + i, sep, n) == 0) {
            str[i] = '\0';
            i += n;
            parts[count++] = str + i;
            continue;
        }
        ++i;
    }
    return count;
}

void DTString_LTrim(char *str, uint32_t word) {
    (void)str;
    (void)word;
}

void DTString_RTrim(char *str, uint32_t word) {
    (void)str;
    (void)word;
}

void DTString_Trim(char *str, uint32_t word) {
    DTString_LTrim(str, word);
    DTString_RTrim(str, word);
}

}  // extern "C"
