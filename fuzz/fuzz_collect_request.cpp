// Request datagrams as they arrive on port 9099: whatever the bytes, the
// validation reads at most 16 of them and accepts only what the agent can serve.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "collect/collect_client_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // The receive reads at most 16 bytes into a cleared area and reports that count.
    uint8_t req[COLLECT_REQUEST_SIZE];
    memset(req, 0, sizeof req);
    size_t n = size < sizeof req ? size : sizeof req;
    memcpy(req, data, n);
    uint32_t type = 0xDEADBEEF;
    uint8_t port4[4] = {0xA5, 0xA5, 0xA5, 0xA5};
    int32_t seq = CollectClient_ParseRequest_(req, static_cast<int32_t>(n), &type, port4);
    const uint32_t length = (uint32_t(req[0]) << 24) | (uint32_t(req[1]) << 16) |
                            (uint32_t(req[2]) << 8) | req[3];
    const bool lengthOk = length == n;
    if (!lengthOk && seq != -1) __builtin_trap();
    if (type != 0xDEADBEEF) {
        if (!lengthOk || type > 3) __builtin_trap();
        if (memcmp(port4, req + 12, 4) != 0) __builtin_trap();
    } else if (port4[0] != 0xA5) {
        __builtin_trap();  // a refused request must leave the out-parameters alone
    }
    // A receive error (-1 bytes) must never pass, whatever the area holds.
    type = 0xDEADBEEF;
    CollectClient_ParseRequest_(req, -1, &type, port4);
    if (type != 0xDEADBEEF && length != 0xFFFFFFFFu) __builtin_trap();
    return 0;
}
