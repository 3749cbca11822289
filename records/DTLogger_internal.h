/* Layout of DTLogger, shared with the modules that read a logger's store
 * directly (fault save, collection agent). Not installed. */
#ifndef DTKIT_DTLOGGER_INTERNAL_H
#define DTKIT_DTLOGGER_INTERNAL_H

#include <stdint.h>

#include "records/DTInfo.h"
#include "records/DTLogger.h"

#define DTLOGGER_FILENAME_SIZE 500
#define DTLOGGER_UDPADDR_SIZE 20
#define DTLOGGER_HEADER_COUNT 100
#define DTLOGGER_HEADER_SIZE 50

#pragma pack(push, 4)
struct DTLogger {
    char fileName[DTLOGGER_FILENAME_SIZE];
    DTInfo *store; /* null until the first write */
    int32_t fd;    /* 0 = none */
    char udpAddr[DTLOGGER_UDPADDR_SIZE];
    int32_t udpPort;
    uint32_t flags;
    uint32_t ignore;
    uint32_t infoSize;
    char headers[DTLOGGER_HEADER_COUNT][DTLOGGER_HEADER_SIZE];
    int32_t headerTop; /* -1 = empty stack */
};
#pragma pack(pop)

#endif
