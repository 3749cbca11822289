// Arbitrary datagrams through dtconfigd's request parser and reply builder.
// An accepted request must be exactly the text a device would have sent for
// the parts it was split into, and every log rendering must stay on one line.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "config_core.h"

namespace {

bool printable(const std::string &s) {
    for (unsigned char c : s)
        if (c < 32 || c > 126) return false;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const char *text = reinterpret_cast<const char *>(data);
    dtconfigd::Request r;
    std::string why;
    bool ok = dtconfigd::ParseRequest(text, size, r, why);
    if (!printable(dtconfigd::Printable(std::string(text, size)))) std::abort();
    if (!ok) {
        if (why.empty()) std::abort();
        return 0;
    }
    if ("=>config " + r.section + " " + r.key + " " + r.defaultText != std::string(text, size)) std::abort();
    if (r.section.empty() || r.key.empty() || r.section.find(' ') != std::string::npos ||
        r.key.find(' ') != std::string::npos || r.defaultText.size() > dtconfigd::kMaxValue)
        std::abort();
    dtconfigd::Config c;
    c.sections["net"]["mtu"] = "9000";
    dtconfigd::Reply reply = dtconfigd::BuildReply(c, r);
    bool known = r.section == "net" && r.key == "mtu";
    if (reply.fromFile != known || reply.text != (known ? "9000" : r.defaultText)) std::abort();
    return 0;
}
