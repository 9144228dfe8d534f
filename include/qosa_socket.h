/* Sockets, resolver, descriptor sets, local addresses and port state. */
#ifndef QOSA_SOCKET_H
#define QOSA_SOCKET_H

#include <netdb.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

/* Pass-through wrappers: each calls the POSIX function of the same meaning
 * with its arguments unchanged and returns its result unchanged (32-bit
 * results keep the low 32 bits), with the reason of a failure in errno. A
 * guarded pointer argument that is null gives the value noted below without
 * calling the platform and without touching errno. Descriptors are s32. */

/* Always 1; sockets need no start-up on this platform. */
QOSA_API s32 QOSA_InitSocket(void);
/* Does nothing. */
QOSA_API void QOSA_DInitSocket(void);

QOSA_API s32 QOSA_Socket(s32 domain, s32 type, s32 protocol);
QOSA_API s32 QOSA_CloseSocket(s32 fd);
/* -1 for a null address. */
QOSA_API s32 QOSA_Bind(s32 fd, const struct sockaddr* addr, socklen_t len);
QOSA_API s32 QOSA_Connect(s32 fd, const struct sockaddr* addr, socklen_t len);
QOSA_API s32 QOSA_Listen(s32 fd, s32 backlog);
/* Not guarded: addr and len may both be null. */
QOSA_API s32 QOSA_Accept(s32 fd, struct sockaddr* addr, socklen_t* len);

/* Lengths are signed 32-bit and widened with their sign, so a negative length
 * reaches the platform as a huge one and is refused there. QOSA_Send and
 * QOSA_Recv give -1 for a null buffer; QOSA_Sendto and QOSA_Recvfrom give 0. */
QOSA_API s32 QOSA_Send(s32 fd, const void* buf, s32 len, s32 flags);
QOSA_API s32 QOSA_Recv(s32 fd, void* buf, s32 len, s32 flags);
QOSA_API s32 QOSA_Sendto(s32 fd, const void* buf, s32 len, s32 flags, const struct sockaddr* addr, socklen_t addrLen);
QOSA_API s32 QOSA_Recvfrom(s32 fd, void* buf, s32 len, s32 flags, struct sockaddr* addr, socklen_t* addrLen);

/* The sets and the timeout may be null: QOSA_Select(0, NULL, NULL, NULL, &t)
 * just waits for t. */
QOSA_API s32 QOSA_Select(s32 nfds, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, struct timeval* timeout);

/* -1 when addr or len is null. */
QOSA_API s32 QOSA_GetSockName(s32 fd, struct sockaddr* addr, socklen_t* len);
QOSA_API s32 QOSA_GetPeerName(s32 fd, struct sockaddr* addr, socklen_t* len);
/* -1 when value (or, for the get, len) is null. */
QOSA_API s32 QOSA_GetSockOpt(s32 fd, s32 level, s32 name, void* value, socklen_t* len);
QOSA_API s32 QOSA_SetSockOpt(s32 fd, s32 level, s32 name, const void* value, socklen_t len);
/* The request is taken as unsigned 32-bit. Not guarded. */
QOSA_API s32 QOSA_IoctlSocket(s32 fd, u32 request, void* arg);

/* ---- host names and addresses ---- */

/* -1 for a null buffer. */
QOSA_API s32 QOSA_GetHostName(char* name, u32 len);
/* NULL for a null or empty name. The record is the resolver's shared static
 * one: the next lookup (from any thread) overwrites it. */
QOSA_API struct hostent* QOSA_GetHostByName(const char* name);
/* Always -1: a reentrant host lookup is not offered. */
QOSA_API s32 QOSA_GetHostByName_S(const char* name);
/* -1 for a null list pointer, and -1 whenever *list is null after the lookup
 * (so a caller that sets *list to NULL first sees every failure as -1);
 * otherwise getaddrinfo's result. Release the list with QOSA_FreeAddrInfo. */
QOSA_API s32 QOSA_GetAddrInfo(const char* node, const char* service, const struct addrinfo* hints,
                              struct addrinfo** list);
/* Does nothing for a null list. */
QOSA_API void QOSA_FreeAddrInfo(struct addrinfo* list);
/* Leaves the list as it is. */
QOSA_API void qosaAddrInfoSwapNameAndAddr(struct addrinfo* list);

/* IPv4 text to an address in network byte order; 0 for null text,
 * 0xFFFFFFFF (INADDR_NONE) for text that is not an address. */
QOSA_API u32 QOSA_InetAddr(const char* text);
/* addr in network byte order. The text is the C library's static buffer,
 * overwritten by the next call (from any thread). */
QOSA_API char* QOSA_InetNtoa(u32 addr);
/* 1 converted, 0 not an address of the family (also for null text or out),
 * -1 unknown family. */
QOSA_API s32 QOSA_Inet_Pton(s32 family, const char* text, void* out);
/* text, or NULL (null addr or text, or the platform failed). */
QOSA_API const char* QOSA_Inet_Ntop(s32 family, const void* addr, char* text, socklen_t size);
/* The platform's AF_INET6, for callers that do not include its headers. */
QOSA_API s32 ORV_Socket_Get_AF_INET6(void);

/* Connects fd to an IPv4 address and port given in host byte order (the low
 * 16 bits of port are used). The socket's own mode applies: blocking or not,
 * no timeout is added. connect's result, or -1. */
QOSA_API s32 QOSA_ConnectAdd(s32 fd, u32 addr, u32 port);
/* family AF_INET: addr points to a 4-byte IPv4 address in host byte order.
 * Any other family: addr points to a 16-byte IPv6 address in network byte
 * order. -1 for a null addr; otherwise connect's result. */
QOSA_API s32 QOSA_ConnectAdd6(s32 fd, s32 family, const void* addr, u32 port);

/* ---- descriptor sets ----
 * An fd_set holds descriptors 0 to 1023 as 32 unsigned 32-bit words:
 * descriptor d is bit (d mod 32) of word (d / 32). The operations never call
 * the platform; a null set, or a descriptor outside 0 to 1023, is ignored
 * (QOSA_FD_ISSET gives 0). */
QOSA_API void QOSA_FD_ZERO(fd_set* set);
QOSA_API void QOSA_FD_SET(s32 fd, fd_set* set);
QOSA_API void QOSA_FD_CLR(s32 fd, fd_set* set);
/* The word of fd masked to its bit: 1 << (fd mod 32) when fd is in the set,
 * 0 when not. Test it for nonzero. */
QOSA_API u32 QOSA_FD_ISSET(s32 fd, const fd_set* set);

/* ---- local addresses and port state ---- */

/* Protocol codes of QOSA_PortStat (not the SOCK_ constants). */
#define QOSA_PORT_UDP 1u
#define QOSA_PORT_TCP 2u

/* 1 when an IPv4 address (network byte order, as QOSA_InetAddr gives it) is
 * carried by an interface that is up, 0 otherwise and on any failure. Only
 * the interfaces of the first 512 bytes of the kernel's list are seen. */
QOSA_API s32 QOSA_IsLocalIp(u32 addr);
/* family AF_INET (addr: 4 bytes) or AF_INET6 (addr: 16 bytes), network byte
 * order. 1 when an interface that is up carries the address in that family;
 * 0 otherwise, for any other family, a null addr or any failure. */
QOSA_API s32 QOSA_IsLocalIp6(s32 family, const void* addr);
/* 1 when some socket of the protocol (QOSA_PORT_UDP / QOSA_PORT_TCP) has the
 * port as its local port, whatever its state, in the IPv4 table or else the
 * IPv6 table of /proc/net; 0 when neither has it or neither can be read; -1
 * when the low 16 bits of port are 0 or the protocol is unknown. */
QOSA_API s32 QOSA_PortStat(u32 port, u32 protocol);
/* Looks for port as the local port of a socket in one /proc/net table
 * (tcp, tcp6, udp, udp6 layout). On a match prints
 * "LocalPort=<port>, usPort=<port>, state=<state>\r\n", stores the kernel's
 * state number (10 for a listener) in *state and returns 0; -1 when no line
 * matches, the table cannot be read, or path is empty or state null. */
QOSA_API s32 qosaGet_Port_State(const char* path, u16 port, u32* state);
/* AF_INET for IPv4 text, AF_INET6 for IPv6 text, -1 for null text or
 * anything else. */
QOSA_API s32 QOSA_TestIpType(const char* text);
/* Marks fd close-on-exec. The result of the F_SETFD (0, or -1 with errno). */
QOSA_API s32 orv_set_socketport_no_inherit(s32 fd);

QOSA_EXTERN_C_END

#endif /* QOSA_SOCKET_H */
