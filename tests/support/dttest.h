// Test doubles for the host platform layer. Linking dtkit_testsupport into a
// test replaces the library's weak defaults with these recording versions.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace dttest {

// Every Kybe_RawPrint call, formatted, one entry per call (one console hand-over).
const std::vector<std::string> &Console();
// All console hand-overs joined.
std::string ConsoleText();
void ClearConsole();

// Make the k-th Kybe_Malloc call from now fail (1 = the next call). 0 = never.
void FailMallocAt(uint32_t k);
// Kybe_Malloc calls since the process started (failed ones included).
uint32_t MallocCalls();
// Platform blocks handed out and not yet given back.
int64_t LiveBlocks();

// Every Kybe_Delay argument, in order.
const std::vector<uint32_t> &Delays();
void ClearDelays();

}  // namespace dttest
