#include "table/DTTable.h"

#include <gtest/gtest.h>

#include "dttest.h"
#include "table/DTTable_internal.h"

const std::string kBody = "*************\n   Memory\n*************\n name   size \n -----  ---- \n"
                          "heap     1024\nstack      64\n";
const std::string kExample = kBody + "-------------\ntotal count = 2\n-------------\n";

static DTTableTitle *Col(DTTable *t, int32_t col) {
    return static_cast<DTTableTitle *>(DTList_Get(t->titles, col));
}

static std::string ToBuf(DTTable *t) {
    DTBuf *b = DTBuf_New(1, 16, 16);
    void *p = nullptr;
    DTTable_ShowToBuf(t, b);
    std::string out = DTBuf_Get(b, 0, &p) ? std::string(static_cast<char *>(p), DTBuf_Length(b)) : "";
    DTBuf_Release(b);
    return out;
}

// Equal by design, so not cases: a formatter result of 0 taken from strlen of the
// empty text it wrote; a new column's width starting at 1 (every render measures
// first); a column or row list with a push limit (both are only ever set); a total's
// length starting at 1 (every kind that keeps it sets it first); a read of a
// missing column in an existing row (only defined columns hold cells); widening
// to a width already held; a centring run of 0 blanks under a caption as wide as
// the table.
TEST(DTTable, ModelGrowsRefusesWhatItCannotStoreAndSumsInTheColumnsKind) {
    DTTable *t = DTTable_New();
    int32_t v = 7, got = 0;
    DTTable_SetTitle(t, 2, "n", DTTABLE_KIND_INT32, "%d", 'R');
    DTTable_Set(t, 0, 1, &v);  // column 1 was never defined
    EXPECT_EQ(0, DTTable_GetRowNum(t));
    DTTable_Set(t, 5, 2, &v);
    v = 9;
    memcpy(&got, DTTable_Get(t, 5, 2), 4);
    EXPECT_EQ(7, got);  // a copy, independent of the caller's variable
    DTTable_Set(nullptr, 0, 2, &v);
    DTTable_Set(t, 6, 2, nullptr);
    EXPECT_EQ(3, DTTable_GetColNum(t));
    EXPECT_EQ(6, DTTable_GetRowNum(t));

    // Caption, title and cell text keep 99 characters; a long format is dropped.
    std::string s150(150, 'c'), fmt = "%d" + std::string(18, '.');  // 20: one too many
    DTTable_SetCaption(t, s150.c_str());
    EXPECT_EQ(s150.substr(0, 99), t->caption);
    DTTable_SetTitle(t, 2, s150.c_str(), DTTABLE_KIND_INT32, fmt.c_str(), 'R');
    DTTable_SetTitle(t, 0, "s", DTTABLE_KIND_STRING, "%s", 'L');
    DTTable_SetTitle(t, -1, "x", 9, "%d", 'R');  // refused, or it would land on column 0
    char src[] = "abc";
    DTTable_Set(t, 0, 0, src);
    src[0] = 'X';
    DTTable_Set(t, -1, 0, "neg");  // refused, or it would land on row 0
    DTTable_Set(t, 0, -1, "neg");  // refused, or it would land on column 0
    EXPECT_STREQ("abc", static_cast<char *>(DTTable_Get(t, 0, 0)));
    EXPECT_EQ(DTTable_Get(t, 0, 0), DTTable_Get(t, -3, -1));  // negative reads the first
    DTTable_Set(t, 1, 0, s150.c_str());
    EXPECT_EQ(s150.substr(0, 99), static_cast<char *>(DTTable_Get(t, 1, 0)));
    DTTable_Sum(t);
    EXPECT_STREQ("", Col(t, 2)->sumText);
    EXPECT_EQ(101, Col(t, 2)->width);      // from the title alone
    EXPECT_EQ(101, Col(t, 0)->width);      // the length the cell holds
    DTTable_Release(t);

    // Sums total in the column's kind: single precision loses the small additions to 2^24; integers wrap.
    struct { uint32_t kind; const char *format; double values[3]; const char *sumText; int32_t width; } const
        cases[] = {
        {DTTABLE_KIND_DOUBLE, "%.1f", {16777216, 1, 1}, "16777218.0", 12},
        {DTTABLE_KIND_FLOAT, "%.1f", {16777216, 1, 1}, "16777216.0", 12},
        {DTTABLE_KIND_INT32, "%d", {2147483647.0, 1, 0}, "-2147483648", 13},
        {DTTABLE_KIND_INT64, "%lld", {9223372036854775807.0, 1, 0}, "-9223372036854775808", 22},
        {7, "%lld", {5, 5, 5}, "0", 3},  // cells of kinds above 4 hold nothing to add
    };
    for (const auto &c : cases) {
        t = DTTable_New();
        DTTable_SetTitle(t, 0, "", c.kind, c.format, 'R');
        for (int32_t r = 0; r < 3; ++r) {
            double d = c.values[r];
            float f = static_cast<float>(d);
            int32_t i = static_cast<int32_t>(static_cast<int64_t>(d));
            int64_t l = d >= 9.2e18 ? INT64_MAX : static_cast<int64_t>(d);
            const void *p[] = {&d, &f, &i, &l};
            DTTable_Set(t, r, 0, p[c.kind < 4 ? c.kind : 0]);
        }
        DTTable_Sum(t);
        DTTable_Sum(t);  // every pass starts from zero
        EXPECT_STREQ(c.sumText, Col(t, 0)->sumText) << "kind " << c.kind;
        EXPECT_EQ(c.width, Col(t, 0)->width) << c.sumText;
        DTTable_SetTitle(t, 0, "", DTTABLE_KIND_STRING, "%s", 'R');
        DTTable_Sum(t);
        EXPECT_STREQ("", Col(t, 0)->sumText) << "a column made text has no total";
        DTTable_Release(t);
    }
}

TEST(DTTableRender, ExampleOnEverySinkThenBlanksAndHoles) {
    int64_t before = dttest::LiveBlocks();
    DTTable *t = DTTable_New();
    DTTable_SetCaption(t, "Memory");
    DTTable_SetTitle(t, 0, "name", DTTABLE_KIND_STRING, "%s", 'L');
    DTTable_SetTitle(t, 1, "size", DTTABLE_KIND_INT32, "%d", 'R');
    int32_t sizes[] = {1024, 64};
    DTTable_Set(t, 0, 0, "heap");
    DTTable_Set(t, 1, 0, "stack");
    for (int32_t r = 0; r < 2; ++r) DTTable_Set(t, r, 1, &sizes[r]);
    // The caller's buffer gets the text without footer; one that fills drops what
    // it holds and starts again at its beginning, so it ends with the tail.
    char buf[200];
    EXPECT_EQ(static_cast<int32_t>(kBody.size()), DTTable_ShowToBuffer(t, buf, sizeof buf));
    EXPECT_EQ(kBody, std::string(buf, kBody.size()));
    for (int32_t size : {-5, 1, 2, 5, 9, 16, 20, 33, 60}) {  // below 2 too small for a single character
        memset(buf, '#', sizeof buf);
        int32_t n = DTTable_ShowToBuffer(t, buf, size);
        ASSERT_EQ(size < 2, n == 0) << size;
        ASSERT_LT(n, std::max(size, 1)) << size;
        EXPECT_EQ(kBody.substr(kBody.size() - n), std::string(buf, n)) << size;
        EXPECT_EQ('#', buf[size < 2 ? 0 : size]) << size;
    }
    EXPECT_TRUE(dttest::Console().empty());
    EXPECT_EQ(kExample, ToBuf(t));
    std::vector<std::string> lines = {"*************\n   Memory\n*************\n", " name   size \n",
                                      " -----  ---- \n", "heap     1024\n", "stack      64\n",
                                      "-------------\n", "total count = 2\n", "-------------\n"};
    EXPECT_EQ(0, DTTable_Show(t));
    EXPECT_EQ(lines, dttest::Console());
    dttest::ClearConsole();
    DTTable_ShowToBuf(t, reinterpret_cast<DTBuf *>(uintptr_t{100}));  // small addresses mean none
    EXPECT_EQ(lines, dttest::Console());
    DTTable_SetTitle(t, 0, "name", DTTABLE_KIND_STRING, "%s", 'L');  // reuses the description
    DTTable_Set(t, 2, 0, "ghost");
    DTTable_ClearLines(t);  // the rows stay, empty
    EXPECT_EQ("************\n   Memory\n************\n name  size \n ----  ---- \n\n\n\n"
              "------------\ntotal count = 3\n------------\n", ToBuf(t));
    DTTable_Clear(t);  // the caption stays
    EXPECT_EQ("\nMemory\n\n\n\n\ntotal count = 0\n\n", ToBuf(t));
    dttest::FailMallocAt(1);  // no print object
    EXPECT_EQ(0, DTTable_ShowToBuffer(t, buf, sizeof buf));
    ASSERT_EQ(DTTable_ShowToBuffer(t, buf, 16), 11);  // no columns is no width, not a hole
    EXPECT_EQ(std::string(buf, 11), "\nMemory\n\n\n\n");
    DTTable_SetCaption(t, nullptr);
    EXPECT_EQ("\n\n\ntotal count = 0\n\n", ToBuf(t));
    DTTable_Release(t);

    // Missing cells are blank whatever the alignment, a centred odd surplus goes
    // right, cells of kinds above 4 are blank, and a hole in the columns stops it all.
    t = DTTable_New();
    dttest::ClearConsole();
    DTTable_SetTitle(t, 0, "c", DTTABLE_KIND_STRING, "%s", 'C');
    DTTable_SetTitle(t, 1, "r", DTTABLE_KIND_INT32, "%2147483648d", 'r');  // the formatter fails: no text
    DTTable_SetTitle(t, 2, "k", 9, "%lld", 'l');
    DTTable_Set(t, 1, 1, "four");  // its freed cell is the next one's memory
    DTTable_ClearLines(t);
    DTTable_Set(t, 1, 2, "zz");
    EXPECT_EQ(0, memcmp("\0\0\0\0", DTTable_Get(t, 1, 2), 4));  // no value of its own: zeros
    DTTable_Set(t, 0, 1, "four");
    DTTable_Set(t, 0, 0, "abcd");
    DTTable_Set(t, 1, 0, "a");
    EXPECT_EQ("  c    r  k \n ----  -  - \n abcd       \n  a         \n"
              "------------\ntotal count = 2\n------------\n", ToBuf(t));
    DTTable_Clear(t);
    DTTable_SetTitle(t, 1, nullptr, DTTABLE_KIND_STRING, nullptr, 'L');
    strcpy(buf, "untouched");
    EXPECT_EQ("", ToBuf(t));
    EXPECT_EQ(0, DTTable_ShowToBuffer(t, buf, sizeof buf));
    EXPECT_EQ(0, DTTable_Show(t));
    EXPECT_STREQ("ntouched", buf + 1);  // only the print object's initial zero lands
    EXPECT_TRUE(dttest::Console().empty());
    DTTable_Release(t);
    EXPECT_EQ(before, dttest::LiveBlocks());
}
