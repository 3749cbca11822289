#include "records/DTBuffer.h"

#include <stdarg.h>
#include <string.h>

#include "foundation/DTPrint.h"
#include "foundation/DTString.h"
#include "records/DTTime.h"

namespace {

// One field of a format string: its letter and, for S/s, its byte count.
struct Field_ {
    char letter;
    uint32_t size;
};

uint32_t LetterSize_(char c, uint32_t count) {
    switch (c) {
        case 'B': case 'b': return 1;
        case 'H': case 'h': return 2;
        case 'I': case 'i': case 'T': return 4;
        case 'S': case 's': return count;
        default: return 0;
    }
}

bool IsFieldLetter_(char c) { return c != '\0' && strchr("BbHhIiTSs", c) != nullptr; }

// The one scanner all three operations share: advances *fmt past the next
// field letter and describes it; false at the end of the format.
bool NextField_(const char **fmt, Field_ *field) {
    // A count past what a signed 32-bit number holds stays too large however
    // many digits follow, and then makes an empty field rather than a wrapped one.
    const uint32_t kCountMax = 0x7FFFFFFFu;
    uint32_t count = 0;
    bool tooLarge = false;
    for (const char *p = *fmt; *p; ++p) {
        char c = *p;
        if (IsFieldLetter_(c)) {
            field->letter = c;
            field->size = LetterSize_(c, tooLarge ? 0 : count);
            *fmt = p + 1;
            return true;
        }
        if (c >= '0' && c <= '9') {
            uint32_t digit = static_cast<uint32_t>(c - '0');
            if (!tooLarge && count > (kCountMax - digit) / 10u) tooLarge = true;
            if (!tooLarge) count = count * 10u + digit;
        } else {
            count = 0;
            tooLarge = false;
        }
    }
    return false;
}

// Size of the whole format, or false when it would pass 32 bits: such a format
// is refused as a whole, so no operation can walk more bytes than it reports.
bool TotalSize_(const char *fmt, uint32_t *total, uint32_t *fields) {
    uint64_t sum = 0;
    uint32_t n = 0;
    Field_ f;
    while (NextField_(&fmt, &f)) {
        sum += f.size;
        if (sum > 0xFFFFFFFFu) return false;
        ++n;
    }
    *total = static_cast<uint32_t>(sum);
    *fields = n;
    return true;
}

void PutBE_(uint8_t *dst, uint32_t value, uint32_t size) {
    for (uint32_t i = 0; i < size; ++i) dst[i] = static_cast<uint8_t>(value >> (8 * (size - 1 - i)));
}

uint32_t GetBE_(const uint8_t *src, uint32_t size) {
    uint32_t value = 0;
    for (uint32_t i = 0; i < size; ++i) value = (value << 8) | src[i];
    return value;
}

// Writes an integer of the field's width into the caller's variable
// without assuming that the variable is aligned.
void StoreInt_(void *dst, uint32_t value, uint32_t size) {
    if (!dst) return;
    if (size == 1) {
        uint8_t v = static_cast<uint8_t>(value);
        memcpy(dst, &v, 1);
    } else if (size == 2) {
        uint16_t v = static_cast<uint16_t>(value);
        memcpy(dst, &v, 2);
    } else {
        memcpy(dst, &value, 4);
    }
}

void ExtractField_(const Field_ &f, const uint8_t *src, va_list *ap) {
    void *dst = va_arg(*ap, void *);
    if (f.letter == 'S' || f.letter == 's') {
        if (!dst) return;
        memcpy(dst, src, f.size);
        static_cast<char *>(dst)[f.size] = '\0';
        return;
    }
    StoreInt_(dst, GetBE_(src, f.size), f.size);
}

// The S hex text is built in a shared 10000-byte buffer that holds at most
// 3265 bytes' worth; a multiple of 16 keeps the pieces' lines identical to
// one dump of the whole field.
const uint32_t kHexChunk_ = 204 * 16;

void DumpHex_(int32_t number, const uint8_t *src, uint32_t size) {
    DTPrint_Show(DTString_SFormat("%04d[%dS]=>\n", number, static_cast<int32_t>(size)), 0);
    for (uint32_t off = 0; off < size; off += kHexChunk_) {
        uint32_t n = size - off < kHexChunk_ ? size - off : kHexChunk_;
        DTPrint_Show(DTString_SHFormat(src + off, static_cast<int32_t>(n)), 0);
        if (off + n < size) DTPrint_Show("\n", 1);
    }
    DTPrint_Show("\n", 1);
}

// The characters go to the print buffer as they stand rather than through
// the 1000-byte format buffer, so no length of field can overflow it.
void DumpText_(int32_t number, const uint8_t *src, uint32_t size) {
    const void *nul = memchr(src, '\0', size);
    uint32_t len = nul ? static_cast<uint32_t>(static_cast<const uint8_t *>(nul) - src) : size;
    DTPrint_Show(DTString_SFormat("%04d[%ds]=>", number, static_cast<int32_t>(size)), 0);
    if (len > 0) DTPrint_Show(reinterpret_cast<const char *>(src), static_cast<int32_t>(len));
    DTPrint_Show("<\n", 2);
}

void DumpField_(int32_t number, const Field_ &f, const uint8_t *src) {
    uint32_t v = f.letter == 'S' || f.letter == 's' ? 0 : GetBE_(src, f.size);
    const char *line = nullptr;
    switch (f.letter) {
        case 'B': line = DTString_SFormat("%04d[B]=>0x%02X<\n", number, v); break;
        case 'b': line = DTString_SFormat("%04d[B]=>%d<\n", number, static_cast<int>(v)); break;
        // Four hex digits whatever the top bit: a sign-extended FFFF prefix
        // would misstate a 16-bit field.
        case 'H': line = DTString_SFormat("%04d[H]=>0x%04X<\n", number, v); break;
        case 'h':
            line = DTString_SFormat("%04d[h]=>%d<\n", number, static_cast<int>(static_cast<int16_t>(v)));
            break;
        case 'I': line = DTString_SFormat("%04d[I]=>0x%08X<\n", number, v); break;
        case 'i':
            line = DTString_SFormat("%04d[i]=>%d<\n", number, static_cast<int>(static_cast<int32_t>(v)));
            break;
        case 'T': {
            char when[32];
            DTTime_Format(when, "YYYY/MM/DD HH:MI:SS", static_cast<int32_t>(v));
            line = DTString_SFormat("%04d[T]=>%s<\n", number, when);
            break;
        }
        case 'S': DumpHex_(number, src, f.size); return;
        case 's': DumpText_(number, src, f.size); return;
        default: return;
    }
    DTPrint_Show(line, 0);
}

// The format line is shown in pieces so that an arbitrarily long format
// cannot overrun the shared format buffer.
void DumpFormatLine_(const char *fmt) {
    DTPrint_Show("format:", 7);
    DTPrint_Show(fmt, 0);
    DTPrint_Show("\n", 1);
}

}  // namespace

extern "C" {

uint32_t DTBuffer_GetPackSize(const char *fmt, uint32_t *fields) {
    if (fields) *fields = 0;
    if (!fmt) return 0;
    uint32_t total = 0, count = 0;
    if (!TotalSize_(fmt, &total, &count)) return 0;
    if (fields) *fields = count;
    return total;
}

uint32_t DTBuffer_Pack(void *dst, const char *fmt, ...) {
    if (!dst || !fmt) return 0;
    uint32_t total = 0, count = 0;
    if (!TotalSize_(fmt, &total, &count)) return 0;
    uint8_t *out = static_cast<uint8_t *>(dst);
    uint32_t pos = 0;
    va_list ap;
    va_start(ap, fmt);
    Field_ f;
    while (NextField_(&fmt, &f)) {
        if (f.letter == 'S' || f.letter == 's') {
            const void *src = va_arg(ap, const void *);
            if (f.size > 0) {
                if (src)
                    memcpy(out + pos, src, f.size);
                else
                    memset(out + pos, 0, f.size);
            }
        } else {
            PutBE_(out + pos, static_cast<uint32_t>(va_arg(ap, int)), f.size);
        }
        pos += f.size;
    }
    va_end(ap);
    return pos;
}

int32_t DTBuffer_UNPack(const char *fmt, const void *src, ...) {
    if (!fmt || !src) return 0;
    const uint8_t *in = static_cast<const uint8_t *>(src);
    bool dump = fmt[0] == '*';
    const char *scan = dump ? fmt + 1 : fmt;
    uint32_t total = 0, count = 0;
    if (!TotalSize_(scan, &total, &count)) return 0;
    if (dump) DumpFormatLine_(fmt);

    va_list ap;
    va_start(ap, src);
    int32_t walked = 0;
    uint32_t pos = 0;
    Field_ f;
    while (NextField_(&scan, &f)) {
        ++walked;
        if (dump)
            DumpField_(walked, f, in + pos);
        else
            ExtractField_(f, in + pos, &ap);
        pos += f.size;
    }
    va_end(ap);
    return walked;
}

}  // extern "C"
