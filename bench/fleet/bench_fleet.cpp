// The fleet benchmark: dtcollect against thousands of simulated devices
// (dtsim), each with a slow link. It measures the collector's wall time
// against the ideal N * M * D / P (N devices, M messages each, D ms before each
// message, P collections in flight), its peak resident memory (the kernel's
// high-water mark, from wait4) and its peak number of open descriptors
// (sampled from /proc every 10 ms), and checks them against the
// targets: every device collected, wall <= 1.5x ideal, memory <= 64 MiB,
// descriptors <= P + 64. Exit status 0 when every target is met, 1 when one
// is missed, 2 when the run could not be made (bad usage, no simulator).
//
// Everything goes to 127.0.0.0/8; dtsim binds UDP port 9099 on every
// address, so run it in a network namespace of its own (scripts/bench.sh does).
//   bench_fleet [--devices N] [--delay MS] [--parallel P] [--timeout SEC]
//               [--collector PATH] [--hosts-as-arguments]
// --hosts-as-arguments runs a collector without --hosts-file and --parallel
// (an older dtcollect): it gets every host on its command line and only --timeout.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "fleet.h"

namespace {

double Now() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
}

// Starts argv[0] with standard output to `out` (-1: /dev/null) and standard error to errPath.
pid_t Spawn(const std::vector<std::string> &args, int out, const std::string &errPath) {
    const pid_t pid = fork();
    if (pid != 0) return pid;
    // Only standard input, output and error reach the child: its descriptor count is its own.
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(out >= 0 ? out : null, 1);
    const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    dup2(err, 2);
    std::vector<char *> argv;
    for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
}

int OpenDescriptors(pid_t pid) {
    DIR *d = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (d == nullptr) return 0;
    int n = 0;
    while (readdir(d) != nullptr) ++n;
    closedir(d);
    return n - 2;  // . and ..
}

// Reads a child's output until it holds `what` or `seconds` pass; false at its end.
bool ReadUntil(int fd, std::string &text, const std::string &what, double seconds) {
    const double end = Now() + seconds;
    while (text.find(what) == std::string::npos && Now() < end) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 100) != 1) continue;
        char buf[4096];
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0) return false;
        text.append(buf, size_t(n));
    }
    return text.find(what) != std::string::npos;
}

double CpuSeconds(const rusage &u) {
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) + double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// The number in `text` just before `label`, or -1.
long NumberBefore(const std::string &text, const std::string &label) {
    const size_t at = text.find(label);
    if (at == std::string::npos) return -1;
    size_t start = at;
    while (start > 0 && text[start - 1] >= '0' && text[start - 1] <= '9') --start;
    return start == at ? -1 : std::atol(text.c_str() + start);
}

std::string ReadFile(const std::string &path) {
    std::ifstream f(path);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

}  // namespace

int main(int argc, char **argv) {
    uint32_t devices = 10000, delay = 5, parallel = 1000, timeout = 10;
    std::string collector = DTCOLLECT_PATH;
    bool hostsAsArguments = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool value = i + 1 < argc;
        if (a == "--hosts-as-arguments") hostsAsArguments = true;
        else if (a == "--collector" && value) collector = argv[++i];
        else if (a == "--devices" && value) devices = uint32_t(std::atol(argv[++i]));
        else if (a == "--delay" && value) delay = uint32_t(std::atol(argv[++i]));
        else if (a == "--parallel" && value) parallel = uint32_t(std::atol(argv[++i]));
        else if (a == "--timeout" && value) timeout = uint32_t(std::atol(argv[++i]));
        else {
            std::cerr << "bench_fleet: bad argument " << a << " (see the head of bench/fleet/bench_fleet.cpp)\n";
            return 2;
        }
    }
    if (devices == 0 || devices > dtsim::kMaxDevices || parallel == 0 || timeout == 0) {
        std::cerr << "bench_fleet: --devices 1 to " << dtsim::kMaxDevices << ", --parallel and --timeout above 0\n";
        return 2;
    }
    // Both children inherit the raised limit; neither needs root for it.
    rlimit r{};
    getrlimit(RLIMIT_NOFILE, &r);
    r.rlim_cur = r.rlim_max;
    setrlimit(RLIMIT_NOFILE, &r);

    const std::string base = "/tmp/dtkit-fleet-" + std::to_string(getpid());
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) return 2;
    const pid_t sim = Spawn({DTSIM_PATH, "--devices", std::to_string(devices), "--delay", std::to_string(delay),
                             "--collections", std::to_string(devices), "--duration", "600",
                             // The devices outwait the collector: it is the one that gives up.
                             "--wait", std::to_string(timeout * 2)},
                            pipeFds[1], base + ".sim.err");
    close(pipeFds[1]);
    std::string simText;
    if (!ReadUntil(pipeFds[0], simText, "\n", 60) || simText.find("dtsim: ready") != 0) {
        std::cerr << "bench_fleet: the simulator did not start: " << simText << ReadFile(base + ".sim.err");
        kill(sim, SIGKILL);
        waitpid(sim, nullptr, 0);
        return 2;
    }
    const long messages = NumberBefore(simText, " messages a collection");

    std::vector<std::string> args = {collector, "--timeout", std::to_string(timeout)};
    if (hostsAsArguments) {
        for (uint32_t i = 0; i < devices; ++i) args.push_back(dtsim::DeviceHost(i));
    } else {
        std::ofstream hosts(base + ".hosts");
        for (uint32_t i = 0; i < devices; ++i) hosts << dtsim::DeviceHost(i) << "\n";
        args.insert(args.end(), {"--hosts-file", base + ".hosts", "--parallel", std::to_string(parallel)});
    }
    const double start = Now();
    const pid_t col = Spawn(args, -1, base + ".err");
    int peakFds = 0, status = 0;
    rusage colUse{};
    // Bounded: a collector that outlives every device's deadline many times over is stopped.
    const double limit = start + 60 + double(timeout) * 4 + double(devices) * double(messages) * delay / 1000.0;
    for (;;) {
        const pid_t done = wait4(col, &status, WNOHANG, &colUse);
        if (done == col) break;
        if (Now() > limit) kill(col, SIGKILL);
        const int n = OpenDescriptors(col);
        if (n > peakFds) peakFds = n;
        usleep(10000);
    }
    const double wall = Now() - start;
    kill(sim, SIGTERM);
    ReadUntil(pipeFds[0], simText, "\x01", 30);  // never printed: reads to the end
    rusage simUse{};
    wait4(sim, nullptr, 0, &simUse);
    close(pipeFds[0]);
    const std::string err = ReadFile(base + ".err");
    unlink((base + ".hosts").c_str());
    unlink((base + ".err").c_str());
    unlink((base + ".sim.err").c_str());

    const long complete = NumberBefore(simText, " complete,");
    // Fewer devices than slots leave the rest of the slots idle.
    const double ideal = double(devices) * double(messages) * delay / 1000.0 / double(std::min(parallel, devices));
    const double mib = double(colUse.ru_maxrss) / 1024.0;
    // The collector's own lines on standard error: one per failed host, and
    // a summary (dtcollect's, when it has one) that is shown as it stands.
    size_t errorLines = 0;
    std::string summary, firstError;
    std::istringstream lines(err);
    for (std::string line; std::getline(lines, line);) {
        if (line.find(" hosts collected, ") != std::string::npos) {
            summary = line;
        } else {
            errorLines++;
            if (firstError.empty()) firstError = line;
        }
    }
    printf("fleet: %u devices, %ld messages each, delay %u ms, parallel %u (%s)\n", devices, messages, delay,
           parallel, collector.c_str());
    printf("fleet: collector exit %d, collections complete at the devices %ld of %u, %zu error lines\n",
           WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), complete, devices, errorLines);
    if (!summary.empty()) printf("fleet: collector's summary: %s\n", summary.c_str());
    if (!firstError.empty()) printf("fleet: collector's first error: %s\n", firstError.c_str());
    printf("fleet: wall %.3f s, ideal %.3f s, ratio %.2f (target <= 1.5)\n", wall, ideal, wall / ideal);
    printf("fleet: collector peak memory %.1f MiB (target <= 64), peak descriptors %d (target <= %u)\n", mib,
           peakFds, parallel + 64);
    printf("fleet: CPU seconds: collector %.2f, simulator %.2f; simulator: %s", CpuSeconds(colUse),
           CpuSeconds(simUse), simText.substr(simText.find('\n') + 1).c_str());
    const bool met = WIFEXITED(status) && WEXITSTATUS(status) == 0 && complete == long(devices) &&
                     wall <= 1.5 * ideal && mib <= 64 && peakFds <= long(parallel) + 64;
    printf("fleet: %s\n", met ? "every target met" : "a target missed");
    return met ? 0 : 1;
}
