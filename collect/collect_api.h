/* Collection agent: the section registry, the agent loop that serves
 * collection requests, and the agent's own log. */
#ifndef DTKIT_COLLECT_API_H
#define DTKIT_COLLECT_API_H

#include <stdint.h>

#include "../records/DTLogger.h"
#include "collect_client.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef void (*CollectFn)(uint32_t);

#define COLLECT_NAME_SIZE 20
#define COLLECT_SECTION_SLOTS 20
#define COLLECT_SECTION_MAX 19

/* Lives in 4-byte-aligned accounted memory, hence packed to 4. */
#pragma pack(push, 4)
typedef struct CollectSection {
    int32_t index;        /* slot in the registry, the section word of its records */
    CollectFn onCollect;  /* given the request type; may be null */
    CollectFn onSelfTest; /* given 0; may be null */
    uint32_t block;       /* set by Collect_BeginSection, 0 otherwise */
    char name[COLLECT_NAME_SIZE];
} CollectSection;

typedef struct CollectParam {
    DTLogger *logger; /* the agent's log; null until Collect_Init serves */
    CollectSection *sections[COLLECT_SECTION_SLOTS];
    int32_t count;
} CollectParam;
#pragma pack(pop)

extern CollectParam g_collect_param;

/* New section in the next slot (name cut to 19 characters), or null for a null or empty
 * name, 19 sections already registered, or no memory. */
CollectSection *Collect_New(const char *name, CollectFn onCollect, CollectFn onSelfTest);
/* Unregisters and frees; later sections move down one slot and are renumbered.
 * Choice: a section that is not in its registry slot (index out of range, or the slot holds
 * another section) is left alone: nothing moved, nothing freed. */
void Collect_Release(CollectSection *section);
/* Shows the agent's log on the console; always 0 (the show itself reports nothing). */
int32_t Collect_ShowLog(void);
/* Runs the agent loop for good; -1 only when the request socket cannot be made. */
int32_t Collect_Init(uint32_t identity);
/* Serves one collection: 1 completed, 0 failed. Choice: a null requester fails (0). */
int32_t Collect_Start(const char *requester, uint32_t port, uint32_t type, int32_t sequence,
                      uint8_t id1, uint8_t id2);

/* Protections, both off by default; set them before Collect_Init (not thread-safe). */
#define COLLECT_ALLOW_MAX 8
/* Serve only requests whose source lies in address/bits (up to 8 prefixes; none = serve
 * all); others are dropped with a line in the agent's log. 0, or -1 for a null or
 * unparsable address, bits above 32, or a full list (nothing added). */
int32_t Collect_AllowPrefix(const char *address, uint32_t bits);
/* Forgets every prefix: requests from any address are served again. */
void Collect_ClearAllow(void);
/* Abandon a collection when an acknowledgement takes longer than ms milliseconds, as after
 * a receive error; 0 (the default) waits for ever. Applies to connections made afterwards. */
void Collect_SetAckTimeout(uint32_t ms);

#ifdef __cplusplus
}
#endif

#endif
