#include "collect/collect_api.h"

#include <arpa/inet.h>
#include <string.h>

#include "collect/collect_api_internal.h"
#include "collect/collect_client_internal.h"
#include "collect/collect_selftest.h"
#include "foundation/DTMem.h"
#include "foundation/DTString.h"
#include "records/DTTime.h"

extern "C" {
CollectParam g_collect_param;
}

namespace {

const uint32_t kLoggerFlags = 255;
const int32_t kLogLevel = 1;

struct AllowEntry {
    uint32_t net;  // host order, already masked
    uint32_t mask;
};
AllowEntry l_allow[COLLECT_ALLOW_MAX];
uint32_t l_allowCount;

uint32_t maskOf_(uint32_t bits) { return bits == 0 ? 0 : 0xFFFFFFFFu << (32 - bits); }

// The protocol itself trusts any source; the list is the host's way to narrow that.
bool allowed_(const char *requester) {
    if (l_allowCount == 0) return true;
    in_addr a;
    if (inet_aton(requester, &a) == 0) return false;
    uint32_t host = ntohl(a.s_addr);
    for (uint32_t i = 0; i < l_allowCount; i++) {
        if ((host & l_allow[i].mask) == l_allow[i].net) return true;
    }
    return false;
}

uint32_t getBE32_(const uint8_t *p) {
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | p[3];
}

}  // namespace

extern "C" {

void Collect_Log_(const char *text) { DTLogger_Write(g_collect_param.logger, kLogLevel, text); }

void Collect_LogSection_(const char *pattern, const char *name) {
    char now[32];
    DTTime_Format(now, "YY/MM/DD HH:MI:SS", 0);
    Collect_Log_(DTString_SFormat(pattern, now, name));
}

int32_t Collect_Open_(const char *requester, uint32_t port, int32_t sequence, uint8_t id1,
                      uint8_t id2) {
    if (requester == nullptr || CollectClient_Start(requester, port) == 0) {
        Collect_Log_("connect to server fail.");
        return 0;
    }
    const uint8_t identity[4] = {id1, id2, 0, 0};
    CollectClient_SetType(COLLECT_MSG_IDENTITY);
    CollectClient_AppendBuffer(identity, sizeof identity);
    CollectClient_Flush(static_cast<uint32_t>(sequence));
    return 1;
}

int32_t Collect_Abandon_(void) {
    Collect_Log_("flush to server fail.");
    CollectClient_End();
    return 0;
}

CollectSection *Collect_New(const char *name, CollectFn onCollect, CollectFn onSelfTest) {
    if (name == nullptr || name[0] == '\0') return nullptr;
    if (g_collect_param.count >= COLLECT_SECTION_MAX) return nullptr;
    void *mem = DTMem_Malloc(COLLECT_OWNER, sizeof(CollectSection));
    if (mem == nullptr) return nullptr;
    CollectSection *s = static_cast<CollectSection *>(mem);
    memset(s, 0, sizeof *s);
    strncpy(s->name, name, COLLECT_NAME_SIZE - 1);
    s->onCollect = onCollect;
    s->onSelfTest = onSelfTest;
    s->block = 0;
    s->index = g_collect_param.count;
    g_collect_param.sections[g_collect_param.count++] = s;
    return s;
}

void Collect_Release(CollectSection *section) {
    if (section == nullptr) return;
    int32_t index = section->index;
    int32_t count = g_collect_param.count;
    if (index < 0 || index >= count || g_collect_param.sections[index] != section) return;
    for (int32_t i = index; i < count - 1; i++) {
        g_collect_param.sections[i] = g_collect_param.sections[i + 1];
        g_collect_param.sections[i]->index = i;
    }
    g_collect_param.sections[count - 1] = nullptr;
    g_collect_param.count = count - 1;
    DTMem_Free(COLLECT_OWNER, section);
}

int32_t Collect_ShowLog(void) {
    DTLogger_ShowInfo(g_collect_param.logger, 1);
    return 0;
}

int32_t Collect_AllowPrefix(const char *address, uint32_t bits) {
    in_addr a;
    if (address == nullptr || bits > 32 || l_allowCount >= COLLECT_ALLOW_MAX) return -1;
    if (inet_aton(address, &a) == 0) return -1;
    uint32_t mask = maskOf_(bits);
    l_allow[l_allowCount].net = ntohl(a.s_addr) & mask;
    l_allow[l_allowCount].mask = mask;
    l_allowCount++;
    return 0;
}

void Collect_ClearAllow(void) { l_allowCount = 0; }

void Collect_SetAckTimeout(uint32_t ms) { CollectClient_SetAckTimeout_(ms); }

int32_t Collect_Start(const char *requester, uint32_t port, uint32_t type, int32_t sequence,
                      uint8_t id1, uint8_t id2) {
    if (Collect_Open_(requester, port, sequence, id1, id2) == 0) return 0;
    CollectClient_SetType(COLLECT_MSG_SECTIONS);
    for (int32_t i = 0; i < g_collect_param.count; i++) {
        CollectClient_AppendInt(static_cast<uint32_t>(i));
        CollectClient_AppendString(g_collect_param.sections[i]->name);
    }
    if (CollectClient_Flush(0) == 0) return Collect_Abandon_();
    CollectClient_SetType(COLLECT_MSG_DATA);
    // count is read again on every turn: a callback may release or add sections.
    for (int32_t i = 0; i < g_collect_param.count; i++) {
        CollectSection *s = g_collect_param.sections[i];
        if (s->onCollect == nullptr) continue;
        Collect_LogSection_("%s [%s] begin...\n", s->name);
        s->onCollect(type);
        Collect_LogSection_("%s [%s] end\n", s->name);
        if (CollectClient_Flush(0) == 0) return Collect_Abandon_();
    }
    CollectClient_End();
    return 1;
}

int32_t Collect_Init(uint32_t identity) {
    int32_t sock = CollectClient_Init();
    if (sock < 0) return sock;
    if (g_collect_param.logger == nullptr) g_collect_param.logger = DTLogger_New(kLoggerFlags);
    const uint8_t id1 = static_cast<uint8_t>(identity >> 24);
    const uint8_t id2 = static_cast<uint8_t>(identity >> 16);
    for (;;) {
        uint32_t type = 0;
        char requester[32];
        uint8_t port4[4];
        int32_t sequence = CollectClient_WaitFor(sock, id1, id2, &type, requester, port4);
        if (sequence < 0) continue;
        if (!allowed_(requester)) {
            Collect_Log_(DTString_SFormat("request from %s dropped.", requester));
            continue;
        }
        uint32_t port = getBE32_(port4);
        if (type == 3) {
            Collect_SelfTest(requester, port, sequence, id1, id2);
        } else {
            Collect_Start(requester, port, type, sequence, id1, id2);
        }
    }
}

}  // extern "C"
