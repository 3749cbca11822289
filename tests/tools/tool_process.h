// A program the tools' tests run through the shell (the command may carry the
// emulator when cross-built), its standard output and error in a log file.
#pragma once

#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

// What find() answers when the text is not there.
const size_t npos = std::string::npos;

namespace tp {

// Whether this process now has a network namespace of its own (which needs
// root), lo up in it, so that the fixed ports are the test's alone.
inline bool OwnNetwork() { return unshare(CLONE_NEWNET) == 0 && system("ip link set lo up") == 0; }

inline std::string ReadAll(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

struct Proc {
    std::string log;
    pid_t pid = -1;
    Proc(const std::string &cmd, const std::string &name)
        : log("/tmp/dtkit-test-" + std::to_string(getpid()) + "-" + name + ".log") {
        const std::string line = "exec " + cmd + " >" + log + " 2>&1";
        if ((pid = fork()) == 0) {
            execl("/bin/sh", "sh", "-c", line.c_str(), static_cast<char *>(nullptr));
            _exit(127);
        }
    }
    std::string Text() const { return ReadAll(log); }
    // How often the log holds `what`, once it does `atLeast` times or ms have passed.
    int Count(const std::string &what, int atLeast = 0, int ms = 20000) const {
        for (int i = 0;; usleep(10000), ++i) {
            const std::string t = Text();
            int n = 0;
            for (size_t at = t.find(what); at != std::string::npos; at = t.find(what, at + 1)) ++n;
            if (n >= atLeast || i >= ms / 10) return n;
        }
    }
    // The exit status once it ends, after `sig` unless 0 (128 + the signal when
    // one ended it); -1 when it still runs 20 s on, or never started or was stopped
    // before (a pid of -1 would signal every process).
    int Stop(int sig = SIGTERM) {
        int status = 0, ended = 0;
        if (pid <= 0) return -1;
        if (sig != 0) kill(pid, sig);
        for (int i = 0; i < 2000 && (ended = waitpid(pid, &status, WNOHANG)) == 0; ++i) usleep(10000);
        if (ended != pid) return -1;
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    ~Proc() {
        if (pid > 0 && kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
        remove(log.c_str());
    }
};

}  // namespace tp
