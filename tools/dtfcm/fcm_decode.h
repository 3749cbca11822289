// Decoder of the fault file written by DTFault_Start: what dtfcm prints, as a
// library so that the tests drive it without spawning the program.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace dtfcm {

struct Record {
    int section = 0;     // 1: log record, 3: value record
    size_t offset = 0;   // of the record's length field in the file
    // section 1
    std::string marker;  // "log" (init log) or "run" (run log)
    std::string name;
    std::string text;
    // section 3
    int kind = -1;
    uint32_t id = 0;
    uint64_t value = 0;          // kinds 0, 1, 3, 4
    std::vector<uint8_t> bytes;  // kinds 2, 5, 6
};

struct Result {
    std::vector<Record> records;  // everything decoded before any damage
    std::string error;            // empty when the whole file decoded
};

// What a crash record's text says (see ParseCrash).
struct Crash {
    std::string signal;  // "SIGSEGV", ...
    int number = 0;
    std::string addr;    // "0x..."
    std::string pc;      // "0x...", empty where the record gives none
};

Result Decode(const std::vector<uint8_t> &file);
// The whole file; false with the reason when it is not a readable regular file.
bool ReadFile(const std::string &path, std::vector<uint8_t> &file, std::string &error);
const char *KindName(int kind);
// True when a run-log text is the record the library writes on a crash:
// "crash: SIG<name> signal <n> addr 0x<hex>[ pc 0x<hex>]", nothing more.
bool ParseCrash(const std::string &text, Crash &crash);
std::string FormatText(const Record &r);
std::string FormatJson(const Record &r);
// The whole program: arguments without the program name. Returns the exit status.
int Main(const std::vector<std::string> &args, std::ostream &out, std::ostream &err);

}  // namespace dtfcm
