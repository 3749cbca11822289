// The network side of dtcollect: one request and one device connection per
// host, hosts collected in parallel.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

namespace dtcollect {

constexpr uint16_t kRequestPort = 9099;

struct Options {
    uint32_t type = 0;            // request type: 0 to 2 collect, 3 self test
    uint32_t sequence = 0;        // 0: the device numbers the identity message itself
    uint32_t listenPort = 0;      // 0: an ephemeral port per host; else host i listens on listenPort + i
    int timeoutMs = 5000;         // bound on every single wait
    bool json = false;
    std::vector<std::string> hosts;
};

// Parses the command line (without the program name). false with the reason
// on bad usage; help is set for --help.
bool ParseArgs(const std::vector<std::string> &args, Options &o, bool &help, std::string &error);

// The 16-byte request datagram asking for a collection answered on listenPort.
std::vector<uint8_t> Request(uint32_t type, uint32_t sequence, uint16_t listenPort);

// Collects from one host, handing each output line to emit as soon as it is
// known. Binds the listener (listenPort, 0 = ephemeral) before the request goes
// out. The device's connection is the first one on this host's own listener;
// its peer address is not checked, since a device with several interfaces may
// connect back from another of its addresses. false with one line naming the
// byte offset in the stream when the host failed.
bool CollectHost(const std::string &host, uint16_t listenPort, const Options &o,
                 const std::function<void(const std::string &)> &emit, std::string &error);

// The whole program. Returns the exit status: 0 all hosts collected, 1 some
// host failed, 2 bad usage.
int Main(const std::vector<std::string> &args, std::ostream &out, std::ostream &err);

}  // namespace dtcollect
