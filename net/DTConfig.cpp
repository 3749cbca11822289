#include "net/DTConfig.h"

#include <stdlib.h>
#include <string.h>

#include "net/DTConfig_internal.h"
#include "net/DTSock.h"
#include "platform/DTPlatform.h"

namespace {

const int32_t kLocalPort = 8998;
const int32_t kWaitMs = 1000;
// One byte of the buffer is kept for the terminator that follows the reply.
const int32_t kReplyMax = DTCONFIG_BUFFER_SIZE - 1;

int32_t _fd = -1;
uint32_t _has_send = 0;
char _svrAddr[20] = DTSOCK_BROADCAST;
int32_t _svrPort = 8999;
char _buffer[DTCONFIG_BUFFER_SIZE];

const char *Text_(const char *s) { return s ? s : ""; }

// Appends s at *at; false (nothing more written) when it would not leave room
// for the terminator.
bool Append_(int32_t *at, const char *s) {
    size_t n = strlen(s);
    if (n > static_cast<size_t>(kReplyMax - *at)) return false;
    memcpy(_buffer + *at, s, n);
    *at += static_cast<int32_t>(n);
    return true;
}

// The request's length, or -1 when it does not fit the buffer.
int32_t BuildRequest_(const char *section, const char *key, const char *defaultText) {
    int32_t at = 0;
    bool ok = Append_(&at, "=>config ") && Append_(&at, section) && Append_(&at, " ") &&
              Append_(&at, key) && Append_(&at, " ") && Append_(&at, defaultText);
    if (!ok) return -1;
    _buffer[at] = 0;
    return at;
}

bool Fits_(const char *section, const char *key, const char *defaultText) {
    size_t total = strlen("=>config ") + strlen(section) + 1 + strlen(key) + 1 + strlen(defaultText);
    return total <= static_cast<size_t>(kReplyMax);
}

int32_t DTConfig_Get(const char *section, const char *key, const char *defaultText) {
    // Checked before the state moves, so an oversized first request does not
    // cost the process its one broadcast.
    if (!Fits_(section, key, defaultText)) return -1;
    if (!_has_send) {
        if (_fd < 0) {
            _fd = DTSock_UDP_Create("0.0.0.0", kLocalPort);
            _has_send = 1;
        }
        if (_fd < 0) return -1;
    } else {
        if (_fd < 0) return -1;
        if (strcmp(_svrAddr, DTSOCK_BROADCAST) == 0) return -1;
    }
    int32_t len = BuildRequest_(section, key, defaultText);
    if (len < 0) return -1;
    return DTSock_UDP_GetMessage(_fd, _svrAddr, &_svrPort, _buffer, len, kReplyMax, kWaitMs);
}

}  // namespace

extern "C" {

int32_t DTConfig_IntFromReply_(int32_t result, const char *reply, int32_t defaultValue) {
    if (result <= 0 || !reply) return defaultValue;
    long long v = strtoll(reply, nullptr, 0);
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<unsigned long long>(v)));
}

int32_t DTConfig_TextFromReply_(int32_t result, const char *reply, const char *defaultText,
                                char *out) {
    if (!out) return 1;
    const char *from = result > 0 && reply ? reply : Text_(defaultText);
    memcpy(out, from, strlen(from) + 1);
    return 1;
}

int32_t DTConfig_GetString(const char *section, const char *key, const char *defaultText,
                           char *out) {
    int32_t result = DTConfig_Get(Text_(section), Text_(key), Text_(defaultText));
    return DTConfig_TextFromReply_(result, _buffer, defaultText, out);
}

int32_t DTConfig_GetInt(const char *section, const char *key, int32_t defaultValue) {
    char text[100] = "";
    Lumo_snprintf(text, sizeof text, "%d", static_cast<int>(defaultValue));
    text[sizeof text - 1] = 0;  // whatever the host's formatter did
    int32_t result = DTConfig_Get(Text_(section), Text_(key), text);
    return DTConfig_IntFromReply_(result, _buffer, defaultValue);
}

uint32_t DTConfig_GetUInt(const char *section, const char *key, uint32_t defaultValue) {
    return static_cast<uint32_t>(DTConfig_GetInt(section, key, static_cast<int32_t>(defaultValue)));
}

}  // extern "C"
