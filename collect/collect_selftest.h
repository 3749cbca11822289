/* Self test: a type 3 request runs every section's self-test callback, each
 * section's output led by a record carrying its name. */
#ifndef DTKIT_COLLECT_SELFTEST_H
#define DTKIT_COLLECT_SELFTEST_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Section word of the name records. */
#define COLLECT_SELFTEST_SECTION 65535

/* 1 completed, 0 failed. Choice: a null requester fails (0). */
int32_t Collect_SelfTest(const char *requester, uint32_t port, int32_t sequence, uint8_t id1,
                         uint8_t id2);

#ifdef __cplusplus
}
#endif

#endif
