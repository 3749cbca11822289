#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <thread>

#include "collect/collect_getdata.h"
#include "exporter.h"
#include "exposition.h"
#ifdef DTKIT_EXPORTER_COMMAND
#include <httplib.h>

#include "../collect/test_collector.h"
#include "tool_process.h"
#endif

namespace {

TEST(ExporterExposition, LabelValuesAreValidAndKeepEveryByte) {
    const std::pair<std::string, std::string> cases[] = {
        {"cpu a\\b\"", "cpu a\\\\b\""},
        {"\x01\x1f\x7f\n", "\\x01\\x1f\\x7f\\x0a"},
        // The first and last well-formed sequence of each length pass whole.
        {"\xc2\x80\xdf\xbf\xe0\xa0\x80\xed\x9f\xbf\xf0\x90\x80\x80\xf4\x8f\xbf\xbf",
         "\xc2\x80\xdf\xbf\xe0\xa0\x80\xed\x9f\xbf\xf0\x90\x80\x80\xf4\x8f\xbf\xbf"},
        // A lone byte, overlong forms, a surrogate, past U+10FFFF, cut short.
        {"\xe9|\xc1\xbf|\xe0\x9f\xbf|\xf0\x8f\xbf\xbf", "\\xe9|\\xc1\\xbf|\\xe0\\x9f\\xbf|\\xf0\\x8f\\xbf\\xbf"},
        {"\xed\xa0\x80|\xf4\x90\x80\x80|\xf5|\xe2\x82", "\\xed\\xa0\\x80|\\xf4\\x90\\x80\\x80|\\xf5|\\xe2\\x82"},
    };
    for (const auto &c : cases) EXPECT_EQ(dtexporter::LabelText(c.first), c.second) << c.first;
}

// Equivalent mutant left: exporter.cpp:161 (the type's start value, always
// overwritten before it is used).
TEST(ExporterRequests, ProbeParametersAndTheScrapeTimeout) {
    const std::string longName(254, 'a');
    using Params = std::multimap<std::string, std::string>;
    // The error, or "target type timeoutMs".
    const struct { Params params; const char *header; std::string result; } cases[] = {
        {{{"target", "10.0.0.1"}}, nullptr, "10.0.0.1 0 4000"},
        {{{"target", "dev-1.example_net"}, {"type", "3"}}, "10", "dev-1.example_net 3 4000"},
        {{{"target", longName.substr(1)}}, "3", longName.substr(1) + " 0 2500"},
        {{{"target", "h"}}, "0.6", "h 0 300"},
        {{{"target", "h"}}, "0.001", "h 0 1"},
        {{{"target", ""}}, nullptr, "missing target: /probe?target=HOST"},
        {{{"target", "h:9099"}}, nullptr, "bad target 'h:9099': a host name or IPv4 address, without a port"},
        {{{"target", longName}}, nullptr, "bad target '" + longName.substr(190) + "...': a host name or IPv4 address, without a port"},
        {{{"target", "h"}, {"target", "i"}}, nullptr, "parameter target given more than once"},
        {{{"target", "h"}, {"type", "4"}}, nullptr, "bad type '4': 0, 1 or 2 for a collection, 3 for a self test"},
        {{{"target", "h"}, {"tpye\n", "1"}}, nullptr, "unknown parameter 'tpye?'"},
        {{{"target", "h"}}, "0", "bad X-Prometheus-Scrape-Timeout-Seconds '0'"},
    };
    for (const auto &c : cases) {
        dtexporter::Probe p;
        std::string error, header = c.header ? c.header : "";
        const bool ok = dtexporter::ParseProbe(c.params, c.header ? &header : nullptr, 4, p, error);
        EXPECT_EQ(ok ? p.target + " " + std::to_string(p.type) + " " + std::to_string(p.timeoutMs) : error, c.result);
    }
}

TEST(ExporterRequests, CommandLine) {
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, "127.0.0.1 9469 10 256 0"},
        {{"--web.listen-address", ":80", "--collect.timeout=2.5", "--collect.parallel", "4096"}, " 80 2.5 4096 0"},
        {{"--web.listen-address=[::1]:0", "--collect.parallel=1", "--collect.timeout", "3600"}, "::1 0 3600 1 0"},
        {{"--collect.listen-port", "65535"}, "127.0.0.1 9469 10 256 65535"},
        {{"--collect.parallel", "0000000001"}, "bad value for --collect.parallel: 0000000001"},  // 10 digits
        {{"--collect.parallel"}, "--collect.parallel needs a value"},
        {{"--bogus", "host"}, "unknown option --bogus"},
    };
    for (const auto &c : cases) {
        dtexporter::Options o;
        bool help = true, version = true;
        std::string error;
        char text[64];
        const bool ok = dtexporter::ParseArgs(c.first, o, help, version, error);
        snprintf(text, sizeof text, " %u %g %zu %u", unsigned(o.listenPort), o.timeoutSec, o.parallel, unsigned(o.collectPort));
        EXPECT_EQ(ok ? o.listenHost + text : error, c.second);
    }
}

#ifdef DTKIT_EXPORTER_COMMAND
// "STATUS BODY", or "" when nothing answers.
std::string Get(int port, const std::string &path, const httplib::Headers &headers = {}) {
    httplib::Client cli("127.0.0.1", port);
    cli.set_read_timeout(30, 0);
    auto r = cli.Get(path.c_str(), headers);
    return r ? std::to_string(r->status) + " " + r->body : "";
}

CollectSection *g_numbers = nullptr, *g_odd = nullptr;
std::atomic<bool> g_stall{false};
void PutNumbers(uint32_t) {
    Collect_BeginSection(g_numbers, 7);
    Collect_PutInt(g_numbers, 1, 0xDEADBEEF);
    Collect_PutLong(g_numbers, 2, 1099511627783ull);
    Collect_PutInt(g_numbers, 1, 5);
    Collect_PutLong(g_numbers, 3, UINT64_MAX);
    Collect_EndSection(g_numbers);
}
void PutOdd(uint32_t type) {
    for (int i = 0; g_stall && i < 150; ++i) usleep(10000);
    Collect_PutInt(g_odd, 9, type);
    Collect_PutString(g_odd, 4, "text", 0);
    Collect_PutStruct(g_odd, 5, "\x00\x01", 2);
}

// The library's agent on a thread of this process, with a section of awkward
// name, and the exporter at its default address. In a network namespace of
// this test process alone (which needs root), so that the ports are the test's
// own and no other agent answers on loopback. Last, Prometheus scrapes the
// exporter as the README's configuration says, the device as the target.
TEST(ExporterProgram, ProbesAnswerWhatTheSectionsPutManyAtOnceAndFailAlone) {
    if (!tp::OwnNetwork()) GTEST_SKIP() << "needs root, for a network namespace of its own";
    g_numbers = Collect_New("numbers", PutNumbers, nullptr);
    g_odd = Collect_New("q\"b\\s\n\xe9\xc3\xa9", PutOdd, nullptr);
    ASSERT_TRUE(ct::StartAgent(0x01020000));
    tp::Proc ex(DTKIT_EXPORTER_COMMAND " --collect.parallel 8", "ex");
    for (int i = 0; i < 400 && Get(9469, "/").empty(); ++i) usleep(50000);
    const std::string odd = "q\\\"b\\\\\\\\s\\\\x0a\\\\xe9\xc3\xa9";  // \\ and \xe9 in the label, then C's escaping
    const std::string values = "# TYPE dtkit_value gauge\n"
                               "dtkit_value{section=\"numbers\",block=\"7\",code=\"1\"} 3735928559\n"
                               "dtkit_value{section=\"numbers\",block=\"7\",code=\"2\"} 1099511627783\n"
                               "dtkit_value{section=\"numbers\",block=\"7\",code=\"1\",repeat=\"1\"} 5\n"
                               "dtkit_value{section=\"numbers\",block=\"7\",code=\"3\"} 18446744073709551615\n"
                               "dtkit_value{section=\"" + odd + "\",block=\"0\",code=\"9\"} 2\n# HELP";
    // Probes at once share the one core, and each gets the device's answer whole.
    std::vector<std::string> bodies(3);
    std::vector<std::thread> threads;
    for (std::string &b : bodies) threads.emplace_back([&b] { b = Get(9469, "/probe?target=127.0.0.1&type=2"); });
    for (std::thread &t : threads) t.join();
    for (const std::string &b : bodies) EXPECT_EQ(b.find("200 # HELP dtkit_value "), 0u) << b;
    for (const std::string &b : bodies) EXPECT_NE(b.find(values), npos) << b;
    for (const char *line : {"\ndtkit_probe_success 1\n", "\ndtkit_probe_values 7\n", "\ndtkit_probe_strings 1\n",
                             "\ndtkit_probe_buffers 1\n", "\ndtkit_device_identity 258\n"})
        EXPECT_NE(bodies[0].find(line), npos) << line;
    // A device that stalls past the scrape's timeout less its margin: a failure, and none of its values.
    g_stall = true;
    const auto t0 = std::chrono::steady_clock::now();
    const std::string failed = Get(9469, "/probe?target=127.0.0.1", {{"X-Prometheus-Scrape-Timeout-Seconds", "1.2"}});
    const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_EQ(failed.find("200 # dtkit probe failed: "), 0u) << failed;
    EXPECT_NE(failed.find("\ndtkit_probe_success 0\n"), npos) << failed;
    EXPECT_EQ(failed.find("dtkit_value"), npos) << failed;
    EXPECT_GE(took, 0.7);
    EXPECT_LT(took, 1.2);
    EXPECT_EQ(Get(9469, "/probe?target=h&type=4"), "400 bad type '4': 0, 1 or 2 for a collection, 3 for a self test\n");
    EXPECT_EQ(Get(9469, "/nope"), "404 not found: /nope (try /probe?target=HOST or /metrics)\n");
    const std::string metrics = Get(9469, "/metrics");
    for (const char *line : {"\ndtkit_exporter_probes_total 4\n", "\ndtkit_exporter_probe_failures_total 1\n",
                             "\ndtkit_exporter_bad_requests_total 1\n", "\ndtkit_exporter_collections_in_flight 0\n"})
        EXPECT_NE(metrics.find(line), npos) << line << metrics;
    // The probe's answers, failed or not, have one writer, whose text Prometheus
    // itself parses below; /metrics has its own, which promtool checks where installed.
    const std::string file = "/tmp/dtkit-exporter-test-" + std::to_string(getpid()) + ".prom";
    std::ofstream(file, std::ios::binary) << metrics.substr(4);
    tp::Proc check("sh -c '! command -v promtool >/dev/null || promtool check metrics <" + file + "'", "promtool");
    EXPECT_EQ(check.Stop(0), 0) << check.Text();
    remove(file.c_str());
    // How standard output and error begin.
    const struct { const char *args; int status; const char *text; } runs[] = {
        {"--web.listen-address=:9469", 1, "dtkit_exporter: cannot listen on 0.0.0.0:9469: "},
        {"--version", 0, "dtkit_exporter (dtkit) "},
        {"--help", 0, "usage: dtkit_exporter [--web.listen-address ADDR:PORT]"},
        {"--collect.parallel 0", 2, "dtkit_exporter: bad value for --collect.parallel: 0\nusage: dtkit_exporter "},
    };
    for (const auto &r : runs) {
        tp::Proc p(DTKIT_EXPORTER_COMMAND " " + std::string(r.args), "run");
        EXPECT_EQ(p.Stop(0), r.status) << r.args;
        EXPECT_EQ(p.Text().find(r.text), 0u) << p.Text();
    }
    if (system("command -v prometheus >/dev/null") != 0) {
        EXPECT_EQ(ex.Stop(), 0) << ex.Text();
        GTEST_SKIP() << "prometheus is not installed (Debian: prometheus; scripts/test.sh installs it as root)";
    }
    g_stall = false;
    char dir[] = "/tmp/dtkit-prometheus-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::ofstream(std::string(dir) + "/prometheus.yml")
        << "global: {scrape_interval: 1s, scrape_timeout: 1s}\nscrape_configs:\n"
           "  - job_name: dtkit\n    metrics_path: /probe\n    params: {type: ['1']}\n"
           "    static_configs: [{targets: ['127.0.0.1']}]\n    relabel_configs:\n"
           "      - {source_labels: [__address__], target_label: __param_target}\n"
           "      - {source_labels: [__param_target], target_label: instance}\n"
           "      - {target_label: __address__, replacement: '127.0.0.1:9469'}\n";
    tp::Proc prom("prometheus --config.file=" + std::string(dir) + "/prometheus.yml --storage.tsdb.path=" + dir +
                      "/data --web.listen-address=127.0.0.1:9090", "prom");
    // The series as the query API writes it (labels sorted, JSON's escaping on
    // top), and its value: the type the probe asked for.
    const std::string series = "\"instance\":\"127.0.0.1\",\"job\":\"dtkit\",\"section\":\"" + odd + "\"},";
    std::string json;
    for (int i = 0; i < 240 && json.find(series) == npos; ++i, usleep(250000))
        json = Get(9090, "/api/v1/query?query=dtkit_value%7Bcode%3D%229%22%7D");
    const size_t at = json.find(series);
    ASSERT_NE(at, npos) << json << prom.Text();
    EXPECT_EQ(json.substr(json.find(",\"", at + series.size()), 6), ",\"1\"]}") << json;
    EXPECT_EQ(prom.Stop(), 0);
    EXPECT_EQ(system(("rm -rf " + std::string(dir)).c_str()), 0);
    EXPECT_EQ(ex.Stop(), 0) << ex.Text();
}
#else
TEST(ExporterProgram, Skipped) { GTEST_SKIP() << "built without the HTTP library (cpp-httplib): no dtkit_exporter here"; }
#endif

}  // namespace
