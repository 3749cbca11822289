// Small before fast: only the store walk below is a loop that matters.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC optimize("Os")
#endif

// The fault file written from a signal handler: only async-signal-safe calls,
// no allocation, no lock, and every pointer and length of the stores it walks
// checked first, since the crash may have damaged them.
#include <errno.h>
#include <fcntl.h>
#include <setjmp.h>
#include <signal.h>
#include <string.h>
#include <sys/select.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include "containers/DTList_internal.h"
#include "fault/DTFault.h"
#include "fault/DTFault_internal.h"
#include "foundation/DTMem.h"
#include "records/DTLogger_internal.h"

namespace {

const uint32_t kPrefixMax = 32;  // a record's bytes before its data: "run " name " " at most
// The file is written in whole chunks at chunk-aligned offsets: the kernel
// keeps such writes in large page-cache pieces, and the save's cost was
// mostly the kernel's per-piece work for writes that ended wherever a record
// did. The buffer holds one chunk and the record that crosses its end; a
// record longer than that slack (a large value) writes what is before it
// first, and the writes after it come back to the boundaries.
const uint32_t kChunk = 65536;
const uint32_t kBufSize = kChunk + 4096;
static_assert(kBufSize >= 2 + kPrefixMax + 65535, "any record fits an emptied buffer");

// Where the crash save's bytes go: a descriptor behind a buffer. A record is
// in once used has moved past it, which happens after all its bytes are
// copied: a fault while copying leaves used where it was.
struct Out {
    int fd;  // -2 - fd once a write has failed: the rest is dropped
    uint8_t *buf;
    uint32_t used;
    uint32_t edge;  // the next write is due when used reaches this: the file's next chunk boundary
};

// The buffer's first n bytes to the file, the rest moved to the front. n is
// never past edge: a put that reaches edge writes up to it at once.
bool flush_(Out *o, uint32_t n) {
    uint32_t at = 0;
    while (at < n && o->fd >= 0) {
        ssize_t w = write(o->fd, o->buf + at, n - at);
        if (w > 0) at += static_cast<uint32_t>(w);
        else if (w < 0 && errno == EINTR) continue;
        else o->fd = -2 - o->fd;  // still closable, but nothing more is written
    }
    o->used -= n;
    memmove(o->buf, o->buf + n, o->used);
    o->edge -= n;
    if (o->edge == 0) o->edge = kChunk;
    return o->fd >= 0;
}

const int kSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
const char kSignalNames[][8] = {"SIGSEGV", "SIGBUS", "SIGILL", "SIGFPE", "SIGABRT"};
const int kSignalCount = 5;
const uint32_t kStackSize = 32768;
const uint32_t kHeader = 4;         // the accounted block's size word
const uint32_t kBlockHeader = 8;    // DTMemBlock's size and isStatic words
const uint32_t kMaxFaults = 65536;  // the list walk's bound, whatever its count says
const int kWaitSteps = 1000;        // 10 ms each: how long a second crashing thread waits

struct sigaction sg_old[kSignalCount];
bool sg_installed;
uint8_t *sg_block;  // alternate stack, then the save's buffer
DTFaultRecord *volatile sg_named;
uint8_t sg_crashPrefix[kPrefixMax];  // "run " name " ": the crash record's
uint32_t sg_crashPrefixLen;
long sg_utcOffset;

// The thread writing the file, and whether it has finished. A thread is told
// by the address of its errno: its own, for as long as it lives, and had
// without a call that is unsafe here.
uintptr_t sg_writer;
int sg_done;
int sg_signal;  // the writer's signal: a fault inside the save ends the process by it
sigjmp_buf sg_guard;
volatile int sg_guarding;

// Faults by list position, for the value records' index byte.
DTFaultRecord *sg_byIndex[256];
uint8_t sg_nameLen[256];

uint32_t word_(const void *p) {
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

// A block the accounted allocator made for exactly size bytes: the size word
// in front of it says so. Anything else is not what the store's owner made.
// An address a block can have: not in the first page, 4-byte aligned.
bool addr_(const void *p) {
    uintptr_t a = reinterpret_cast<uintptr_t>(p);
    return a >= 4096 && (a & 3) == 0;
}

__attribute__((no_sanitize("address"))) bool block_(const void *p, uint32_t size) {
    if (!addr_(p) || reinterpret_cast<uintptr_t>(p) + size < reinterpret_cast<uintptr_t>(p)) return false;
    return word_(static_cast<const uint8_t *>(p) - kHeader) == size;
}

uint32_t nameLen_(const DTFaultRecord *f) {
    const char *name = f->name;
    uint32_t n = 0;
    while (n < DTFAULT_NAME_SIZE - 1 && name[n] != '\0') ++n;
    return n;
}

// Runs one step under the guard: a fault inside it comes back here instead of
// ending the process; the record it was copying was never counted in.
bool guarded_(void (*step)(void *), void *ctx) {
    if (sigsetjmp(sg_guard, 0) != 0) {
        sg_guarding = 0;
        return false;
    }
    sg_guarding = 1;
    step(ctx);
    sg_guarding = 0;
    return true;
}

struct StoreWalk {
    Out *o;
    DTLogger *logger;  // the log whose store is walked; null: the value store
    DTInfo *store;
    bool values;
    uint32_t prefixLen;
    uint8_t prefix[kPrefixMax];  // a log record's marker, space, name, space
};

// One file record whose body is prefix then data.
void putRecord_(Out *o, const uint8_t *prefix, uint32_t p, const uint8_t *data, uint32_t d) {
    uint32_t len = p + d;
    if (len > 0xFFFF) return;
    if (kBufSize - o->used < 2 + kPrefixMax + d) flush_(o, o->used);  // the prefix array included
    uint8_t *at = o->buf + o->used;
    at[0] = static_cast<uint8_t>(len >> 8);
    at[1] = static_cast<uint8_t>(len);
    // The whole prefix array, of a size known here: a few moves instead of a
    // call per record; the data overwrites what runs past the prefix.
    memcpy(at + 2, prefix, kPrefixMax);
    // memmove, not memcpy: built for size, a memcpy of unknown length becomes
    // an inline string move, slow for a line's few bytes; memmove stays a call.
    memmove(at + 2 + p, data, d);
    o->used += 2 + len;
    if (o->used >= o->edge) flush_(o, o->edge);
}

uint32_t logPrefix_(uint8_t *out, const char *marker, const char *name, uint32_t n) {
    memcpy(out, marker, 3);
    out[3] = ' ';
    memcpy(out + 4, name, n);
    out[4 + n] = ' ';
    return 5 + n;
}

// The records of [at, end) in order. false at the first one that does not fit
// the area, or at a free mark before end when the chain must reach end.
__attribute__((no_sanitize("address"))) bool walkRun_(StoreWalk *w, const uint8_t *area, uint32_t at,
                                                      uint32_t end, bool toMark) {
    uint8_t own[kPrefixMax];  // a value record's prefix: its index byte, key and fault name
    while (at < end) {
        if (area[at] == 0xFF) return toMark;
        uint32_t h = area[at];
        if (end - at < 3 + h) return false;
        const uint8_t *key = area + at + 1;
        uint32_t d = (uint32_t(key[h]) << 8) | key[h + 1];
        if (end - at - 3 - h < d) return false;
        at += 3 + h + d;
        const uint8_t *prefix = w->prefix;
        uint32_t p = w->prefixLen;
        if (w->values) {
            if (h != 2 || sg_byIndex[key[1]] == nullptr) continue;
            uint32_t n = sg_nameLen[key[1]];
            own[0] = static_cast<uint8_t>(n + 1);
            own[1] = key[0];
            memcpy(own + 2, sg_byIndex[key[1]]->name, n);
            prefix = own;
            p = 2 + n;
        }
        putRecord_(w->o, prefix, p, key + h + 2, d);
    }
    return at == end;
}

__attribute__((no_sanitize("address"))) DTInfo *storeOf_(DTLogger *logger) {
    if (!block_(logger, sizeof(DTLogger))) return nullptr;
    return logger->store;
}

// The store's records oldest first, as its own walk gives them, after its
// header has been checked against the block it lives in.
__attribute__((no_sanitize("address"))) void walkStore_(void *ctx) {
    StoreWalk *w = static_cast<StoreWalk *>(ctx);
    DTInfo *s = w->logger != nullptr ? storeOf_(w->logger) : w->store;
    if (s == nullptr || !block_(s, sizeof(DTInfo))) return;
    DTMemBlock *m = s->memory;
    if (!addr_(m) || !block_(m, kBlockHeader + m->size) || m->isStatic != 0) return;
    uint32_t cap = m->size, free = s->freeAddr, use = s->useAddr, room = s->freesize;
    if (free > cap || use >= cap || room > cap - free) return;
    if (use == free && room != 0) return;  // empty
    const uint8_t *area = m->data;
    if (use < free) {
        walkRun_(w, area, use, free, false);
        return;
    }
    // Wrapped: from the oldest record to the free mark or the area's end, then
    // from the start up to where the next record goes.
    if (walkRun_(w, area, use, cap, true)) walkRun_(w, area, 0, free, false);
}

struct LogPass {
    Out *o;
    DTListNode *node;
    uint32_t pos;
    DTFaultRecord *fault;
};

// One list node: its fault, when both are what the registry made.
__attribute__((no_sanitize("address"))) void readNode_(void *ctx) {
    LogPass *p = static_cast<LogPass *>(ctx);
    DTListNode *node = p->node;
    p->node = nullptr;
    p->fault = nullptr;
    if (!block_(node, sizeof(DTListNode))) return;
    DTFaultRecord *f = static_cast<DTFaultRecord *>(node->item);
    p->node = node->next;
    if (!block_(f, sizeof(DTFaultRecord))) return;
    p->fault = f;
    if (p->pos < 256) {
        sg_byIndex[p->pos] = f;
        sg_nameLen[p->pos] = static_cast<uint8_t>(nameLen_(f));
    }
}



// Stamp and text, as a logged line of the named fault's run log reads.
void putCrash_(Out *o, const char *stamp, const char *text, uint32_t len) {
    putRecord_(o, sg_crashPrefix, sg_crashPrefixLen, reinterpret_cast<const uint8_t *>(stamp), 15);
    putRecord_(o, sg_crashPrefix, sg_crashPrefixLen, reinterpret_cast<const uint8_t *>(text), len);
}

// Section 1: every fault's init and run log, the crash record after the named
// fault's run log (or, when the walk never meets it, after the last log).
__attribute__((no_sanitize("address"))) void logPass_(Out *o, const char *stamp, const char *text,
                                                      uint32_t len) {
    memset(sg_byIndex, 0, sizeof sg_byIndex);
    bool crashPut = false;
    DTList *list = g_DTFault_List;
    LogPass p = {o, nullptr, 0, nullptr};
    uint32_t count = 0;
    if (list != nullptr && block_(list, sizeof(DTList))) {
        p.node = list->head;
        count = static_cast<uint32_t>(list->count);
    }
    if (count > kMaxFaults) count = kMaxFaults;
    for (; p.pos < count && p.node != nullptr; ++p.pos) {
        if (!guarded_(readNode_, &p)) break;
        DTFaultRecord *f = p.fault;
        if (f == nullptr) continue;
        StoreWalk w;
        w.o = o;
        w.values = false;
        w.prefixLen = logPrefix_(w.prefix, "log", f->name, nameLen_(f));
        w.logger = f->initLog;
        guarded_(walkStore_, &w);
        memcpy(w.prefix, "run", 3);
        w.logger = f->runLog;
        guarded_(walkStore_, &w);
        if (f == sg_named && !crashPut) {
            putCrash_(o, stamp, text, len);
            crashPut = true;
        }
    }
    if (!crashPut) putCrash_(o, stamp, text, len);
}


// Numbers by hand: the formatting functions are not safe in a handler.
uint32_t putText_(char *out, const char *s) {
    uint32_t n = 0;
    while (s[n] != '\0') {
        out[n] = s[n];
        ++n;
    }
    return n;
}

uint32_t putDec_(char *out, uint32_t v, uint32_t width) {
    char digits[10];
    uint32_t n = 0;
    do {
        digits[n++] = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v != 0);
    uint32_t len = 0;
    for (; len + n < width; ++len) out[len] = '0';
    while (n > 0) out[len++] = digits[--n];
    return len;
}

uint32_t putHex_(char *out, uintptr_t v) {
    const uint32_t digits = 2 * sizeof v;
    out[0] = '0';
    out[1] = 'x';
    for (uint32_t i = 0; i < digits; ++i)
        out[2 + i] = "0123456789abcdef"[(v >> (4 * (digits - 1 - i))) & 0xF];
    return 2 + digits;
}

// "MM/DD HH:MI:SS ", the logger's own stamp, in the local time of the call
// that switched this on.
void stamp_(char *out) {
    // Unsigned 32-bit seconds: right until 2106, and no 64-bit division on the board.
    uint32_t t = static_cast<uint32_t>(time(nullptr)) + static_cast<uint32_t>(sg_utcOffset);
    uint32_t secs = t % 86400;
    // Days since 1970-01-01 to month and day, counted in 400-year eras from 0000-03-01.
    uint32_t z = t / 86400 + 719468;
    uint32_t doe = z % 146097;
    uint32_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    uint32_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    uint32_t mp = (5 * doy + 2) / 153;
    uint32_t day = doy - (153 * mp + 2) / 5 + 1;
    uint32_t month = mp < 10 ? mp + 3 : mp - 9;
    const uint32_t fields[5] = {month, day, secs / 3600, secs / 60 % 60, secs % 60};
    const char *seps = "/ :: ";
    for (int i = 0; i < 5; ++i) {
        putDec_(out + 3 * i, fields[i], 2);
        out[3 * i + 2] = seps[i];
    }
}

// Out of line: inlined, its unrolled search is copied into each caller.
__attribute__((noinline)) int slot_(int sig) {
    for (int i = 0; i < kSignalCount; ++i)
        if (kSignals[i] == sig) return i;
    return -1;
}

// "crash: SIGSEGV signal 11 addr 0x... pc 0x...": pc only where the signal
// context gives it.
uint32_t crashText_(char *out, int sig, const siginfo_t *info, const void *context) {
    int i = slot_(sig);
    uint32_t len = putText_(out, "crash: ");
    len += putText_(out + len, i >= 0 ? kSignalNames[i] : "SIG?");
    len += putText_(out + len, " signal ");
    len += putDec_(out + len, static_cast<uint32_t>(sig), 1);
    len += putText_(out + len, " addr ");
    uintptr_t addr = info != nullptr && info->si_code > 0 ? reinterpret_cast<uintptr_t>(info->si_addr) : 0;
    len += putHex_(out + len, addr);
#if defined(__x86_64__) || defined(__i386__) || (defined(__powerpc__) && !defined(__powerpc64__))
    const ucontext_t *uc = static_cast<const ucontext_t *>(context);
    uintptr_t pc = 0;
#if defined(__x86_64__)
    if (uc != nullptr) pc = static_cast<uintptr_t>(uc->uc_mcontext.gregs[REG_RIP]);
#elif defined(__i386__)
    if (uc != nullptr) pc = static_cast<uintptr_t>(uc->uc_mcontext.gregs[REG_EIP]);
#else
    if (uc != nullptr) pc = static_cast<uintptr_t>(uc->uc_mcontext.uc_regs->gregs[32]);  // the next instruction pointer
#endif
    len += putText_(out + len, " pc ");
    len += putHex_(out + len, pc);
#endif
    return len;
}

void restoreAll_() {
    for (int i = 0; i < kSignalCount; ++i) sigaction(kSignals[i], &sg_old[i], nullptr);
    sg_installed = false;
}

// The process dies as it would have without us: the previous disposition
// back, then the signal again. A fault the hardware raised comes back by
// itself when the instruction runs again, so a host's earlier handler sees
// its own address and context; a sent signal is sent again.
void passOn_(int sig, const siginfo_t *info) {
    int i = slot_(sig);
    bool hostHandler = false;
    if (i >= 0) {
        const struct sigaction &old = sg_old[i];
        hostHandler = (old.sa_flags & SA_SIGINFO) != 0 ||
                      (old.sa_handler != SIG_DFL && old.sa_handler != SIG_IGN);
    }
    if (hostHandler && info != nullptr && info->si_code > 0) return;
    raise(sig);
}

// A fault inside the save: the process ends by the signal that started it.
// Neither signal is blocked (the handler is not deferred); should the raise
// not end it, the fault comes back with nothing left to catch it.
void dieByOriginal_(int sig) {
    struct sigaction dfl;
    memset(&dfl, 0, sizeof dfl);
    dfl.sa_handler = SIG_DFL;
    sigaction(sig, &dfl, nullptr);
    sigaction(sg_signal, &dfl, nullptr);
    raise(sg_signal);
}

void onSignal_(int sig, siginfo_t *info, void *context) {
    int saved = errno;
    uintptr_t self = reinterpret_cast<uintptr_t>(&errno);
    uintptr_t expected = 0;
    if (!__atomic_compare_exchange_n(&sg_writer, &expected, self, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
        if (expected == self) {
            if (sg_guarding != 0) siglongjmp(sg_guard, 1);
            dieByOriginal_(sig);
            return;
        }
        // Another thread is writing: one writer only. It ends the process when
        // it is done; should it not, this thread dies by its own signal.
        for (int i = 0; i < kWaitSteps && __atomic_load_n(&sg_done, __ATOMIC_ACQUIRE) == 0; ++i) {
            struct timeval step = {0, 10000};
            select(0, nullptr, nullptr, nullptr, &step);
        }
        passOn_(sig, info);
        errno = saved;
        return;
    }
    sg_signal = sig;
    DTFault_CrashSave_(sig, info, context);
    restoreAll_();
    __atomic_store_n(&sg_done, 1, __ATOMIC_RELEASE);
    passOn_(sig, info);
    errno = saved;
}

}  // namespace

extern "C" {

void DTFault_CrashSave_(int sig, const void *info, const void *context) {
    if (sg_block == nullptr) return;
    char stamp[16];
    stamp_(stamp);
    char text[96];
    uint32_t len = crashText_(text, sig, static_cast<const siginfo_t *>(info), context);
    const bool durable = DTFault_durable_ != 0;
    Out o = {open(durable ? DTFAULT_TEMP_FILE : DTFAULT_FILE, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666),
             sg_block + kStackSize, 0, kChunk};
    if (o.fd < 0) return;
    logPass_(&o, stamp, text, len);
    putRecord_(&o, sg_block, 0, sg_block, 0);  // the end mark: a record of length 0
    StoreWalk values;
    values.o = &o;
    values.logger = nullptr;
    values.store = g_DTFault_Info;
    values.values = true;
    guarded_(walkStore_, &values);
    bool ok = flush_(&o, o.used);
    int fd = ok ? o.fd : -2 - o.fd;
    ok = (!durable || fsync(fd) == 0) && ok;
    ok = close(fd) == 0 && ok;
    if (durable) DTFault_Publish_(ok);
}

int32_t DTFault_SaveOnCrash(DTFaultRecord *fault) {
    if (fault == nullptr) return -1;
    // Made now: at the crash the record itself may be what was damaged.
    sg_crashPrefixLen = logPrefix_(sg_crashPrefix, "run", fault->name, nameLen_(fault));
    sg_named = fault;
    if (sg_installed) return 0;
    if (sg_block == nullptr) {
        sg_block = static_cast<uint8_t *>(DTMem_LocalMalloc(kStackSize + kBufSize));
        if (sg_block == nullptr) return -1;
    }
    stack_t current;
    if (sigaltstack(nullptr, &current) != 0) return -1;
    if ((current.ss_flags & SS_DISABLE) != 0) {
        stack_t ours;
        ours.ss_sp = sg_block;
        ours.ss_flags = 0;
        ours.ss_size = kStackSize;
        if (sigaltstack(&ours, nullptr) != 0) return -1;
    }
    time_t now = time(nullptr);
    const struct tm *local = localtime(&now);
    sg_utcOffset = local != nullptr ? local->tm_gmtoff : 0;
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_sigaction = onSignal_;
    // Not deferred: a fault inside the save must reach the handler again, to
    // be caught by the guard or to end the process by the first signal.
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;  // the mask stays empty, as memset left it
    // These five can always be caught: sigaction cannot refuse them.
    for (int i = 0; i < kSignalCount; ++i) sigaction(kSignals[i], &sa, &sg_old[i]);
    sg_installed = true;
    return 0;
}

void DTFault_SaveOnCrashOff(void) {
    if (sg_installed) restoreAll_();
}

}  // extern "C"
