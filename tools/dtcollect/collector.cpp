#include "collector.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <istream>
#include <ostream>
#include <sstream>

#include "collect_core.h"

namespace dtcollect {
namespace {

const char kUsage[] =
    "usage: dtcollect [--type 0|1|2 | --selftest] [--sequence N] [--listen-port P] [--timeout SEC]\n"
    "                 [--parallel N] [--json] [--hosts-file FILE]... [HOST...]\n"
    "Asks each HOST (UDP port 9099) for a collection, accepts its connection back and\n"
    "prints the identity, the section list and every value under its section's name,\n"
    "each line as soon as it is decoded and starting with (or naming) its host.\n"
    "  --type T          request type handed to the sections' collect callbacks (default 0)\n"
    "  --selftest        ask for a self test instead of a collection\n"
    "  --sequence N      sequence of the first request, 1 to 2147483647; the next\n"
    "                    requests count up from it (default 0: picked from the clock)\n"
    "  --listen-port P   the one TCP port every device connects back to (default 0: ephemeral)\n"
    "  --timeout SEC     each collection's deadline, from its request to its end (default 5)\n"
    "  --parallel N      collections in flight at most, 1 to 100000 (default 256);\n"
    "                    the other hosts wait their turn in the order given\n"
    "  --hosts-file FILE hosts one a line, '#' starting a comment; '-' is standard input\n"
    "  --json            one JSON object per value and line, for scripts\n"
    "  --version         print the version\n"
    "Connections: every request carries a sequence no other collection in flight\n"
    "has; the device's identity message carries it back, and that binds the\n"
    "connection to its host. A connection without such an identity within 2 s\n"
    "is closed and no host is charged for it.\n"
    "JSON: \"value\" is an int as a number, a long as a string of its decimal\n"
    "digits (every bit kept), a string that is valid UTF-8 as a string, and a\n"
    "buffer as lowercase hex; a string that is not valid UTF-8 is given as\n"
    "lowercase hex under \"value_hex\" instead of \"value\". A section name that is\n"
    "not valid UTF-8 is given the same way under \"section_hex\".\n"
    "At the end one line on standard error:\n"
    "  dtcollect: H hosts collected, F failed, V values, S.SS s\n"
    "Exit status: 0 all hosts collected, 1 some host failed, 2 bad usage.\n";

bool fail(std::string &error, const std::string &why) {
    error = why;
    return false;
}

bool parseNumber(const std::string &text, uint64_t min, uint64_t max, uint32_t &value) {
    if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    uint64_t v = std::strtoull(text.c_str(), nullptr, 10);
    if (v < min || v > max) return false;
    value = uint32_t(v);
    return true;
}

bool parseTimeout(const std::string &text, int &ms) {
    if (text.empty() || text.find_first_not_of("0123456789.") != std::string::npos) return false;
    char *end = nullptr;
    double s = std::strtod(text.c_str(), &end);
    if (*end != '\0' || !(s > 0) || s > 86400) return false;
    ms = std::max(1, int(std::ceil(s * 1000)));
    return true;
}

std::string trim(const std::string &s) {
    size_t b = s.find_first_not_of(" \t\r");
    if (b == std::string::npos) return std::string();
    return s.substr(b, s.find_last_not_of(" \t\r") - b + 1);
}

}  // namespace

bool ParseArgs(const std::vector<std::string> &args, Options &o, std::string &error) {
    bool typed = false, selfTest = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (a == "--help" || a == "-h") {
            o.help = true;
            return true;
        }
        if (a == "--version") {
            o.version = true;
            return true;
        }
        if (a == "--json") { o.json = true; continue; }
        if (a == "--selftest") { selfTest = true; continue; }
        if (a.size() > 1 && a[0] == '-') {
            bool takesValue = a == "--type" || a == "--sequence" || a == "--listen-port" || a == "--timeout" ||
                              a == "--parallel" || a == "--hosts-file";
            if (!takesValue) return fail(error, "unknown option " + a);
            if (i + 1 >= args.size()) return fail(error, a + " needs a value");
            const std::string &v = args[++i];
            bool ok = a == "--type"          ? (typed = parseNumber(v, 0, 2, o.type))
                      : a == "--sequence"    ? parseNumber(v, 0, 0x7FFFFFFF, o.sequence)
                      : a == "--listen-port" ? parseNumber(v, 0, 65535, o.listenPort)
                      : a == "--parallel"    ? parseNumber(v, 1, 100000, o.parallel)
                      : a == "--hosts-file"  ? (o.hostsFiles.push_back(v), !v.empty())
                                             : parseTimeout(v, o.timeoutMs);
            if (!ok) return fail(error, "bad value for " + a + ": " + (v.empty() ? "(empty)" : v));
            continue;
        }
        o.hosts.push_back(a);
    }
    if (typed && selfTest) return fail(error, "--type and --selftest exclude each other");
    if (selfTest) o.type = 3;
    if (o.hosts.empty() && o.hostsFiles.empty()) return fail(error, "no HOST given");
    return true;
}

bool ReadHosts(std::istream &in, const std::string &name, std::vector<std::string> &hosts, std::string &error) {
    std::string line;
    for (size_t number = 1; std::getline(in, line); ++number) {
        std::string host = trim(line.substr(0, line.find('#')));
        if (host.empty()) continue;
        if (host.find_first_of(" \t") != std::string::npos)
            return fail(error, name + ":" + std::to_string(number) + ": more than one host on the line");
        hosts.push_back(host);
    }
    if (in.bad()) return fail(error, name + ": read error");
    return true;
}

int Main(const std::vector<std::string> &args, std::istream &in, std::ostream &out, std::ostream &err) {
    Options o;
    std::string error;
    if (!ParseArgs(args, o, error)) {
        err << "dtcollect: " << error << "\n" << kUsage;
        return 2;
    }
    if (o.help) {
        out << kUsage;
        return 0;
    }
    if (o.version) {
        out << "dtcollect (dtkit) " DTKIT_VERSION "\n";
        return 0;
    }
    std::vector<std::string> hosts;
    for (const std::string &f : o.hostsFiles) {
        std::ifstream file;
        if (f != "-") file.open(f);
        if (f != "-" && !file) {
            err << "dtcollect: cannot read the hosts file " << f << "\n";
            return 2;
        }
        if (!ReadHosts(f == "-" ? in : file, f == "-" ? "(standard input)" : f, hosts, error)) {
            err << "dtcollect: " << error << "\n";
            return 2;
        }
    }
    hosts.insert(hosts.end(), o.hosts.begin(), o.hosts.end());
    if (hosts.empty()) {
        err << "dtcollect: no HOST given\n";
        return 2;
    }

    dtcore::Core::Config cfg;
    cfg.parallel = o.parallel;
    cfg.listenPort = uint16_t(o.listenPort);
    cfg.firstSequence = o.sequence;
    dtcore::Core core(cfg);
    if (!core.Open(error)) {
        err << "dtcollect: " << error << "\n";
        return 1;
    }
    size_t collected = 0, failed = 0;
    uint64_t values = 0;
    for (const std::string &host : hosts) {
        dtcore::Job job;
        job.host = host;
        job.type = o.type;
        job.timeoutMs = o.timeoutMs;
        // Each line goes out whole as soon as it is decoded.
        auto onEvent = [&out, &o, host](const dtcore::Event &e) {
            std::string line = o.json ? dtcore::FormatJson(host, e) : dtcore::FormatText(host, e);
            if (!line.empty()) out << line << "\n" << std::flush;
        };
        auto onDone = [&, host](const dtcore::Outcome &r) {
            values += r.values;
            if (!r.ok) {
                ++failed;
                err << "dtcollect: " << host << ": " << r.error << "\n" << std::flush;
                return;
            }
            ++collected;
            if (!o.json) out << host << " end: " << r.bytes << " bytes, " << r.values << " values\n" << std::flush;
        };
        core.Submit(job, onEvent, onDone);
    }
    auto t0 = std::chrono::steady_clock::now();
    core.RunUntilIdle();
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    char summary[160];
    snprintf(summary, sizeof summary, "dtcollect: %zu hosts collected, %zu failed, %llu values, %.2f s\n", collected,
             failed, static_cast<unsigned long long>(values), secs);
    err << summary << std::flush;
    return failed == 0 ? 0 : 1;
}

}  // namespace dtcollect
