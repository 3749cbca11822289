#include <gtest/gtest.h>

#include "dttest.h"
#include "foundation/DTPrint.h"
#include "foundation/DTPrint_internal.h"

using Calls = std::vector<std::string>;

TEST(DTPrint, PrintObjectsBufferAndRefuseThenShowsHandOverOneLinePerCall) {
    char buf[10];
    DTPrint *p = DTPrint_New(buf, sizeof buf);
    DTPrint_PrintCh(p, 0x12A, 25);  // only the low byte counts
    EXPECT_EQ(dttest::Console(), (Calls{"*********", "*********"}));
    EXPECT_EQ(p->length, 7);
    DTPrint_SetPrint(p, 0);
    DTPrint_Flush(p);
    EXPECT_EQ(p->length, 7);
    DTPrint_PrintCh(p, '-', 5);  // the full buffer is dropped and writing restarts
    EXPECT_EQ(p->length, 3);
    DTPrint_PrintCh(p, '-', 0);
    EXPECT_EQ(p->length, 3);
    DTPrint_SetPrint(p, 1);
    DTPrint_Release(p);
    EXPECT_EQ(dttest::Console(), (Calls{"*********", "*********", "---"}));
    for (int32_t capacity : {1, -5}) EXPECT_EQ(DTPrint_New(buf, capacity), nullptr) << capacity;
    EXPECT_EQ(DTPrint_New(nullptr, 10), nullptr);
    p = DTPrint_New(buf, 2);  // the smallest that can hold a character
    EXPECT_NE(p, nullptr);
    DTPrint_Release(p);
    EXPECT_EQ(dttest::LiveBlocks(), 0);
    DTPrint_PrintCh(nullptr, 'a', 1);
    DTPrint_Print(nullptr, "a", 1);
    DTPrint_Flush(nullptr);
    DTPrint_SetPrint(nullptr, 1);
    DTPrint_Release(nullptr);
    for (uint32_t on : {1u, 0u}) {  // a string is never cut
        dttest::ClearConsole();
        p = DTPrint_New(buf, sizeof buf);
        DTPrint_SetPrint(p, on);
        DTPrint_Print(p, "abcd", 3);
        EXPECT_EQ(p->length, 4);
        DTPrint_Print(p, "0123456789ABCDEFGHIJ", 2);
        DTPrint_Print(p, nullptr, 1);
        DTPrint_Print(p, "", 1);
        EXPECT_EQ(p->length, 0);
        Calls want{"abcdabcd", "abcd", "0123456789ABCDEFGHIJ", "0123456789ABCDEFGHIJ"};
        EXPECT_EQ(dttest::Console(), on ? want : Calls{});
        DTPrint_Release(p);
    }
    // Shows hand the console one line per call.
    dttest::ClearConsole();
    DTPrint_Show("ab", 0);
    DTPrint_Show("c\nde\n", 0);
    DTPrint_Puts("x", 0);
    DTPrint_Show("yz", 1);
    DTPrint_ShowEx("w", 0);
    for (int32_t len : {0, -1, 5}) DTPrint_Show(nullptr, len);
    DTPrint_Show(std::string(1500, 'q').c_str(), 0);
    DTPrint_ShowEx("", 0);
    EXPECT_EQ(dttest::Console(),
              (Calls{"abc\n", "de\n", "x\n", "yw", std::string(999, 'q'), std::string(501, 'q')}));
}
