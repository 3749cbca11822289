// The collector's view of one device connection: message framing, record
// parsing and the joining of string and buffer pieces, over plain bytes, so
// that tests and the fuzz target drive it without sockets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace dtcore {

constexpr size_t kHeaderSize = 12;
constexpr size_t kMaxMessage = 12 + 1024;
// A self test marks each section's output with a string record of this section number.
constexpr uint32_t kNameRecordSection = 65535;
// A device registers at most this many sections, and a section name is cut to this length.
constexpr uint32_t kMaxSections = 19;
constexpr size_t kMaxName = 19;
constexpr size_t kMaxPayload = 1024;
// Joined string or buffer values longer than this are refused as malformed, so
// that a device sending pieces without end cannot exhaust the collector: the
// collector's memory then grows with the collections in flight, not with the
// length of a stream.
constexpr size_t kDefaultMaxValue = 1u << 20;

enum ValueKind { kInt = 1, kLong = 2, kString = 3, kBuffer = 4 };

struct Event {
    enum Type { kIdentity, kSection, kSelfTestSection, kValue };
    Type type = kValue;
    size_t offset = 0;  // stream offset of the message (identity, section) or of the value's first record
    // identity
    uint8_t id1 = 0, id2 = 0;
    uint32_t sequence = 0;
    // section list entries and values
    uint32_t index = 0;  // the section number
    bool named = false;  // false: no section of that number was announced
    std::string name;
    // values
    uint32_t block = 0, code = 0;
    int kind = 0;         // ValueKind
    uint64_t number = 0;  // int and long
    std::string bytes;    // string and buffer, joined from their pieces
};

// Checks every rule the device's writer keeps and stops at the first break,
// naming its byte offset: the identity message (16 bytes, two identity bytes
// then two zero bytes, the request's sequence when it had one); consecutive
// sequence numbers after it, so that a lost message shows; a section list as
// the second message of a collection and never in a self test, its entries
// numbered 0, 1, ... with names of 1 to 19 bytes and no zero byte; records
// only of listed sections (in a self test: after a name record, of a section
// below 19); name records (string, section 65535, block 0, code 0, a valid
// name) only at the start of a message; no record where the writer would
// have begun a new message; no empty piece but a whole empty string; pieces
// of one value that agree in kind, section, block and code, a value's piece
// that is not its last filling its message to the end; and a closing empty
// data message, which in a self test nothing may follow.
class StreamReader {
public:
    // selfTest: values are attributed to the section named by the last name
    // record instead of through a section list. requestSequence: the sequence
    // the request carried, which the identity message must bear; 0 lets the
    // device number it from its own counter (the next message then follows it).
    StreamReader(bool selfTest, uint32_t requestSequence, size_t maxValue = kDefaultMaxValue);

    // Takes the next bytes of the connection and returns how many messages they
    // completed, each of which the device expects acknowledged. Stops at the
    // first byte that breaks a rule; Failed() then tells, and nothing more is taken.
    size_t Feed(const uint8_t *data, size_t len);
    // The device closed the connection: false (with the reason) unless the stream
    // ended cleanly, after the closing empty data message and with no value half joined.
    bool Finish();

    // Events found since the last call, in stream order.
    std::vector<Event> TakeEvents();
    bool Failed() const { return failed_; }
    // One line that names the byte offset in the stream.
    const std::string &Error() const { return error_; }
    size_t Offset() const { return consumed_; }
    size_t Messages() const { return messages_; }

private:
    bool fail_(const std::string &what);
    bool header_();
    bool message_();
    bool identity_(const uint8_t *p, size_t n);
    bool sectionList_(const uint8_t *p, size_t n);
    bool records_(const uint8_t *p, size_t n);
    bool record_(const uint8_t *p, size_t n, size_t pos, size_t &used);
    bool belongs_(int kind, uint32_t section, uint32_t block, uint32_t code, const uint8_t *data, size_t len,
                  size_t pos, size_t at);
    bool piece_(int kind, bool last, uint32_t section, uint32_t block, uint32_t code, const uint8_t *data,
                size_t len, size_t at);
    void value_(Event &e, uint32_t section);

    bool selfTest_;
    uint32_t requestSequence_;
    size_t maxValue_;
    std::vector<uint8_t> msg_;  // the message being received, header first
    size_t msgLen_ = 0;         // its length, once the header is in
    size_t msgStart_ = 0;       // its stream offset
    size_t consumed_ = 0;
    size_t messages_ = 0;
    uint32_t lastSequence_ = 0;
    bool lastWasEmptyData_ = false;
    bool listed_ = false;
    std::vector<std::string> names_;  // the section list's names, by index
    bool selfTestNamed_ = false;
    std::string selfTestName_;
    bool pending_ = false;  // a string or buffer value awaits its last piece
    Event partial_;
    std::vector<Event> events_;
    bool failed_ = false;
    std::string error_;
};

// A JSON string literal for any bytes: well-formed UTF-8 passes, control
// characters, DEL and every byte that is not part of well-formed UTF-8 become \u00XX.
std::string JsonString(const std::string &bytes);
std::string Hex(const std::string &bytes);
// Bytes of the well-formed UTF-8 sequence of two bytes or more starting at s[i], or 0 when
// there is none (an ASCII byte, an overlong form, a surrogate, a code point past U+10FFFF,
// a sequence cut short). Every output that keeps bytes apart reads them with this one rule.
size_t Utf8Length(const std::string &s, size_t i);
// Whether the bytes are well-formed UTF-8 (control characters included).
bool IsUtf8(const std::string &bytes);
const char *KindName(int kind);
// One output line (without newline) for an event of the given host. The JSON
// form exists only for values; for other events it is empty. In it an int is
// a number, a long a string of its decimal digits, a buffer lowercase hex
// under "value", a string that is valid UTF-8 a string under "value" and any
// other string lowercase hex under "value_hex"; a section name likewise under
// "section" or "section_hex".
std::string FormatText(const std::string &host, const Event &e);
std::string FormatJson(const std::string &host, const Event &e);

}  // namespace dtcore
