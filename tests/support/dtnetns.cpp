#include "dtnetns.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

namespace dttest {
namespace {

std::atomic<int> g_pairs{0};

// Runs one command through the shell; empty on success, else the command and
// what it printed, so that a skip says exactly what the machine refused.
std::string Run(const std::string &cmd) {
    FILE *p = popen((cmd + " 2>&1").c_str(), "r");
    if (!p) return "cannot run: " + cmd;
    std::string out;
    char buf[256];
    while (fgets(buf, sizeof buf, p)) out += buf;
    return pclose(p) == 0 ? "" : "`" + cmd + "` failed: " + out;
}

bool Enter(const std::string &name) {
    const int fd = open(("/var/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
    const bool ok = fd >= 0 && setns(fd, CLONE_NEWNET) == 0;
    if (fd >= 0) close(fd);
    return ok;
}

}  // namespace

std::string NetnsPair::Make() {
    if (geteuid() != 0) return "network namespaces need root";
    origin_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    const std::string tag = std::to_string(getpid()) + "x" + std::to_string(g_pairs++);
    device_ = "dtkdev" + tag;
    server_ = "dtksrv" + tag;
    // One chain: the first step that fails stops it, and the skip says which. Interface names
    // are at most 15 characters: "dtd" + pid + "x" + n fits.
    std::string chain = "ip netns add " + device_ + " && ip netns add " + server_ + " && ip -n " + device_ +
                        " link add dtd" + tag + " type veth peer name dts" + tag + " netns " + server_;
    const std::string sides[2][3] = {{device_, "dtd" + tag, "10.99.0.1/24"}, {server_, "dts" + tag, "10.99.0.2/24"}};
    for (const auto &side : sides) {
        const std::string ip = " && ip -n " + side[0];
        chain += ip + " addr add " + side[2] + " dev " + side[1] + ip + " link set lo up" + ip + " link set " +
                 side[1] + " up" + ip + " route add default dev " + side[1];
    }
    // Names with our pid can only be left over from a dead process, so they are ours to replace.
    // Parallel first uses of `ip netns` may race on its mount point: one retry covers that.
    std::string err = "not tried";
    for (int attempt = 0; attempt < 2 && !err.empty(); ++attempt) {
        (void)Run("ip netns del " + device_ + "; ip netns del " + server_);
        if (attempt > 0) usleep(200 * 1000);
        err = Run(chain);
    }
    return err;
}

bool NetnsPair::EnterDevice() { return Enter(device_); }
bool NetnsPair::EnterServer() { return Enter(server_); }

NetnsPair::~NetnsPair() {
    // Back home first, so that whatever the thread does after the pair is
    // gone happens in the namespace it started in.
    if (origin_ >= 0) {
        (void)setns(origin_, CLONE_NEWNET);
        close(origin_);
    }
    // Deleting a namespace that was never made only fails, and its name carries our pid.
    if (!device_.empty()) (void)Run("ip netns del " + device_);
    if (!server_.empty()) (void)Run("ip netns del " + server_);
}

}  // namespace dttest
