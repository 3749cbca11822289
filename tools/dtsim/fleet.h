// dtsim: a fleet of simulated devices in one process, for the collector's
// tests and the fleet benchmark. Every device answers collection requests on
// UDP port 9099 of its own loopback address and plays back the real agent's
// recorded stream, numbered as that agent would number it on that device.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace dtsim {

constexpr uint16_t kRequestPort = 9099;
// Device i lives at 127.1.(i / 250).(i % 250 + 1): the last byte never 0 or 255.
constexpr uint32_t kPerBlock = 250;
constexpr uint32_t kMaxDevices = 256 * kPerBlock;

// Host-order IPv4 address of device i, and its dotted text.
uint32_t DeviceAddress(uint32_t device);
std::string DeviceHost(uint32_t device);
// The device at a host-order address among the first `devices`, or -1.
int64_t DeviceAt(uint32_t address, uint32_t devices);

// How a chosen device breaks the protocol.
enum class Mode : uint8_t {
    kNormal,
    kSilent,   // never connects back
    kGarbage,  // sends its identity, then 16 bytes that are no message header
    kDrop,     // closes the connection halfway through a message, half the stream sent
    kStall,    // sends identity and section list, then nothing until the collector gives up
};

struct Options {
    uint32_t devices = 1;
    uint32_t delayMs = 0;          // before each message, standing for a slow link
    uint32_t durationMs = 60000;   // the whole run, whatever happens
    uint32_t waitMs = 10000;       // bound on one connect or acknowledgement wait
    uint64_t collections = 0;      // end after this many requests are dealt with; 0: run for the duration
    bool printHosts = false;
    std::vector<Mode> modes;       // per device; empty means all normal
};

// Parses the command line (without the program name). false with the reason
// on bad usage; help or version is set when asked for.
bool ParseArgs(const std::vector<std::string> &args, Options &o, bool &help, bool &version, std::string &error);

// The whole program. Returns the exit status: 0 ran its course (duration,
// count, SIGTERM or SIGINT), 1 could not start, 2 bad usage.
int Main(const std::vector<std::string> &args, std::ostream &out, std::ostream &err);

}  // namespace dtsim
