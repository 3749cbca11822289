// Arbitrary device bytes through the collector's stream reader. The first
// byte picks self-test mode, whether the request carried sequence 5 or let
// the device number the identity, and the size of the chunks the bytes
// arrive in, so that framing is exercised at every split point.
#include <cstddef>
#include <cstdint>
#include <string>

#include "stream_reader.h"

namespace {

// Escapes are the only place where JSON text may stand for other bytes; raw
// control characters and malformed escapes make the line invalid.
bool escapesValid(const std::string &line) {
    for (size_t i = 0; i < line.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(line[i]);
        if (c < 0x20) return false;
        if (c != '\\') continue;
        if (++i >= line.size()) return false;
        char e = line[i];
        if (e == 'u') {
            if (i + 4 >= line.size() || line.find_first_not_of("0123456789abcdef", i + 1) < i + 5) return false;
            i += 4;
        } else if (std::string("\"\\/bfnrt").find(e) == std::string::npos) {
            return false;
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    dtcore::StreamReader reader((data[0] & 1) != 0, (data[0] & 0x80) ? 5 : 0, 1u << 16);
    size_t chunk = ((data[0] >> 1) & 0x3F) + 1u;
    size_t acks = 0;
    for (size_t at = 1; at < size; at += chunk) acks += reader.Feed(data + at, size - at < chunk ? size - at : chunk);
    bool ok = reader.Finish();
    if (acks != reader.Messages() || reader.Offset() > size - 1) __builtin_trap();
    if (!ok && reader.Error().find("byte offset") == std::string::npos) __builtin_trap();
    for (const dtcore::Event &e : reader.TakeEvents()) {
        if (!escapesValid(dtcore::FormatJson("h", e)) || !escapesValid(dtcore::FormatText("h", e)))
            __builtin_trap();
    }
    return 0;
}
