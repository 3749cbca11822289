#include "collect/collect_selftest.h"

#include "collect/collect_api.h"
#include "collect/collect_api_internal.h"

extern "C" {

int32_t Collect_SelfTest(const char *requester, uint32_t port, int32_t sequence, uint8_t id1,
                         uint8_t id2) {
    if (Collect_Open_(requester, port, sequence, id1, id2) == 0) return 0;
    CollectClient_SetType(COLLECT_MSG_DATA);
    for (int32_t i = 0; i < g_collect_param.count; i++) {
        CollectSection *s = g_collect_param.sections[i];
        if (s->onSelfTest == nullptr) continue;
        Collect_LogSection_("%s [%s] selftest begin...\n", s->name);
        // The payload is empty here and a name is at most 19 characters, so
        // the name record is always one whole piece.
        CollectClient_CollectString(COLLECT_SELFTEST_SECTION, 0, 0, s->name, 0);
        s->onSelfTest(0);
        Collect_LogSection_("%s [%s] selftest end\n", s->name);
        if (CollectClient_Flush(0) == 0) return Collect_Abandon_();
    }
    CollectClient_End();
    return 1;
}

}  // extern "C"
