#include "exporter.h"

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <sstream>

#include "exposition.h"

namespace dtexporter {

const char kUsage[] =
    "usage: dtkit_exporter [--web.listen-address ADDR:PORT] [--collect.timeout SEC] [--collect.parallel N]\n"
    "                      [--collect.listen-port P]\n"
    "Prometheus exporter for dtkit devices: GET /probe?target=HOST[&type=N] collects from\n"
    "HOST (UDP port 9099, the device connects back) and answers every int and long value\n"
    "as dtkit_value{section,block,code}; GET /metrics gives the exporter's own figures.\n"
    "  --web.listen-address ADDR:PORT  where to serve HTTP (default 127.0.0.1:9469;\n"
    "                     :PORT for every address; port 0 picks one and reports it)\n"
    "  --collect.timeout SEC  the longest one probe may take (default 10); a scrape's\n"
    "                     X-Prometheus-Scrape-Timeout-Seconds shortens it to that\n"
    "                     timeout less 0.5 s (at least half of it)\n"
    "  --collect.parallel N   collections in flight at once, 1 to 4096 (default 256);\n"
    "                     the rest wait their turn\n"
    "  --collect.listen-port P  the TCP port the devices connect back to (default 0:\n"
    "                     an ephemeral one); fix it where a firewall stands between\n"
    "                     the devices and the exporter\n"
    "  type=N: 0, 1 or 2 ask for a collection of that type (default 0), 3 for a self test.\n"
    "Section names are label values: a backslash is doubled, and control bytes and\n"
    "bytes that are not UTF-8 are written \\xNN. A value whose section, block and code\n"
    "came before gets repeat=\"N\". Strings and buffers are counted, not exported.\n"
    "A failed collection answers 200 with dtkit_probe_success 0; a bad request 400.\n";

namespace {

bool fail(std::string &error, const std::string &why) {
    error = why;
    return false;
}

// A piece of a request as it may appear in a one-line reason.
std::string printable(const std::string &s) {
    std::string out;
    for (char c : s.substr(0, 64)) out += (c >= 0x20 && c < 0x7F) ? c : '?';
    return s.size() > 64 ? out + "..." : out;
}

bool parseSeconds(const std::string &text, double max, double &sec) {
    if (text.empty() || text.find_first_not_of("0123456789.") != std::string::npos) return false;
    char *end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (*end != '\0' || !(v > 0) || v > max) return false;
    sec = v;
    return true;
}

bool parseCount(const std::string &text, uint64_t min, uint64_t max, uint64_t &v) {
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    v = std::strtoull(text.c_str(), nullptr, 10);
    return v >= min && v <= max;
}

bool hostChars(const std::string &s) {
    for (char c : s) {
        const bool alnum = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        if (!alnum && c != '.' && c != '-' && c != '_') return false;
    }
    return true;
}

void figure(std::string &out, const char *name, const char *type, const char *help, const std::string &value) {
    out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n" + name + " " + value + "\n";
}

}  // namespace

bool ParseListenAddress(const std::string &text, std::string &host, uint16_t &port) {
    const size_t colon = text.rfind(':');
    uint64_t p = 0;
    if (colon == std::string::npos || !parseCount(text.substr(colon + 1), 0, 65535, p)) return false;
    std::string h = text.substr(0, colon);
    if (h.size() >= 2 && h.front() == '[' && h.back() == ']') {
        h = h.substr(1, h.size() - 2);
        if (h.empty() || h.find_first_not_of("0123456789abcdefABCDEF:.") != std::string::npos) return false;
    } else if (h.find(':') != std::string::npos || !hostChars(h)) {
        return false;
    }
    host = h;
    port = uint16_t(p);
    return true;
}

bool ParseArgs(const std::vector<std::string> &args, Options &o, bool &help, bool &version, std::string &error) {
    help = version = false;
    for (size_t i = 0; i < args.size(); ++i) {
        std::string name = args[i], value;
        const size_t eq = name.find('=');
        const bool inlineValue = name.compare(0, 2, "--") == 0 && eq != std::string::npos;
        if (inlineValue) {
            value = name.substr(eq + 1);
            name = name.substr(0, eq);
        }
        if (name == "--help" || name == "-h") {
            help = true;
            return true;
        }
        if (name == "--version") {
            version = true;
            return true;
        }
        if (name != "--web.listen-address" && name != "--collect.timeout" && name != "--collect.parallel" &&
            name != "--collect.listen-port") {
            return fail(error, name.compare(0, 1, "-") == 0 ? "unknown option " + name : "unexpected argument " + name);
        }
        if (!inlineValue) {
            if (i + 1 >= args.size()) return fail(error, name + " needs a value");
            value = args[++i];
        }
        uint64_t n = 0;
        bool ok = false;
        if (name == "--web.listen-address") {
            ok = ParseListenAddress(value, o.listenHost, o.listenPort);
        } else if (name == "--collect.timeout") {
            ok = parseSeconds(value, 3600, o.timeoutSec);
        } else if (name == "--collect.parallel") {
            ok = parseCount(value, 1, kMaxParallel, n);
            o.parallel = ok ? size_t(n) : o.parallel;
        } else {
            ok = parseCount(value, 0, 65535, n);
            o.collectPort = ok ? uint16_t(n) : o.collectPort;
        }
        if (!ok) return fail(error, "bad value for " + name + ": " + value);
    }
    return true;
}

bool ParseProbe(const std::multimap<std::string, std::string> &params, const std::string *scrapeTimeout,
                double maxSec, Probe &p, std::string &error) {
    for (const auto &kv : params) {
        if (kv.first != "target" && kv.first != "type") return fail(error, "unknown parameter '" + printable(kv.first) + "'");
        if (params.count(kv.first) > 1) return fail(error, "parameter " + kv.first + " given more than once");
    }
    const auto target = params.find("target");
    if (target == params.end() || target->second.empty()) return fail(error, "missing target: /probe?target=HOST");
    if (target->second.size() > 253 || !hostChars(target->second)) {
        return fail(error, "bad target '" + printable(target->second) + "': a host name or IPv4 address, without a port");
    }
    p.target = target->second;
    p.type = 0;
    const auto type = params.find("type");
    uint64_t t = 0;
    if (type != params.end()) {
        if (!parseCount(type->second, 0, 3, t)) {
            return fail(error, "bad type '" + printable(type->second) + "': 0, 1 or 2 for a collection, 3 for a self test");
        }
        p.type = uint32_t(t);
    }
    double sec = maxSec;
    if (scrapeTimeout) {
        double h = 0;
        if (!parseSeconds(*scrapeTimeout, 1e9, h)) {
            return fail(error, "bad X-Prometheus-Scrape-Timeout-Seconds '" + printable(*scrapeTimeout) + "'");
        }
        sec = std::min(sec, std::max(h - 0.5, h / 2));
    }
    p.timeoutMs = std::max(1, int(std::ceil(sec * 1000)));
    return true;
}

std::string ProcessFigures() {
    std::ifstream statFile("/proc/self/stat");
    std::string stat((std::istreambuf_iterator<char>(statFile)), std::istreambuf_iterator<char>());
    // The fields after the command name, which may itself hold spaces and ')'.
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::vector<std::string> f((std::istream_iterator<std::string>(fields)), std::istream_iterator<std::string>());
    if (f.size() < 22) return "";
    const double tick = double(sysconf(_SC_CLK_TCK));
    const double page = double(sysconf(_SC_PAGESIZE));
    // f[0] is the state (field 3 of the line): utime is field 14, so f[11].
    const double cpu = (std::strtod(f[11].c_str(), nullptr) + std::strtod(f[12].c_str(), nullptr)) / tick;
    const double startTicks = std::strtod(f[19].c_str(), nullptr);
    std::ifstream procStat("/proc/stat");
    std::string key;
    double boot = 0;
    while (procStat >> key) {
        if (key == "btime") {
            procStat >> boot;
            break;
        }
    }
    size_t fds = 0;
    if (DIR *d = opendir("/proc/self/fd")) {
        while (dirent *e = readdir(d)) fds += e->d_name[0] != '.';
        closedir(d);
        --fds;  // the directory's own descriptor
    }
    rlimit lim{};
    getrlimit(RLIMIT_NOFILE, &lim);
    std::string out;
    figure(out, "process_cpu_seconds_total", "counter", "User and system CPU time spent, in seconds.", Number(cpu));
    figure(out, "process_resident_memory_bytes", "gauge", "Resident memory size in bytes.",
            Number(std::strtod(f[21].c_str(), nullptr) * page));
    figure(out, "process_virtual_memory_bytes", "gauge", "Virtual memory size in bytes.", f[20]);
    figure(out, "process_open_fds", "gauge", "Open file descriptors.", std::to_string(fds));
    figure(out, "process_max_fds", "gauge", "The limit on open file descriptors.", std::to_string(lim.rlim_cur));
    figure(out, "process_start_time_seconds", "gauge", "Start time of the process since the epoch, in seconds.",
            Number(boot + startTicks / tick));
    return out;
}

Exporter::Exporter(const Options &o) : options_(o), core_(dtcore::Core::Config{o.parallel, o.collectPort}) {}

Exporter::~Exporter() { Stop(); }

bool Exporter::Start(std::string &error) {
    if (!core_.Open(error)) return false;
    loop_ = std::thread([this] { core_.Run(); });
    started_ = true;
    return true;
}

void Exporter::Stop() {
    if (!started_) return;
    core_.Stop();
    loop_.join();
    started_ = false;
}

std::string Exporter::RunProbe(const Probe &p) {
    struct Pending {
        std::mutex m;
        std::condition_variable cv;
        bool done = false;
        dtcore::Outcome outcome;
        ProbeReport report;
    };
    const auto t0 = std::chrono::steady_clock::now();
    auto pending = std::make_shared<Pending>();
    dtcore::Job job;
    job.host = p.target;
    job.type = p.type;
    job.timeoutMs = p.timeoutMs;
    core_.Submit(
        job, [pending](const Event &e) { pending->report.Add(e); },
        [pending](const dtcore::Outcome &o) {
            std::lock_guard<std::mutex> lock(pending->m);
            pending->outcome = o;
            pending->done = true;
            pending->cv.notify_all();
        });
    std::unique_lock<std::mutex> lock(pending->m);
    // The core ends every collection at its deadline; the grace covers a job
    // that waited for a slot, whose deadline runs from its start.
    const bool done = pending->cv.wait_until(lock, t0 + std::chrono::milliseconds(p.timeoutMs + 1000),
                                             [&] { return pending->done; });
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (!done) {
        count_(1, 1, 0, 0);
        return ProbeReport().Render(false, seconds, "no result within the probe's deadline; every collection slot was busy");
    }
    count_(1, !pending->outcome.ok, 0, pending->report.Values());
    return pending->report.Render(pending->outcome.ok, seconds, pending->outcome.error);
}

void Exporter::CountBadRequest() { count_(0, 0, 1, 0); }

void Exporter::count_(uint64_t probes, uint64_t failures, uint64_t badRequests, uint64_t values) {
    std::lock_guard<std::mutex> lock(countLock_);
    counts_.probes += probes;
    counts_.failures += failures;
    counts_.badRequests += badRequests;
    counts_.values += values;
}

std::string Exporter::Metrics() const {
    Counts c;
    {
        std::lock_guard<std::mutex> lock(countLock_);
        c = counts_;
    }
    std::string out;
    out += "# HELP dtkit_exporter_build_info The exporter's version.\n# TYPE dtkit_exporter_build_info gauge\n"
           "dtkit_exporter_build_info{version=\"" DTKIT_VERSION "\"} 1\n";
    figure(out, "dtkit_exporter_probes_total", "counter", "Probes answered, failed ones included.", std::to_string(c.probes));
    figure(out, "dtkit_exporter_probe_failures_total", "counter", "Probes whose collection failed.",
            std::to_string(c.failures));
    figure(out, "dtkit_exporter_bad_requests_total", "counter", "Requests refused with 400.", std::to_string(c.badRequests));
    figure(out, "dtkit_exporter_values_total", "counter", "Values decoded by all probes.", std::to_string(c.values));
    figure(out, "dtkit_exporter_collections_in_flight", "gauge", "Collections running now.",
            std::to_string(core_.InFlight()));
    figure(out, "dtkit_exporter_collections_queued", "gauge", "Collections waiting for a slot.",
            std::to_string(core_.Queued()));
    return out + ProcessFigures();
}

}  // namespace dtexporter
