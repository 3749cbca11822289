// Text tables: the table model, the preparation pass that formats, totals
// and measures the columns, and the three renderers, which share one layout
// routine and differ only in where the characters go.
#include "table/DTTable.h"

#include <stdint.h>
#include <string.h>

#include "containers/DTBuf.h"
#include "containers/DTList.h"
#include "foundation/DTMem.h"
#include "foundation/DTPrint.h"
#include "foundation/DTPrint_internal.h"
#include "platform/DTPlatform.h"
#include "table/DTTable_internal.h"

namespace {

const int32_t kMaxText = DTTABLE_TEXT_SIZE - 1;
const int32_t kConsoleLine = 400;

// Copies at most max characters and always terminates; dst must hold max + 1.
void CopyCut_(char *dst, const char *src, size_t max) {
    size_t n = src ? strlen(src) : 0;
    if (n > max) n = max;
    if (n) memcpy(dst, src, n);
    dst[n] = 0;
}

// The platform's formatter may report the untruncated length, or a negative
// value on error; what the cell actually holds is what the renderer can show.
int32_t HeldLen_(int32_t result, const char *text) {
    if (result >= 0 && result <= kMaxText) return result;
    return static_cast<int32_t>(strlen(text));
}

DTTableTitle *Column_(DTTable *t, int32_t col) {
    return static_cast<DTTableTitle *>(DTList_Get(t->titles, col));
}

DTList *Row_(DTTable *t, int32_t row) { return static_cast<DTList *>(DTList_Get(t->rows, row)); }

// DTList_Set can stop short when an extension node cannot be had; the caller
// then still owns item and must release it.
bool Store_(DTList *list, int32_t pos, void *item) {
    DTList_Set(list, pos, item);
    return DTList_Get(list, pos) == item;
}

}  // namespace

extern "C" {

DTTable *DTTable_New(void) {
    DTTable *t = static_cast<DTTable *>(DTMem_LocalMalloc(sizeof(DTTable)));
    if (!t) return nullptr;
    memset(t->caption, 0, sizeof t->caption);
    t->titles = DTList_New(0, DTMem_LocalFree);
    t->rows = DTList_New(0, reinterpret_cast<DTListFreeFn>(DTList_Release));
    return t;
}

void DTTable_SetCaption(DTTable *table, const char *caption) {
    if (!table) return;
    memset(table->caption, 0, sizeof table->caption);
    CopyCut_(table->caption, caption, kMaxText);
}

void DTTable_SetTitle(DTTable *table, int32_t col, const char *title, uint32_t kind,
                      const char *format, char align) {
    if (!table || col < 0) return;
    DTTableTitle *d = Column_(table, col);
    bool fresh = d == nullptr;
    if (fresh) {
        d = static_cast<DTTableTitle *>(DTMem_LocalMalloc(sizeof(DTTableTitle)));
        if (!d) return;
        memset(d, 0, sizeof *d);
    }
    memset(d->title, 0, sizeof d->title);
    CopyCut_(d->title, title, kMaxText);
    d->titleLen = static_cast<int32_t>(strlen(d->title));
    d->kind = kind;
    memset(d->format, 0, sizeof d->format);
    if (format && strlen(format) < DTTABLE_FORMAT_SIZE) CopyCut_(d->format, format, DTTABLE_FORMAT_SIZE - 1);
    d->align = align;
    d->width = 0;
    memset(d->sum, 0, sizeof d->sum);
    if (fresh && !Store_(table->titles, col, d)) DTMem_LocalFree(d);
}

void DTTable_Set(DTTable *table, int32_t row, int32_t col, const void *value) {
    if (!table || row < 0 || col < 0) return;
    DTTableTitle *d = Column_(table, col);
    if (!d) return;
    uint32_t kind = d->kind;
    if (kind <= DTTABLE_KIND_INT64 && !value) return;

    DTList *r = Row_(table, row);
    if (!r) {
        r = DTList_New(0, DTMem_LocalFree);
        if (!r) return;
        if (!Store_(table->rows, row, r)) {
            DTList_Release(r);
            return;
        }
    }

    DTTableCell *c = static_cast<DTTableCell *>(DTList_Get(r, col));
    bool fresh = c == nullptr;
    if (fresh) {
        c = static_cast<DTTableCell *>(DTMem_LocalMalloc(sizeof(DTTableCell)));
        if (!c) return;
        // Cells of kinds without a formatted text must still read as empty.
        memset(c, 0, sizeof *c);
    }

    switch (kind) {
        case DTTABLE_KIND_DOUBLE:
        case DTTABLE_KIND_INT64:
            memcpy(c->value, value, 8);
            break;
        case DTTABLE_KIND_FLOAT:
        case DTTABLE_KIND_INT32:
            memcpy(c->value, value, 4);
            break;
        case DTTABLE_KIND_STRING:
            c->textLen = HeldLen_(Lumo_snprintf(c->text, sizeof c->text, d->format, value), c->text);
            break;
        default:
            break;
    }
    if (fresh && !Store_(r, col, c)) DTMem_LocalFree(c);
}

void *DTTable_Get(DTTable *table, int32_t row, int32_t col) {
    if (!table) return nullptr;
    DTTableTitle *d = Column_(table, col);
    DTList *r = Row_(table, row);
    if (!d || !r) return nullptr;
    DTTableCell *c = static_cast<DTTableCell *>(DTList_Get(r, col));
    if (!c) return nullptr;
    if (d->kind == DTTABLE_KIND_STRING) return c->text;
    return c->value;
}

int32_t DTTable_GetColNum(DTTable *table) { return table ? DTList_Length(table->titles) : 0; }

int32_t DTTable_GetRowNum(DTTable *table) { return table ? DTList_Length(table->rows) : 0; }

void DTTable_ClearLines(DTTable *table) {
    if (!table) return;
    int32_t n = DTList_Length(table->rows);
    for (int32_t i = 0; i < n; ++i) DTList_Release(static_cast<DTList *>(DTList_Set(table->rows, i, nullptr)));
}

void DTTable_Clear(DTTable *table) {
    if (!table) return;
    DTList_RemoveAll(table->rows);
    DTList_RemoveAll(table->titles);
}

void DTTable_Release(DTTable *table) {
    if (!table) return;
    DTTable_Clear(table);
    DTList_Release(table->rows);
    DTList_Release(table->titles);
    DTMem_LocalFree(table);
}

}  // extern "C"

// ---- the preparation pass ----

namespace {

void Widen_(DTTableTitle *d, int32_t len) {
    if (len + 2 > d->width) d->width = len + 2;
}

// Adds one cell to the total in T's own arithmetic (a float total stays single
// precision, integer totals wrap) and formats the cell's value, passed as Arg.
template <class T, class Arg>
int32_t AddAndFormat_(DTTableTitle *d, DTTableCell *c, const char *format) {
    T v, s;
    memcpy(&v, c->value, sizeof v);
    memcpy(&s, d->sum, sizeof s);
    s = static_cast<T>(s + v);
    memcpy(d->sum, &s, sizeof s);
    return Lumo_snprintf(c->text, sizeof c->text, format, static_cast<Arg>(v));
}

// Adds the cell to the column's running total in the column's own arithmetic and
// formats the cell; the total's bytes start at the first byte of sum, as in a cell.
void SumCell_(DTTableTitle *d, DTTableCell *c) {
    const char *format = d->format;
    int32_t n = 0;
    switch (d->kind) {
        case DTTABLE_KIND_DOUBLE:
            n = AddAndFormat_<double, double>(d, c, format);
            break;
        case DTTABLE_KIND_FLOAT:
            n = AddAndFormat_<float, double>(d, c, format);
            break;
        case DTTABLE_KIND_INT32:
            n = AddAndFormat_<uint32_t, int32_t>(d, c, format);
            break;
        case DTTABLE_KIND_INT64:
            n = AddAndFormat_<uint64_t, long long>(d, c, format);
            break;
        default:  // kind 4: formatted when it was set
            Widen_(d, c->textLen);
            return;
    }
    c->textLen = HeldLen_(n, c->text);
    Widen_(d, c->textLen);
}

void FormatSum_(DTTableTitle *d) {
    const char *format = d->format;
    int32_t n;
    switch (d->kind) {
        case DTTABLE_KIND_DOUBLE: {
            double s;
            memcpy(&s, d->sum, sizeof s);
            n = Lumo_snprintf(d->sumText, sizeof d->sumText, format, s);
            break;
        }
        case DTTABLE_KIND_FLOAT: {
            float s;
            memcpy(&s, d->sum, sizeof s);
            n = Lumo_snprintf(d->sumText, sizeof d->sumText, format, static_cast<double>(s));
            break;
        }
        case DTTABLE_KIND_INT32: {
            int32_t s;
            memcpy(&s, d->sum, sizeof s);
            n = Lumo_snprintf(d->sumText, sizeof d->sumText, format, s);
            break;
        }
        case DTTABLE_KIND_STRING:
            d->sumText[0] = 0;
            return;
        default: {  // kind 3, and the zero total of kinds above 4
            int64_t s;
            memcpy(&s, d->sum, sizeof s);
            n = Lumo_snprintf(d->sumText, sizeof d->sumText, format, static_cast<long long>(s));
            break;
        }
    }
    Widen_(d, HeldLen_(n, d->sumText));
}

void SumColumn_(DTTable *t, DTTableTitle *d, int32_t col, int32_t rows) {
    memset(d->sum, 0, sizeof d->sum);
    d->width = d->titleLen + 2;
    if (d->kind <= DTTABLE_KIND_STRING) {
        for (int32_t r = 0; r < rows; ++r) {
            DTList *row = Row_(t, r);
            DTTableCell *c = static_cast<DTTableCell *>(DTList_Get(row, col));
            if (c) SumCell_(d, c);
        }
    }
    FormatSum_(d);
}

}  // namespace

extern "C" void DTTable_Sum(DTTable *table) {
    if (!table) return;
    int32_t cols = DTList_Length(table->titles);
    int32_t rows = DTList_Length(table->rows);
    for (int32_t col = 0; col < cols; ++col) {
        DTTableTitle *d = Column_(table, col);
        if (d) SumColumn_(table, d, col, rows);
    }
}

// ---- rendering ----

namespace {

// Where the layout's characters go: a growable byte buffer or a print object.
struct Sink_ {
    DTBuf *buf;
    DTPrint *print;
};

void PutRun_(const Sink_ &s, char ch, int32_t n) {
    if (s.print) {
        if (n > 0) DTPrint_PrintCh(s.print, static_cast<unsigned char>(ch), n);
        return;
    }
    for (int32_t i = 0; i < n; ++i) DTBuf_Append(s.buf, &ch, 1);
}

void PutText_(const Sink_ &s, const char *text) {
    if (s.print)
        DTPrint_Print(s.print, text, 1);
    else
        DTBuf_Append(s.buf, text, 0);
}

// Every line ends here; the console path hands each one over on its own.
void EndLine_(const Sink_ &s) {
    PutRun_(s, '\n', 1);
    if (s.print) DTPrint_Flush(s.print);
}

// Sum of the column widths, or -1 when a column position has no description.
int32_t TotalWidth_(DTTable *t) {
    int32_t cols = DTList_Length(t->titles);
    int32_t w = 0;
    for (int32_t col = 0; col < cols; ++col) {
        DTTableTitle *d = Column_(t, col);
        if (!d) return -1;
        w += d->width;
    }
    return w;
}

void PutCaption_(const Sink_ &s, DTTable *t, int32_t w) {
    int32_t len = static_cast<int32_t>(strlen(t->caption));
    PutRun_(s, '*', w);
    PutRun_(s, '\n', 1);
    if (w > len) PutRun_(s, ' ', (w - len) / 2);
    PutText_(s, t->caption);
    PutRun_(s, '\n', 1);
    PutRun_(s, '*', w);
    EndLine_(s);
}

void PutCentred_(const Sink_ &s, const char *text, int32_t len, int32_t width) {
    PutRun_(s, ' ', (width - len) / 2);
    PutText_(s, text);
    PutRun_(s, ' ', (width + 1 - len) / 2);
}

void PutHeads_(const Sink_ &s, DTTable *t, int32_t cols) {
    for (int32_t col = 0; col < cols; ++col) {
        DTTableTitle *d = Column_(t, col);
        PutCentred_(s, d->title, d->titleLen, d->width);
    }
    EndLine_(s);
    for (int32_t col = 0; col < cols; ++col) {
        PutRun_(s, ' ', 1);
        PutRun_(s, '-', Column_(t, col)->width - 2);
        PutRun_(s, ' ', 1);
    }
    EndLine_(s);
}

void PutCell_(const Sink_ &s, const DTTableTitle *d, DTTableCell *c) {
    int32_t width = d->width;
    if (!c || d->kind > DTTABLE_KIND_STRING) {
        PutRun_(s, ' ', width);
        return;
    }
    int32_t len = c->textLen;
    switch (d->align) {
        case 'R':
        case 'r':
            PutRun_(s, ' ', width - len);
            PutText_(s, c->text);
            break;
        case 'L':
        case 'l':
            PutText_(s, c->text);
            PutRun_(s, ' ', width - len);
            break;
        default:
            PutCentred_(s, c->text, len, width);
            break;
    }
}

void PutRow_(const Sink_ &s, DTTable *t, int32_t r, int32_t cols) {
    DTList *row = Row_(t, r);
    if (row) {
        for (int32_t col = 0; col < cols; ++col)
            PutCell_(s, Column_(t, col), static_cast<DTTableCell *>(DTList_Get(row, col)));
    }
    EndLine_(s);
}

void PutFooter_(const Sink_ &s, int32_t rows, int32_t w) {
    char line[DTTABLE_TEXT_SIZE];
    Lumo_snprintf(line, sizeof line, "total count = %d", rows);
    PutRun_(s, '-', w);
    EndLine_(s);
    PutText_(s, line);
    EndLine_(s);
    PutRun_(s, '-', w);
    EndLine_(s);
}

// The whole layout; the caller has run the preparation pass and checked every column.
void Render_(const Sink_ &s, DTTable *t, int32_t w, bool footer) {
    int32_t cols = DTList_Length(t->titles);
    int32_t rows = DTList_Length(t->rows);
    if (t->caption[0]) PutCaption_(s, t, w);
    PutHeads_(s, t, cols);
    for (int32_t r = 0; r < rows; ++r) PutRow_(s, t, r, cols);
    if (footer) PutFooter_(s, rows, w);
}

}  // namespace

extern "C" {

int32_t DTTable_Show(DTTable *table) { return DTTable_ShowToBuffer(table, nullptr, 0); }

int32_t DTTable_ShowToBuffer(DTTable *table, char *buf, int32_t size) {
    if (!table) return 0;
    bool toCaller = buf != nullptr && size != 0;
    DTTable_Sum(table);
    // A print object that can never hold a character would hand over forever.
    if (toCaller && size < 2) return 0;
    char line[kConsoleLine];
    DTPrint *p = toCaller ? DTPrint_New(buf, size) : DTPrint_New(line, kConsoleLine);
    if (!p) return 0;
    if (toCaller) DTPrint_SetPrint(p, 0);
    int32_t w = TotalWidth_(table);
    if (w < 0) {
        DTPrint_Release(p);
        return 0;
    }
    Sink_ s = {nullptr, p};
    Render_(s, table, w, !toCaller);
    int32_t held = p->length;
    DTPrint_Release(p);
    return held;
}

void DTTable_ShowToBuf(DTTable *table, DTBuf *buf) {
    if (!table) return;
    if (reinterpret_cast<uintptr_t>(buf) <= 100) {
        DTTable_Show(table);
        return;
    }
    DTTable_Sum(table);
    int32_t w = TotalWidth_(table);
    if (w < 0) return;
    Sink_ s = {buf, nullptr};
    Render_(s, table, w, true);
}

}  // extern "C"
