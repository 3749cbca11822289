#include "collector.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <ostream>
#include <thread>

#include "stream_reader.h"

namespace dtcollect {
namespace {

const char kUsage[] =
    "usage: dtcollect [--type 0|1|2 | --selftest] [--sequence N] [--listen-port P] [--timeout SEC] [--json] HOST...\n"
    "Asks each HOST (UDP port 9099) for a collection, accepts its connection back and\n"
    "prints the identity, the section list and every value under its section's name.\n"
    "  --type T         request type handed to the sections' collect callbacks (default 0)\n"
    "  --selftest       ask for a self test instead of a collection\n"
    "  --sequence N     sequence number of the identity message, 0 to 2147483647\n"
    "                   (default 0: the device's running counter)\n"
    "  --listen-port P  TCP port to listen on; with several hosts, host i uses P + i\n"
    "                   (default 0: an ephemeral port per host)\n"
    "  --timeout SEC    bound on every wait, in seconds (default 5)\n"
    "  --json           one JSON object per value and line, for scripts\n"
    "Hosts are collected in parallel; every line starts with (or names) its host.\n"
    "Exit status: 0 all hosts collected, 1 some host failed, 2 bad usage.\n";

// A socket closed when the holder goes out of scope.
struct Fd {
    int fd;
    explicit Fd(int f) : fd(f) {}
    ~Fd() {
        if (fd >= 0) close(fd);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
};

void putBe32(std::vector<uint8_t> &v, uint32_t x) {
    for (int shift = 24; shift >= 0; shift -= 8) v.push_back(uint8_t(x >> shift));
}

bool parseNumber(const std::string &text, uint64_t max, uint32_t &value) {
    if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    uint64_t v = std::strtoull(text.c_str(), nullptr, 10);
    if (v > max) return false;
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

bool fail(std::string &error, const std::string &why) {
    error = why;
    return false;
}

std::string sysError(const std::string &what) { return what + ": " + std::strerror(errno); }

std::string seconds(int ms) {
    char t[32];
    snprintf(t, sizeof t, "%g s", ms / 1000.0);
    return t;
}

bool resolve(const std::string &host, sockaddr_in &addr, std::string &error) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo *res = nullptr;
    int rc = getaddrinfo(host.c_str(), nullptr, &hints, &res);
    if (rc != 0 || res == nullptr) {
        error = std::string("cannot resolve the host: ") + gai_strerror(rc);
        return false;
    }
    std::memcpy(&addr, res->ai_addr, sizeof addr);
    freeaddrinfo(res);
    return true;
}

bool listenOn(uint16_t port, Fd &listener, uint16_t &bound, std::string &error) {
    listener.fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener.fd < 0) return fail(error, sysError("cannot make the listening socket"));
    int one = 1;
    setsockopt(listener.fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    a.sin_port = htons(port);
    socklen_t len = sizeof a;
    if (bind(listener.fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || listen(listener.fd, 4) != 0 ||
        getsockname(listener.fd, reinterpret_cast<sockaddr *>(&a), &len) != 0)
        return fail(error, sysError("cannot listen on TCP port " + std::to_string(port)));
    bound = ntohs(a.sin_port);
    return true;
}

bool sendRequest(sockaddr_in device, const std::vector<uint8_t> &request, std::string &error) {
    Fd udp(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    device.sin_port = htons(kRequestPort);
    if (udp.fd < 0 || sendto(udp.fd, request.data(), request.size(), 0, reinterpret_cast<sockaddr *>(&device),
                             sizeof device) != ssize_t(request.size()))
        return fail(error, sysError("cannot send the request"));
    return true;
}

// 0 ready, 1 timed out, -1 error.
int waitReadable(int fd, int ms) {
    pollfd p{fd, POLLIN, 0};
    int rc;
    do rc = poll(&p, 1, ms);
    while (rc < 0 && errno == EINTR);
    return rc > 0 ? 0 : rc == 0 ? 1 : -1;
}

// Reads the connection to its end, acknowledging every complete message.
bool converse(int conn, StreamReader &reader, const std::string &host, const Options &o,
              const std::function<void(const std::string &)> &emit, std::string &error) {
    static const uint8_t ack[16] = {0};
    uint8_t buf[4096];
    auto where = [&] { return " at byte offset " + std::to_string(reader.Offset()); };
    for (;;) {
        int w = waitReadable(conn, o.timeoutMs);
        if (w > 0) return fail(error, "no data from the device for " + seconds(o.timeoutMs) + where());
        if (w < 0) return fail(error, sysError("waiting for data failed" + where()));
        ssize_t n = recv(conn, buf, sizeof buf, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return fail(error, sysError("receive failed" + where()));
        bool ended = n == 0;
        size_t done = ended ? 0 : reader.Feed(buf, size_t(n));
        bool ok = ended ? reader.Finish() : !reader.Failed();
        for (const Event &e : reader.TakeEvents()) {
            std::string line = o.json ? FormatJson(host, e) : FormatText(host, e);
            if (!line.empty()) emit(line);
        }
        if (!ok) return fail(error, reader.Error());
        if (ended) return true;
        for (; done > 0; --done) {
            if (send(conn, ack, sizeof ack, MSG_NOSIGNAL) != ssize_t(sizeof ack))
                return fail(error, sysError("acknowledgement failed" + where()));
        }
    }
}

}  // namespace

std::vector<uint8_t> Request(uint32_t type, uint32_t sequence, uint16_t listenPort) {
    std::vector<uint8_t> r;
    putBe32(r, 16);
    putBe32(r, type);
    putBe32(r, sequence);
    putBe32(r, listenPort);
    return r;
}

bool ParseArgs(const std::vector<std::string> &args, Options &o, bool &help, std::string &error) {
    help = false;
    bool typed = false, selfTest = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (a == "--help" || a == "-h") {
            help = true;
            return true;
        }
        if (a == "--json") { o.json = true; continue; }
        if (a == "--selftest") { selfTest = true; continue; }
        if (a.size() > 1 && a[0] == '-') {
            bool takesValue = a == "--type" || a == "--sequence" || a == "--listen-port" || a == "--timeout";
            if (!takesValue) return fail(error, "unknown option " + a);
            if (i + 1 >= args.size()) return fail(error, a + " needs a value");
            const std::string &v = args[++i];
            bool ok = a == "--type"       ? (typed = parseNumber(v, 2, o.type))
                      : a == "--sequence" ? parseNumber(v, 0x7FFFFFFF, o.sequence)
                      : a == "--listen-port" ? parseNumber(v, 65535, o.listenPort)
                                             : parseTimeout(v, o.timeoutMs);
            if (!ok) return fail(error, "bad value for " + a + ": " + (v.empty() ? "(empty)" : v));
            continue;
        }
        o.hosts.push_back(a);
    }
    if (typed && selfTest) return fail(error, "--type and --selftest exclude each other");
    if (selfTest) o.type = 3;
    if (o.hosts.empty()) return fail(error, "no HOST given");
    if (o.listenPort != 0 && o.listenPort + o.hosts.size() - 1 > 65535)
        return fail(error, "--listen-port " + std::to_string(o.listenPort) + " leaves no room for " +
                               std::to_string(o.hosts.size()) + " hosts' ports");
    return true;
}

bool CollectHost(const std::string &host, uint16_t listenPort, const Options &o,
                 const std::function<void(const std::string &)> &emit, std::string &error) {
    sockaddr_in device{};
    Fd listener(-1);
    uint16_t bound = 0;
    if (!resolve(host, device, error) || !listenOn(listenPort, listener, bound, error)) return false;
    if (!sendRequest(device, Request(o.type, o.sequence, bound), error)) return false;
    int w = waitReadable(listener.fd, o.timeoutMs);
    if (w != 0) {
        error = w > 0 ? "no connection from the device within " + seconds(o.timeoutMs) : sysError("waiting failed");
        error += " (TCP port " + std::to_string(bound) + ") at byte offset 0";
        return false;
    }
    Fd conn(accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC));
    if (conn.fd < 0) return fail(error, sysError("accept failed at byte offset 0"));
    StreamReader reader(o.type == 3);
    if (!converse(conn.fd, reader, host, o, emit, error)) return false;
    if (!o.json)
        emit(host + " end: " + std::to_string(reader.Messages()) + " messages, " + std::to_string(reader.Offset()) +
             " bytes");
    return true;
}

int Main(const std::vector<std::string> &args, std::ostream &out, std::ostream &err) {
    Options o;
    bool help = false;
    std::string error;
    if (!ParseArgs(args, o, help, error)) {
        err << "dtcollect: " << error << "\n" << kUsage;
        return 2;
    }
    if (help) {
        out << kUsage;
        return 0;
    }
    std::mutex lock;
    std::unique_ptr<bool[]> ok(new bool[o.hosts.size()]());
    std::vector<std::thread> threads;
    for (size_t i = 0; i < o.hosts.size(); ++i) {
        threads.emplace_back([&, i] {
            const std::string &host = o.hosts[i];
            auto emit = [&](const std::string &line) {
                std::lock_guard<std::mutex> g(lock);
                out << line << "\n" << std::flush;
            };
            std::string why;
            uint16_t port = uint16_t(o.listenPort ? o.listenPort + i : 0);
            ok[i] = CollectHost(host, port, o, emit, why);
            if (ok[i]) return;
            std::lock_guard<std::mutex> g(lock);
            err << "dtcollect: " << host << ": " << why << "\n" << std::flush;
        });
    }
    for (auto &t : threads) t.join();
    for (size_t i = 0; i < o.hosts.size(); ++i)
        if (!ok[i]) return 1;
    return 0;
}

}  // namespace dtcollect
