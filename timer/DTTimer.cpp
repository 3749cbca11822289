#include "timer/DTTimer.h"

#include <string.h>

#include "foundation/DTMem.h"
#include "foundation/DTPrint.h"
#include "foundation/DTString.h"
#include "records/DTTime.h"
#include "timer/DTTimer_internal.h"

namespace {

const uint32_t kPassMs = 100;

// Unsigned subtraction, so a clock that started again at 0 makes the gap huge
// and every active timer runs once in that pass.
bool Due_(const DTTimer *t, uint32_t now) { return now - t->last >= t->interval; }

void Run_(DTTimer *t, uint32_t now) {
    if (t->callback(t) == 0) t->status = 0;
    // The pass's time, not last + interval: a late run is never made up.
    t->last = now;
    t->times++;
}

}  // namespace

extern "C" {

DTList *g_DTTimer_List = nullptr;

uint32_t DTTimer_Clock_(void) { return DTTime_GetUTime() / 1000u; }

int32_t DTTimer_RegistAt_(DTTimerFn callback, uint32_t interval, uint32_t now) {
    if (!g_DTTimer_List) g_DTTimer_List = DTList_New(0, DTMem_LocalFree);
    if (!g_DTTimer_List) return 0;
    DTTimer *t = static_cast<DTTimer *>(DTMem_LocalMalloc(sizeof(DTTimer)));
    if (!t) return 0;
    memset(t, 0, sizeof *t);
    t->callback = callback;
    t->interval = interval;
    t->status = 1;
    t->times = 0;
    t->last = now;
    if (DTList_Append(g_DTTimer_List, t) <= 0) {
        // Nothing holds the entry then; giving it back keeps the accounting true.
        DTMem_LocalFree(t);
    }
    return 1;
}

int32_t DTTimer_Regist(DTTimerFn callback, uint32_t interval) {
    return DTTimer_RegistAt_(callback, interval, DTTimer_Clock_());
}

void DTTimer_PassAt_(uint32_t now) {
    // Taken once: timers registered by a callback wait for the next pass.
    int32_t n = DTList_Length(g_DTTimer_List);
    for (int32_t i = 0; i < n; ++i) {
        DTTimer *t = static_cast<DTTimer *>(DTList_Get(g_DTTimer_List, i));
        if (!t || !t->callback || t->status == 0) continue;
        if (Due_(t, now)) Run_(t, now);
    }
}

void DTTimer_Loop(void) {
    for (;;) {
        DTTimer_PassAt_(DTTimer_Clock_());
        DTTime_Sleep(kPassMs);
    }
}

void DTTimer_Show(void) {
    DTPrint_Show(DTString_SFormat("current tm=%d\n", static_cast<int>(DTTimer_Clock_())), 0);
    int32_t n = DTList_Length(g_DTTimer_List);
    for (int32_t i = 0; i < n; ++i) {
        DTTimer *t = static_cast<DTTimer *>(DTList_Get(g_DTTimer_List, i));
        if (!t || !t->callback) continue;
        DTPrint_Show(DTString_SFormat("last=%d,interval=%d,status=%d,times=%d\n", static_cast<int>(t->last),
                                      static_cast<int>(t->interval), static_cast<int>(t->status),
                                      static_cast<int>(t->times)),
                     0);
    }
}

}  // extern "C"
