// Arbitrary reply datagrams through the configuration query's conversions,
// taken into the buffer the way the receive step takes them, and checked
// against a plain reading of the integer rules written out here.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "net/DTConfig_internal.h"

namespace {

int Digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'z') return c - 'a' + 10;
    if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
    return 99;
}

// Base 0: white space, a sign, 0x for hexadecimal, a leading 0 for octal;
// stops at the first unfit character and saturates at the 64-bit range.
int64_t Reference(const char *s) {
    while (*s == ' ' || (*s >= '\t' && *s <= '\r')) ++s;
    bool negative = *s == '-';
    if (*s == '-' || *s == '+') ++s;
    int base = 10;
    if (s[0] == '0' && (s[1] == 'x' || s[1] == 'X') && Digit(s[2]) < 16) {
        base = 16;
        s += 2;
    } else if (s[0] == '0') {
        base = 8;
    }
    const uint64_t limit = negative ? uint64_t(1) << 63 : (uint64_t(1) << 63) - 1;
    uint64_t v = 0;
    bool over = false;
    for (; Digit(*s) < base; ++s) {
        uint64_t d = uint64_t(Digit(*s));
        if (over || v > (limit - d) / uint64_t(base)) {
            over = true;
            continue;
        }
        v = v * uint64_t(base) + d;
    }
    if (over) v = limit;
    return negative ? int64_t(0 - v) : int64_t(v);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    char reply[DTCONFIG_BUFFER_SIZE];
    size_t n = size < sizeof reply - 1 ? size : sizeof reply - 1;
    memcpy(reply, data, n);
    reply[n] = 0;
    int32_t result = int32_t(n);

    int32_t value = DTConfig_IntFromReply_(result, reply, -77);
    int32_t expected = n > 0 ? int32_t(uint32_t(uint64_t(Reference(reply)))) : -77;
    if (value != expected) __builtin_trap();

    char out[DTCONFIG_BUFFER_SIZE];
    memset(out, 'x', sizeof out);
    if (DTConfig_TextFromReply_(result, reply, "dflt", out) != 1) __builtin_trap();
    if (strcmp(out, n > 0 ? reply : "dflt") != 0) __builtin_trap();
    return 0;
}
