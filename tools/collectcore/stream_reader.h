// The collector's view of one device connection: message framing, record
// parsing and the joining of string and buffer pieces, over plain bytes, so
// that tests and the fuzz target drive it without sockets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace dtcore {

constexpr size_t kHeaderSize = 12;
constexpr size_t kMaxMessage = 12 + 1024;
// A self test marks each section's output with a string record of this section number.
constexpr uint32_t kNameRecordSection = 65535;
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

class StreamReader {
public:
    // selfTest: values are attributed to the section named by the last name
    // record instead of through a section list.
    // requestSequence: the sequence the request carried, which the identity
    // message must bear; 0 lets the device number it from its own counter.
    StreamReader(bool selfTest, uint32_t requestSequence, size_t maxValue = kDefaultMaxValue);

    // Takes the next bytes of the connection and returns how many messages they
    // completed, each of which the device expects acknowledged. Stops at the
    // first malformed byte; Failed() then tells, and nothing more is taken.
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
    bool record_(const uint8_t *p, size_t n, size_t at, size_t &used);
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
    bool lastWasEmptyData_ = false;
    bool sawData_ = false;
    std::map<uint32_t, std::string> names_;
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
const char *KindName(int kind);
// One output line (without newline) for an event of the given host. The JSON
// form exists only for values; for other events it is empty.
std::string FormatText(const std::string &host, const Event &e);
std::string FormatJson(const std::string &host, const Event &e);

}  // namespace dtcore
