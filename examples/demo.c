/* dtkit demo host: a small service process that uses each subsystem the way a
 * real host would, and ends with the memory accounting. */
#define _POSIX_C_SOURCE 200809L
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "dtkit.h"

enum { OWNER_NET = 3, OWNER_DB = 7, OWNER_UI = 42, OWNERS = 3 };

/* The host's owners. The library's own slot 0 moves while the table is being
 * built and shown, so only DTMem_Show's closing table lists it. */
static const int32_t g_owner_ids[OWNERS] = {OWNER_NET, OWNER_DB, OWNER_UI};

static void demo_memory(void **keep) {
    /* A few owners hold memory; the accounting shows who holds what. */
    keep[0] = DTMem_Malloc(OWNER_NET, 1500);
    keep[1] = DTMem_Malloc(OWNER_DB, 4096);
    keep[2] = DTMem_Malloc(OWNER_DB, 200);
    keep[3] = DTMem_Malloc(OWNER_UI, 64);
    DTMem_Free(OWNER_UI, DTMem_Malloc(OWNER_UI, 512));
    /* Long-lived small records come from the static pool. */
    (void)DTMem_LocalMalloc_Static(24);
}

static void demo_print(void) {
    char text[120];
    DTPrint_Puts("== dtkit demo host ==", 0);
    DTPrint_Puts(DTTime_Format(text, "started YYYY/MM/DD HH:MI:SS", 0), 0);
    /* A caller's own print object gathers a line before it reaches the console. */
    char line[64];
    DTPrint *p = DTPrint_New(line, (int32_t)sizeof line);
    DTPrint_Print(p, "progress ", 1);
    DTPrint_PrintCh(p, '#', 20);
    DTPrint_PrintCh(p, '\n', 1);
    DTPrint_Release(p);
    static const unsigned char mac[] = {0x00, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f};
    DTPrint_Puts(DTString_SFormat("mac %s", DTString_SHFormat(mac, (int32_t)sizeof mac)), 0);
}

/* The events are string literals: nothing to release when one falls off. */
static void forget_event(void *item) { (void)item; }

static void demo_list(void) {
    DTList *recent = DTList_New(3, forget_event);
    static const char *events[] = {"link up", "dhcp lease", "ntp sync", "config loaded"};
    for (size_t i = 0; i < sizeof events / sizeof events[0]; ++i)
        DTList_Push(recent, (void *)events[i]);
    DTPrint_Puts(DTString_SFormat("newest %d events:", (int)DTList_Length(recent)), 0);
    for (int32_t i = 0; i < DTList_Length(recent); ++i)
        DTPrint_Puts(DTString_SFormat("  %s", (const char *)DTList_Get(recent, i)), 0);
    DTList_Release(recent);
}

static void demo_pack(void) {
    /* A packed status record as it would travel to a collector, dumped field by field. */
    unsigned char rec[64];
    const char *fmt = "BIhT6s";
    uint32_t fields = 0;
    uint32_t size = DTBuffer_GetPackSize(fmt, &fields);
    uint32_t n = DTBuffer_Pack(rec, fmt, 2, 0xC0A80001u, -40, DTTime_Now(), "eth0up");
    DTPrint_Puts(DTString_SFormat("packed %u bytes (%u fields, %u expected):", (unsigned)n,
                                  (unsigned)fields, (unsigned)size), 0);
    DTPrint_Puts(DTString_SHFormat(rec, (int32_t)n), 0);
    DTBuffer_UNPack("*BIhT6s", rec);
}

static void demo_logger(void) {
    /* A 2 KiB log: the first lines are overwritten once it works as a ring,
     * and the show lists the newest survivors, oldest first. */
    DTLogger *log = DTLogger_New(255 & ~DTLOGGER_ECHO);
    DTLogger_SetInfoSize(log, 2048);
    for (int i = 0; i < 120; ++i)
        DTLogger_Write(log, 1, DTString_SFormat("poll %03d: link ok, rx %d tx %d", i, i * 17, i * 5));
    printf("\n");
    DTPrint_Puts("log after 120 lines in a 2 KiB store:", 0);
    DTLogger_ShowInfo(log, 0);
    DTLogger_Release(log);
}

/* Faults: each part of the host registers itself; its save callback records
 * the last state just before the fault file is written. */
static DTFaultRecord *g_net, *g_disk;

static void net_save(void) {
    static const uint8_t phy[] = {0x79, 0x6d, 0x00, 0x20, 0x7f, 0xff};
    DTFault_SetRegist(g_net, 0x1F000004u, 0x0000A5A5u);
    DTFault_SetRegistEx(g_net, 0x1F000100u, phy, (uint32_t)sizeof phy);
    DTFault_SetCounter64(g_net, 2, 5000000000ull);
    DTFault_SetRunLog(g_net, 1, 0, "saving: link state captured");
}

static void disk_save(void) {
    static const uint8_t sectors[] = {0, 0, 0, 17, 0, 0, 0x12, 0x67}; /* two big-endian sector numbers */
    DTFault_SetCounterEx(g_disk, 3, sectors, (uint32_t)sizeof sectors);
    DTFault_SetValue(g_disk, 4, "sda1 read-only", 14);
}

static void demo_faults(void) {
    g_net = DTFault_Regist("net", net_save);
    g_disk = DTFault_Regist("disk", disk_save);
    DTFault_SetInitLog(g_net, 1, 0, "eth0 up 1000/full");
    DTFault_SetInitLog(g_disk, 1, 0, "sda1 mounted");
    DTFault_SetRunLog(g_net, 2, 0, "crc errors rising");
    DTFault_SetRunLog(g_disk, 3, 0, "write failed, remounted read-only");
    DTFault_SetCounter(g_net, 1, 42);
    DTFault_SetRegist64(g_disk, 0x20, 0x0000000100000002ull);
    DTPrint_Puts("run log of net:", 0);
    DTFault_ShowRunLog(g_net);
    DTFault_Start();
    DTPrint_Puts("fault file written to " DTFAULT_FILE, 0);
}

/* The host's own call log of two driver functions: it files the records, the
 * library lists the table and decodes them. */
static const DTFuncLogEntry g_driver_funcs[] = {
    {"drv_read", "Ii", 0, "(fd, n)"},
    {"drv_ioctl", "IH", 0, "(fd, cmd)"},
};

static void log_call(DTFuncLog *log, uint8_t func, uint32_t a, int32_t b) {
    unsigned char rec[16];
    uint32_t n = func == 0 ? DTBuffer_Pack(rec, "TIi", DTTime_Now(), a, b)
                           : DTBuffer_Pack(rec, "TIH", DTTime_Now(), a, b);
    if (!log->ignore) DTInfo_Append(log->info, &func, 1, rec, (uint16_t)n);
}

static void demo_funclog(void) {
    DTFuncLog *log = DTFuncLog_New(g_driver_funcs, 2, 4096);
    log_call(log, 0, 3, 512);
    log_call(log, 1, 3, 0x5401);
    log_call(log, 0, 3, -11);
    DTFuncLog_ShowFunc(log);
    DTFuncLog_Show(log, "drv_read", 0, 10);
    DTFuncLog_Release(log);
}

/* Timers: the loop owns a thread of its own for good. The library takes no
 * lock, so the main thread keeps off it until both timers have stopped; the
 * loop then only reads their entries. */
static pthread_mutex_t g_timer_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t g_timer_cond = PTHREAD_COND_INITIALIZER;
static int g_timers_stopped;

static int32_t timer_stop_after(DTTimer *t, uint32_t runs, const char *what) {
    uint32_t run = t->times + 1; /* counted after the callback returns */
    DTPrint_Puts(DTString_SFormat("timer %s: run %u", what, (unsigned)run), 0);
    if (run < runs) return 1;
    pthread_mutex_lock(&g_timer_lock);
    ++g_timers_stopped;
    pthread_cond_signal(&g_timer_cond);
    pthread_mutex_unlock(&g_timer_lock);
    return 0;
}

static int32_t heartbeat(DTTimer *t) { return timer_stop_after(t, 4, "heartbeat (200 ms)"); }
static int32_t link_check(DTTimer *t) { return timer_stop_after(t, 3, "link check (300 ms)"); }

static void *timer_thread(void *arg) {
    (void)arg;
    DTTimer_Loop();
    return NULL;
}

static void demo_timers(void) {
    DTTimer_Regist(heartbeat, 200);
    DTTimer_Regist(link_check, 300);
    pthread_t thread;
    if (pthread_create(&thread, NULL, timer_thread, NULL) != 0) return;
    pthread_detach(thread);
    struct timespec limit;
    clock_gettime(CLOCK_REALTIME, &limit);
    limit.tv_sec += 5;
    pthread_mutex_lock(&g_timer_lock);
    while (g_timers_stopped < 2)
        if (pthread_cond_timedwait(&g_timer_cond, &g_timer_lock, &limit) != 0) break;
    pthread_mutex_unlock(&g_timer_lock);
    DTTimer_Show();
}

/* The library's own figures, read out rather than parsed from DTMem_Show's text. */
static void demo_memory_table(void) {
    DTTable *t = DTTable_New();
    DTTable_SetCaption(t, "host memory by owner");
    DTTable_SetTitle(t, 0, "owner id", DTTABLE_KIND_INT32, "%d", 'R');
    DTTable_SetTitle(t, 1, "bytes", DTTABLE_KIND_INT64, "%lld", 'R');
    DTTable_SetTitle(t, 2, "allocations", DTTABLE_KIND_INT64, "%lld", 'R');
    DTTable_SetTitle(t, 3, "releases", DTTABLE_KIND_INT64, "%lld", 'R');
    for (int i = 0; i < OWNERS; ++i) {
        DTMemOwnerStats s;
        if (DTMem_GetOwnerStats((uint32_t)g_owner_ids[i], &s) != 0) continue;
        int64_t bytes = s.bytes, allocs = s.mallocs, frees = s.frees;
        DTTable_Set(t, i, 0, &g_owner_ids[i]);
        DTTable_Set(t, i, 1, &bytes);
        DTTable_Set(t, i, 2, &allocs);
        DTTable_Set(t, i, 3, &frees);
    }
    DTTable_Sum(t);
    DTTable_Show(t);
    DTTable_Release(t);
    DTMemPoolStats pool;
    if (DTMem_GetPoolStats(&pool) == 0)
        DTPrint_Puts(DTString_SFormat("static pool: %u chunks, %u blocks, %u bytes left", (unsigned)pool.chunks,
                                      (unsigned)pool.mallocs, (unsigned)pool.left),
                     0);
}

/* Collection: two sections that a remote collector (dtcollect) reads. Their
 * callbacks run on the agent's thread while the main thread only waits. */
static CollectSection *g_sec_faults, *g_sec_memory;

static void collect_faults(uint32_t type) {
    (void)type;
    Collect_BeginSection(g_sec_faults, 1);
    Collect_PutString(g_sec_faults, 1, "net", 0);
    Collect_PutRunLog(g_sec_faults, 2, g_net);
    Collect_EndSection(g_sec_faults);
}

static void collect_memory(uint32_t type) {
    (void)type;
    for (int i = 0; i < OWNERS; ++i) {
        DTMemOwnerStats s;
        if (DTMem_GetOwnerStats((uint32_t)g_owner_ids[i], &s) != 0) continue;
        Collect_BeginSection(g_sec_memory, (uint32_t)g_owner_ids[i]);
        Collect_PutInt(g_sec_memory, 1, s.bytes);
        Collect_PutInt(g_sec_memory, 2, s.mallocs);
        Collect_PutInt(g_sec_memory, 3, s.frees);
    }
    Collect_EndSection(g_sec_memory);
}

static void *agent_thread(void *arg) {
    (void)arg;
    if (Collect_Init(0x01020000u) < 0) fprintf(stderr, "dtkit_demo: UDP port 9099 is taken\n");
    return NULL;
}

/* 1 once some socket holds UDP port 9099: the agent is listening. */
static int agent_listening(void) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return 0;
    struct sockaddr_in a;
    memset(&a, 0, sizeof a);
    a.sin_family = AF_INET;
    a.sin_port = htons(9099);
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    int taken = bind(fd, (struct sockaddr *)&a, sizeof a) != 0 && errno == EADDRINUSE;
    close(fd);
    return taken;
}

/* Serves collection requests for the given number of seconds, then leaves. */
static void serve_collection(int seconds) {
    g_sec_faults = Collect_New("faults", collect_faults, NULL);
    g_sec_memory = Collect_New("memory", collect_memory, NULL);
    pthread_t thread;
    if (pthread_create(&thread, NULL, agent_thread, NULL) != 0) return;
    pthread_detach(thread);
    /* A request sent before the agent binds is lost: say "ready" only after. */
    for (int i = 0; i < 200 && !agent_listening(); ++i) {
        struct timespec tick = {0, 10 * 1000 * 1000};
        nanosleep(&tick, NULL);
    }
    printf("collection agent on UDP port 9099 for %d s\n", seconds);
    fflush(stdout);
    struct timespec wait = {seconds, 0};
    while (nanosleep(&wait, &wait) != 0) {
    }
}

int main(int argc, char **argv) {
    void *keep[4];
    demo_memory(keep);
    demo_print();
    demo_list();
    demo_pack();
    demo_logger();
    demo_faults();
    demo_funclog();
    demo_timers();
    demo_memory_table();
    DTMem_Show();
    /* --serve SECONDS: stay up as a device that a collector can read. */
    if (argc == 3 && strcmp(argv[1], "--serve") == 0) serve_collection(atoi(argv[2]));
    return 0;
}
