// The fault file as the save and the crash save leave it. The file calls below are
// interposed; with nothing set they go straight to the system.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <functional>
#include <regex>
#include <thread>

#include "containers/DTList_internal.h"
#include "dttest.h"
#include "fault/DTFault_internal.h"
#include "fcm_decode.h"
#include "fcm_file.h"
#include "records/DTLogger_internal.h"

namespace {

using Bytes = std::vector<uint8_t>;
const size_t npos = std::string::npos;
const std::string kZero = "0x" + std::string(2 * sizeof(void *), '0');

// The save's file calls, interposed below: one letter each (w write to a file,
// f fsync of a file, d fsync of a directory, r rename, s stdio write); the
// process ends at the g_killAt-th.
int g_killAt, g_calls;
std::string g_trace;
std::vector<size_t> *g_writeSizes;  // the sizes of writes to files, when set
time_t g_now;  // the clock, when set
// The call that fails: 'f' fsync of a file, 'w' a write to a file, 'c' closing a file, 'r' rename, 'z' the
// next write to a file, once, writing nothing; 'q' asking for the alternate stack, 'S' setting it.
char g_fail;
volatile int g_second;  // 1: the next write to a file lets a second thread fault (2) and waits
bool IsA(int fd, mode_t type) {
    struct stat st;
    return fstat(fd, &st) == 0 && (st.st_mode & S_IFMT) == type;
}
bool Fails(char kind, int fd) {
    if (g_fail != kind || !IsA(fd, S_IFREG)) return false;
    errno = kind == 'z' ? EINTR : EIO;
    g_fail = kind == 'z' ? 0 : kind;
    return true;
}
void Step(char kind) {
    if (g_killAt == 0) return;
    g_trace += kind;
    if (++g_calls == g_killAt) _exit(77);
}

}  // namespace

extern "C" ssize_t write(int fd, const void *b, size_t n) {
    if (IsA(fd, S_IFREG)) Step('w');
    if (g_writeSizes && IsA(fd, S_IFREG)) g_writeSizes->push_back(n);
    if (Fails('z', fd)) return 0;
    if (Fails('w', fd)) return -1;
    if (g_second == 1 && IsA(fd, S_IFREG)) g_second = 2, usleep(300000);
    return syscall(SYS_write, fd, b, n);
}
extern "C" int fsync(int fd) {
    Step(IsA(fd, S_IFDIR) ? 'd' : 'f');
    return Fails('f', fd) ? -1 : static_cast<int>(syscall(SYS_fsync, fd));
}
extern "C" int rename(const char *from, const char *to) {
    Step('r');
    return g_fail == 'r' ? -1 : static_cast<int>(syscall(SYS_rename, from, to));
}
extern "C" int close(int fd) {
    const bool fail = Fails('c', fd);
    return syscall(SYS_close, fd) == 0 && !fail ? 0 : -1;
}
extern "C" int sigaltstack(const stack_t *ours, stack_t *current) {
    if (g_fail == (ours != nullptr ? 'S' : 'q')) return -1;
    return static_cast<int>(syscall(SYS_sigaltstack, ours, current));
}
// The clock stands still while a save is counted, so that every save of a
// series writes the same crash stamp.
extern "C" time_t time(time_t *out) {
    time_t t = g_now != 0 ? g_now : g_killAt != 0 ? 1700000000 : static_cast<time_t>(syscall(SYS_time, nullptr));
    if (out) *out = t;
    return t;
}
extern "C" size_t fwrite(const void *p, size_t size, size_t n, FILE *f) {
    Step('s');
    return fwrite_unlocked(p, size, n, f);
}
extern "C" int fputc(int c, FILE *f) {
    Step('s');
    return fputc_unlocked(c, f);
}

namespace {

// One file record: its 16-bit length, then the text.
std::string Rec(const std::string &s) { return std::string{char(s.size() >> 8), char(s.size())} + s; }
// A value record: the name's length + 1 and the kind lead the name, then the payload: words
// big-endian, then bytes.
std::string Value(const std::string &name, char kind, std::initializer_list<uint32_t> words, std::string tail = "") {
    std::string out = std::string{char(name.size() + 1), kind} + name;
    for (uint32_t w : words) out += {char(w >> 24), char(w >> 16), char(w >> 8), char(w)};
    return Rec(out + tail);
}
Bytes File(const std::string &s) { return Bytes(s.begin(), s.end()); }

class DTFault : public FcmFileTest {};

TEST_F(DTFault, RegistrationIndexesNamesAndIgnore) {
    DTFaultRecord *a = DTFault_Regist("net", nullptr);
    EXPECT_EQ(DTFault_Regist("net", nullptr)->index, 1);
    EXPECT_EQ(DTFault_Regist("exactly-22-characters!", nullptr)->name, std::string("exactly-22-characters!"));
    EXPECT_EQ(DTFault_Regist("twenty-three-characters", nullptr)->name, std::string("twenty-three-character"));
    for (int i = 4; i < 256; ++i) DTFault_Regist("filler", nullptr);
    EXPECT_EQ(DTFault_Regist("wraps", nullptr)->index, 0);  // the 257th
    DTFault_Ignore(a, 1);
    DTFault_SetRunLog(a, 1, 0, "dropped");
    DTFault_SetInitLog(a, 1, 0, "dropped");
    // Records live in 4-byte-aligned memory: pointer fields are compared, never bound to a reference.
    EXPECT_TRUE(a->runLog->store == nullptr);
    EXPECT_TRUE(a->initLog->store == nullptr);
    DTFault_Ignore(a, 0);
    DTFault_SetInitLog(a, 1, 0, "init");
    DTFault_SetRunLog(a, 1, 0, "run");
    DTBuf *buf = DTBuf_New(1, 64, 0);
    DTFault_ShowInitLogToBuf(a, buf);
    DTFault_ShowRunLogToBuf(a, buf);
    char *text = nullptr;
    DTBuf_Get(buf, 0, (void **)&text);
    const std::string shown(text, DTBuf_Length(buf));
    EXPECT_EQ(shown.substr(15, 6), "\ninit\n");  // after the stamp
    EXPECT_EQ(shown.substr(36), "\nrun\n");
    DTBuf_Release(buf);
    // Null handles: nothing shown, nothing recorded; every operation answers 0, whatever it was given.
    const int32_t nulls[] = {DTFault_SetRunLog(nullptr, 0, 0, "x"), DTFault_SetInitLog(nullptr, 0, 0, "x"),
                             DTFault_ShowRunLog(nullptr),          DTFault_ShowInitLog(nullptr),
                             DTFault_SetInfo(nullptr, 5),          DTFault_SetCounter(nullptr, 1, 1),
                             DTFault_SetRegist64(nullptr, 1, 2),   DTFault_SetRegistEx(nullptr, 1, "ab", 2),
                             DTFault_SetValue(nullptr, 1, "ab", 2)};
    for (int32_t r : nulls) EXPECT_EQ(r, 0);
    EXPECT_TRUE(dttest::Console().empty());
    EXPECT_EQ(g_DTFault_Info, nullptr);
    const int32_t recorded[] = {DTFault_SetCounter(a, 1, 1), DTFault_SetRegist64(a, 1, 2),
                                DTFault_SetCounterEx(a, 1, "ab", 2), DTFault_SetCounterEx(a, 1, nullptr, 2),
                                DTFault_SetValue(a, 1, "ab", 2), DTFault_SetValue(a, 1, nullptr, 4)};
    for (int32_t r : recorded) EXPECT_EQ(r, 0);
}

DTFaultRecord *g_cb;
void RecordingCallback() {
    DTFault_Start();  // nested: returns at once
    DTFault_SetRegist(g_cb, 0x40, 0xDEADBEEF);
    DTInfo_Write(g_cb->runLog->store, "l", "by callback");
}

TEST_F(DTFault, FilesByteForByte) {
    DTFault_Start();  // nothing registered: not even a file
    EXPECT_TRUE(ReadFcm().empty());
    DTFaultRecord *net = DTFault_Regist("net", [] {});
    DTFault_Start();
    EXPECT_EQ(ReadFcm(), Bytes({0, 0}));

    g_cb = DTFault_Regist("disk", RecordingCallback);
    net->initLog->store = DTInfo_New(0);
    g_cb->runLog->store = DTInfo_New(0);
    DTInfo_Write(net->initLog->store, "l", "boot");
    const uint8_t block[] = {1, 0, 2, 0};
    DTFault_SetRegist(net, 1, 2);
    DTFault_SetRegist64(net, 1, 0x100000002ull);
    DTFault_SetRegistEx(net, 2, block, sizeof block);
    DTFault_SetCounter(net, 7, 1);
    DTFault_SetCounter64(net, 8, 0xFFFFFFFF00000001ull);
    DTFault_SetCounterEx(net, 9, block, 3);
    DTFault_SetValue(net, 9, nullptr, 0);
    DTFault_SetValue(g_cb, 10, block, 3);
    dttest::ClearConsole();
    DTFault_Start();
    EXPECT_EQ(dttest::ConsoleText(),
              "start callback [net]\nend callback [net]\nstart callback [disk]\nend callback [disk]\n");
    const std::string logs = Rec("log net boot") + Rec("run disk by callback") + std::string(2, 0);
    const std::string cb = Value("disk", 0, {0x40, 0xDEADBEEF});
    EXPECT_EQ(ReadFcm(), File(logs + Value("net", 0, {1, 2}) + Value("net", 1, {1, 1, 2}) +
                              Value("net", 2, {2, 4}, {1, 0, 2, 0}) + Value("net", 3, {7, 1}) +
                              Value("net", 4, {8, 0xFFFFFFFF, 1}) + Value("net", 5, {9, 3}, {1, 0, 2}) +
                              Value("net", 6, {9, 0}) + Value("disk", 6, {10, 3}, {1, 0, 2}) + cb));

    // The second save writes the logs again, and only the values recorded since: of the sizes
    // at the edges, the largest value is stored, but its file record would need 65535 + 2 + 3.
    DTInfo_Clear(g_cb->runLog->store);
    DTFault_SetCounter(net, 7, 2);
    std::vector<uint8_t> big(DTFAULT_VALUE_MAX + 1, 0xAB);
    DTFault_SetRegistEx(net, 1, big.data(), DTFAULT_BLOCK_MAX + 1);
    DTFault_SetCounterEx(net, 1, big.data(), DTFAULT_BLOCK_MAX + 1);
    DTFault_SetCounterEx(net, 1, nullptr, 1);
    DTFault_SetValue(net, 3, big.data(), big.size());
    DTFault_SetValue(net, 3, nullptr, 1);
    DTFault_SetCounterEx(net, 2, big.data(), DTFAULT_BLOCK_MAX);
    const uint32_t used = g_DTFault_Info->freeAddr;
    DTFault_SetValue(net, 4, big.data(), DTFAULT_VALUE_MAX);
    EXPECT_GT(g_DTFault_Info->freeAddr, used) << "the largest value is stored";
    DTFault_SetValue(net, 5, big.data(), 65535 - 5 - 8);  // a file record of length 65535 exactly
    DTFault_Start();
    EXPECT_EQ(ReadFcm(), File(logs + Value("net", 3, {7, 2}) +
                              Value("net", 5, {2, DTFAULT_BLOCK_MAX}, std::string(DTFAULT_BLOCK_MAX, '\xAB')) +
                              Value("net", 6, {5, 65535 - 13}, std::string(65535 - 13, '\xAB')) + cb));
}


__attribute__((noinline, no_sanitize("undefined"))) void NullDeref() {
    volatile int *volatile p = nullptr;
    *p = 1;
}
void BusError() {  // a page of a file that has no byte there
    (void)*static_cast<volatile char *>(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fileno(tmpfile()), 0));
}
void IllegalInstruction() {
#if defined(__x86_64__) || defined(__i386__)
    __asm__ volatile("ud2");
#elif defined(__powerpc__)
    __asm__ volatile(".long 0");  // the all-zero word is no instruction
#endif
}

struct Host { DTFaultRecord *net, *disk; };
Host Populate(int lines) {
    Host h = {DTFault_Regist("net", nullptr), DTFault_Regist("disk", nullptr)};
    DTFault_SetInitLog(h.net, 1, 0, "link up");
    for (int i = 0; i < lines; ++i) DTFault_SetRunLog(h.net, 1, 0, ("retry " + std::to_string(i)).c_str());
    DTFault_SetRunLog(h.net, 3, 0, "crc error");
    DTFault_SetInitLog(h.disk, 1, 0, "mounted");
    DTFault_SetRunLog(h.disk, 2, 0, "slow write");
    DTFault_SetCounter(h.net, 7, 1);
    DTFault_SetValue(h.disk, 10, "\1\2\3", 3);
    DTFault_SetRegist64(h.net, 0x10, 0x0102030405060708ull);
    return h;
}
const char *const kEverything[] = {
    "1 log net: link up\n", "1 run net: crc error\n", "1 log disk: mounted\n", "1 run disk: slow write\n",
    "3 net counter id=0x00000007 value=0x00000001\n", "3 disk value id=0x0000000A len=3 bytes=01 02 03\n",
    "3 net register64 id=0x00000010 value=0x0102030405060708\n"};

// The child's wait status (given up after 30 s).
int Child(const std::function<void()> &body) {
    pid_t pid = fork();
    if (pid == 0) {
        // A host without handlers of its own (the sanitizer's are put aside too).
        for (int s : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT}) signal(s, SIG_DFL);
        body();
        _exit(0);
    }
    int status = -1;
    for (int i = 0; i < 3000 && waitpid(pid, &status, WNOHANG) == 0; ++i) usleep(10000);
    if (status == -1) kill(pid, SIGKILL), waitpid(pid, &status, 0);
    return status;
}

// dtfcm's output for the fault file (the program itself, under the emulator when cross-built),
// which it reads without complaint: it exits 0.
std::string Dtfcm() {
    std::string out;
    FILE *p = popen(DTFCM_COMMAND " " DTFAULT_FILE " 2>&1", "r");
    for (int c; p && (c = fgetc(p)) != EOF;) out += char(c);
    EXPECT_EQ(p ? pclose(p) : -1, 0) << out;
    return out;
}

class Crash : public FcmFileTest {};

// A host's own handler, installed before: it ends the child with its own code.
void HostPlain(int) { _exit(41); }
void HostInfo(int, siginfo_t *info, void *) { _exit(info->si_addr == nullptr ? 42 : 43); }
struct sigaction g_info;
void SegvInASave() { DTFault_Regist("cb", NullDeref), DTFault_Start(); }  // in a save callback
// A second thread sends itself a crash signal while this one saves: it waits, then dies by
// its own signal, before this one, whose signal the host's handler took, ends the process.
void SecondThreadCrashesMeanwhile() {
    g_second = 1;
    std::thread([] {
        while (g_second != 2) usleep(1000);
        raise(SIGSEGV);
    }).detach();
    raise(SIGFPE);
    usleep(3000000);
    _exit(5);
}

// An address past the first page, aligned, that cannot be read.
char *const g_unreadable =
    static_cast<char *>(mmap(nullptr, 8192, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) + 4096;
DTInfo *RunLog(Host &h) { return h.net->runLog->store; }
struct Row {
    const char *name;
    int sig;
    void (*crash)();
    int dies;                // the signal, or 100 + the code a host's handler exits with
    void (*before)(Host &);  // before the handlers go in: a host's own, or damage the save meets
    unsigned lost;           // a bit for each line of kEverything the damage costs
};
// Damage before a null dereference: the save loses what the damage touched.
Row Damaged(void (*d)(Host &), unsigned lost) { return {"SIGSEGV", SIGSEGV, NullDeref, SIGSEGV, d, lost}; }

// Each crash in a child: the file holds every line and value once, and the crash record
// right after the named fault's run log, its stamp before it; a host's handler
// installed before runs after the save.
TEST_F(Crash, EveryCrashSavesTheFaultPictureAndDiesByItsSignal) {
    Host h = Populate(0);
    g_info.sa_sigaction = HostInfo;
    g_info.sa_flags = SA_SIGINFO;
    const Row cases[] = {
        {"SIGSEGV", SIGSEGV, NullDeref, SIGSEGV, nullptr, 0},
        {"SIGABRT", SIGABRT, abort, SIGABRT, nullptr, 0},
        {"SIGBUS", SIGBUS, BusError, SIGBUS, nullptr, 0},
        {"SIGFPE", SIGFPE, [] { kill(getpid(), SIGFPE); }, SIGFPE, nullptr, 0},
        {"SIGSEGV", SIGSEGV, SegvInASave, SIGSEGV, nullptr, 0},
#if defined(__x86_64__) || defined(__i386__) || defined(__powerpc__)
        {"SIGILL", SIGILL, IllegalInstruction, SIGILL, nullptr, 0},  // elsewhere none is known illegal
#endif
        {"SIGFPE", SIGFPE, SecondThreadCrashesMeanwhile, SIGSEGV, [](Host &) { signal(SIGFPE, [](int) {}); }, 0},
        {"SIGSEGV", SIGSEGV, NullDeref, 141, [](Host &) { signal(SIGSEGV, HostPlain); }, 0},
        {"SIGSEGV", SIGSEGV, NullDeref, 142, [](Host &) { sigaction(SIGSEGV, &g_info, nullptr); }, 0},
        {"SIGSEGV", SIGSEGV, [] { kill(getpid(), SIGSEGV); }, 141,
         [](Host &) { signal(SIGSEGV, HostPlain); }, 0},
        Damaged([](Host &h) { RunLog(h)->freeAddr = RunLog(h)->memory->size + 1; }, 0x02),  // free addr past the area
        Damaged([](Host &) { g_DTFault_Info->useAddr = 1u << 30; }, 0x70),              // use addr past the area
        Damaged([](Host &h) { RunLog(h)->memory->data[2] = 0xFF; }, 0x02),  // a data length past the end
        Damaged([](Host &h) { RunLog(h)->memory->data[0] = 0xFF; }, 0x02),  // a free space mark inside the chain
        Damaged([](Host &h) { RunLog(h)->freesize = RunLog(h)->memory->size; }, 0x02),  // free size past the area
        Damaged([](Host &h) { h.disk->initLog->store = reinterpret_cast<DTInfo *>(0x10); }, 0x04),  // store wild
        Damaged([](Host &h) { h.disk->runLog->store->memory = reinterpret_cast<DTMemBlock *>(g_unreadable); }, 0x08),
        Damaged([](Host &) { reinterpret_cast<int32_t *>(g_DTFault_List)[0] = 1 << 30; }, 0),  // list count too high
        Damaged([](Host &) { reinterpret_cast<int32_t *>(g_DTFault_List)[0] = 1; }, 0x2C),     // list count too low
        Damaged([](Host &) { g_DTFault_List->head->next = reinterpret_cast<DTListNode *>(0x10); }, 0x2C),  // node
        Damaged([](Host &) { g_DTFault_List->head->item = g_unreadable; }, 0x7F),  // fault unreadable
    };
    for (const Row &c : cases) {
        SCOPED_TRACE(testing::Message() << "row " << &c - cases);
        std::remove(DTFAULT_FILE);
        int status = Child([&] {
            if (c.before) c.before(h);
            // Named again: the second fault named takes the record, the host's handler stays.
            if (DTFault_SaveOnCrash(h.disk) != 0 || DTFault_SaveOnCrash(h.net) != 0) _exit(3);
            c.crash();
        });
        EXPECT_EQ(WIFSIGNALED(status) ? WTERMSIG(status) : 100 + WEXITSTATUS(status), c.dies) << status;
        std::string text = "\n" + Dtfcm();
        EXPECT_NE(text.find("\n1 run net: crash: " + std::string(c.name)), npos) << text;
        for (size_t i = 0; i < std::size(kEverything); ++i) {
            const std::string line = "\n" + std::string(kEverything[i]);
            const size_t at = text.find(line);
            EXPECT_EQ(at == npos, (c.lost >> i & 1) != 0) << line << text;
            EXPECT_EQ(text.find(line, at + 1), npos) << "twice: " << line;
        }
        if (c.lost != 0) continue;
        std::vector<dtfcm::Record> r = dtfcm::Decode(ReadFcm()).records;
        ASSERT_EQ(r.size(), 13u);
        EXPECT_EQ(r[3].text, "crc error");
        EXPECT_TRUE(std::regex_match(r[4].text, std::regex("\\d\\d/\\d\\d \\d\\d:\\d\\d:\\d\\d "))) << r[4].text;
        dtfcm::Crash got;
        ASSERT_TRUE(dtfcm::ParseCrash(r[5].text, got)) << r[5].text;
        EXPECT_EQ(got.number, c.sig);
        const bool faultAddress = c.crash == BusError || c.crash == IllegalInstruction;
        EXPECT_NE(got.addr == kZero, faultAddress) << "a null dereference, or sent: no address";
        if (c.crash != NullDeref && c.crash != SegvInASave) continue;
        uintptr_t pc = std::stoull(got.pc, nullptr, 16), fn = reinterpret_cast<uintptr_t>(&NullDeref);
        EXPECT_GE(pc, fn);
        EXPECT_LT(pc, fn + 256) << "inside the function that faulted";
    }
}

// The stamp's date, by hand in the handler, against the calendar's edges (UTC).
// Equivalent mutants left in DTFault_crash.cpp: :53 a short write's resume (files take whole
// writes); :110 the block check's wrap test at size 0 (a size that wrapped to 0 would need a
// size word of 0 in front, which no block has); :406 the handler's cleared action (a default
// action ignores whatever mask and flags the uncleared fields hold); the first page's bound at
// 4096, a flush one byte early, the signal table's end (any signal not in it reads as "SIG?"
// either way), and the list walk's count starting at 1 (without a list the walk has no node
// to start from).
TEST_F(Crash, RefusalsTheAlternateStackTheStampAndSwitchingOff) {
    setenv("TZ", "UTC", 1);
    tzset();
    struct sigaction was, now;
    sigaction(SIGSEGV, nullptr, &was);
    stack_t before, after;
    sigaltstack(nullptr, &before);
    EXPECT_EQ(DTFault_SaveOnCrash(nullptr), -1);
    DTFaultRecord *f = DTFault_Regist("t", nullptr);
    dttest::FailMallocAt(1);
    EXPECT_EQ(DTFault_SaveOnCrash(f), -1) << "no memory for the stack";
    g_fail = 'q';
    EXPECT_EQ(DTFault_SaveOnCrash(f), -1) << "the alternate stack unknown";
    g_fail = before.ss_flags & SS_DISABLE ? 'S' : 'q';  // a thread with a stack of its own is never given one
    EXPECT_EQ(DTFault_SaveOnCrash(f), -1) << "the alternate stack refused";
    g_fail = 0;
    ASSERT_EQ(DTFault_SaveOnCrash(f), 0);
    sigaltstack(nullptr, &after);
    EXPECT_EQ(after.ss_size, before.ss_flags & SS_DISABLE ? 32768u : before.ss_size) << "a stack it had is kept";
    const std::pair<time_t, const char *> cases[] = {
        {86400, "01/02 00:00:00 "},      {951782399, "02/28 23:59:59 "}, {951868799, "02/29 23:59:59 "},
        {951868800, "03/01 00:00:00 "},  {978220800, "12/31 00:00:00 "}, {1709251199, "02/29 23:59:59 "},
        {4102444799, "12/31 23:59:59 "}, {4107542400, "03/01 00:00:00 "},
    };
    for (const auto &c : cases) {
        g_now = c.first;
        DTFault_CrashSave_(SIGTERM, nullptr, nullptr);
        std::vector<dtfcm::Record> r = dtfcm::Decode(ReadFcm()).records;
        ASSERT_EQ(r.size(), 2u);
        EXPECT_EQ(r[0].text, c.second) << c.first;
        EXPECT_EQ(r[1].text.substr(0, 22), "crash: SIG? signal 15 ");
    }
    g_now = 0;
    DTFault_SaveOnCrashOff();
    sigaction(SIGSEGV, nullptr, &now);
    EXPECT_EQ(now.sa_sigaction, was.sa_sigaction) << "off: the host's handler is back";
}

// Each save in a child that ends at its k-th file call, for every k (of the stdio
// writes every stride-th): what each leaves on disk, the last entry being what a
// save that runs to the end leaves, and the calls of that save.
const Bytes kPrevious = File(Rec("run old ") + std::string(2, 0));
std::vector<Bytes> InterruptEveryCall(void (*save)(), int stride, std::string *trace, Bytes (*read)()) {
    static auto *shared =
        static_cast<char *>(mmap(nullptr, 65536, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    Child([&] { g_killAt = 1 << 30, save(), snprintf(shared, 65536, "%s", g_trace.c_str()); });
    *trace = shared;
    std::vector<Bytes> left;
    for (size_t k = 1; k <= trace->size() + 1; ++k) {
        if (k <= trace->size() && (*trace)[k - 1] == 's' && (k - 1) % stride != 0) continue;
        std::ofstream(DTFAULT_FILE).write(reinterpret_cast<const char *>(kPrevious.data()), 12);
        Child([&] { g_killAt = static_cast<int>(k), save(); });
        left.push_back(read());
    }
    return left;
}
void CrashSave() { DTFault_CrashSave_(SIGSEGV, nullptr, nullptr); }

TEST_F(Crash, InterruptedOrFailedSaveLeavesATruncatedFileOrInDurableModeTheOldOneOrTheNew) {
    Host h = Populate(300);
    ASSERT_EQ(DTFault_SaveOnCrash(h.net), 0);
    std::string trace;
    std::vector<Bytes> left = InterruptEveryCall(DTFault_Start, 700, &trace, ReadFcm);
    EXPECT_EQ(trace.find_first_not_of('s'), npos) << "stdio writes only, never flushed";
    ASSERT_GT(left.size(), 4u);
    for (size_t k = 0; k + 1 < left.size(); ++k) {
        EXPECT_LT(left[k].size(), left.back().size()) << k;
        EXPECT_TRUE(std::equal(left[k].begin(), left[k].end(), left.back().begin())) << "a prefix of the new file";
    }
    DTFault_SetDurable(1);
    for (auto save : {CrashSave, DTFault_Start}) {
        left = InterruptEveryCall(save, 500, &trace, ReadFcm);
        EXPECT_TRUE(std::regex_match(trace, std::regex("(w+|s+)frd"))) << trace;
        EXPECT_GT(left.back().size(), 12000u);
        for (size_t k = 0; k < left.size(); ++k)
            EXPECT_TRUE(left[k] == kPrevious || left[k] == left.back()) << "killed at call " << k + 1;
        // Killed at the directory flush, the rename has been made: from there on it is the new file.
        EXPECT_EQ(left[left.size() - 2], left.back());
        EXPECT_EQ(left[left.size() - 3], kPrevious);
    }
    // A temporary file that cannot be renamed, flushed, written or closed is removed, and the fault
    // file stays as it was; a failed write ends the crash save's file, which is still closed. One
    // that cannot be made keeps the previous file, and ends saving for good.
    DTFault_Start();
    const Bytes good = ReadFcm();
    // A write that wrote nothing is not tried again, whatever errno says: it could go on forever.
    const std::pair<void (*)(), char> cases[] = {
        {DTFault_Start, 'r'}, {DTFault_Start, 'f'}, {CrashSave, 'f'}, {CrashSave, 'w'},
        {CrashSave, 'c'}, {CrashSave, 'z'}, {CrashSave, 'r'}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.second);
        DTFault_SetCounter(h.net, 1, 1);
        g_fail = c.second;
        const int next = dup(0);
        close(next);
        c.first();
        g_fail = 0;
        EXPECT_EQ(dup(0), next) << "no descriptor left open";
        EXPECT_EQ(ReadFcm(), good);
        EXPECT_NE(access(DTFAULT_FILE ".tmp", F_OK), 0);
        EXPECT_EQ(g_DTFault_Info == nullptr, c.first == DTFault_Start) << "a failed save completes all the same";
    }
    ASSERT_EQ(mkdir(DTFAULT_FILE ".tmp", 0700), 0);  // no temporary file can be made
    DTFault_Start();
    EXPECT_NE(g_DTFault_Info, nullptr) << "the values stay";
    rmdir(DTFAULT_FILE ".tmp");
    DTFault_Start();
    EXPECT_EQ(ReadFcm(), good) << "saving for good, as with an unopenable file";
}


// Ring stores that wrapped, each record length the walk meets: the crash save
// writes what the normal save writes, with its two records before the end mark.
TEST_F(Crash, CrashSaveWritesWhatTheSaveWrites) {
    // A full ring whose oldest records end at its area's last byte (lines of two records, 32 bytes
    // in all): a walk that went on at the area's end would read the byte past it, and stop there
    // unless that byte happened to be a free mark.
    DTFaultRecord *tiled = DTFault_Regist("tiled", nullptr);
    DTLogger_SetInfoSize(tiled->runLog, 2048);
    for (int line = 0; line < 200; ++line) DTFault_SetRunLog(tiled, 1, 0, "123456789");
    ASSERT_EQ(tiled->runLog->store->useAddr, 256u) << "wrapped, 2048 - 256 bytes before the area's end";
    DTFaultRecord *f[3];
    for (int i = 0; i < 3; ++i) {
        f[i] = DTFault_Regist(("f" + std::to_string(i)).c_str(), nullptr);
        // Stores past the save's 64 KiB chunk, so that records straddle its edges.
        DTLogger_SetInfoSize(f[i]->runLog, 65536 - 4093 * i);
        for (int line = 0; line < 2600 + 37 * i; ++line) {
            DTFault_SetRunLog(f[i], line % 4, 0, std::string(line % 53, 'a' + i).c_str());
            DTFault_SetCounter(f[i], line, i);
        }
        DTFault_SetRunLog(f[i], 1, 0, "");  // a record without data closes the store
    }
    for (int i = 4; i <= 256; ++i) DTFault_Regist("idle", nullptr);  // one past the names the save keeps
    DTFault_SetValue(f[1], 1, std::string(DTFAULT_VALUE_MAX, 'v').data(), DTFAULT_VALUE_MAX);  // too long for the file
    DTFault_SetValue(f[0], 2, std::string(5000, 'w').data(), 5000);
    // Values no fault owns: under a key of 3 bytes, and of a fault never registered.
    DTInfo_Append(g_DTFault_Info, "\3\1\0", 3, "own", 3);
    DTInfo_Append(g_DTFault_Info, "\3\xF0", 2, "none", 4);
    // A file record of length 65535 exactly: "f2" and its two bytes, id and length, the value.
    DTFault_SetValue(f[2], 3, std::string(DTFAULT_VALUE_MAX - 4, 'x').data(), DTFAULT_VALUE_MAX - 4);
    ASSERT_EQ(DTFault_SaveOnCrash(f[2]), 0);
    std::vector<size_t> writes;
    g_writeSizes = &writes;
    DTFault_CrashSave_(SIGFPE, nullptr, nullptr);
    g_writeSizes = nullptr;
    // Whole 64 KiB chunks at chunk edges, but for the writes before the two
    // values longer than the buffer's slack, and the last.
    size_t at = 0, offEdge = 0;
    for (size_t n : writes) offEdge += (at += n) % 65536 != 0;
    EXPECT_LE(offEdge, 3u);
    Bytes crash = ReadFcm();
    DTFault_Start();
    Bytes normal = ReadFcm();
    ASSERT_GT(normal.size(), 3 * 65536u);
    size_t end = 0;
    while (normal[end] != 0 || normal[end + 1] != 0) end += 2 + (normal[end] << 8) + normal[end + 1];
    ASSERT_GT(crash.size(), normal.size());
    size_t added = crash.size() - normal.size();
    EXPECT_TRUE(std::equal(normal.begin(), normal.begin() + end, crash.begin()));
    EXPECT_TRUE(std::equal(normal.begin() + end, normal.end(), crash.begin() + end + added));
    std::vector<dtfcm::Record> r = dtfcm::Decode(Bytes(crash.begin() + end, crash.begin() + end + added)).records;
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[1].text, "crash: SIGFPE signal 8 addr " + kZero + " pc " + kZero) << "no signal, no context";
}

}  // namespace
