// Sockets: the pass-through wrappers over sockets and the resolver, address
// texts, descriptor sets, and the local-address and port-state tests.
#define QOSA_UNIT_NAME "os_socket.c"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "internal/common.h"
#include "qosa_socket.h"

// The descriptor-set operations address an fd_set as 32 words of 32 bits.
static_assert(FD_SETSIZE == 1024 && sizeof(fd_set) == 128, "descriptor set of 1024 bits in 128 bytes");
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "fd_set words of 32 bits line up with the platform's");
static_assert(sizeof(sockaddr_in) == 16 && sizeof(sockaddr_in6) == 28, "connect lengths of the two families");
static_assert(AF_INET == 2);

namespace {

typedef u32 __attribute__((may_alias)) Word;
constexpr u32 kSetBits = 1024;

bool in_set_range(s32 fd) { return static_cast<u32>(fd) < kSetBits; }
Word& word_of(fd_set* set, s32 fd) { return reinterpret_cast<Word*>(set)[static_cast<u32>(fd) / 32]; }
const Word& word_of(const fd_set* set, s32 fd) { return reinterpret_cast<const Word*>(set)[static_cast<u32>(fd) / 32]; }
u32 bit_of(s32 fd) { return 1u << (static_cast<u32>(fd) % 32); }

// Signed lengths reach the platform widened with their sign.
constexpr size_t widen(s32 len) { return static_cast<size_t>(static_cast<ssize_t>(len)); }

const sockaddr* as_sockaddr(const void* sa) { return static_cast<const sockaddr*>(sa); }

s32 get_addr_info(const char* node, const char* service, const addrinfo* hints, addrinfo** list) {
    int r = getaddrinfo(node, service, hints, list);
    return *list == nullptr ? -1 : r;
}

char* inet_ntoa_of(u32 addr) {
    in_addr a;
    if (memcpy_s(&a, sizeof a, &addr, sizeof addr) != 0) return nullptr; // GCOVR_EXCL_BR_LINE: fixed sizes
    return inet_ntoa(a);
}

// Fills and copies of fixed sizes between local records do not fail: their
// branches are left out of the coverage figures.
s32 connect_v4(s32 fd, u32 hostAddr, u32 port) {
    sockaddr_in sa;
    // GCOVR_EXCL_BR_START: fixed sizes
    if (memset_s(&sa, sizeof sa, 0, sizeof sa) != 0) return -1;
    sa.sin_family = AF_INET;
    u16 netPort = htons(static_cast<u16>(port));
    u32 netAddr = htonl(hostAddr);
    if (memcpy_s(&sa.sin_port, sizeof sa.sin_port, &netPort, sizeof netPort) != 0) return -1;
    if (memcpy_s(&sa.sin_addr, sizeof sa.sin_addr, &netAddr, sizeof netAddr) != 0) return -1;
    // GCOVR_EXCL_BR_STOP
    return connect(fd, as_sockaddr(&sa), sizeof sa);
}

s32 connect_v6(s32 fd, const void* addr, u32 port) {
    sockaddr_in6 sa;
    if (memset_s(&sa, sizeof sa, 0, sizeof sa) != 0) return -1; // GCOVR_EXCL_BR_LINE: fixed sizes
    sa.sin6_family = AF_INET6;
    sa.sin6_port = htons(static_cast<u16>(port));
    if (memcpy_s(&sa.sin6_addr, sizeof sa.sin6_addr, addr, sizeof sa.sin6_addr) != 0) return -1;
    return connect(fd, as_sockaddr(&sa), sizeof sa);
}

} // namespace

extern "C" {

s32 QOSA_InitSocket(void) { return 1; }
void QOSA_DInitSocket(void) {}

// ---- sockets ----

s32 QOSA_Socket(s32 domain, s32 type, s32 protocol) { return socket(domain, type, protocol); }
s32 QOSA_CloseSocket(s32 fd) { return close(fd); }
s32 QOSA_Bind(s32 fd, const struct sockaddr* addr, socklen_t len) {
    return guarded(-1, need(addr), [=] { return bind(fd, addr, len); });
}
s32 QOSA_Connect(s32 fd, const struct sockaddr* addr, socklen_t len) {
    return guarded(-1, need(addr), [=] { return connect(fd, addr, len); });
}
s32 QOSA_Listen(s32 fd, s32 backlog) { return listen(fd, backlog); }
s32 QOSA_Accept(s32 fd, struct sockaddr* addr, socklen_t* len) { return accept(fd, addr, len); }

s32 QOSA_Send(s32 fd, const void* buf, s32 len, s32 flags) {
    return guarded<s32>(-1, need(buf), [=] { return send(fd, buf, widen(len), flags); });
}
s32 QOSA_Recv(s32 fd, void* buf, s32 len, s32 flags) {
    return guarded<s32>(-1, need(buf), [=] { return recv(fd, buf, widen(len), flags); });
}
s32 QOSA_Sendto(s32 fd, const void* buf, s32 len, s32 flags, const struct sockaddr* addr, socklen_t addrLen) {
    return guarded<s32>(0, need(buf), [=] { return sendto(fd, buf, widen(len), flags, addr, addrLen); });
}
s32 QOSA_Recvfrom(s32 fd, void* buf, s32 len, s32 flags, struct sockaddr* addr, socklen_t* addrLen) {
    return guarded<s32>(0, need(buf), [=] { return recvfrom(fd, buf, widen(len), flags, addr, addrLen); });
}

s32 QOSA_Select(s32 nfds, fd_set* readSet, fd_set* writeSet, fd_set* exceptSet, struct timeval* timeout) {
    return select(nfds, readSet, writeSet, exceptSet, timeout);
}

s32 QOSA_GetSockName(s32 fd, struct sockaddr* addr, socklen_t* len) {
    return guarded(-1, need(addr, len), [=] { return getsockname(fd, addr, len); });
}
s32 QOSA_GetPeerName(s32 fd, struct sockaddr* addr, socklen_t* len) {
    return guarded(-1, need(addr, len), [=] { return getpeername(fd, addr, len); });
}
s32 QOSA_GetSockOpt(s32 fd, s32 level, s32 name, void* value, socklen_t* len) {
    return guarded(-1, need(value, len), [=] { return getsockopt(fd, level, name, value, len); });
}
s32 QOSA_SetSockOpt(s32 fd, s32 level, s32 name, const void* value, socklen_t len) {
    return guarded(-1, need(value), [=] { return setsockopt(fd, level, name, value, len); });
}
s32 QOSA_IoctlSocket(s32 fd, u32 request, void* arg) { return ioctl(fd, static_cast<unsigned long>(request), arg); }

// ---- host names and addresses ----

s32 QOSA_GetHostName(char* name, u32 len) {
    return guarded(-1, need(name), [=] { return gethostname(name, len); });
}
struct hostent* QOSA_GetHostByName(const char* name) {
    return guarded<struct hostent*>(nullptr, need(as_path(name)), [=] { return gethostbyname(name); });
}
s32 QOSA_GetHostByName_S(const char*) { return -1; }
s32 QOSA_GetAddrInfo(const char* node, const char* service, const struct addrinfo* hints, struct addrinfo** list) {
    return guarded(-1, need(list), [=] { return get_addr_info(node, service, hints, list); });
}
void QOSA_FreeAddrInfo(struct addrinfo* list) {
    guarded(nothing, need(list), [=] { freeaddrinfo(list); });
}
void qosaAddrInfoSwapNameAndAddr(struct addrinfo*) {}

u32 QOSA_InetAddr(const char* text) {
    return guarded<u32>(0, need(text), [=] { return inet_addr(text); });
}
char* QOSA_InetNtoa(u32 addr) { return inet_ntoa_of(addr); }
s32 QOSA_Inet_Pton(s32 family, const char* text, void* out) {
    return guarded(0, need(text, out), [=] { return inet_pton(family, text, out); });
}
const char* QOSA_Inet_Ntop(s32 family, const void* addr, char* text, socklen_t size) {
    return guarded<const char*>(nullptr, need(addr, text), [=] { return inet_ntop(family, addr, text, size); });
}
s32 ORV_Socket_Get_AF_INET6(void) { return AF_INET6; }

s32 QOSA_ConnectAdd(s32 fd, u32 addr, u32 port) { return connect_v4(fd, addr, port); }

// ---- descriptor sets ----

void QOSA_FD_ZERO(fd_set* set) {
    guarded(nothing, need(set), [=] { memset_s(set, sizeof *set, 0, sizeof *set); });
}
void QOSA_FD_SET(s32 fd, fd_set* set) {
    if (set != nullptr && in_set_range(fd)) word_of(set, fd) |= bit_of(fd);
}
void QOSA_FD_CLR(s32 fd, fd_set* set) {
    if (set != nullptr && in_set_range(fd)) word_of(set, fd) &= ~bit_of(fd);
}
u32 QOSA_FD_ISSET(s32 fd, const fd_set* set) {
    if (set == nullptr || !in_set_range(fd)) return 0;
    return word_of(set, fd) & bit_of(fd);
}
}
extern "C" s32 QOSA_ConnectAdd6(s32 fd, s32 family, const void* addr, u32 port) {
    if (family != AF_INET) return connect_v6(fd, addr, port);
    // The IPv4 address comes in host order; a null addr fails this copy.
    u32 hostAddr;
    if (memcpy_s(&hostAddr, sizeof hostAddr, addr, sizeof hostAddr) != 0) return -1;
    return connect_v4(fd, hostAddr, port);
}

// =============================================================================
// Local addresses and port state
// =============================================================================

namespace {

constexpr std::size_t kIfConfBytes = 512;
constexpr int kTableLine = 8192;
constexpr std::size_t kAddrText = 65;
constexpr std::size_t kRestText = 513;
constexpr int kTableFields = 15;

// Closes a descriptor at the end of a scope.
class FdCloser {
  public:
    explicit FdCloser(int fd) : fd_(fd) {}
    ~FdCloser() {
        if (fd_ >= 0) close(fd_);
    }
    FdCloser(const FdCloser&) = delete;
    FdCloser& operator=(const FdCloser&) = delete;

  private:
    int fd_;
};

// One record of the SIOCGIFCONF list: 0 not carrying addr (or not up), 1
// up and carrying it, -1 when its flags cannot be read. SIOCGIFFLAGS writes
// the flags over the record, so its address is taken first.
int record_matches(int fd, const char* list, int index, u32 addr) {
    ifreq rec;
    sockaddr_in sa;
    // GCOVR_EXCL_BR_START: fixed sizes
    if (memcpy_s(&rec, sizeof rec, list + static_cast<std::size_t>(index) * sizeof rec, sizeof rec) != 0) return -1;
    if (memcpy_s(&sa, sizeof sa, &rec.ifr_addr, sizeof sa) != 0) return -1;
    // GCOVR_EXCL_BR_STOP
    if (ioctl(fd, SIOCGIFFLAGS, &rec) != 0) return -1;
    return (rec.ifr_flags & IFF_UP) != 0 && sa.sin_addr.s_addr == addr ? 1 : 0;
}

// The address of an interface entry in the family asked for, if it has one.
const void* address_in_family(const ifaddrs& ifa, int family) {
    if ((ifa.ifa_flags & IFF_UP) == 0 || ifa.ifa_addr == nullptr || ifa.ifa_addr->sa_family != family) return nullptr;
    if (family == AF_INET6) return &reinterpret_cast<const sockaddr_in6*>(ifa.ifa_addr)->sin6_addr;
    return &reinterpret_cast<const sockaddr_in*>(ifa.ifa_addr)->sin_addr;
}

// The local port of one socket line of a /proc/net table, 0 when the line
// does not parse.
u32 local_port_of(const char* line, char* localAddr, char* remoteAddr, char* rest, u32* state) {
    int slot = 0, uid = 0, timeout = 0;
    unsigned int localPort = 0, remotePort = 0, st = 0, timerKind = 0;
    unsigned long txQueue = 0, rxQueue = 0, timerExpiry = 0, retransmits = 0, inode = 0;
    int n = sscanf_s(line, "%d: %64[0-9A-Fa-f]:%x %64[0-9A-Fa-f]:%x %x %lx:%lx %x:%lx %lx %d %d %lu %512s\n", &slot,
                     localAddr, kAddrText, &localPort, remoteAddr, kAddrText, &remotePort, &st, &txQueue, &rxQueue,
                     &timerKind, &timerExpiry, &retransmits, &uid, &timeout, &inode, rest, kRestText);
    if (n < kTableFields) return 0;
    *state = st;
    return localPort;
}

// The state of the first socket on port in a /proc/net table (0), or -1.
s32 port_state(const char* path, u16 port, u32* state) {
    if (qosa::str_len(path) == 0 || state == nullptr) return -1;
    // Close-on-exec, so a program started by another thread meanwhile does
    // not inherit the table.
    FILE* table = std::fopen(path, "re");
    if (table == nullptr) return -1;
    char line[kTableLine];
    char localAddr[kAddrText], remoteAddr[kAddrText], rest[kRestText];
    s32 ret = -1;
    for (bool header = true; std::fgets(line, sizeof line, table) != nullptr; header = false) {
        memset_s(localAddr, sizeof localAddr, 0, sizeof localAddr);
        memset_s(remoteAddr, sizeof remoteAddr, 0, sizeof remoteAddr);
        memset_s(rest, sizeof rest, 0, sizeof rest);
        if (header) continue;
        u32 lineState = 0;
        u32 localPort = local_port_of(line, localAddr, remoteAddr, rest, &lineState);
        // A line that does not parse counts as port 0 and never matches.
        if (localPort == 0 || localPort != port) continue;
        std::printf("LocalPort=%d, usPort=%d, state=%d\r\n", static_cast<int>(port), static_cast<int>(port),
                    static_cast<int>(lineState));
        *state = lineState;
        ret = 0;
        break;
    }
    std::fclose(table);
    return ret;
}

} // namespace

extern "C" {

s32 QOSA_IsLocalIp(u32 addr) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return 0;
    FdCloser closer(fd);

    alignas(ifreq) char list[kIfConfBytes];
    ifconf conf;
    conf.ifc_len = static_cast<int>(sizeof list);
    conf.ifc_buf = list;
    if (ioctl(fd, SIOCGIFCONF, &conf) != 0) return 0;
    // The records are walked from the last back to the first.
    for (int i = conf.ifc_len / static_cast<int>(sizeof(ifreq)) - 1; i >= 0; --i) {
        int m = record_matches(fd, list, i, addr);
        if (m != 0) return m > 0 ? 1 : 0;
    }
    return 0;
}

s32 QOSA_IsLocalIp6(s32 family, const void* addr) {
    if (addr == nullptr || (family != AF_INET && family != AF_INET6)) return 0;
    const std::size_t size = family == AF_INET6 ? sizeof(in6_addr) : sizeof(in_addr);
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0 || list == nullptr) return 0;
    s32 found = 0;
    for (const ifaddrs* p = list; p != nullptr && found == 0; p = p->ifa_next) {
        const void* own = address_in_family(*p, family);
        if (own != nullptr && std::memcmp(own, addr, size) == 0) found = 1;
    }
    freeifaddrs(list);
    return found;
}

s32 qosaGet_Port_State(const char* path, u16 port, u32* state) { return port_state(path, port, state); }

s32 QOSA_PortStat(u32 port, u32 protocol) {
    const u16 p = static_cast<u16>(port);
    if (p == 0) return -1;
    const char* v4 = nullptr;
    const char* v6 = nullptr;
    if (protocol == QOSA_PORT_TCP) {
        v4 = "/proc/net/tcp";
        v6 = "/proc/net/tcp6";
    } else if (protocol == QOSA_PORT_UDP) {
        v4 = "/proc/net/udp";
        v6 = "/proc/net/udp6";
    } else {
        return -1;
    }
    u32 state = 0;
    return port_state(v4, p, &state) == 0 || port_state(v6, p, &state) == 0 ? 1 : 0;
}

s32 QOSA_TestIpType(const char* text) {
    unsigned char scratch[16];
    memset_s(scratch, sizeof scratch, 0, sizeof scratch);
    if (text == nullptr) return -1;
    if (inet_pton(AF_INET, text, scratch) > 0) return AF_INET;
    if (inet_pton(AF_INET6, text, scratch) > 0) return AF_INET6;
    return -1;
}

s32 orv_set_socketport_no_inherit(s32 fd) {
    int flags = fcntl(fd, F_GETFD, 0);
    if (flags < 0) return -1;
    return fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
}

} // extern "C"
