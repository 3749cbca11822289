#include "stream_reader.h"

#include <algorithm>
#include <cstdio>

namespace dtcore {
namespace {

uint32_t be16(const uint8_t *p) { return (uint32_t(p[0]) << 8) | p[1]; }

uint32_t be32(const uint8_t *p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

std::string at(size_t offset) { return "at byte offset " + std::to_string(offset); }

std::string hexByte(unsigned v) {
    char t[8];
    snprintf(t, sizeof t, "0x%02x", v & 0xFFu);
    return t;
}

// Bytes of the well-formed UTF-8 sequence starting at s[i], or 0 when there is none
// (overlong forms, surrogates and code points past U+10FFFF are not well formed).
size_t utf8Length(const std::string &s, size_t i) {
    auto b = [&](size_t k) { return i + k < s.size() ? uint8_t(s[i + k]) : 0u; };
    auto cont = [&](size_t k) { return b(k) >= 0x80 && b(k) <= 0xBF; };
    uint8_t c = b(0);
    if (c >= 0xC2 && c <= 0xDF) return cont(1) ? 2 : 0;
    if (c >= 0xE0 && c <= 0xEF) {
        uint8_t lo = c == 0xE0 ? 0xA0 : 0x80, hi = c == 0xED ? 0x9F : 0xBF;
        return b(1) >= lo && b(1) <= hi && cont(2) ? 3 : 0;
    }
    if (c >= 0xF0 && c <= 0xF4) {
        uint8_t lo = c == 0xF0 ? 0x90 : 0x80, hi = c == 0xF4 ? 0x8F : 0xBF;
        return b(1) >= lo && b(1) <= hi && cont(2) && cont(3) ? 4 : 0;
    }
    return 0;
}

bool isPiece(int kind) { return kind == kString || kind == kBuffer; }

}  // namespace

StreamReader::StreamReader(bool selfTest, uint32_t requestSequence, size_t maxValue)
    : selfTest_(selfTest), requestSequence_(requestSequence), maxValue_(maxValue) {}

bool StreamReader::fail_(const std::string &what) {
    failed_ = true;
    error_ = what;
    return false;
}

size_t StreamReader::Feed(const uint8_t *data, size_t len) {
    size_t completed = 0;
    while (len > 0 && !failed_) {
        size_t want = (msgLen_ == 0 ? kHeaderSize : msgLen_) - msg_.size();
        size_t take = std::min(want, len);
        msg_.insert(msg_.end(), data, data + take);
        data += take;
        len -= take;
        consumed_ += take;
        if (msgLen_ == 0 && msg_.size() == kHeaderSize && !header_()) break;
        if (msgLen_ == 0 || msg_.size() < msgLen_) continue;
        if (!message_()) break;
        ++completed;
        ++messages_;
        msgStart_ += msgLen_;
        msg_.clear();
        msgLen_ = 0;
    }
    return completed;
}

// Checks what the header alone can tell, so that a bad length is reported
// before the collector waits for bytes that will never come.
bool StreamReader::header_() {
    uint32_t length = be32(msg_.data()), type = be32(msg_.data() + 4);
    std::string where = "message " + at(msgStart_);
    if (length < kHeaderSize || length > kMaxMessage)
        return fail_(where + " has length " + std::to_string(length) + " (a message is 12 to 1036 bytes)");
    if (type > 2) return fail_(where + " has the unknown type " + std::to_string(type));
    if (messages_ == 0 && type != 0)
        return fail_(where + " is of type " + std::to_string(type) + " where the identity message belongs");
    if (messages_ > 0 && type == 0) return fail_(where + " is a second identity message");
    if (type == 1 && messages_ != 1)
        return fail_(where + " is a section list out of place (only the second message may be one)");
    msgLen_ = length;
    return true;
}

bool StreamReader::message_() {
    const uint8_t *payload = msg_.data() + kHeaderSize;
    size_t n = msgLen_ - kHeaderSize;
    uint32_t type = be32(msg_.data() + 4);
    lastWasEmptyData_ = type == 2 && n == 0;
    if (type == 0) return identity_(payload, n);
    if (type == 1) return sectionList_(payload, n);
    sawData_ = true;
    return records_(payload, n);
}

bool StreamReader::identity_(const uint8_t *p, size_t n) {
    if (n != 4)
        return fail_("identity message " + at(msgStart_) + " carries " + std::to_string(n) + " bytes instead of 4");
    Event e;
    e.type = Event::kIdentity;
    e.offset = msgStart_;
    e.id1 = p[0];
    e.id2 = p[1];
    e.sequence = be32(msg_.data() + 8);
    events_.push_back(e);
    return true;
}

bool StreamReader::sectionList_(const uint8_t *p, size_t n) {
    for (size_t pos = 0; pos < n;) {
        size_t entry = msgStart_ + kHeaderSize + pos;
        if (n - pos < 6 || n - pos - 6 < be16(p + pos + 4))
            return fail_("section list entry " + at(entry) + " overruns its message, which ends " +
                         at(msgStart_ + msgLen_));
        Event e;
        e.type = Event::kSection;
        e.offset = entry;
        e.index = be32(p + pos);
        e.named = true;
        e.name.assign(reinterpret_cast<const char *>(p + pos + 6), be16(p + pos + 4));
        names_[e.index] = e.name;  // a repeated number takes the later name
        events_.push_back(e);
        pos += 6 + e.name.size();
    }
    return true;
}

bool StreamReader::records_(const uint8_t *p, size_t n) {
    for (size_t pos = 0, used = 0; pos < n; pos += used)
        if (!record_(p + pos, n - pos, msgStart_ + kHeaderSize + pos, used)) return false;
    return true;
}

bool StreamReader::record_(const uint8_t *p, size_t n, size_t at_, size_t &used) {
    std::string where = "record " + at(at_);
    if (n < 13)
        return fail_(where + ": its message ends after " + std::to_string(n) +
                     " byte(s), short of the 13-byte record header");
    int kind = p[0] & 0x7F;
    bool last = (p[0] & 0x80) != 0;
    if (kind < kInt || kind > kBuffer || (!last && !isPiece(kind)))
        return fail_(where + " has the unknown kind " + hexByte(p[0]));
    size_t need = kind == kInt ? 17 : kind == kLong ? 21 : 15;
    if (n >= 15 && isPiece(kind)) need += be16(p + 13);
    if (n < need)
        return fail_(std::string(KindName(kind)) + " " + where + " needs " + std::to_string(need) +
                     " bytes but its message ends " + at(at_ + n));
    used = need;
    uint32_t section = be32(p + 1), block = be32(p + 5), code = be32(p + 9);
    if (pending_ && (kind != partial_.kind || section != partial_.index || block != partial_.block ||
                     code != partial_.code))
        return fail_(where + " breaks into the " + KindName(partial_.kind) + " value begun " + at(partial_.offset));
    if (isPiece(kind)) return piece_(kind, last, section, block, code, p + 15, need - 15, at_);
    Event e;
    e.offset = at_;
    e.block = block;
    e.code = code;
    e.kind = kind;
    e.number = kind == kInt ? be32(p + 13) : (uint64_t(be32(p + 13)) << 32) | be32(p + 17);
    value_(e, section);
    return true;
}

bool StreamReader::piece_(int kind, bool last, uint32_t section, uint32_t block, uint32_t code,
                          const uint8_t *data, size_t len, size_t at_) {
    if (!pending_) {
        partial_ = Event();
        partial_.offset = at_;
        partial_.index = section;
        partial_.block = block;
        partial_.code = code;
        partial_.kind = kind;
        pending_ = true;
    }
    if (len > maxValue_ - partial_.bytes.size())
        return fail_("record " + at(at_) + " makes the " + KindName(kind) + " value begun " + at(partial_.offset) +
                     " longer than " + std::to_string(maxValue_) + " bytes");
    partial_.bytes.append(reinterpret_cast<const char *>(data), len);
    if (!last) return true;
    pending_ = false;
    Event e = std::move(partial_);
    partial_ = Event();
    value_(e, section);
    return true;
}

void StreamReader::value_(Event &e, uint32_t section) {
    e.type = Event::kValue;
    e.index = section;
    if (selfTest_ && section == kNameRecordSection && e.kind == kString) {
        e.type = Event::kSelfTestSection;
        e.named = true;
        e.name = e.bytes;
        selfTestNamed_ = true;
        selfTestName_ = e.bytes;
    } else if (selfTest_) {
        e.named = selfTestNamed_;
        e.name = selfTestName_;
    } else {
        auto it = names_.find(section);
        e.named = it != names_.end();
        if (e.named) e.name = it->second;
    }
    events_.push_back(std::move(e));
}

bool StreamReader::Finish() {
    if (failed_) return false;
    if (!msg_.empty())
        return fail_("connection closed " + at(consumed_) + ", inside the message begun " + at(msgStart_) + " (" +
                     std::to_string(msg_.size()) + " of " +
                     (msgLen_ ? std::to_string(msgLen_) : std::string("12 header")) + " bytes received)");
    if (messages_ == 0) return fail_("connection closed " + at(0) + " before the identity message");
    if (pending_)
        return fail_("connection closed " + at(consumed_) + " with the " + KindName(partial_.kind) +
                     " value begun " + at(partial_.offset) + " unfinished");
    if (!lastWasEmptyData_)
        return fail_("connection closed " + at(consumed_) + " before the closing empty data message");
    return true;
}

std::vector<Event> StreamReader::TakeEvents() {
    std::vector<Event> out;
    out.swap(events_);
    return out;
}

std::string JsonString(const std::string &s) {
    std::string o = "\"";
    char t[8];
    for (size_t i = 0; i < s.size();) {
        uint8_t c = uint8_t(s[i]);
        size_t n = c >= 0x80 ? utf8Length(s, i) : 0;
        if (n > 0) {
            o.append(s, i, n);
            i += n;
            continue;
        }
        if (c == '"' || c == '\\') {
            o += '\\';
            o += char(c);
        } else if (c < 0x20 || c >= 0x7F) {
            snprintf(t, sizeof t, "\\u%04x", c);
            o += t;
        } else {
            o += char(c);
        }
        ++i;
    }
    return o + "\"";
}

std::string Hex(const std::string &bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string o;
    for (unsigned char c : bytes) {
        o += digits[c >> 4];
        o += digits[c & 15];
    }
    return o;
}

const char *KindName(int kind) {
    static const char *const names[] = {"int", "long", "string", "buffer"};
    return kind >= kInt && kind <= kBuffer ? names[kind - 1] : "unknown";
}

std::string FormatText(const std::string &host, const Event &e) {
    char t[64];
    switch (e.type) {
        case Event::kIdentity:
            snprintf(t, sizeof t, " identity %02x %02x sequence %u", e.id1, e.id2, unsigned(e.sequence));
            return host + t;
        case Event::kSection:
            return host + " section " + std::to_string(e.index) + " " + JsonString(e.name);
        case Event::kSelfTestSection:
            return host + " selftest " + JsonString(e.name);
        case Event::kValue:
            break;
    }
    std::string s = host + " " + (e.named ? JsonString(e.name) : std::string("?")) + " #" + std::to_string(e.index) +
                    " block " + std::to_string(e.block) + " code " + std::to_string(e.code) + " " + KindName(e.kind) +
                    " ";
    if (e.kind == kInt) return s + std::to_string(e.number);
    if (e.kind == kLong) {
        snprintf(t, sizeof t, " (0x%016llx)", static_cast<unsigned long long>(e.number));
        return s + std::to_string(e.number) + t;
    }
    s += std::to_string(e.bytes.size()) + " ";
    return s + (e.kind == kString ? JsonString(e.bytes) : Hex(e.bytes));
}

std::string FormatJson(const std::string &host, const Event &e) {
    if (e.type != Event::kValue) return std::string();
    std::string s = "{\"host\":" + JsonString(host) + ",\"section\":" + (e.named ? JsonString(e.name) : "null") +
                    ",\"index\":" + std::to_string(e.index) + ",\"block\":" + std::to_string(e.block) +
                    ",\"code\":" + std::to_string(e.code) + ",\"kind\":\"" + KindName(e.kind) + "\",\"value\":";
    if (e.kind == kInt || e.kind == kLong) s += std::to_string(e.number);
    else if (e.kind == kString) s += JsonString(e.bytes);
    else s += "\"" + Hex(e.bytes) + "\"";
    return s + "}";
}

}  // namespace dtcore
