// Pack format strings through all three operations. The input is a format
// (up to the first NUL byte) and, after the NUL, the bytes that the values and
// a foreign buffer are drawn from.
//  - The size and field count must match an independent reading of the format.
//  - Pack writes exactly that many bytes into a buffer of exactly that size,
//    and extract mode gives every value back, each into a variable of exactly
//    the field's width (S/s: count + 1 bytes).
//  - Over bytes that were never packed (a mismatched buffer of the right
//    size), extract mode reads each field at its offset, dump mode shows them,
//    and neither touches a byte outside the buffer or the variables.
//  - A format whose total passes 32 bits is refused whole: nothing is written,
//    read or taken from the arguments (all of them point at empty blocks).
// Every buffer is its own heap block of exact size, so the sanitizer sees any
// byte read or written past it.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "records/DTBuffer.h"

namespace {

// Fields a call can carry: each combination of integer and pointer arguments
// is its own instantiation, so this stays small.
constexpr size_t kMaxFields = 8;
// Largest format total that is actually packed and walked.
constexpr uint64_t kMaxBytes = 65536;

void check(bool ok, const char *what) {
    if (ok) return;
    fprintf(stderr, "fuzz_pack_format: %s\n", what);
    abort();
}

struct RefField {
    char letter;
    uint32_t size;
};

bool isText(char c) { return c == 'S' || c == 's'; }

// The format as the documentation describes it, written without the
// library's scanner: false when the total passes 32 bits.
bool readFormat(const char *fmt, std::vector<RefField> &fields, uint64_t &total) {
    uint64_t count = 0;
    total = 0;
    for (const char *p = fmt; *p != '\0'; ++p) {
        const char c = *p;
        if (c >= '0' && c <= '9') {
            count = count * 10 + uint64_t(c - '0');
            if (count > 0xFFFFFFFFull) count = 0xFFFFFFFFull + 1;  // stays too large
            continue;
        }
        uint32_t size;
        switch (c) {
            case 'B': case 'b': size = 1; break;
            case 'H': case 'h': size = 2; break;
            case 'I': case 'i': case 'T': size = 4; break;
            case 'S': case 's': size = count > 0x7FFFFFFFull ? 0 : uint32_t(count); break;
            default: count = 0; continue;
        }
        fields.push_back({c, size});
        total += size;
        count = 0;
    }
    return total <= 0xFFFFFFFFull;
}

// Bytes after the format, read round and round; an empty tail still yields
// varied values.
class Source {
public:
    Source(const uint8_t *p, size_t n) : p_(p), n_(n) {}
    uint8_t byte() {
        uint8_t b = n_ > 0 ? p_[i_ % n_] : uint8_t(i_ * 0x9Du + 0x3Bu);
        if (n_ > 0 && i_ >= n_) b = uint8_t(b ^ (i_ / n_));
        ++i_;
        return b;
    }
    uint32_t word() {
        uint32_t v = 0;
        for (int k = 0; k < 4; ++k) v = (v << 8) | byte();
        return v;
    }

private:
    const uint8_t *p_;
    size_t n_;
    size_t i_ = 0;
};

// An exactly sized heap block; a zero size is a real (empty) block too.
struct Block {
    explicit Block(size_t n) : size(n), p(new uint8_t[n]) {}
    size_t size;
    std::unique_ptr<uint8_t[]> p;
};

struct PackArg {
    bool pointer;
    int value;
    const void *bytes;
};

// DTBuffer_Pack with each argument of the type its field takes: the argument
// list is built one field at a time, int or pointer.
template <size_t Left>
struct Packer {
    template <typename... A>
    static uint32_t call(void *dst, const char *fmt, const PackArg *args, size_t n, A... a) {
        if (n == 0) return DTBuffer_Pack(dst, fmt, a...);
        if (args->pointer) return Packer<Left - 1>::call(dst, fmt, args + 1, n - 1, a..., args->bytes);
        return Packer<Left - 1>::call(dst, fmt, args + 1, n - 1, a..., args->value);
    }
};

template <>
struct Packer<0> {
    template <typename... A>
    static uint32_t call(void *dst, const char *fmt, const PackArg *, size_t, A... a) {
        return DTBuffer_Pack(dst, fmt, a...);
    }
};

int32_t extract(const char *fmt, const void *src, void *const *to) {
    return DTBuffer_UNPack(fmt, src, to[0], to[1], to[2], to[3], to[4], to[5], to[6], to[7]);
}

uint32_t readBE(const uint8_t *p, uint32_t size) {
    uint32_t v = 0;
    for (uint32_t i = 0; i < size; ++i) v = (v << 8) | p[i];
    return v;
}

uint32_t readNative(const uint8_t *p, uint32_t size) {
    if (size == 1) return p[0];
    if (size == 2) {
        uint16_t v;
        memcpy(&v, p, 2);
        return v;
    }
    uint32_t v;
    memcpy(&v, p, 4);
    return v;
}

uint32_t lowBits(uint32_t v, uint32_t size) { return size >= 4 ? v : v & ((1u << (8 * size)) - 1u); }

// One variable per field, of exactly the width extract mode may fill.
std::vector<Block> variables(const std::vector<RefField> &fields, void **to) {
    std::vector<Block> vars;
    for (size_t i = 0; i < kMaxFields; ++i) to[i] = nullptr;
    for (size_t i = 0; i < fields.size(); ++i) {
        vars.emplace_back(isText(fields[i].letter) ? size_t(fields[i].size) + 1 : size_t(fields[i].size));
        memset(vars.back().p.get(), 0xA5, vars.back().size);
        to[i] = vars.back().p.get();
    }
    return vars;
}

// Each variable against the field's bytes in src.
void checkExtracted(const std::vector<RefField> &fields, const std::vector<Block> &vars, const uint8_t *src) {
    uint32_t at = 0;
    for (size_t i = 0; i < fields.size(); ++i) {
        const RefField &f = fields[i];
        const uint8_t *v = vars[i].p.get();
        if (isText(f.letter)) {
            check(memcmp(v, src + at, f.size) == 0, "extracted text differs from its field");
            check(v[f.size] == '\0', "extracted text not terminated behind its count");
        } else {
            check(readNative(v, f.size) == readBE(src + at, f.size), "extracted integer differs from its field");
        }
        at += f.size;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const uint8_t *nul = static_cast<const uint8_t *>(memchr(data, 0, size));
    const size_t fmtLen = nul != nullptr ? size_t(nul - data) : size;
    const std::string fmt(reinterpret_cast<const char *>(data), fmtLen);
    Source src(data + fmtLen + (nul != nullptr), size - fmtLen - (nul != nullptr));

    std::vector<RefField> fields;
    uint64_t total = 0;
    const bool fits = readFormat(fmt.c_str(), fields, total);

    uint32_t count = 0xDEADu;
    const uint32_t reported = DTBuffer_GetPackSize(fmt.c_str(), &count);
    check(reported == DTBuffer_GetPackSize(fmt.c_str(), nullptr), "size depends on the counter pointer");
    if (!fits) {
        check(reported == 0, "a total past 32 bits reported a size");
        check(count == 0, "a total past 32 bits reported fields");
    } else {
        check(reported == total, "size differs from the format's fields");
        check(count == fields.size(), "field count differs from the format's letters");
    }
    // Dump mode takes no arguments, so any number of fields can be walked.
    const std::string dumpFmt = "*" + fmt;
    if (!fits) {
        Block empty(0);
        check(DTBuffer_UNPack(dumpFmt.c_str(), empty.p.get()) == 0, "a refused format was dumped");
    } else if (total <= kMaxBytes) {
        Block foreign(total);
        for (size_t i = 0; i < foreign.size; ++i) foreign.p[i] = src.byte();
        check(DTBuffer_UNPack(dumpFmt.c_str(), foreign.p.get()) == int32_t(fields.size()),
              "dump mode walked a different number of fields");
    }
    if (fields.size() > kMaxFields) return 0;
    if (fits && total > kMaxBytes) return 0;  // valid, but too big to allocate here

    // A leading "*" would select dump mode; a blank in front is skipped and changes nothing.
    const std::string extractFmt = fmt.empty() || fmt[0] != '*' ? fmt : " " + fmt;
    void *to[kMaxFields];

    if (!fits) {
        // Every argument leads to an empty block: any byte taken is outside it.
        Block empty(0);
        PackArg args[kMaxFields];
        for (size_t i = 0; i < fields.size(); ++i) args[i] = {isText(fields[i].letter), 0x5A, empty.p.get()};
        check(Packer<kMaxFields>::call(empty.p.get(), fmt.c_str(), args, fields.size()) == 0,
              "a refused format was packed");
        std::vector<Block> none;
        for (size_t i = 0; i < kMaxFields; ++i) {
            none.emplace_back(0);
            to[i] = none.back().p.get();
        }
        check(extract(extractFmt.c_str(), empty.p.get(), to) == 0, "a refused format was extracted");
        return 0;
    }

    // Round trip: values (and sometimes a null text, which packs zeros) in, the same values out.
    PackArg args[kMaxFields];
    std::vector<Block> texts;
    std::vector<uint8_t> expect;
    for (size_t i = 0; i < fields.size(); ++i) {
        const RefField &f = fields[i];
        if (!isText(f.letter)) {
            const uint32_t v = src.word();
            args[i] = {false, int(v), nullptr};
            for (uint32_t k = 0; k < f.size; ++k) expect.push_back(uint8_t(v >> (8 * (f.size - 1 - k))));
            continue;
        }
        if ((src.byte() & 7) == 0) {
            args[i] = {true, 0, nullptr};
            expect.insert(expect.end(), f.size, 0);
            continue;
        }
        texts.emplace_back(f.size);
        for (size_t k = 0; k < f.size; ++k) texts.back().p[k] = src.byte();
        expect.insert(expect.end(), texts.back().p.get(), texts.back().p.get() + f.size);
        args[i] = {true, 0, texts.back().p.get()};
    }
    Block packed(total);
    check(Packer<kMaxFields>::call(packed.p.get(), fmt.c_str(), args, fields.size()) == total,
          "pack wrote a different number of bytes");
    check(expect.size() == total, "harness: expected bytes miscounted");
    check(total == 0 || memcmp(packed.p.get(), expect.data(), total) == 0, "packed bytes differ from the values");

    std::vector<Block> vars = variables(fields, to);
    check(extract(extractFmt.c_str(), packed.p.get(), to) == int32_t(fields.size()),
          "extract walked a different number of fields");
    uint32_t at = 0;
    for (size_t i = 0; i < fields.size(); ++i) {
        const RefField &f = fields[i];
        if (isText(f.letter)) {
            check(f.size == 0 || memcmp(vars[i].p.get(), expect.data() + at, f.size) == 0, "text did not come back");
        } else {
            check(readNative(vars[i].p.get(), f.size) == lowBits(uint32_t(args[i].value), f.size),
                  "integer did not come back");
        }
        at += f.size;
    }
    checkExtracted(fields, vars, packed.p.get());

    // Bytes that no pack produced, in a buffer of exactly the format's size.
    Block foreign(total);
    for (size_t i = 0; i < foreign.size; ++i) foreign.p[i] = src.byte();
    vars = variables(fields, to);
    check(extract(extractFmt.c_str(), foreign.p.get(), to) == int32_t(fields.size()),
          "extract over foreign bytes walked a different number of fields");
    checkExtracted(fields, vars, foreign.p.get());
    return 0;
}
