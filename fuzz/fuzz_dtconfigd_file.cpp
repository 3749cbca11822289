// Arbitrary bytes through dtconfigd's configuration file reader. A refused
// file names a line that exists and leaves the old configuration alone; an
// accepted one holds only servable entries and reads back the same when
// written out again.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "config_core.h"

namespace {

// A key never starts with "#": that line would have been a comment.
bool word(const std::string &s, bool key) {
    return !s.empty() && s.find_first_of(" \t\r\n[]=") == std::string::npos && !(key && s[0] == '#');
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string text(reinterpret_cast<const char *>(data), size);
    dtconfigd::Config c;
    c.sections["old"]["k"] = "v";
    dtconfigd::FileError e;
    if (!dtconfigd::ParseConfig(text, c, e)) {
        size_t lines = 1;
        for (char ch : text) lines += ch == '\n';
        if (e.line < 1 || e.line > lines || e.what.empty()) std::abort();
        if (c.Values() != 1 || c.Find("old", "k") == nullptr) std::abort();
        return 0;
    }
    std::string again;
    for (const auto &s : c.sections) {
        if (!word(s.first, false)) std::abort();
        again += "[" + s.first + "]\n";
        for (const auto &kv : s.second) {
            const std::string &v = kv.second;
            if (!word(kv.first, true)) std::abort();
            if (v.empty() || v.size() > dtconfigd::kMaxValue || v.find('\n') != std::string::npos) std::abort();
            if (v.find_first_of(" \t\r") == 0 || v.find_last_of(" \t\r") == v.size() - 1) std::abort();
            again += kv.first + " = " + v + "\n";
        }
    }
    dtconfigd::Config back;
    dtconfigd::FileError e2;
    if (!dtconfigd::ParseConfig(again, back, e2) || back.sections != c.sections) std::abort();
    return 0;
}
