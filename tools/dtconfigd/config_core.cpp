#include "config_core.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace dtconfigd {
namespace {

const char kBlanks[] = " \t\r";
const char kPrefix[] = "=>config ";

std::string trim(const std::string &s) {
    size_t b = s.find_first_not_of(kBlanks);
    if (b == std::string::npos) return "";
    size_t e = s.find_last_not_of(kBlanks);
    return s.substr(b, e - b + 1);
}

// Section names and keys travel as space-separated words of the request.
bool isWord(const std::string &s) { return !s.empty() && s.find_first_of(" \t\r[]=") == std::string::npos; }

// One line already known to be neither blank nor a comment.
bool parseLine(const std::string &line, std::string &section, Config &config, std::string &what) {
    if (line[0] == '[') {
        if (line.back() != ']') return (what = "section heading without a closing ']'"), false;
        std::string name = trim(line.substr(1, line.size() - 2));
        if (name.empty()) return (what = "empty section name"), false;
        if (!isWord(name)) return (what = "section name \"" + Printable(name) + "\" is not one word"), false;
        section = name;
        config.sections[section];
        return true;
    }
    size_t eq = line.find('=');
    if (eq == std::string::npos) return (what = "expected \"[section]\" or \"key = value\""), false;
    std::string key = trim(line.substr(0, eq));
    std::string value = trim(line.substr(eq + 1));
    if (key.empty()) return (what = "empty key"), false;
    if (!isWord(key)) return (what = "key \"" + Printable(key) + "\" is not one word"), false;
    if (section.empty()) return (what = "key \"" + key + "\" before any [section]"), false;
    if (value.empty()) return (what = "empty value for key \"" + key + "\""), false;
    if (value.size() > kMaxValue)
        return (what = "value of \"" + key + "\" is longer than " + std::to_string(kMaxValue) + " bytes"), false;
    auto &keys = config.sections[section];
    if (keys.count(key)) return (what = "key \"" + key + "\" given twice in [" + section + "]"), false;
    keys[key] = value;
    return true;
}

}  // namespace

size_t Config::Values() const {
    size_t n = 0;
    for (const auto &s : sections) n += s.second.size();
    return n;
}

const std::string *Config::Find(const std::string &section, const std::string &key) const {
    auto s = sections.find(section);
    if (s == sections.end()) return nullptr;
    auto k = s->second.find(key);
    return k == s->second.end() ? nullptr : &k->second;
}

bool ParseConfig(const std::string &text, Config &out, FileError &error) {
    Config config;
    std::string section;
    size_t lineNo = 0;
    for (size_t at = 0; at < text.size();) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos) end = text.size();
        std::string raw = text.substr(at, end - at);
        at = end + 1;
        ++lineNo;
        if (raw.find('\0') != std::string::npos) {
            error = {lineNo, "zero byte in the line"};
            return false;
        }
        std::string line = trim(raw);
        if (line.empty() || line[0] == '#') continue;
        std::string what;
        if (!parseLine(line, section, config, what)) {
            error = {lineNo, what};
            return false;
        }
    }
    out = std::move(config);
    return true;
}

bool LoadConfig(const std::string &path, Config &out, std::string &error) {
    FILE *f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) {
        error = path + ": cannot open: " + std::strerror(errno);
        return false;
    }
    std::string text;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
    bool failed = std::ferror(f) != 0;
    int err = errno;
    std::fclose(f);
    if (failed) {
        error = path + ": cannot read: " + std::strerror(err);
        return false;
    }
    FileError fe;
    if (ParseConfig(text, out, fe)) return true;
    error = path + ":" + std::to_string(fe.line) + ": " + fe.what;
    return false;
}

bool ParseRequest(const char *data, size_t len, Request &out, std::string &why) {
    const size_t prefixLen = sizeof kPrefix - 1;
    if (data == nullptr || len < prefixLen || std::memcmp(data, kPrefix, prefixLen) != 0)
        return (why = "does not start with \"=>config \""), false;
    std::string rest(data + prefixLen, len - prefixLen);
    if (rest.find('\0') != std::string::npos) return (why = "zero byte in the request"), false;
    size_t s1 = rest.find(' ');
    size_t s2 = s1 == std::string::npos ? s1 : rest.find(' ', s1 + 1);
    if (s2 == std::string::npos) return (why = "expected SECTION KEY DEFAULT"), false;
    Request r{rest.substr(0, s1), rest.substr(s1 + 1, s2 - s1 - 1), rest.substr(s2 + 1)};
    if (r.section.empty()) return (why = "empty section"), false;
    if (r.key.empty()) return (why = "empty key"), false;
    if (r.defaultText.size() > kMaxValue)
        return (why = "default longer than " + std::to_string(kMaxValue) + " bytes"), false;
    out = std::move(r);
    return true;
}

Reply BuildReply(const Config &config, const Request &request) {
    const std::string *v = config.Find(request.section, request.key);
    if (v) return {*v, true};
    return {request.defaultText, false};
}

std::string Printable(const std::string &text) {
    std::string out;
    for (unsigned char c : text) {
        if (c >= 32 && c < 127 && c != '\\') {
            out += char(c);
            continue;
        }
        char esc[8];
        std::snprintf(esc, sizeof esc, "\\x%02x", c);
        out += esc;
    }
    return out;
}

}  // namespace dtconfigd
