// Layouts of the table, its column descriptions and its cells, shared with
// the table tests, which check widths and text lengths. Not installed.
#ifndef DTKIT_DTTABLE_INTERNAL_H
#define DTKIT_DTTABLE_INTERNAL_H

#include "containers/DTList.h"
#include "table/DTTable.h"

#define DTTABLE_TEXT_SIZE 100
#define DTTABLE_FORMAT_SIZE 20

// All three live in accounted memory, which is only 4-byte aligned on a
// 64-bit host; the 8-byte values are byte arrays and go through memcpy.
#pragma pack(push, 4)
typedef struct DTTableTitle {
    char title[DTTABLE_TEXT_SIZE];
    int32_t titleLen;
    uint32_t kind;
    char align;
    char sumText[DTTABLE_TEXT_SIZE];
    char format[DTTABLE_FORMAT_SIZE];
    uint8_t sum[8];
    int32_t width;
} DTTableTitle;

typedef struct DTTableCell {
    char text[DTTABLE_TEXT_SIZE];
    int32_t textLen;
    uint8_t value[8];
} DTTableCell;

struct DTTable {
    char caption[DTTABLE_TEXT_SIZE];
    DTList *titles;  // DTTableTitle * per column position
    DTList *rows;    // DTList * of DTTableCell * per row position
};
#pragma pack(pop)

#endif
