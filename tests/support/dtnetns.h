// Private network namespaces for tests that may broadcast: nothing they send
// can leave the pair of namespaces the test makes for itself.
#pragma once

#include <string>

namespace dttest {

// Two private network namespaces joined by a veth pair: "device" 10.99.0.1/24 and
// "server" 10.99.0.2/24, lo up in both, a default route over the pair in each.
// Names carry the pid so parallel test processes never meet.
class NetnsPair {
public:
    NetnsPair() = default;
    NetnsPair(const NetnsPair &) = delete;
    NetnsPair &operator=(const NetnsPair &) = delete;

    // Empty on success, otherwise why the pair could not be made (the test skips with it).
    std::string Make();
    // Moves the calling thread into one side; sockets it makes afterwards live there,
    // and a process it forks starts there.
    bool EnterDevice();
    bool EnterServer();
    const std::string &ServerName() const { return server_; }  // for `ip netns exec`
    ~NetnsPair();  // deletes both namespaces

private:
    std::string device_;
    std::string server_;
    int origin_ = -1;  // the namespace the maker's thread came from
};

}  // namespace dttest
