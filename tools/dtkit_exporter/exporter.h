// dtkit_exporter's work, apart from HTTP: the command line, the probe
// request's parameters, and the one collector core that every probe shares.
//
// The hand-off between the HTTP server's threads and the core's loop thread:
// a probe's HTTP thread makes a Pending (mutex, condition variable, report),
// hands the job to Core::Submit, and waits on the condition variable. The
// loop thread feeds the events into the report and, in the DoneFn, stores the
// outcome and sets `done` under the mutex. The report is touched only by the
// loop thread until `done` is set and only by the HTTP thread after it, so the
// mutex is the one point where the two meet. The Pending is shared (both
// callbacks hold it), so an HTTP thread that gives up early leaves the loop
// thread writing into memory that is still alive.
#pragma once

#include <mutex>
#include <cstdint>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "collect_core.h"

namespace dtexporter {

constexpr uint16_t kDefaultPort = 9469;
// Each slot has an HTTP worker thread waiting on it; past a few thousand
// threads a process meets the system's limits before the devices do.
constexpr uint64_t kMaxParallel = 4096;

struct Options {
    std::string listenHost = "127.0.0.1";  // "" = every address
    uint16_t listenPort = kDefaultPort;   // 0 = an ephemeral port, reported on standard error
    double timeoutSec = 10;               // the longest a probe may take; the scrape's own timeout may shorten it
    size_t parallel = 256;                // collections in flight at once; the rest wait their turn
    uint16_t collectPort = 0;             // the TCP port devices connect back to; 0 = an ephemeral one
};

extern const char kUsage[];

// The command line without the program name. false with the reason on bad
// usage; help or version set when asked for.
bool ParseArgs(const std::vector<std::string> &args, Options &o, bool &help, bool &version, std::string &error);

// "ADDR:PORT", "[V6ADDR]:PORT" or ":PORT" (every address).
bool ParseListenAddress(const std::string &text, std::string &host, uint16_t &port);

struct Probe {
    std::string target;
    uint32_t type = 0;   // 0..2 collection, 3 self test
    int timeoutMs = 0;
};

// The query of GET /probe and the X-Prometheus-Scrape-Timeout-Seconds header
// (null when absent). The deadline is the smaller of maxSec and, when the
// header is there, the larger of (header - 0.5 s) and half the header: the
// answer must be back before Prometheus gives up on the scrape. Unknown
// parameters are refused, so that a misspelt one fails the scrape instead of
// silently asking for something else. false with a one-line reason.
bool ParseProbe(const std::multimap<std::string, std::string> &params, const std::string *scrapeTimeout,
                double maxSec, Probe &p, std::string &error);

// The process' own figures (CPU seconds, memory, descriptors, start time) in
// the exposition format, read from /proc.
std::string ProcessFigures();

class Exporter {
public:
    explicit Exporter(const Options &o);
    ~Exporter();
    Exporter(const Exporter &) = delete;
    Exporter &operator=(const Exporter &) = delete;

    // Opens the core and starts its loop on a thread of its own.
    bool Start(std::string &error);
    // Stops the loop and waits for it; called once no probe is waiting.
    void Stop();

    // One probe, on an HTTP thread: blocks until the collection is done (or
    // its deadline and a second's grace have passed) and returns the body.
    std::string RunProbe(const Probe &p);
    std::string Metrics() const;
    void CountBadRequest();

private:
    Options options_;
    dtcore::Core core_;
    std::thread loop_;
    bool started_ = false;
    struct Counts {
        uint64_t probes = 0, failures = 0, badRequests = 0, values = 0;
    };
    // A mutex, not 64-bit atomics: the 32-bit board, where the tests also
    // run, has no lock-free ones.
    mutable std::mutex countLock_;
    Counts counts_;  // guarded by countLock_
    void count_(uint64_t probes, uint64_t failures, uint64_t badRequests, uint64_t values);
};

}  // namespace dtexporter
