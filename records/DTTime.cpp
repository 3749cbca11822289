#include "records/DTTime.h"

#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "foundation/DTString.h"

namespace {

enum Field_ { kYear, kYear2, kMonth, kDay, kHour, kMinute, kSecond };

struct Token_ {
    const char *text;
    uint32_t len;
    Field_ field;
    const char *format;
};

// Order matters: "YYYY" must win over "YY", and each upper-case token is
// tried before its unpadded lower-case twin.
const Token_ kTokens_[] = {
    {"YYYY", 4, kYear, "%04d"},  {"YY", 2, kYear2, "%02d"}, {"yy", 2, kYear2, "%d"},
    {"MM", 2, kMonth, "%02d"},   {"mm", 2, kMonth, "%d"},   {"DD", 2, kDay, "%02d"},
    {"dd", 2, kDay, "%d"},       {"HH", 2, kHour, "%02d"},  {"hh", 2, kHour, "%d"},
    {"MI", 2, kMinute, "%02d"},  {"mi", 2, kMinute, "%d"},  {"SS", 2, kSecond, "%02d"},
    {"ss", 2, kSecond, "%d"},
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

const Token_ *MatchToken_(const char *at) {
    for (const Token_ &tok : kTokens_) {
        // strncmp stops at the pattern's NUL, so a token cut short by the
        // end of the pattern never matches.
        if (strncmp(at, tok.text, tok.len) == 0) return &tok;
    }
    return nullptr;
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
    while (pattern[in] != '\0') {
        const Token_ *tok = MatchToken_(pattern + in);
        if (tok) {
            DTString_Format(buf + out, tok->format, FieldValue_(tm, tok->field));
            in += tok->len;
            out += static_cast<uint32_t>(strlen(buf + out));
        } else {
            buf[out++] = pattern[in++];
            buf[out] = '\0';
        }
    }
    return buf;
}

}  // extern "C"
