// The pure half of dtconfigd: the configuration file reader, the request
// parser and the reply builder. No sockets, no files except LoadConfig, so
// that tests and fuzz targets call them directly.
#pragma once

#include <cstddef>
#include <map>
#include <string>

namespace dtconfigd {

// The device takes a reply of at most 999 bytes (it keeps one byte of its
// 1000-byte buffer for the terminator), so no value may be longer.
constexpr size_t kMaxValue = 999;

struct Config {
    std::map<std::string, std::map<std::string, std::string>> sections;
    size_t Values() const;
    // Null when the section or the key is unknown.
    const std::string *Find(const std::string &section, const std::string &key) const;
};

struct FileError {
    size_t line = 0;  // 1-based; 0 when the fault is not on one line
    std::string what;
};

// Reads "[section]" headings and "key = value" lines; "#" starts a comment only
// as a line's first non-blank character, so values may hold "#"; blank lines
// are skipped; spaces, tabs and a CR around every part are trimmed.
// Choices: section names and keys are words without blanks, "[", "]" or "=";
// a value is one byte to kMaxValue bytes (an empty reply would make the device
// take its own default, so an empty value could never be served); a key given
// twice in one section is refused; a section may be opened again and then
// gains keys; a zero byte anywhere is refused. On failure `out` is untouched.
bool ParseConfig(const std::string &text, Config &out, FileError &error);
// ParseConfig on a whole file; error is "PATH:LINE: what" or "PATH: why".
bool LoadConfig(const std::string &path, Config &out, std::string &error);

struct Request {
    std::string section;
    std::string key;
    std::string defaultText;  // may be empty or hold spaces
};

// "=>config SECTION KEY DEFAULT": the section runs to the first space, the key
// to the next one, the default is everything after it.
// Choices: the datagram must hold both spaces (the device always sends the
// second one, even before an empty default); an empty section or key, a zero
// byte, or more than kMaxValue bytes of default are malformed. false with why.
bool ParseRequest(const char *data, size_t len, Request &out, std::string &why);

struct Reply {
    std::string text;       // the datagram's bytes
    bool fromFile = false;  // false: the request's own default came back
};

Reply BuildReply(const Config &config, const Request &request);

// Text from the network or a file made safe for one log line: bytes below 32,
// 127 and above, and the backslash become \xNN.
std::string Printable(const std::string &text);

}  // namespace dtconfigd
