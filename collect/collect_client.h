/* Collection client: the device end of the collection protocol. A 16-byte
 * UDP request on port 9099, then a TCP connection back to the requester that
 * carries 12-byte-header messages, each acknowledged by the collector. */
#ifndef DTKIT_COLLECT_CLIENT_H
#define DTKIT_COLLECT_CLIENT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define COLLECT_REQUEST_PORT 9099
#define COLLECT_OWNER 100          /* owner id of everything the agent allocates */
#define COLLECT_REQUEST_SIZE 16
#define COLLECT_HEADER_SIZE 12
#define COLLECT_PAYLOAD_MAX 1024
#define COLLECT_PIECE_MAX (COLLECT_PAYLOAD_MAX - 15)

/* Message types. */
#define COLLECT_MSG_IDENTITY 0
#define COLLECT_MSG_SECTIONS 1
#define COLLECT_MSG_DATA 2

/* Record kinds; bit 0x80 marks the last (or only) piece of a value. */
#define COLLECT_KIND_INT 0x81
#define COLLECT_KIND_LONG 0x82
#define COLLECT_KIND_STRING 0x83
#define COLLECT_KIND_STRING_MORE 0x03
#define COLLECT_KIND_BUFFER 0x84
#define COLLECT_KIND_BUFFER_MORE 0x04
#define COLLECT_KIND_LAST 0x80

/* The request socket bound to INADDR_ANY:9099, or -1. */
int32_t CollectClient_Init(void);
/* Blocks for one datagram, prints "size=%ld\n" and returns its sequence (negative ones
 * included), or -1 when it is invalid. requester needs 16 bytes, port4 4 bytes.
 * Choice: null out-parameters make the call return -1 without receiving. */
int32_t CollectClient_WaitFor(int32_t sock, uint8_t spare1, uint8_t spare2, uint32_t *type,
                              char *requester, uint8_t *port4);
/* 1 connected (send buffer made or kept), 0 failed. Choice: a null address fails. */
int32_t CollectClient_Start(const char *address, uint32_t port);
void CollectClient_SetType(uint32_t type);
/* Raw appends for the identity and section list messages.
 * Choice: without a send buffer, or when the bytes would run past the 1024-byte payload,
 * an append writes nothing (never out of bounds); a null pointer writes nothing. */
void CollectClient_AppendBuffer(const void *data, uint32_t len);
void CollectClient_AppendInt(uint32_t value);
void CollectClient_AppendString(const char *text);
/* 1 sent and acknowledged (a closed connection counts), 0 failed or no send buffer.
 * Choice: a send that moves only part of the message is resumed until the whole message
 * is out or the socket reports an error, so the stream never loses its framing; sends
 * never raise SIGPIPE (a vanished collector is a "send error."). */
int32_t CollectClient_Flush(uint32_t sequence);
/* Record writers. Choice: without a send buffer they write nothing and the piece writers
 * return 0; a null data pointer with a positive length also writes nothing and returns 0. */
void CollectClient_CollectInt(uint32_t section, uint32_t block, uint32_t code, uint32_t value);
void CollectClient_CollectLong(uint32_t section, uint32_t block, uint32_t code, uint64_t value);
/* One string piece; data bytes taken, 0 for a negative len; len 0 = the text's length. */
int32_t CollectClient_CollectString(uint32_t section, uint32_t block, uint32_t code,
                                    const char *text, int32_t len);
/* One buffer piece; data bytes taken, 0 for len below 1. */
int32_t CollectClient_CollectBuffer(uint32_t section, uint32_t block, uint32_t code,
                                    const void *data, int32_t len);
/* Flushes, closes the connection and frees the send buffer; nothing without a buffer. */
void CollectClient_End(void);

#ifdef __cplusplus
}
#endif

#endif
