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

bool isPiece(int kind) { return kind == kString || kind == kBuffer; }

}  // namespace

size_t Utf8Length(const std::string &s, size_t i) {
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
    uint32_t length = be32(msg_.data()), type = be32(msg_.data() + 4), sequence = be32(msg_.data() + 8);
    std::string where = "message " + at(msgStart_);
    if (length < kHeaderSize || length > kMaxMessage)
        return fail_(where + " has length " + std::to_string(length) + " (a message is 12 to 1036 bytes)");
    if (type > 2) return fail_(where + " has the unknown type " + std::to_string(type));
    if (messages_ == 0 && type != 0)
        return fail_(where + " is of type " + std::to_string(type) + " where the identity message belongs");
    if (messages_ == 0 && length != 16)
        return fail_("identity message " + at(msgStart_) + " has length " + std::to_string(length) + " instead of 16");
    if (messages_ == 0 && requestSequence_ != 0 && sequence != requestSequence_)
        return fail_("identity message " + at(msgStart_) + " bears sequence " + std::to_string(sequence) +
                     ", not the request's " + std::to_string(requestSequence_));
    if (messages_ > 0 && type == 0) return fail_(where + " is a second identity message");
    if (selfTest_ && type == 1) return fail_(where + " is a section list, which a self test never sends");
    if (!selfTest_ && messages_ == 1 && type != 1)
        return fail_(where + " is of type " + std::to_string(type) + " where the section list belongs");
    if (type == 1 && messages_ != 1)
        return fail_(where + " is a section list out of place (only the second message may be one)");
    // The identity carries the request's number; the device's own counter runs from the next message on.
    bool counted = messages_ >= 2 || (messages_ == 1 && requestSequence_ == 0);
    if (counted && sequence != uint32_t(lastSequence_ + 1))
        return fail_(where + " bears sequence " + std::to_string(sequence) + " where " +
                     std::to_string(uint32_t(lastSequence_ + 1)) + " follows: a message is missing or out of order");
    if (selfTest_ && lastWasEmptyData_)
        return fail_(where + " follows the closing empty data message of the self test");
    lastSequence_ = sequence;
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
    if (n == 0 && pending_)
        return fail_("empty data message " + at(msgStart_) + " where the " + KindName(partial_.kind) +
                     " value begun " + at(partial_.offset) + " continues");
    return records_(payload, n);
}

bool StreamReader::identity_(const uint8_t *p, size_t n) {
    if (p[2] != 0 || p[3] != 0)
        return fail_("identity message " + at(msgStart_) + " ends in " + hexByte(p[2]) + " " + hexByte(p[3]) +
                     " instead of two zero bytes");
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
    listed_ = true;
    for (size_t pos = 0; pos < n;) {
        std::string where = "section list entry " + at(msgStart_ + kHeaderSize + pos);
        if (n - pos < 6 || n - pos - 6 < be16(p + pos + 4))
            return fail_(where + " overruns its message, which ends " + at(msgStart_ + msgLen_));
        uint32_t index = be32(p + pos);
        size_t length = be16(p + pos + 4);
        const char *name = reinterpret_cast<const char *>(p + pos + 6);
        if (names_.size() >= kMaxSections) return fail_(where + " is past the 19 sections a device may have");
        if (index != names_.size())
            return fail_(where + " has index " + std::to_string(index) + " where " + std::to_string(names_.size()) +
                         " belongs");
        if (length == 0 || length > kMaxName)
            return fail_(where + " has a name of " + std::to_string(length) + " bytes (1 to 19)");
        if (std::find(name, name + length, '\0') != name + length) return fail_(where + " has a zero byte in its name");
        Event e;
        e.type = Event::kSection;
        e.offset = msgStart_ + kHeaderSize + pos;
        e.index = index;
        e.named = true;
        e.name.assign(name, length);
        names_.push_back(e.name);
        events_.push_back(e);
        pos += 6 + length;
    }
    return true;
}

bool StreamReader::records_(const uint8_t *p, size_t n) {
    for (size_t pos = 0, used = 0; pos < n; pos += used)
        if (!record_(p + pos, n - pos, pos, used)) return false;
    return true;
}

bool StreamReader::record_(const uint8_t *p, size_t n, size_t pos, size_t &used) {
    size_t at_ = msgStart_ + kHeaderSize + pos;
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
    // The writer flushes first when no more than this is free, whatever the record's size.
    size_t flushAt = kind == kInt ? 16 : kind == kLong ? 20 : 24;
    if (kMaxPayload - pos <= flushAt)
        return fail_(std::string(KindName(kind)) + " " + where + " starts " + std::to_string(kMaxPayload - pos) +
                     " bytes before the end of a full message, where the device begins a new one");
    uint32_t section = be32(p + 1), block = be32(p + 5), code = be32(p + 9);
    if (pending_ && (kind != partial_.kind || section != partial_.index || block != partial_.block ||
                     code != partial_.code))
        return fail_(where + " breaks into the " + KindName(partial_.kind) + " value begun " + at(partial_.offset));
    if (!pending_ && !belongs_(p[0], section, block, code, p + 15, need - 15, pos, at_)) return false;
    if (isPiece(kind)) {
        if (need == 15 && (pending_ || p[0] != 0x83))
            return fail_(std::string(KindName(kind)) + " " + where + " is an empty piece");
        if (!last && pos + need != kMaxPayload)
            return fail_(std::string(KindName(kind)) + " " + where +
                         " is not its value's last piece yet ends before its message is full");
        return piece_(kind, last, section, block, code, p + 15, need - 15, at_);
    }
    Event e;
    e.offset = at_;
    e.block = block;
    e.code = code;
    e.kind = kind;
    e.number = kind == kInt ? be32(p + 13) : (uint64_t(be32(p + 13)) << 32) | be32(p + 17);
    value_(e, section);
    return true;
}

// Whether a value's first record may come from this section here.
bool StreamReader::belongs_(int kindByte, uint32_t section, uint32_t block, uint32_t code, const uint8_t *data,
                            size_t len, size_t pos, size_t at_) {
    std::string where = "record " + at(at_);
    if (!selfTest_) {
        if (section < names_.size()) return true;
        return fail_(where + " is of section " + std::to_string(section) + ", which the section list does not name");
    }
    if (section == kNameRecordSection) {
        const char *name = reinterpret_cast<const char *>(data);
        bool nameOk = kindByte == 0x83 && block == 0 && code == 0 && len >= 1 && len <= kMaxName &&
                      std::find(name, name + len, '\0') == name + len;
        if (!nameOk) return fail_(where + " of section 65535 is not a self-test name record");
        if (pos != 0) return fail_("self-test name record " + at(at_) + " does not begin its message");
        return true;
    }
    if (!selfTestNamed_) return fail_(where + " comes before the self test's first name record");
    if (section >= kMaxSections)
        return fail_(where + " is of section " + std::to_string(section) + ", past the 19 a device may have");
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
    if (selfTest_ && section == kNameRecordSection) {
        e.type = Event::kSelfTestSection;
        e.named = true;
        e.name = e.bytes;
        selfTestNamed_ = true;
        selfTestName_ = e.bytes;
    } else if (selfTest_) {
        e.named = selfTestNamed_;
        e.name = selfTestName_;
    } else {
        e.named = true;
        e.name = names_[section];
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
    if (!selfTest_ && !listed_) return fail_("connection closed " + at(consumed_) + " before the section list");
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
        size_t n = c >= 0x80 ? Utf8Length(s, i) : 0;
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

bool IsUtf8(const std::string &s) {
    for (size_t i = 0; i < s.size();) {
        size_t n = uint8_t(s[i]) < 0x80 ? 1 : Utf8Length(s, i);
        if (n == 0) return false;
        i += n;
    }
    return true;
}

std::string FormatJson(const std::string &host, const Event &e) {
    if (e.type != Event::kValue) return std::string();
    // Bytes that are not valid UTF-8 have no JSON string that gives them back, so they go as hex.
    auto member = [](const char *key, const std::string &bytes) {
        if (IsUtf8(bytes)) return "\"" + std::string(key) + "\":" + JsonString(bytes);
        return "\"" + std::string(key) + "_hex\":\"" + Hex(bytes) + "\"";
    };
    std::string s = "{\"host\":" + JsonString(host) + "," +
                    (e.named ? member("section", e.name) : std::string("\"section\":null")) +
                    ",\"index\":" + std::to_string(e.index) + ",\"block\":" + std::to_string(e.block) +
                    ",\"code\":" + std::to_string(e.code) + ",\"kind\":\"" + KindName(e.kind) + "\",";
    // A long above 2^53 would lose digits as a JSON number in most readers.
    if (e.kind == kInt) s += "\"value\":" + std::to_string(e.number);
    else if (e.kind == kLong) s += "\"value\":\"" + std::to_string(e.number) + "\"";
    else if (e.kind == kString) s += member("value", e.bytes);
    else s += "\"value\":\"" + Hex(e.bytes) + "\"";
    return s + "}";
}

}  // namespace dtcore
