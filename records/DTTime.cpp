#include "records/DTTime.h"

#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>


namespace {

enum Field_ { kYear, kYear2, kMonth, kDay, kHour, kMinute, kSecond };

struct Token_ {
    uint32_t len;
    Field_ field;
    uint32_t width;  // zero-padded to this many digits; 0 = unpadded
};

int FieldValue_(const struct tm &tm, Field_ f) {
    switch (f) {
        case kYear: return tm.tm_year + 1900;
        case kYear2: return (tm.tm_year + 1900) % 100;
        case kMonth: return tm.tm_mon + 1;
        case kDay: return tm.tm_mday;
        case kHour: return tm.tm_hour;
        case kMinute: return tm.tm_min;
        case kSecond: return tm.tm_sec;
    }
    return 0;
}

bool Take_(bool match, Token_ *tok, uint32_t len, Field_ field, uint32_t width) {
    if (match) *tok = {len, field, width};
    return match;
}

// Decided on the first two characters instead of comparing every token in
// turn: a stamp is formatted on every logged line. The precedence is the
// token table's ("YYYY" before "YY", upper case before lower), and a second
// character of NUL never matches, so no token reaches past the pattern's end.
bool MatchToken_(const char *at, Token_ *tok) {
    const char a = at[0], b = at[1];
    const uint32_t width = a >= 'A' && a <= 'Z' ? 2 : 0;
    switch (a) {
        case 'Y':
            if (b == 'Y' && at[2] == 'Y' && at[3] == 'Y') return Take_(true, tok, 4, kYear, 4);
            return Take_(b == 'Y', tok, 2, kYear2, 2);
        case 'y': return Take_(b == 'y', tok, 2, kYear2, 0);
        case 'M':
            if (b == 'M') return Take_(true, tok, 2, kMonth, 2);
            return Take_(b == 'I', tok, 2, kMinute, 2);
        case 'm':
            if (b == 'm') return Take_(true, tok, 2, kMonth, 0);
            return Take_(b == 'i', tok, 2, kMinute, 0);
        case 'D': case 'd': return Take_(b == a, tok, 2, kDay, width);
        case 'H': case 'h': return Take_(b == a, tok, 2, kHour, width);
        case 'S': case 's': return Take_(b == a, tok, 2, kSecond, width);
        default: return false;
    }
}

// The same characters as "%0<width>d" (or "%d" for width 0), NUL behind;
// returns the number of characters before the NUL.
uint32_t PutNumber_(char *out, int value, uint32_t width) {
    char digits[12];
    uint32_t n = 0;
    uint32_t mag = value < 0 ? 0u - static_cast<uint32_t>(value) : static_cast<uint32_t>(value);
    do {
        digits[n++] = static_cast<char>('0' + mag % 10u);
        mag /= 10u;
    } while (mag != 0);
    uint32_t len = 0;
    if (value < 0) out[len++] = '-';
    for (uint32_t used = len + n; used < width; ++used) out[len++] = '0';
    while (n > 0) out[len++] = digits[--n];
    out[len] = '\0';
    return len;
}

}  // namespace

extern "C" {

int32_t DTTime_GetTime(int32_t offset) {
    // Unsigned addition: the sum is meant to wrap, and signed overflow is not.
    return static_cast<int32_t>(static_cast<uint32_t>(time(nullptr)) +
                                static_cast<uint32_t>(offset));
}

int32_t DTTime_Now(void) { return DTTime_GetTime(0); }

uint32_t DTTime_GetUTime(void) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<uint32_t>(tv.tv_sec) * 1000000u + static_cast<uint32_t>(tv.tv_usec);
}

void DTTime_Sleep(uint32_t ms) {
    // A signal may end the sleep early; callers poll their own clock, so the
    // remainder is neither resumed nor reported.
    (void)usleep(ms * 1000u);
}

char *DTTime_Format(char *buf, const char *pattern, int32_t t) {
    if (!buf) return buf;
    buf[0] = '\0';
    if (!pattern) return buf;
    if (t == 0) t = DTTime_Now();

    time_t when = t;
    struct tm tm;
    memset(&tm, 0, sizeof tm);
    const struct tm *local = localtime(&when);
    if (local) tm = *local;

    uint32_t in = 0, out = 0;
    Token_ tok;
    while (pattern[in] != '\0') {
        if (MatchToken_(pattern + in, &tok)) {
            out += PutNumber_(buf + out, FieldValue_(tm, tok.field), tok.width);
            in += tok.len;
        } else {
            buf[out++] = pattern[in++];
            buf[out] = '\0';
        }
    }
    return buf;
}

}  // extern "C"
