#include "fcm_decode.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <set>

#include "DTFault_config.h"

namespace dtfcm {
namespace {

const char kUsage[] =
    "usage: dtfcm [--json] [FILE]\n"
    "Prints the records of a fault file (default " DTFAULT_FILE "), one line each.\n"
    "  --json   one JSON object per line instead, for scripts\n"
    "  --help   this text\n"
    "  --version  the version, one line\n"
    "A run-log record \"crash: SIG... signal N addr 0x... pc 0x...\", after its time stamp,\n"
    "is what the library saved when the process died by that signal; --json marks it.\n"
    "Log records do not store the length of the fault name. The name is taken as the\n"
    "longest name carried by the file's value records that is followed by a space;\n"
    "when none matches, as the text up to the first space.\n"
    "Exit status: 0 decoded, 1 damaged file (records before the damage are printed),\n"
    "2 bad usage or unreadable file.\n";

uint32_t be16(const std::vector<uint8_t> &f, size_t at) { return (uint32_t(f[at]) << 8) | f[at + 1]; }

uint32_t be32(const uint8_t *p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

std::string at(size_t offset) { return "at byte offset " + std::to_string(offset); }

// The frame of the next record: false with an error when it does not fit the file.
bool frame(const std::vector<uint8_t> &f, size_t pos, uint32_t &len, std::string &error) {
    if (pos + 2 > f.size()) {
        error = "truncated record " + at(pos) + ": only " + std::to_string(f.size() - pos) +
                " byte(s) where a 2-byte length is needed";
        return false;
    }
    len = be16(f, pos);
    if (pos + 2 + len > f.size()) {
        error = "record length " + std::to_string(len) + " " + at(pos) + " runs past the end of the file (" +
                std::to_string(f.size()) + " bytes)";
        return false;
    }
    return true;
}

bool decodeValue(const std::vector<uint8_t> &f, size_t pos, uint32_t len, Record &r, std::string &error) {
    r.section = 3;
    r.offset = pos;
    const uint8_t *p = f.data() + pos + 2;
    if (len < 2 || p[0] == 0 || p[0] > len - 1) {
        error = "value record " + at(pos) + " has a name length that does not fit its " + std::to_string(len) +
                " bytes";
        return false;
    }
    size_t n = p[0] - 1u;
    r.kind = p[1];
    r.name.assign(reinterpret_cast<const char *>(p + 2), n);
    const uint8_t *d = p + 2 + n;
    size_t dl = len - 2 - n;
    bool ok = false;
    switch (r.kind) {
        case 0: case 3:
            ok = dl == 8;
            if (ok) { r.id = be32(d); r.value = be32(d + 4); }
            break;
        case 1: case 4:
            ok = dl == 12;
            if (ok) { r.id = be32(d); r.value = (uint64_t(be32(d + 4)) << 32) | be32(d + 8); }
            break;
        case 2: case 5: case 6:
            ok = dl >= 8 && be32(d + 4) == dl - 8;
            if (ok) { r.id = be32(d); r.bytes.assign(d + 8, d + dl); }
            break;
        default:
            error = "value record " + at(pos) + " has the unknown kind " + std::to_string(r.kind);
            return false;
    }
    if (!ok) error = "value record " + at(pos) + ": a payload of " + std::to_string(dl) + " bytes does not fit kind " +
                     KindName(r.kind);
    return ok;
}

bool splitLog(const std::vector<uint8_t> &f, size_t pos, uint32_t len, const std::set<std::string> &names,
              Record &r, std::string &error) {
    r.section = 1;
    r.offset = pos;
    std::string body(f.begin() + pos + 2, f.begin() + pos + 2 + len);
    r.marker = body.substr(0, 3);
    if (body.size() < 5 || (r.marker != "log" && r.marker != "run") || body[3] != ' ') {
        error = "log record " + at(pos) + " does not start with \"log \" or \"run \"";
        return false;
    }
    std::string rest = body.size() > 4 ? body.substr(4) : std::string();
    std::string best;
    for (const auto &n : names)
        if (n.size() > best.size() && rest.size() > n.size() && rest.compare(0, n.size(), n) == 0 && rest[n.size()] == ' ')
            best = n;
    size_t cut = best.empty() ? rest.find(' ') : best.size();
    if (cut == std::string::npos) {
        r.name = rest;
        return true;
    }
    r.name = rest.substr(0, cut);
    r.text = rest.substr(cut + 1);
    return true;
}

std::string hex(const std::vector<uint8_t> &b, const char *sep) {
    std::string s;
    char t[4];
    for (size_t i = 0; i < b.size(); ++i) {
        snprintf(t, sizeof t, "%02X", b[i]);
        if (i) s += sep;
        s += t;
    }
    return s;
}

std::string printable(const std::string &s) {
    std::string o;
    char t[8];
    for (unsigned char c : s) {
        if (c >= 0x20 && c < 0x7F && c != '\\') o += char(c);
        else if (c == '\\') o += "\\\\";
        else { snprintf(t, sizeof t, "\\x%02X", c); o += t; }
    }
    return o;
}

std::string json(const std::string &s) {
    std::string o = "\"";
    char t[8];
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') { o += '\\'; o += char(c); }
        else if (c < 0x20 || c >= 0x7F) { snprintf(t, sizeof t, "\\u%04x", c); o += t; }
        else o += char(c);
    }
    return o + "\"";
}

}  // namespace

bool ReadFile(const std::string &path, std::vector<uint8_t> &file, std::string &error) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) { error = strerror(errno); return false; }
    if (!S_ISREG(st.st_mode)) { error = "not a regular file"; return false; }
    FILE *f = fopen(path.c_str(), "rb");
    if (f == nullptr) { error = strerror(errno); return false; }
    uint8_t chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, f)) > 0) file.insert(file.end(), chunk, chunk + n);
    bool failed = ferror(f) != 0;
    if (failed) error = strerror(errno);
    fclose(f);
    return !failed;
}

const char *KindName(int kind) {
    static const char *const names[] = {"register", "register64", "register block", "counter",
                                        "counter64", "counter block", "value"};
    return kind >= 0 && kind <= 6 ? names[kind] : "unknown";
}

Result Decode(const std::vector<uint8_t> &f) {
    Result res;
    // Find the end mark first: the value records carry the names that tell
    // where a log record's name ends.
    size_t pos = 0, mark = 0;
    uint32_t len = 0;
    std::string frameError;
    bool marked = false;
    while (frame(f, pos, len, frameError)) {
        if (len == 0) { marked = true; mark = pos; break; }
        pos += 2 + len;
    }
    std::set<std::string> names;
    std::vector<Record> values;
    std::string valueError;
    if (marked) {
        for (size_t p = mark + 2; p < f.size(); p += 2 + len) {
            Record r;
            if (!frame(f, p, len, valueError) || !decodeValue(f, p, len, r, valueError)) break;
            names.insert(r.name);
            values.push_back(r);
        }
    }
    for (size_t p = 0; p < (marked ? mark : pos); p += 2 + be16(f, p)) {
        Record r;
        if (!splitLog(f, p, be16(f, p), names, r, res.error)) return res;
        res.records.push_back(r);
    }
    if (!marked) {
        res.error = f.size() == pos ? "missing end mark: the file ends " + at(pos) + " inside the log section"
                                    : frameError + " (no end mark before it)";
        return res;
    }
    res.records.insert(res.records.end(), values.begin(), values.end());
    res.error = valueError;
    return res;
}

bool ParseCrash(const std::string &text, Crash &c) {
    // "crash: SIGSEGV signal 11 addr 0x00000010 pc 0x1000abcd", pc only where the board's
    // signal context gives one.
    static const char *const kNames[] = {"SIGSEGV", "SIGBUS", "SIGILL", "SIGFPE", "SIGABRT"};
    const std::string head = "crash: ";
    if (text.compare(0, head.size(), head) != 0) return false;
    size_t at = head.size();
    auto word = [&](std::string &out) {
        size_t end = text.find(' ', at);
        out = text.substr(at, end == std::string::npos ? std::string::npos : end - at);
        at = end == std::string::npos ? text.size() : end + 1;
        return !out.empty();
    };
    auto hexWord = [&](std::string &out) {
        return word(out) && out.size() > 2 && out.compare(0, 2, "0x") == 0 &&
               out.find_first_not_of("0123456789abcdef", 2) == std::string::npos;
    };
    std::string key, number;
    if (!word(c.signal) || !word(key) || key != "signal" || !word(number)) return false;
    if (number.size() > 3 || number.find_first_not_of("0123456789") != std::string::npos) return false;
    bool known = false;
    for (const char *n : kNames) known = known || c.signal == n;
    if (!known) return false;
    c.number = std::stoi(number);
    if (!word(key) || key != "addr" || !hexWord(c.addr)) return false;
    c.pc.clear();
    if (at >= text.size()) return true;
    return word(key) && key == "pc" && hexWord(c.pc) && at >= text.size();
}

std::string FormatText(const Record &r) {
    if (r.section == 1) return "1 " + r.marker + " " + printable(r.name) + ": " + printable(r.text);
    char t[64];
    std::string s = "3 " + printable(r.name) + " " + KindName(r.kind);
    snprintf(t, sizeof t, " id=0x%08X", r.id);
    s += t;
    if (r.kind == 1 || r.kind == 4) snprintf(t, sizeof t, " value=0x%016llX", (unsigned long long)r.value);
    else if (r.kind == 0 || r.kind == 3) snprintf(t, sizeof t, " value=0x%08llX", (unsigned long long)r.value);
    else snprintf(t, sizeof t, " len=%zu bytes=", r.bytes.size());
    s += t;
    if (r.kind == 2 || r.kind == 5 || r.kind == 6) s += hex(r.bytes, " ");
    return s;
}

std::string FormatJson(const Record &r) {
    std::string s = "{\"section\":" + std::to_string(r.section) + ",\"offset\":" + std::to_string(r.offset);
    if (r.section == 1) {
        s += ",\"marker\":" + json(r.marker) + ",\"name\":" + json(r.name) + ",\"text\":" + json(r.text);
        Crash c;
        if (r.marker != "run" || !ParseCrash(r.text, c)) return s + "}";
        s += ",\"crash\":{\"signal\":" + json(c.signal) + ",\"number\":" + std::to_string(c.number) +
             ",\"addr\":" + json(c.addr);
        return s + (c.pc.empty() ? "" : ",\"pc\":" + json(c.pc)) + "}}";
    }
    s += ",\"kind\":" + json(KindName(r.kind)) + ",\"code\":" + std::to_string(r.kind) + ",\"name\":" + json(r.name) +
         ",\"id\":" + std::to_string(r.id);
    if (r.kind == 2 || r.kind == 5 || r.kind == 6) return s + ",\"bytes\":\"" + hex(r.bytes, "") + "\"}";
    return s + ",\"value\":" + std::to_string(r.value) + "}";
}

int Main(const std::vector<std::string> &args, std::ostream &out, std::ostream &err) {
    bool asJson = false;
    std::string path;
    for (const auto &a : args) {
        if (a == "--help" || a == "-h") { out << kUsage; return 0; }
        if (a == "--version") { out << "dtfcm (dtkit) " DTKIT_VERSION "\n"; return 0; }
        if (a == "--json") asJson = true;
        else if (!a.empty() && a[0] == '-') { err << "dtfcm: unknown option " << a << "\n" << kUsage; return 2; }
        else if (path.empty()) path = a;
        else { err << "dtfcm: more than one file given\n" << kUsage; return 2; }
    }
    if (path.empty()) path = DTFAULT_FILE;  // where the library beside it writes
    std::vector<uint8_t> file;
    std::string readError;
    if (!ReadFile(path, file, readError)) { err << "dtfcm: cannot read " << path << ": " << readError << "\n"; return 2; }
    Result res = Decode(file);
    for (const auto &r : res.records) out << (asJson ? FormatJson(r) : FormatText(r)) << "\n";
    if (!res.error.empty()) { err << "dtfcm: " << path << ": " << res.error << "\n"; return 1; }
    return 0;
}

}  // namespace dtfcm
