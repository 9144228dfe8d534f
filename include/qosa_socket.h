/** @file
 * Sockets, resolver, descriptor sets, local addresses and port state.
 *
 * Pass-through wrappers: each calls the POSIX function of the same meaning
 * with its arguments unchanged and returns its result unchanged (32-bit
 * results keep the low 32 bits), with the reason of a failure in errno. A
 * guarded pointer argument that is null gives the value noted without
 * calling the platform and without touching errno. Descriptors are s32. */
#ifndef QOSA_SOCKET_H
#define QOSA_SOCKET_H

#include <netdb.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

/** @name Sockets */
/** @{ */
/** Sockets need no start-up on this platform. @return 1 */
QOSA_API s32 QOSA_InitSocket(void);
/** Does nothing. */
QOSA_API void QOSA_DInitSocket(void);

/** socket. @param domain AF_INET, AF_INET6, ... @param type SOCK_STREAM,
 * SOCK_DGRAM, ... @param protocol 0 or the protocol
 * @return the descriptor, closed with QOSA_CloseSocket; -1 with errno */
QOSA_API s32 QOSA_Socket(s32 domain, s32 type, s32 protocol);
/** close. @param fd the socket @return 0; -1 with errno */
QOSA_API s32 QOSA_CloseSocket(s32 fd);
/** bind. @param fd the socket @param addr the local address
 * @param len its length @return 0; -1 with errno, or for a null addr */
QOSA_API s32 QOSA_Bind(s32 fd, const struct sockaddr* addr, socklen_t len);
/** connect. @param fd the socket @param addr the peer's address
 * @param len its length @return 0; -1 with errno, or for a null addr */
QOSA_API s32 QOSA_Connect(s32 fd, const struct sockaddr* addr, socklen_t len);
/** listen. @param fd the socket @param backlog queued connections
 * @return 0; -1 with errno */
QOSA_API s32 QOSA_Listen(s32 fd, s32 backlog);
/** accept. Not guarded: addr and len may both be NULL.
 * @param fd the listening socket @param addr receives the peer's address
 * @param len its size in, its length out
 * @return the new socket's descriptor; -1 with errno */
QOSA_API s32 QOSA_Accept(s32 fd, struct sockaddr* addr, socklen_t* len);
/** @} */

/** @name Sending and receiving
 * Lengths are signed 32-bit and widened with their sign, so a negative length
 * reaches the platform as a huge one and is refused there. */
/** @{ */
/** send. @param fd the socket @param buf the bytes @param len how many
 * @param flags MSG_ flags @return bytes sent; -1 with errno, or for a null buf */
QOSA_API s32 QOSA_Send(s32 fd, const void* buf, s32 len, s32 flags);
/** recv. @param fd the socket @param buf receives the bytes
 * @param len its size @param flags MSG_ flags
 * @return bytes received, 0 when the peer closed; -1 with errno, or for a
 *         null buf */
QOSA_API s32 QOSA_Recv(s32 fd, void* buf, s32 len, s32 flags);
/** sendto. @param fd the socket @param buf the bytes @param len how many
 * @param flags MSG_ flags @param addr the destination, or NULL
 * @param addrLen its length @return bytes sent; -1 with errno; 0 for a null
 * buf */
QOSA_API s32 QOSA_Sendto(s32 fd, const void* buf, s32 len, s32 flags, const struct sockaddr* addr, socklen_t addrLen);
/** recvfrom. @param fd the socket @param buf receives the bytes
 * @param len its size @param flags MSG_ flags
 * @param addr receives the sender's address, or NULL
 * @param addrLen its size in, its length out, or NULL
 * @return bytes received; -1 with errno; 0 for a null buf */
QOSA_API s32 QOSA_Recvfrom(s32 fd, void* buf, s32 len, s32 flags, struct sockaddr* addr, socklen_t* addrLen);
/** select. The sets and the timeout may be NULL: QOSA_Select(0, NULL, NULL,
 * NULL, &t) just waits for t.
 * @param nfds the highest descriptor in the sets plus 1
 * @param readSet,writeSet,exceptSet the sets, changed to the ready ones
 * @param timeout the longest wait, or NULL for none
 * @return the number of ready descriptors, 0 on time-out; -1 with errno */
QOSA_API s32 QOSA_Select(s32 nfds, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, struct timeval* timeout);
/** @} */

/** @name Socket addresses and options */
/** @{ */
/** getsockname. @param fd the socket @param addr receives the local address
 * @param len its size in, its length out
 * @return 0; -1 with errno, or when addr or len is NULL */
QOSA_API s32 QOSA_GetSockName(s32 fd, struct sockaddr* addr, socklen_t* len);
/** getpeername. @param fd the socket @param addr receives the peer's address
 * @param len its size in, its length out
 * @return 0; -1 with errno, or when addr or len is NULL */
QOSA_API s32 QOSA_GetPeerName(s32 fd, struct sockaddr* addr, socklen_t* len);
/** getsockopt. @param fd the socket @param level SOL_SOCKET, IPPROTO_TCP, ...
 * @param name the option @param value receives it
 * @param len its size in, its length out
 * @return 0; -1 with errno, or when value or len is NULL */
QOSA_API s32 QOSA_GetSockOpt(s32 fd, s32 level, s32 name, void* value, socklen_t* len);
/** setsockopt. @param fd the socket @param level SOL_SOCKET, IPPROTO_TCP, ...
 * @param name the option @param value its value @param len its length
 * @return 0; -1 with errno, or for a null value */
QOSA_API s32 QOSA_SetSockOpt(s32 fd, s32 level, s32 name, const void* value, socklen_t len);
/** ioctl on a socket. Not guarded. @param fd the socket
 * @param request the request, taken as unsigned 32-bit @param arg its argument
 * @return the request's result; -1 with errno */
QOSA_API s32 QOSA_IoctlSocket(s32 fd, u32 request, void* arg);
/** @} */

/** @name Host names and addresses */
/** @{ */
/** gethostname. @param name receives the host name @param len size of name
 * @return 0; -1 with errno, or for a null name */
QOSA_API s32 QOSA_GetHostName(char* name, u32 len);
/** gethostbyname. @param name the host name
 * @return the resolver's shared static record, overwritten by the next lookup
 *         (from any thread); NULL when not found, or for a null or empty name */
QOSA_API struct hostent* QOSA_GetHostByName(const char* name);
/** A reentrant host lookup is not offered. @param name not read @return -1 */
QOSA_API s32 QOSA_GetHostByName_S(const char* name);
/** getaddrinfo. @param node the host, or NULL @param service the port or
 * service name, or NULL @param hints the wanted kinds, or NULL
 * @param list receives the results, released with QOSA_FreeAddrInfo
 * @return 0; getaddrinfo's non-zero code; -1 for a null list pointer and
 *         whenever *list is NULL after the lookup (so a caller that sets
 *         *list to NULL first sees every failure as -1) */
QOSA_API s32 QOSA_GetAddrInfo(const char* node, const char* service, const struct addrinfo* hints,
                              struct addrinfo** list);
/** freeaddrinfo. @param list a list of QOSA_GetAddrInfo; NULL does nothing */
QOSA_API void QOSA_FreeAddrInfo(struct addrinfo* list);
/** Leaves the list as it is. @param list a list of QOSA_GetAddrInfo */
QOSA_API void qosaAddrInfoSwapNameAndAddr(struct addrinfo* list);

/** IPv4 text to an address (inet_addr). @param text dotted IPv4 text
 * @return the address in network byte order; 0xFFFFFFFF (INADDR_NONE) for
 *         text that is not an address; 0 for NULL */
QOSA_API u32 QOSA_InetAddr(const char* text);
/** An IPv4 address as dotted text (inet_ntoa).
 * @param addr the address in network byte order
 * @return the C library's static buffer, overwritten by the next call (from
 *         any thread) */
QOSA_API char* QOSA_InetNtoa(u32 addr);
/** inet_pton. @param family AF_INET or AF_INET6 @param text the address text
 * @param out receives 4 or 16 bytes in network byte order
 * @return 1 converted; 0 not an address of the family (also for a null text
 *         or out); -1 unknown family */
QOSA_API s32 QOSA_Inet_Pton(s32 family, const char* text, void* out);
/** inet_ntop. @param family AF_INET or AF_INET6
 * @param addr 4 or 16 bytes in network byte order
 * @param text receives the text @param size size of text in bytes
 * @return text; NULL with errno, or when addr or text is NULL */
QOSA_API const char* QOSA_Inet_Ntop(s32 family, const void* addr, char* text, socklen_t size);
/** The platform's AF_INET6, for callers that do not include its headers.
 * @return AF_INET6 */
QOSA_API s32 ORV_Socket_Get_AF_INET6(void);

/** Connects to an IPv4 address and port given in host byte order. The
 * socket's own mode applies: blocking or not, no timeout is added.
 * @param fd the socket @param addr the IPv4 address, host byte order
 * @param port the port (low 16 bits), host byte order
 * @return connect's result: 0; -1 with errno */
QOSA_API s32 QOSA_ConnectAdd(s32 fd, u32 addr, u32 port);
/** Connects to an IPv4 or IPv6 address.
 * @param fd the socket
 * @param family AF_INET: addr points to a 4-byte IPv4 address in host byte
 *        order; any other family: addr points to a 16-byte IPv6 address in
 *        network byte order
 * @param addr the address @param port the port (low 16 bits), host byte order
 * @return connect's result: 0; -1 with errno, or for a null addr */
QOSA_API s32 QOSA_ConnectAdd6(s32 fd, s32 family, const void* addr, u32 port);
/** @} */

/** @name Descriptor sets
 * An fd_set holds descriptors 0 to 1023 as 32 unsigned 32-bit words:
 * descriptor d is bit (d mod 32) of word (d / 32). The operations never call
 * the platform; a null set, or a descriptor outside 0 to 1023, is ignored. */
/** @{ */
/** Empties a set. @param set the set */
QOSA_API void QOSA_FD_ZERO(fd_set* set);
/** Adds a descriptor. @param fd the descriptor @param set the set */
QOSA_API void QOSA_FD_SET(s32 fd, fd_set* set);
/** Removes a descriptor. @param fd the descriptor @param set the set */
QOSA_API void QOSA_FD_CLR(s32 fd, fd_set* set);
/** Tests a descriptor. @param fd the descriptor @param set the set
 * @return the word of fd masked to its bit: 1 << (fd mod 32) when fd is in
 *         the set, 0 when not (test it for non-zero) */
QOSA_API u32 QOSA_FD_ISSET(s32 fd, const fd_set* set);
/** @} */

/** @name Local addresses and port state */
/** @{ */
#define QOSA_PORT_UDP 1u /**< Protocol code of QOSA_PortStat: UDP (not SOCK_DGRAM). */
#define QOSA_PORT_TCP 2u /**< Protocol code of QOSA_PortStat: TCP (not SOCK_STREAM). */

/** Tests whether an interface that is up carries an IPv4 address. Only the
 * interfaces of the first 512 bytes of the kernel's list are seen.
 * @param addr the address in network byte order (as QOSA_InetAddr gives it)
 * @return 1 when it does; 0 otherwise and on any failure */
QOSA_API s32 QOSA_IsLocalIp(u32 addr);
/** Tests whether an interface that is up carries an address.
 * @param family AF_INET (addr: 4 bytes) or AF_INET6 (addr: 16 bytes)
 * @param addr the address in network byte order
 * @return 1 when it does; 0 otherwise, for any other family, a null addr or
 *         any failure */
QOSA_API s32 QOSA_IsLocalIp6(s32 family, const void* addr);
/** Tests whether some socket of a protocol has the port as its local port,
 * whatever its state, in the IPv4 table or else the IPv6 table of /proc/net.
 * @param port the port, host byte order (low 16 bits)
 * @param protocol QOSA_PORT_UDP or QOSA_PORT_TCP
 * @return 1 in use; 0 when neither table has it or neither can be read; -1
 *         when the low 16 bits of port are 0 or the protocol is unknown */
QOSA_API s32 QOSA_PortStat(u32 port, u32 protocol);
/** Looks for port as the local port of a socket in one /proc/net table (tcp,
 * tcp6, udp, udp6 layout). On a match prints
 * "LocalPort=<port>, usPort=<port>, state=<state>\r\n" to standard output.
 * @param path the table @param port the port, host byte order
 * @param state receives the kernel's state number (10 for a listener)
 * @return 0 on a match; -1 when no line matches, the table cannot be read,
 *         or path is empty or state NULL */
QOSA_API s32 qosaGet_Port_State(const char* path, u16 port, u32* state);
/** The kind of an address text. @param text the text
 * @return AF_INET for IPv4 text, AF_INET6 for IPv6 text; -1 for NULL or
 *         anything else */
QOSA_API s32 QOSA_TestIpType(const char* text);
/** Marks a descriptor close-on-exec. @param fd the descriptor
 * @return the result of the F_SETFD: 0; -1 with errno */
QOSA_API s32 orv_set_socketport_no_inherit(s32 fd);
/** @} */

QOSA_EXTERN_C_END

#endif /* QOSA_SOCKET_H */
