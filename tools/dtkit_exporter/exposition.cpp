#include "exposition.h"

#include <cstdio>

namespace dtexporter {

const char kContentType[] = "text/plain; version=0.0.4; charset=utf-8";

namespace {

void hexByte(std::string &out, unsigned char c) {
    static const char digits[] = "0123456789abcdef";
    out += "\\x";
    out += digits[c >> 4];
    out += digits[c & 15];
}

void family(std::string &out, const char *name, const char *type, const char *help) {
    out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

void sample(std::string &out, const char *name, const std::string &value) {
    out += std::string(name) + " " + value + "\n";
}

}  // namespace

std::string LabelText(const std::string &bytes) {
    std::string out;
    const auto *p = reinterpret_cast<const unsigned char *>(bytes.data());
    const size_t n = bytes.size();
    for (size_t i = 0; i < n;) {
        const size_t len = p[i] < 0x80 ? 1 : dtcore::Utf8Length(bytes, i);
        if (len == 0 || p[i] < 0x20 || p[i] == 0x7F) {
            hexByte(out, p[i]);
            ++i;
        } else if (p[i] == '\\') {
            out += "\\\\";
            ++i;
        } else {
            out.append(bytes, i, len);
            i += len;
        }
    }
    return out;
}

std::string Quote(const std::string &text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '\\' || c == '"') {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string Number(double v) {
    char text[64];
    if (v == double(int64_t(v))) {
        std::snprintf(text, sizeof text, "%lld", static_cast<long long>(v));
    } else {
        std::snprintf(text, sizeof text, "%.6f", v);
    }
    return text;
}

void ProbeReport::Add(const Event &e) {
    if (e.type == Event::kIdentity) {
        identified_ = true;
        identity_ = uint32_t(e.id1) << 8 | e.id2;
        return;
    }
    if (e.type != Event::kValue) return;
    switch (e.kind) {
        case dtcore::kString: ++strings_; return;
        case dtcore::kBuffer: ++buffers_; return;
        case dtcore::kInt: ++ints_; break;
        default: ++longs_; break;
    }
    // A value of a section the stream never named (the reader lets none
    // through today) goes under section="": a device's names are never empty.
    std::string labels = "section=" + Quote(e.named ? LabelText(e.name) : "") +
                         ",block=\"" + std::to_string(e.block) + "\",code=\"" + std::to_string(e.code) + "\"";
    const uint32_t repeat = seen_[labels]++;
    if (repeat > 0) labels += ",repeat=\"" + std::to_string(repeat) + "\"";
    samples_.push_back({labels, e.number});
}

std::string ProbeReport::Render(bool success, double seconds, const std::string &error) const {
    std::string out;
    if (!success) {
        // A comment keeps the reason beside the figures without making a
        // label of it; line breaks would end the comment early.
        std::string line = error;
        for (char &c : line) {
            if (c == '\n' || c == '\r') c = ' ';
        }
        out += "# dtkit probe failed: " + line + "\n";
    }
    if (success && !samples_.empty()) {
        family(out, "dtkit_value", "gauge",
               "An int or long value put by a section of the device, by section name, block and code.");
        for (const Sample &s : samples_) out += "dtkit_value{" + s.labels + "} " + std::to_string(s.value) + "\n";
    }
    family(out, "dtkit_probe_success", "gauge", "Whether the collection completed (1) or failed (0).");
    sample(out, "dtkit_probe_success", success ? "1" : "0");
    family(out, "dtkit_probe_duration_seconds", "gauge", "How long the probe took, waiting for a slot included.");
    sample(out, "dtkit_probe_duration_seconds", Number(seconds));
    family(out, "dtkit_probe_values", "gauge", "Values decoded from the device's stream, of every kind.");
    sample(out, "dtkit_probe_values", std::to_string(Values()));
    family(out, "dtkit_probe_strings", "gauge", "String values decoded; they are counted, not exported.");
    sample(out, "dtkit_probe_strings", std::to_string(strings_));
    family(out, "dtkit_probe_buffers", "gauge", "Buffer values decoded; they are counted, not exported.");
    sample(out, "dtkit_probe_buffers", std::to_string(buffers_));
    if (identified_) {
        family(out, "dtkit_device_identity", "gauge", "The device's two identity bytes, the first times 256 plus the second.");
        sample(out, "dtkit_device_identity", std::to_string(identity_));
    }
    return out;
}

}  // namespace dtexporter
