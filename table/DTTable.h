/* dtkit text tables: a caption, typed columns and rows of cells, shown as
 * fixed-width text on the console, into a caller's buffer or into a DTBuf.
 * Rows and columns grow on demand; a row may be shorter than the column count.
 *
 * Column kinds: 0 double, 1 float, 2 32-bit integer, 3 64-bit integer (the value
 * is copied from the caller's pointer), 4 string (the pointer is the format's
 * argument, formatted when the cell is set), 5 and above: nothing is stored. */
#ifndef DTKIT_DTTABLE_H
#define DTKIT_DTTABLE_H

#include <stdint.h>

#include "../containers/DTBuf.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct DTTable DTTable;

#define DTTABLE_KIND_DOUBLE 0u
#define DTTABLE_KIND_FLOAT 1u
#define DTTABLE_KIND_INT32 2u
#define DTTABLE_KIND_INT64 3u
#define DTTABLE_KIND_STRING 4u

/* Empty caption, no columns, no rows; null when memory is short. */
DTTable *DTTable_New(void);
/* Caption cut to its first 99 characters; a null caption empties it. */
void DTTable_SetCaption(DTTable *table, const char *caption);
/* Defines or redefines column col; align 'L'/'l' left, 'R'/'r' right, else centred.
 * Choice: a title of 100+ characters keeps its first 99; a format of 20+ characters is
 * dropped (stored empty, so the column's cells and total format as empty text) because a
 * cut format could end inside a conversion; null title or format counts as empty;
 * a negative col is refused. */
void DTTable_SetTitle(DTTable *table, int32_t col, const char *title, uint32_t kind,
                      const char *format, char align);
/* Sets one cell of a defined column; value points at the value (kind 4: the format's argument).
 * Choice: a negative row or col is refused (nothing could be stored there), and so is a
 * null value for kinds 0-3; a formatter result outside 0..99 (text cut, or an error) is
 * stored as the length of the text actually kept, so widths match what is shown. */
void DTTable_Set(DTTable *table, int32_t row, int32_t col, const void *value);
/* Kind 4: the cell's text; other kinds: the cell's 8 value bytes (read in the column's
 * kind). Null when the column, row or cell is missing; a negative number means 0. */
void *DTTable_Get(DTTable *table, int32_t row, int32_t col);
int32_t DTTable_GetColNum(DTTable *table);
int32_t DTTable_GetRowNum(DTTable *table);
/* Releases every row's cells; the row count stays and the rows render empty. */
void DTTable_ClearLines(DTTable *table);
/* Removes all rows and columns; the caption stays. */
void DTTable_Clear(DTTable *table);
void DTTable_Release(DTTable *table);

/* Formats the numeric cells, totals numeric columns in their own arithmetic (float in
 * single precision, 32/64-bit integers wrapping) and sets every column's width.
 * Choice: cells of kind 5 and above get no text; the renderers show them as blanks. */
void DTTable_Sum(DTTable *table);

/* Shows the table on the console, one console call per line (the caption block as one);
 * returns 0. */
int32_t DTTable_Show(DTTable *table);
/* buf null or size 0: as DTTable_Show. Otherwise renders, without the footer and without a
 * terminating zero, into buf and returns the characters held; a buffer that fills drops
 * what it holds and goes on, so it ends with the tail of the text.
 * Choice: a size below 2 (negative included) holds no character: nothing is rendered, 0. */
int32_t DTTable_ShowToBuffer(DTTable *table, char *buf, int32_t size);
/* Appends the whole rendering, footer included, to buf; a buf address of 100 or below
 * shows the table on the console instead. */
void DTTable_ShowToBuf(DTTable *table, DTBuf *buf);

#ifdef __cplusplus
}
#endif

#endif
