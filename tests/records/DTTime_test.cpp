#include "records/DTTime.h"

#include <gtest/gtest.h>

#include <sys/time.h>
#include <time.h>

static std::string Fmt(const char *pattern, int32_t t) {
    char buf[64];
    memset(buf, '#', sizeof buf);
    DTTime_Format(buf, pattern, t);
    EXPECT_EQ('#', buf[strlen(pattern) + 1]) << pattern;  // never writes past pattern length + 1
    return buf;
}

// A token's width is 2 for upper case: deciding that with "> 'A'" or "< 'Z'" in place
// of ">= 'A'" or "<= 'Z'" changes nothing, as no token starts with 'A' or 'Z'; a null buffer comes back as 0 either way;
// the magnitude of 0 is 0 whether or not it is taken by negation.
// A sleep is one usleep, so one cut short by a signal is never resumed; no small
// fault can make it loop, so that case has no test of its own.
TEST(DTTime, FormatTokensAndClockReadings) {
    setenv("TZ", "UTC", 1);
    tzset();
    const int32_t t2026 = 1794906303, t2005 = 1104635045;  // 2026-11-17 09:05:03, 2005-01-02 03:04:05
    struct { const char *pattern; int32_t t; const char *want; } cases[] = {
        {"YY/MM/DD HH:MI:SS", t2026, "26/11/17 09:05:03"}, {"YYYY/MM/DD HH:MI:SS", t2026, "2026/11/17 09:05:03"},
        {"mm/dd hh:mi:ss", t2026, "11/17 9:5:3"},          {"MM/DD HH:MI:SS ", t2026, "11/17 09:05:03 "},
        {"yy|mm|dd|hh|mi|ss", t2005, "5|1|2|3|4|5"},       {"YY-MM-DD", t2005, "05-01-02"},
        {"YYYYYY", t2026, "202626"},                       {"YYY", t2026, "26Y"},
        {"YYYYY", t2026, "2026Y"},                         {"MMI", t2026, "11I"},
        {"Y M D H I S mM yY", t2026, "Y M D H I S mM yY"}, {"", t2026, ""}, {"SSMISS", -1, "595959"},
    };
    for (auto &c : cases) EXPECT_EQ(c.want, Fmt(c.pattern, c.t)) << c.pattern;
    char buf[4] = "xyz";
    EXPECT_EQ(DTTime_Format(buf, "YY", t2026), buf);
    EXPECT_EQ(DTTime_Format(buf, nullptr, t2026), buf);
    EXPECT_EQ(buf[0], '\0');
    int32_t t = DTTime_Now();
    std::string now = Fmt("YYYYMMDDHHMISS", 0);
    EXPECT_TRUE(now == Fmt("YYYYMMDDHHMISS", t) || now == Fmt("YYYYMMDDHHMISS", DTTime_Now())) << now;
    EXPECT_LE(static_cast<uint32_t>(time(nullptr)) - static_cast<uint32_t>(t), 1u);
    EXPECT_LE(static_cast<uint32_t>(DTTime_GetTime(INT32_MIN)) - static_cast<uint32_t>(t) - 0x80000000u, 1u);
    // The counter is the low 32 bits of the wall clock in microseconds;
    // unsigned differences make the bracket hold across a wrap.
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    uint32_t a = static_cast<uint32_t>(static_cast<uint64_t>(tv.tv_sec) * 1000000u + tv.tv_usec);
    uint32_t u = DTTime_GetUTime();
    DTTime_Sleep(30);
    EXPECT_GE(DTTime_GetUTime() - u, 30000u);
    EXPECT_LT(u - a, 1000000u);
}
