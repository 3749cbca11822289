// The HTTP side of dtkit_exporter. Each request runs on one of the server's
// worker threads; a probe holds its thread until the collection is done (see
// the hand-off in exporter.h), so there is a worker for every collection slot
// and a few more for /metrics and requests that wait for a slot.
#include <httplib.h>
#include <signal.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "exporter.h"
#include "exposition.h"

namespace {

const size_t kSpareWorkers = 16;

void oneLine(httplib::Response &res, int status, const std::string &text) {
    res.status = status;
    res.set_content(text + "\n", "text/plain; charset=utf-8");
}

// Each collection in flight holds a descriptor or two and each worker a
// connection; the core raises the limit only for its own part.
void raiseDescriptorLimit() {
    rlimit lim{};
    if (getrlimit(RLIMIT_NOFILE, &lim) == 0 && lim.rlim_cur < lim.rlim_max) {
        lim.rlim_cur = lim.rlim_max;
        setrlimit(RLIMIT_NOFILE, &lim);
    }
}

void routes(httplib::Server &svr, dtexporter::Exporter &ex, double maxSec) {
    svr.Get("/probe", [&ex, maxSec](const httplib::Request &req, httplib::Response &res) {
        dtexporter::Probe p;
        std::string error;
        const bool hasHeader = req.has_header("X-Prometheus-Scrape-Timeout-Seconds");
        const std::string header = req.get_header_value("X-Prometheus-Scrape-Timeout-Seconds");
        if (!dtexporter::ParseProbe(req.params, hasHeader ? &header : nullptr, maxSec, p, error)) {
            ex.CountBadRequest();
            oneLine(res, 400, error);
            return;
        }
        res.set_content(ex.RunProbe(p), dtexporter::kContentType);
    });
    svr.Get("/metrics", [&ex](const httplib::Request &, httplib::Response &res) {
        res.set_content(ex.Metrics(), dtexporter::kContentType);
    });
    svr.Get("/", [](const httplib::Request &, httplib::Response &res) {
        oneLine(res, 200, "dtkit_exporter: GET /probe?target=HOST[&type=N] or /metrics");
    });
    svr.set_error_handler([](const httplib::Request &req, httplib::Response &res) {
        if (res.status == 404) oneLine(res, 404, "not found: " + req.path + " (try /probe?target=HOST or /metrics)");
    });
}

}  // namespace

int main(int argc, char **argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    dtexporter::Options o;
    bool help = false, version = false;
    std::string error;
    if (!dtexporter::ParseArgs(args, o, help, version, error)) {
        std::fprintf(stderr, "dtkit_exporter: %s\n%s", error.c_str(), dtexporter::kUsage);
        return 2;
    }
    if (help || version) {
        std::fputs(help ? dtexporter::kUsage : "dtkit_exporter (dtkit) " DTKIT_VERSION "\n", stdout);
        return 0;
    }
    raiseDescriptorLimit();
    // SIGINT and SIGTERM are taken by a thread of their own (below), so every
    // other thread, started after this, keeps them blocked.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    dtexporter::Exporter ex(o);
    if (!ex.Start(error)) {
        std::fprintf(stderr, "dtkit_exporter: %s\n", error.c_str());
        return 1;
    }
    httplib::Server svr;
    const size_t workers = o.parallel + kSpareWorkers;
    svr.new_task_queue = [workers] { return new httplib::ThreadPool(workers); };
    // One request per connection: an idle kept-alive connection would hold a
    // worker that a probe needs, and Prometheus scrapes a target only every
    // few seconds anyway.
    svr.set_keep_alive_max_count(1);
    // Address reuse for a quick restart, but not the library's default port
    // sharing: a second exporter on the same port must fail, not split the scrapes.
    svr.set_socket_options([](socket_t sock) {
        int on = 1;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    });
    routes(svr, ex, o.timeoutSec);
    const std::string bindHost = o.listenHost.empty() ? "0.0.0.0" : o.listenHost;
    const std::string shown = o.listenHost.find(':') != std::string::npos ? "[" + bindHost + "]" : bindHost;
    int port = o.listenPort;
    if (port == 0) {
        port = svr.bind_to_any_port(bindHost);
    } else if (!svr.bind_to_port(bindHost, port)) {
        port = -1;
    }
    if (port < 0) {
        std::fprintf(stderr, "dtkit_exporter: cannot listen on %s:%u: %s\n", shown.c_str(), unsigned(o.listenPort),
                     std::strerror(errno));
        return 1;
    }
    std::fprintf(stderr, "dtkit_exporter: listening on %s:%d\n", shown.c_str(), port);
    std::thread stopper([&svr, stopSignals] {
        int sig = 0;
        sigwait(&stopSignals, &sig);
        svr.stop();
    });
    const bool served = svr.listen_after_bind();
    // Wakes the stopper when the server ended on its own; once it has taken
    // its signal and ended, this signal goes nowhere.
    pthread_kill(stopper.native_handle(), SIGTERM);
    stopper.join();
    ex.Stop();
    return served ? 0 : 1;
}
