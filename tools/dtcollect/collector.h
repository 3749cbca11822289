// dtcollect: the command line around the collector core. Every host is one
// job of the core; its lines are printed as the core decodes them.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace dtcollect {

struct Options {
    uint32_t type = 0;            // request type: 0 to 2 collect, 3 self test
    uint32_t sequence = 0;        // first request's sequence, the rest counting up; 0: the core picks
    uint32_t listenPort = 0;      // the one shared listener; 0: ephemeral
    uint32_t parallel = 256;      // collections in flight at most
    int timeoutMs = 5000;         // each collection's deadline
    bool json = false;
    bool help = false;
    bool version = false;
    std::vector<std::string> hosts;
    std::vector<std::string> hostsFiles;
};

// Parses the command line (without the program name). false with the reason
// on bad usage.
bool ParseArgs(const std::vector<std::string> &args, Options &o, std::string &error);

// Reads hosts, one a line; '#' starts a comment, blank lines are skipped and a
// line with more than one word is refused. false with "NAME:LINE: why".
bool ReadHosts(std::istream &in, const std::string &name, std::vector<std::string> &hosts, std::string &error);

// The whole program. Returns the exit status: 0 all hosts collected, 1 some
// host failed, 2 bad usage. `in` is what a hosts file "-" reads.
int Main(const std::vector<std::string> &args, std::istream &in, std::ostream &out, std::ostream &err);

}  // namespace dtcollect
