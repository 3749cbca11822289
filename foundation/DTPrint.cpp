#include "foundation/DTPrint.h"

#include <string.h>

#include <algorithm>

#include "foundation/DTMem.h"
#include "foundation/DTPrint_internal.h"
#include "platform/DTPlatform.h"

namespace {

const int32_t kSelfCapacity = 1000;

}  // namespace

static DTPrint *self_print;
static char self_buffer[kSelfCapacity];

// Terminates the gathered text and gives it to the console; the caller decides
// what happens to length afterwards.
static void DTPrint_HandOver_(DTPrint *p) {
    p->buffer[p->length] = '\0';
    if (p->length > 0 && p->printOn) Kybe_RawPrint("%s", p->buffer);
}

extern "C" {

DTPrint *DTPrint_New(char *buffer, int32_t capacity) {
    // Without room for one character and the zero, the gathering loops could
    // never make progress.
    if (!buffer || capacity < 2) return nullptr;
    DTPrint *p = static_cast<DTPrint *>(DTMem_LocalMalloc(sizeof(DTPrint)));
    if (!p) return nullptr;
    p->buffer = buffer;
    p->capacity = capacity;
    p->length = 0;
    p->printOn = 1;
    buffer[0] = '\0';
    return p;
}

void DTPrint_Release(DTPrint *p) {
    if (!p) return;
    DTPrint_Flush(p);
    DTMem_LocalFree(p);
}

void DTPrint_SetPrint(DTPrint *p, uint32_t on) {
    if (p) p->printOn = on;
}

void DTPrint_Flush(DTPrint *p) {
    if (!p || !p->printOn || p->length <= 0) return;
    DTPrint_HandOver_(p);
    p->length = 0;
}

void DTPrint_PrintCh(DTPrint *p, int32_t ch, int32_t count) {
    if (!p) return;
    while (count > 0) {
        while (p->length + 1 < p->capacity) {
            p->buffer[p->length++] = static_cast<char>(ch & 0xFF);
            if (--count == 0) return;
        }
        // Full: with printing off the gathered text is dropped on purpose, so
        // an off object can keep taking text without growing.
        DTPrint_HandOver_(p);
        p->length = 0;
    }
}

void DTPrint_Print(DTPrint *p, const char *s, int32_t count) {
    if (!p || !s || !s[0]) return;
    size_t len = strlen(s);
    // A string that cannot fit even an empty buffer always goes straight to the
    // console; clamping its length keeps the arithmetic within int32_t.
    int32_t n = static_cast<int32_t>(std::min(len, static_cast<size_t>(p->capacity)));
    while (count > 0) {
        while (n < p->capacity - p->length) {
            memcpy(p->buffer + p->length, s, static_cast<size_t>(n));
            p->length += n;
            if (--count == 0) return;
        }
        p->buffer[p->length] = '\0';
        if (p->length > 0) {
            if (p->printOn) Kybe_RawPrint("%s", p->buffer);
            p->length = 0;
        } else {
            if (p->printOn) Kybe_RawPrint("%s", s);
            --count;
        }
    }
}

void DTPrint_Show(const char *text, int32_t len) {
    if (!self_print) {
        self_print = DTPrint_New(self_buffer, kSelfCapacity);
        if (!self_print) return;
    }
    if (len == 0) len = text ? static_cast<int32_t>(strlen(text)) : 0;
    if (len <= 0 || !text) return;
    for (int32_t i = 0; i < len; ++i) {
        char c = text[i];
        DTPrint_PrintCh(self_print, c, 1);
        if (c == '\n') DTPrint_Flush(self_print);
    }
}

void DTPrint_Puts(const char *text, int32_t len) {
    DTPrint_Show(text, len);
    DTPrint_Show("\n", 1);
}

void DTPrint_ShowEx(const char *text, int32_t len) {
    DTPrint_Show(text, len);
    DTPrint_Flush(self_print);
}

}  // extern "C"
