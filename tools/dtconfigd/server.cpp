#include "server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ostream>

#include "config_core.h"

namespace dtconfigd {
namespace {

const char kUsage[] =
    "usage: dtconfigd [--port 8999] [--bind ADDR] CONFIG-FILE | --version\n"
    "Answers the devices' configuration queries (\"=>config SECTION KEY DEFAULT\", UDP)\n"
    "with the value of KEY in [SECTION] of CONFIG-FILE, or with DEFAULT when there is none.\n"
    "  --port P    UDP port to serve (default 8999, where devices ask)\n"
    "  --bind ADDR local IPv4 address to serve on (default 0.0.0.0; a single address\n"
    "              does not see the devices' first query, which is a broadcast)\n"
    "  --version   print the program's name and version and exit\n"
    "CONFIG-FILE: [section] headings, key = value lines, # comments. SIGHUP reloads it\n"
    "(a malformed file is refused and the old values kept); SIGTERM or SIGINT stops.\n"
    "Every query is logged on standard output with the requester's address.\n"
    "Exit status: 0 stopped by a signal, 1 unusable file or socket, 2 bad usage.\n";

// Requests are at most 999 bytes; anything bigger is read whole enough to be refused.
constexpr size_t kReceive = 2048;

volatile sig_atomic_t g_reload = 0;
volatile sig_atomic_t g_stop = 0;

void onSignal(int sig) {
    if (sig == SIGHUP)
        g_reload = 1;
    else
        g_stop = sig;
}

struct Fd {
    int fd;
    explicit Fd(int f) : fd(f) {}
    ~Fd() {
        if (fd >= 0) close(fd);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
};

std::string address(const in_addr &a) {
    char text[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &a, text, sizeof text);
    return text;
}

std::string endpoint(const in_addr &a, uint16_t port) { return address(a) + ":" + std::to_string(port); }

std::string summary(const Config &c) {
    return std::to_string(c.Values()) + " values in " + std::to_string(c.sections.size()) + " sections";
}

void logLine(std::ostream &out, const std::string &line) { out << line << "\n" << std::flush; }

bool openSocket(const Options &o, Fd &sock, std::string &error) {
    sock.fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock.fd < 0) return (error = std::string("cannot make the socket: ") + std::strerror(errno)), false;
    // The destination of each request tells a broadcast from a direct query in the log.
    int one = 1;
    setsockopt(sock.fd, IPPROTO_IP, IP_PKTINFO, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(o.port);
    inet_pton(AF_INET, o.bind.c_str(), &a.sin_addr);
    if (bind(sock.fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0)
        return (error = "cannot bind " + o.bind + ":" + std::to_string(o.port) + ": " + std::strerror(errno)), false;
    return true;
}

void installSignals(sigset_t &waitMask) {
    sigset_t block;
    sigemptyset(&block);
    sigaddset(&block, SIGHUP);
    sigaddset(&block, SIGTERM);
    sigaddset(&block, SIGINT);
    // Blocked except inside ppoll, so a signal can never slip in between the
    // flag checks and the wait.
    sigprocmask(SIG_BLOCK, &block, &waitMask);
    sigdelset(&waitMask, SIGHUP);
    sigdelset(&waitMask, SIGTERM);
    sigdelset(&waitMask, SIGINT);
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGHUP, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
}

void reload(const std::string &path, Config &config, std::ostream &out) {
    Config fresh;
    std::string error;
    if (!LoadConfig(path, fresh, error)) {
        logLine(out, "reload refused, keeping " + summary(config) + ": " + error);
        return;
    }
    config = std::move(fresh);
    logLine(out, "reloaded " + path + ": " + summary(config));
}

// Reads one datagram and answers it when it is a well-formed request.
void serveOne(int fd, const Config &config, std::ostream &out) {
    char data[kReceive];
    char control[CMSG_SPACE(sizeof(in_pktinfo))];
    sockaddr_in from{};
    iovec iov{data, sizeof data};
    msghdr msg{};
    msg.msg_name = &from;
    msg.msg_namelen = sizeof from;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    ssize_t n = recvmsg(fd, &msg, MSG_DONTWAIT);
    if (n < 0) return;
    in_addr to{};
    bool known = false;
    for (cmsghdr *c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level != IPPROTO_IP || c->cmsg_type != IP_PKTINFO) continue;
        in_pktinfo info;
        std::memcpy(&info, CMSG_DATA(c), sizeof info);
        to = info.ipi_addr;
        known = true;
    }
    std::string who = "from " + endpoint(from.sin_addr, ntohs(from.sin_port)) + " to " +
                      (known ? address(to) : std::string("?"));
    Request r;
    std::string why;
    if (msg.msg_flags & MSG_TRUNC)
        why = "longer than " + std::to_string(kReceive) + " bytes";
    else
        ParseRequest(data, size_t(n), r, why);
    if (!why.empty()) {
        logLine(out, "malformed request " + who + ": " + why);
        return;
    }
    Reply reply = BuildReply(config, r);
    ssize_t sent =
        sendto(fd, reply.text.data(), reply.text.size(), 0, reinterpret_cast<sockaddr *>(&from), sizeof from);
    std::string line = "query " + who + ": [" + Printable(r.section) + "] " + Printable(r.key) + " -> \"" +
                       Printable(reply.text) + "\" (" + (reply.fromFile ? "file" : "default") + ")";
    if (sent < 0) line += ": reply failed: " + std::string(std::strerror(errno));
    logLine(out, line);
}

bool parsePort(const std::string &text, uint16_t &port) {
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    long v = std::strtol(text.c_str(), nullptr, 10);
    if (v < 1 || v > 65535) return false;
    port = uint16_t(v);
    return true;
}

}  // namespace

bool ParseArgs(const std::vector<std::string> &args, Options &o, bool &help, std::string &error) {
    help = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (a == "--help" || a == "-h") return (help = true);
        if (a == "--version") return (o.version = true);
        if (a == "--port" || a == "--bind") {
            if (i + 1 >= args.size()) return (error = a + " needs a value"), false;
            const std::string &v = args[++i];
            in_addr probe{};
            bool ok = a == "--port" ? parsePort(v, o.port) : inet_pton(AF_INET, v.c_str(), &probe) == 1;
            if (!ok) return (error = "bad value for " + a + ": " + (v.empty() ? "(empty)" : v)), false;
            if (a == "--bind") o.bind = v;
            continue;
        }
        if (a.size() > 1 && a[0] == '-') return (error = "unknown option " + a), false;
        if (!o.file.empty()) return (error = "more than one CONFIG-FILE given"), false;
        o.file = a;
    }
    if (o.file.empty()) return (error = "no CONFIG-FILE given"), false;
    return true;
}

int Main(const std::vector<std::string> &args, std::ostream &out, std::ostream &err) {
    Options o;
    bool help = false;
    std::string error;
    if (!ParseArgs(args, o, help, error)) {
        err << "dtconfigd: " << error << "\n" << kUsage;
        return 2;
    }
    if (help) {
        out << kUsage;
        return 0;
    }
    if (o.version) {
        out << "dtconfigd (dtkit) " DTKIT_VERSION "\n";
        return 0;
    }
    Config config;
    if (!LoadConfig(o.file, config, error)) {
        err << "dtconfigd: " << error << "\n";
        return 1;
    }
    sigset_t waitMask;
    installSignals(waitMask);
    Fd sock(-1);
    if (!openSocket(o, sock, error)) {
        err << "dtconfigd: " << error << "\n";
        return 1;
    }
    logLine(out, "serving " + summary(config) + " from " + o.file + " on " + o.bind + ":" + std::to_string(o.port));
    for (;;) {
        if (g_stop) {
            logLine(out, std::string("stopping on ") + (g_stop == SIGINT ? "SIGINT" : "SIGTERM"));
            return 0;
        }
        if (g_reload) {
            g_reload = 0;
            reload(o.file, config, out);
        }
        pollfd p{sock.fd, POLLIN, 0};
        int rc = ppoll(&p, 1, nullptr, &waitMask);
        if (rc > 0) serveOne(sock.fd, config, out);
        if (rc < 0 && errno != EINTR) {
            err << "dtconfigd: waiting failed: " << std::strerror(errno) << "\n";
            return 1;
        }
    }
}

}  // namespace dtconfigd
