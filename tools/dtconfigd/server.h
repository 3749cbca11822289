// The network side of dtconfigd: one UDP socket, one reply per well-formed
// request, the file reloaded on SIGHUP.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace dtconfigd {

struct Options {
    uint16_t port = 8999;
    // A socket bound to one address does not see the devices' first query,
    // which is a broadcast; the default sees everything.
    std::string bind = "0.0.0.0";
    std::string file;
    // --version answers at once, as --help does: what follows it is not read.
    bool version = false;
};

// Parses the command line (without the program name). false with the reason
// on bad usage; help is set for --help.
bool ParseArgs(const std::vector<std::string> &args, Options &o, bool &help, std::string &error);

// The whole program: serves until SIGTERM or SIGINT. Log lines go to out, one
// flush per line. Returns the exit status: 0 stopped by a signal, 1 the file
// or the socket could not be used, 2 bad usage.
int Main(const std::vector<std::string> &args, std::ostream &out, std::ostream &err);

}  // namespace dtconfigd
