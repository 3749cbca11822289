#include <gtest/gtest.h>

#include <sstream>

#include "config_core.h"
#include "dtnetns.h"
#include "net/DTConfig.h"
#include "net/DTSock.h"
#include "server.h"
#include "tool_process.h"

namespace {

TEST(DtconfigdParsers, RefuseEachMalformedLineWithItsNumberAndEachMalformedRequest) {
    const std::tuple<std::string, size_t, std::string> cases[] = {  // text, line, what
        {"a = 1\n", 1, "before any [section]"},
        {"[s]\n\n[t\n", 3, "closing ']'"},
        {"[s]\n[ ]\n", 2, "empty section name"},
        {"[a b]\n", 1, "not one word"},
        {"[s]\n# c\njust words\n", 3, "expected"},
        {"[s]\n = 1\n", 2, "empty key"},
        {"[s]\nmy key = 1\n", 2, "not one word"},
        {"[s]\nk =  \n", 2, "empty value"},
        {"[s]\nk = 1\nk = 2\n", 3, "given twice"},
        {"[s]\nk = " + std::string(1000, 'v') + "\n", 2, "longer than 999"},
        {"[s]\nk = 1\nj = a" + std::string(1, '\0') + "b\n", 3, "zero byte"},
    };
    for (const auto &[text, line, what] : cases) {
        dtconfigd::Config cfg;
        cfg.sections["old"]["k"] = "kept";
        dtconfigd::FileError e;
        EXPECT_FALSE(dtconfigd::ParseConfig(text, cfg, e)) << text;
        EXPECT_EQ(e.line, line) << text;
        EXPECT_NE(e.what.find(what), npos) << text << ": " << e.what;
        EXPECT_EQ(cfg.Values(), 1u) << text;
    }
    // Requests the namespace test below does not send.
    dtconfigd::Request r;
    std::string why;
    ASSERT_TRUE(dtconfigd::ParseRequest("=>config s k ", 13, r, why)) << why;
    EXPECT_EQ(r.defaultText, "") << "an empty default";
    const std::string bad[] = {"", "=>config", "=>confix a b c", "config a b c", "=>config net mtu",
                               "=>config  mtu 1", "=>config net  1", std::string("=>config a b c\0d", 16),
                               "=>config a b " + std::string(1000, 'd')};
    for (const std::string &b : bad) {
        why.clear();
        EXPECT_FALSE(dtconfigd::ParseRequest(b.data(), b.size(), r, why)) << b;
        EXPECT_FALSE(why.empty()) << b;
    }
    EXPECT_EQ(dtconfigd::Printable("a\nb\\"), "a\\x0ab\\x5c") << "no forged log lines";
}

std::string TempFile(const std::string &text) {
    char path[] = "/tmp/dtconfigd_testXXXXXX";
    close(mkstemp(path));
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

// The exit statuses of the program before it serves: the program's whole
// path but for main, driven in-process. --version answers at once: what
// follows it, a missing CONFIG-FILE included, is not read.
TEST(DtconfigdProgram, RefusesAMalformedFileOrBadUsage) {
    const std::string bad = TempFile("[net]\nmtu = 1\nmtu = 2\n"), good = TempFile("[net]\nmtu = 1\n");
    // args, status, how the output starts, a part of the error output
    const std::tuple<std::vector<std::string>, int, std::string, std::string> cases[] = {
        {{bad}, 1, "", "dtconfigd: " + bad + ":3: key \"mtu\" given twice"},
        {{"--port", "70000", bad}, 2, "", "dtconfigd: bad value for --port: 70000\nusage: dtconfigd"},
        {{"--bind", "", bad}, 2, "", "bad value for --bind: (empty)"},
        {{"--port"}, 2, "", "--port needs a value"},
        {{bad, bad}, 2, "", "more than one CONFIG-FILE given"},
        {{}, 2, "", "no CONFIG-FILE given"},
        {{"-x"}, 2, "", "unknown option -x"},
        {{"/nonexistent"}, 1, "", "dtconfigd: /nonexistent: "},
        {{"--bind", "192.0.2.1", good}, 1, "", "dtconfigd: cannot bind 192.0.2.1:8999: "},
        {{"-h"}, 0, "usage: dtconfigd", ""},
        {{"--port", "9000", "--version"}, 0, "dtconfigd (dtkit) " DTKIT_VERSION "\n", ""},
        {{"--version", "a", "b"}, 0, "dtconfigd (dtkit) " DTKIT_VERSION "\n", ""},
    };
    for (const auto &[args, status, start, part] : cases) {
        std::ostringstream out, err;
        EXPECT_EQ(dtconfigd::Main(args, out, err), status) << part + start;
        EXPECT_EQ(out.str().substr(0, start.size()), start) << part;
        EXPECT_EQ(err.str().empty(), part.empty()) << part + start << ": " << err.str();
        EXPECT_NE(err.str().find(part), npos) << err.str();
    }
    for (const std::string &f : {bad, good}) unlink(f.c_str());
}

// Equal here, so not a case: the server asks only for IP_PKTINFO, so a control-message
// filter that wanted level and type both wrong (&& for ||) passes the same one message.
TEST(DtconfigdNamespace, LibraryGettersFindTheServerByBroadcastThenAskDirectly) {
    dttest::NetnsPair ns;
    if (const std::string why = ns.Make(); !why.empty()) GTEST_SKIP() << why;
    // Comments, blank lines, blanks around names and values, a reopened section.
    std::string conf = TempFile("# lab settings\n\n[net]\n  mtu =  9000 \t\r\n[ gw ]\nip=10.0.0.1\n[net]\n"
                                "   # indented comment\nname = lab one # not a comment\n");
    // Under the emulator when cross-built, in the server side of the pair.
    tp::Proc d("ip netns exec " + ns.ServerName() + " " DTCONFIGD_COMMAND " " + conf, "dtconfigd");
    ASSERT_EQ(d.Count("serving 3 values", 1), 1) << d.Text();
    ASSERT_TRUE(ns.EnterDevice());
    EXPECT_EQ(DTConfig_GetInt("net", "mtu", 1500), 9000);
    char out[1000];
    DTConfig_GetString("net", "name", "none", out);
    EXPECT_STREQ(out, "lab one # not a comment");
    DTConfig_GetString("net", "speed", "two words", out);
    EXPECT_STREQ(out, "two words") << "a default of more than one word";
    // The server logs a query after replying to it: wait for the lines.
    EXPECT_EQ(d.Count("query from 10.99.0.1:8998 to 10.99.0.2:", 2), 2) << d.Text();
    EXPECT_EQ(d.Count("query from 10.99.0.1:8998 to 255.255.255.255:"), 1) << d.Text();
    EXPECT_EQ(d.Count("[net] speed -> \"two words\" (default)"), 1) << d.Text();
    std::ofstream(conf, std::ios::trunc) << "[net]\nmtu = 1400\n";
    kill(d.pid, SIGHUP);
    ASSERT_EQ(d.Count("reloaded", 1), 1) << d.Text();
    EXPECT_EQ(DTConfig_GetInt("net", "mtu", 1500), 1400);
    std::ofstream(conf, std::ios::trunc) << "[net\nmtu = 1\n";
    kill(d.pid, SIGHUP);
    ASSERT_EQ(d.Count("reload refused", 1), 1) << d.Text();
    EXPECT_EQ(d.Count(conf + ":1: section heading without a closing ']'"), 1) << d.Text();
    EXPECT_EQ(DTConfig_GetInt("net", "mtu", 1500), 1400);
    int sock = DTSock_UDP_Create(nullptr, 0);
    char addr[20] = "10.99.0.2", buf[1001] = "=>config net";
    int32_t port = 8999;
    EXPECT_EQ(DTSock_UDP_GetMessage(sock, addr, &port, buf, 12, 1000, 300), 0);
    EXPECT_EQ(d.Count("malformed request from 10.99.0.1:", 1), 1) << d.Text();
    DTSock_UDP_Close(sock);
    EXPECT_EQ(d.Stop(SIGTERM), 0);
    EXPECT_EQ(d.Count("stopping on SIGTERM"), 1) << d.Text();
    unlink(conf.c_str());
}

}  // namespace
