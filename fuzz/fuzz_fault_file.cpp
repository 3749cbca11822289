// Arbitrary bytes as a fault file through dtfcm's decoder. Whatever the
// bytes, every decoded record must be a faithful reading of the bytes at its
// offset: log records in file order before the end mark, value records after
// it, each one re-encoding to exactly the frame it came from. Both output
// forms must stay on one line of printable text.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fcm_decode.h"

namespace {

void check(bool ok, const char *what) {
    if (ok) return;
    fprintf(stderr, "fuzz_fault_file: %s\n", what);
    abort();
}

void putBE32(std::vector<uint8_t> &out, uint32_t v) {
    out.push_back(uint8_t(v >> 24));
    out.push_back(uint8_t(v >> 16));
    out.push_back(uint8_t(v >> 8));
    out.push_back(uint8_t(v));
}

// The frame body a value record was read from.
std::vector<uint8_t> encodeValue(const dtfcm::Record &r) {
    std::vector<uint8_t> b;
    b.push_back(uint8_t(r.name.size() + 1));
    b.push_back(uint8_t(r.kind));
    b.insert(b.end(), r.name.begin(), r.name.end());
    putBE32(b, r.id);
    switch (r.kind) {
        case 0: case 3:
            putBE32(b, uint32_t(r.value));
            break;
        case 1: case 4:
            putBE32(b, uint32_t(r.value >> 32));
            putBE32(b, uint32_t(r.value));
            break;
        default:
            putBE32(b, uint32_t(r.bytes.size()));
            b.insert(b.end(), r.bytes.begin(), r.bytes.end());
            break;
    }
    return b;
}

bool oneLineOfText(const std::string &s) {
    for (unsigned char c : s)
        if (c < 0x20 || c >= 0x7F) return false;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::vector<uint8_t> file(data, data + size);
    const dtfcm::Result res = dtfcm::Decode(file);
    size_t expect = 0;  // where the next record's frame must start
    bool inValues = false;
    for (const dtfcm::Record &r : res.records) {
        check(r.section == 1 || r.section == 3, "a record of neither section");
        if (r.section == 3 && !inValues) {
            // Value records follow the 00 00 end mark, which the log frames led up to.
            check(r.offset == expect + 2 && expect + 2 <= size, "first value record not right after the end mark");
            check(file[expect] == 0 && file[expect + 1] == 0, "no end mark before the value records");
            expect += 2;
            inValues = true;
        }
        check(r.section == 3 || !inValues, "a log record after the value records");
        check(r.offset == expect, "records not back to back");
        check(r.offset + 2 <= size, "record offset past the end");
        const size_t len = (size_t(file[r.offset]) << 8) | file[r.offset + 1];
        check(len > 0, "an end mark decoded as a record");
        check(r.offset + 2 + len <= size, "record runs past the end");
        const std::string body(reinterpret_cast<const char *>(data) + r.offset + 2, len);
        if (r.section == 1) {
            check(r.marker == "log" || r.marker == "run", "unknown log marker");
            std::string full = r.marker + " " + r.name + " " + r.text;
            std::string bare = r.marker + " " + r.name;
            // Without a blank after the name there is no text, and no blank to put back.
            check(body == full || (r.text.empty() && r.name.find(' ') == std::string::npos && body == bare),
                  "log record does not re-encode to its bytes");
        } else {
            check(r.kind >= 0 && r.kind <= 6, "value record of an unknown kind");
            const std::vector<uint8_t> enc = encodeValue(r);
            check(enc.size() == len && memcmp(enc.data(), body.data(), len) == 0,
                  "value record does not re-encode to its bytes");
        }
        expect = r.offset + 2 + len;
        const std::string text = dtfcm::FormatText(r);
        const std::string json = dtfcm::FormatJson(r);
        check(oneLineOfText(text), "text line holds a control or non-ASCII byte");
        check(oneLineOfText(json), "JSON line holds a control or non-ASCII byte");
        check(json.size() >= 2 && json.front() == '{' && json.back() == '}', "JSON line is not one object");
    }
    if (res.error.empty()) {
        // A clean decode accounts for every byte, end mark included.
        if (!inValues) {
            check(expect + 2 <= size && file[expect] == 0 && file[expect + 1] == 0, "clean decode without end mark");
            expect += 2;
        }
        check(expect == size, "clean decode left bytes over");
    } else {
        check(expect <= size, "damage reported past the end");
    }
    return 0;
}
