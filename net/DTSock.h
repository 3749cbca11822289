/* dtkit UDP helpers: IPv4 datagram sockets for request and reply, with a
 * word for the local broadcast. Sockets are plain descriptors owned by the
 * caller; the layer keeps no state. */
#ifndef DTKIT_DTSOCK_H
#define DTKIT_DTSOCK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The destination word that stands for 255.255.255.255. */
#define DTSOCK_BROADCAST "<BROADCAST>"

/* New datagram socket, bound to addr:port when addr is not null and port > 0;
 * -1 when that bind fails (the socket is closed first). */
int32_t DTSock_UDP_Create(const char *addr, int32_t port);
/* 0 for a null addr; -1 for null data, data starting with a zero byte or a
 * negative port (choice: or a negative len); otherwise the sendto result. Switches SO_BROADCAST on for
 * "<BROADCAST>" and off for any other address, on every call. */
int32_t DTSock_UDP_SendMessage(int32_t sock, const char *addr, int32_t port, const void *data,
                               int32_t len);
/* Blocks for one datagram of at most size bytes; buf needs size + 1 bytes,
 * fromAddr 16. -1 on failure, leaving the outputs alone.
 * Choice: a null buf gives -1 without receiving; a null fromAddr or fromPort
 * is not written; a negative size is taken as 0. */
int32_t DTSock_UDP_RecvMessage(int32_t sock, char *fromAddr, int32_t *fromPort, void *buf,
                               int32_t size);
/* Sends data to addr:*port, waits up to timeoutMs (-1 = no limit, other
 * negatives = no wait) and takes the reply into data, the replier into addr
 * and *port. A negative send result comes back as is; 0 for no reply in time.
 * Choice: a descriptor of 1024 or more does not fit the wait's set: the request
 * is sent and 0 comes back, as for a failed wait. A null addr, port or data
 * sends nothing and gives 0. */
int32_t DTSock_UDP_GetMessage(int32_t sock, char *addr, int32_t *port, void *data, int32_t len,
                              int32_t size, int32_t timeoutMs);
/* Closes sock when it is 0 or more. */
void DTSock_UDP_Close(int32_t sock);

#ifdef __cplusplus
}
#endif

#endif
