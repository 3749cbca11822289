#include "collect/collect_client.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "collect/collect_client_internal.h"
#include "foundation/DTMem.h"
#include "records/DTBuffer.h"

namespace {

const uint32_t kBufferSize = COLLECT_HEADER_SIZE + COLLECT_PAYLOAD_MAX;
const int32_t kRecordHead = 13;  // kind + section + block + code
const int32_t kPieceHead = 15;   // the same plus the 16-bit length
const int32_t kAckSize = 16;

uint8_t *l_buffer;
int32_t l_bufPos;
int32_t l_fd;
uint32_t l_ackTimeoutMs;

uint8_t *payload_() { return l_buffer + COLLECT_HEADER_SIZE; }
int32_t free_() { return COLLECT_PAYLOAD_MAX - l_bufPos; }

uint32_t getBE32_(const uint8_t *p) {
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | p[3];
}

void putBE32_(uint8_t *p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

// A receive error gives -1 bytes, which a cleared request's length of 0
// never equals.
bool validRequest_(const uint8_t *req, int32_t received) {
    return static_cast<int32_t>(getBE32_(req)) == received && getBE32_(req + 4) <= 3;
}

// Raw appends carry only the identity and the section list, which the
// registry bounds; anything past the payload is refused rather than cut, so
// the collector never sees half a section entry.
bool roomFor_(uint32_t len) {
    return l_buffer != nullptr && len <= static_cast<uint32_t>(free_());
}

void closeSocket_() {
    close(l_fd);
    l_fd = 0;
}

// A blocking stream socket returns short only when a signal interrupts it;
// carrying on keeps the collector's framing intact.
bool sendAll_(const uint8_t *p, uint32_t len) {
    while (len > 0) {
        ssize_t n = send(l_fd, p, len, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        len -= static_cast<uint32_t>(n);
    }
    return true;
}

void makeRoom_(int32_t need) {
    if (free_() <= need) CollectClient_Flush(0);
}

}  // namespace

extern "C" {

int32_t CollectClient_ParseRequest_(const uint8_t *req, int32_t received, uint32_t *type,
                                    uint8_t *port4) {
    if (req == nullptr || type == nullptr || port4 == nullptr) return -1;
    if (!validRequest_(req, received)) return -1;
    *type = getBE32_(req + 4);
    memcpy(port4, req + 12, 4);
    return static_cast<int32_t>(getBE32_(req + 8));
}

void CollectClient_SetAckTimeout_(uint32_t ms) { l_ackTimeoutMs = ms; }

int32_t CollectClient_Active_(void) { return l_buffer != nullptr; }

int32_t CollectClient_Init(void) {
    int32_t sock = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_port = htons(COLLECT_REQUEST_PORT);
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(sock, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        if (sock >= 0) close(sock);
        return -1;
    }
    return sock;
}

int32_t CollectClient_WaitFor(int32_t sock, uint8_t spare1, uint8_t spare2, uint32_t *type,
                              char *requester, uint8_t *port4) {
    if (sock < 0 || type == nullptr || requester == nullptr || port4 == nullptr) return -1;
    uint8_t req[COLLECT_REQUEST_SIZE];
    sockaddr_in from;
    memset(req, 0, sizeof req);
    memset(&from, 0, sizeof from);
    socklen_t fromLen = sizeof from;
    ssize_t n = recvfrom(sock, req, sizeof req, 0, reinterpret_cast<sockaddr *>(&from), &fromLen);
    printf("size=%ld\n", static_cast<long>(n));
    if (!validRequest_(req, static_cast<int32_t>(n))) return -1;
    int32_t sequence = CollectClient_ParseRequest_(req, static_cast<int32_t>(n), type, port4);
    const char *text = inet_ntoa(from.sin_addr);
    memset(requester, 0, 16);
    strncpy(requester, text, 15);
    return sequence;
}

int32_t CollectClient_Start(const char *address, uint32_t port) {
    if (address == nullptr) return 0;
    l_fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port & 0xFFFF));
    addr.sin_addr.s_addr = inet_addr(address);
    if (l_fd < 0 || connect(l_fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        puts("connect error.");
        if (l_fd >= 0) close(l_fd);
        l_fd = 0;
        return 0;
    }
    if (l_ackTimeoutMs != 0) {
        timeval tv;
        tv.tv_sec = static_cast<time_t>(l_ackTimeoutMs / 1000);
        tv.tv_usec = static_cast<suseconds_t>((l_ackTimeoutMs % 1000) * 1000);
        setsockopt(l_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }
    if (l_buffer != nullptr) return 1;
    l_buffer = static_cast<uint8_t *>(DTMem_Malloc(COLLECT_OWNER, kBufferSize));
    if (l_buffer == nullptr) {
        closeSocket_();
        return 0;
    }
    memset(l_buffer, 0, kBufferSize);
    l_bufPos = 0;
    return 1;
}

void CollectClient_SetType(uint32_t type) {
    if (l_buffer != nullptr) putBE32_(l_buffer + 4, type);
}

void CollectClient_AppendBuffer(const void *data, uint32_t len) {
    if (data == nullptr || !roomFor_(len)) return;
    memcpy(payload_() + l_bufPos, data, len);
    l_bufPos += static_cast<int32_t>(len);
}

void CollectClient_AppendInt(uint32_t value) {
    if (!roomFor_(4)) return;
    putBE32_(payload_() + l_bufPos, value);
    l_bufPos += 4;
}

void CollectClient_AppendString(const char *text) {
    if (text == nullptr) return;
    uint32_t len = static_cast<uint32_t>(strlen(text)) & 0xFFFF;
    if (!roomFor_(2 + len)) return;
    uint8_t *p = payload_() + l_bufPos;
    p[0] = static_cast<uint8_t>(len >> 8);
    p[1] = static_cast<uint8_t>(len);
    memcpy(p + 2, text, len);
    l_bufPos += static_cast<int32_t>(2 + len);
}

int32_t CollectClient_Flush(uint32_t sequence) {
    static uint32_t _sequence;
    if (l_buffer == nullptr) return 0;
    uint32_t length = static_cast<uint32_t>(l_bufPos) + COLLECT_HEADER_SIZE;
    putBE32_(l_buffer, length);
    putBE32_(l_buffer + 8, sequence != 0 ? sequence : ++_sequence);
    // Dropped before the send: a failed message is never sent twice.
    l_bufPos = 0;
    if (!sendAll_(l_buffer, length)) {
        puts("send error.");
        return 0;
    }
    uint8_t ack[kAckSize];  // only its arrival counts, never its bytes
    if (recv(l_fd, ack, sizeof ack, 0) < 0) {
        puts("recv error.");
        return 0;
    }
    return 1;
}

void CollectClient_CollectInt(uint32_t section, uint32_t block, uint32_t code, uint32_t value) {
    if (l_buffer == nullptr) return;
    makeRoom_(kRecordHead + 3);
    DTBuffer_Pack(payload_() + l_bufPos, "BIIII", COLLECT_KIND_INT, section, block, code, value);
    l_bufPos += kRecordHead + 4;
}

void CollectClient_CollectLong(uint32_t section, uint32_t block, uint32_t code, uint64_t value) {
    if (l_buffer == nullptr) return;
    makeRoom_(kRecordHead + 7);
    uint8_t *p = payload_() + l_bufPos;
    DTBuffer_Pack(p, "BIII", COLLECT_KIND_LONG, section, block, code);
    putBE32_(p + kRecordHead, static_cast<uint32_t>(value >> 32));
    putBE32_(p + kRecordHead + 4, static_cast<uint32_t>(value));
    l_bufPos += kRecordHead + 8;
}

int32_t CollectClient_CollectPiece_(uint8_t kind, uint32_t section, uint32_t block,
                                    uint32_t code, const void *data, int32_t len) {
    if (l_buffer == nullptr || len < 0 || (data == nullptr && len > 0)) return 0;
    makeRoom_(kPieceHead + 9);
    int32_t room = free_() - kPieceHead;
    int32_t take = len <= room ? len : room;
    uint8_t k = static_cast<uint8_t>(kind | (take == len ? COLLECT_KIND_LAST : 0));
    uint8_t *p = payload_() + l_bufPos;
    DTBuffer_Pack(p, "BIIIH", k, section, block, code, take);
    if (take > 0) memcpy(p + kPieceHead, data, static_cast<uint32_t>(take));
    l_bufPos += kPieceHead + take;
    return take;
}

int32_t CollectClient_CollectString(uint32_t section, uint32_t block, uint32_t code,
                                    const char *text, int32_t len) {
    if (len < 0 || text == nullptr) return 0;
    if (len == 0) len = static_cast<int32_t>(strlen(text));
    return CollectClient_CollectPiece_(COLLECT_KIND_STRING & 0x7F, section, block, code, text, len);
}

int32_t CollectClient_CollectBuffer(uint32_t section, uint32_t block, uint32_t code,
                                    const void *data, int32_t len) {
    if (len < 1) return 0;
    return CollectClient_CollectPiece_(COLLECT_KIND_BUFFER & 0x7F, section, block, code, data, len);
}

void CollectClient_End(void) {
    if (l_buffer == nullptr) return;
    CollectClient_Flush(0);
    closeSocket_();
    DTMem_Free(COLLECT_OWNER, l_buffer);
    l_buffer = nullptr;
    l_bufPos = 0;
}

}  // extern "C"
