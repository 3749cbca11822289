// The host whose collections every simulated device plays back: a few
// sections registered with the library's real agent, putting values of every
// kind, and the recording of what that agent sends for one request. The
// simulator never writes the protocol itself; it replays these bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace dtsim {

// One value the host puts, in the order its sections put them.
struct HostValue {
    const char *section;
    uint32_t index;  // the section's slot, as the section list announces it
    uint32_t block;
    uint32_t code;
    int kind;         // 1 int, 2 long, 3 string, 4 buffer
    uint64_t number;  // int and long
    std::string bytes;  // string and buffer
};

// The section "device" puts the device's own number under this code; the
// recording holds 0 there and the player writes each device's number.
constexpr uint32_t kDeviceSection = 3;
constexpr uint32_t kDeviceNumberCode = 1;

// What the host's collect callbacks put, the device-number value holding `device`.
std::vector<HostValue> CollectValues(uint32_t device);
// What its self-test callbacks put (the name records not included).
std::vector<HostValue> SelfTestValues();
// Names of every registered section, in slot order (one has no collect callback).
std::vector<std::string> SectionNames();

struct Message {
    uint32_t type;
    std::vector<uint8_t> payload;
};

struct Recording {
    std::vector<Message> messages;  // in stream order, identity first, closing empty message last
    // Where the device-number int lives: message and payload offset of its
    // value word; messages.size() when the stream has none (the self test).
    size_t numberMessage = 0;
    size_t numberOffset = 0;
};

// Registers the sections (once per process) and records what the agent sends
// for a request of this type (0 to 2 collect, 3 self test), acting as the
// collector on a 127.0.0.1 listener of its own. false with the reason when
// the agent's stream cannot be had within a few seconds.
bool Record(uint32_t type, Recording &out, std::string &error);

}  // namespace dtsim
