// Sockets on loopback: descriptor-set layout, host-order connects, local
// addresses, the port tables and close-on-exec.
#include <ifaddrs.h>
#include <net/if.h>

#include "support.h"

namespace {
// Bound to a free port of 127.0.0.1 or ::1 (IPv6 only), listening when a
// stream socket; port stays 0 when that failed.
struct Bound {
    s32 fd;
    u16 port = 0;
    Bound(int family, int type) : fd(QOSA_Socket(family, type, 0)) {
        sockaddr_in6 a{}; // family and port sit at the same offsets in both families
        a.sin6_family = static_cast<sa_family_t>(family);
        a.sin6_addr = in6addr_loopback;
        if (family == AF_INET) reinterpret_cast<sockaddr_in*>(&a)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = family == AF_INET ? sizeof(sockaddr_in) : sizeof a;
        auto* addr = reinterpret_cast<sockaddr*>(&a);
        int one = 1;
        QOSA_SetSockOpt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one); // fails harmlessly for IPv4
        if (QOSA_Bind(fd, addr, len) == 0 && (type != SOCK_STREAM || QOSA_Listen(fd, 4) == 0) &&
            QOSA_GetSockName(fd, addr, &len) == 0)
            port = ntohs(a.sin6_port);
    }
    ~Bound() { QOSA_CloseSocket(fd); }
};
// Whether descriptor fd is still open in a program started with exec (the shell of system()).
bool open_after_exec(int fd) { return std::system(("test -e /proc/self/fd/" + std::to_string(fd)).c_str()) == 0; }
} // namespace

TEST(QOSA_FD_SET, WordsOf32BitsAsThePlatformHasThemAndOutOfRangeIgnored) {
    fd_set set;
    std::memset(&set, 0xFF, sizeof set);
    QOSA_FD_ZERO(&set);
    for (int d : {31, 33, 34, 1023, -1, 1024})
        QOSA_FD_SET(d, &set);
    QOSA_FD_CLR(34, &set);
    QOSA_FD_CLR(-32, &set);
    u32 words[32];
    std::memcpy(words, &set, sizeof words);
    for (int w = 0; w < 32; ++w)
        EXPECT_EQ(words[w], w == 0 || w == 31 ? 0x80000000u : w == 1 ? 2u : 0u) << "word " << w;
    EXPECT_TRUE(FD_ISSET(33, &set) && QOSA_FD_ISSET(33, &set) == 2);
    for (int d : {32, 34, -1, 1024})
        EXPECT_EQ(QOSA_FD_ISSET(d, &set), 0u) << d;
}

TEST(QOSA_ConnectAdd, HostOrderIPv4AndNetworkOrderIPv6ReachTheListener) {
    Bound srv(AF_INET, SOCK_STREAM), srv6(AF_INET6, SOCK_STREAM);
    ASSERT_NE(srv.port, 0);
    const u32 host = 0x7F000001u;
    for (int way = 0; way < 3; ++way) {
        if (way == 2 && srv6.port == 0) GTEST_SKIP() << "no IPv6 loopback on this machine";
        const s32 c = QOSA_Socket(way == 2 ? AF_INET6 : AF_INET, SOCK_STREAM, 0);
        const s32 r = way == 0   ? QOSA_ConnectAdd(c, host, 0x10000u | srv.port) // only the low 16 port bits count
                      : way == 1 ? QOSA_ConnectAdd6(c, AF_INET, &host, srv.port)
                                 : QOSA_ConnectAdd6(c, AF_INET6, &in6addr_loopback, srv6.port);
        ASSERT_EQ(r, 0) << way << ": " << std::strerror(errno);
        const s32 conn = QOSA_Accept(way == 2 ? srv6.fd : srv.fd, nullptr, nullptr);
        EXPECT_GE(conn, 0) << way;
        QOSA_CloseSocket(conn);
        QOSA_CloseSocket(c);
    }
}

TEST(QOSA_IsLocalIp, TextTestAndLocalAddressesInNetworkOrder) {
    EXPECT_TRUE(QOSA_TestIpType("192.168.1.1") == AF_INET && QOSA_TestIpType("fe80::1") == ORV_Socket_Get_AF_INET6());
    for (const char* bad : {"host", "", "1.2.3"})
        EXPECT_EQ(QOSA_TestIpType(bad), -1) << '"' << bad << '"';
    // The fixed results of the entry points with nothing to do here; an address text and back.
    EXPECT_TRUE(QOSA_InitSocket() == 1 && QOSA_GetHostByName_S("localhost") == -1);
    QOSA_DInitSocket();
    qosaAddrInfoSwapNameAndAddr(nullptr);
    EXPECT_STREQ(QOSA_InetNtoa(QOSA_InetAddr("10.1.2.3")), "10.1.2.3");

    in_addr lo4{htonl(INADDR_LOOPBACK)};
    in6_addr far6{};
    ASSERT_EQ(QOSA_Inet_Pton(AF_INET6, "2001:db8::77", &far6), 1);
    EXPECT_EQ(QOSA_IsLocalIp(INADDR_LOOPBACK), 0) << "host order reads as 1.0.0.127";
    EXPECT_EQ(QOSA_IsLocalIp(QOSA_InetAddr("203.0.113.77")) + QOSA_IsLocalIp6(AF_INET6, &far6), 0);
    EXPECT_EQ(QOSA_IsLocalIp6(12345, &lo4), 0);
    ifaddrs* ifs = nullptr;
    ASSERT_EQ(getifaddrs(&ifs), 0);
    for (const ifaddrs* p = ifs; p != nullptr; p = p->ifa_next) { // loopback among them
        if (p->ifa_addr == nullptr || (p->ifa_flags & IFF_UP) == 0) continue;
        const int family = p->ifa_addr->sa_family;
        const in_addr* a4 = &reinterpret_cast<const sockaddr_in*>(p->ifa_addr)->sin_addr;
        const in6_addr* a6 = &reinterpret_cast<const sockaddr_in6*>(p->ifa_addr)->sin6_addr;
        EXPECT_TRUE(family != AF_INET || QOSA_IsLocalIp(a4->s_addr) + QOSA_IsLocalIp6(AF_INET, a4) == 2) << p->ifa_name;
        EXPECT_TRUE(family != AF_INET6 || QOSA_IsLocalIp6(AF_INET6, a6) == 1) << p->ifa_name;
    }
    freeifaddrs(ifs);
}

TEST(QOSA_PortStat, ListenersFoundInBothTablesUntilClosed) {
    Bound tcp(AF_INET, SOCK_STREAM), udp(AF_INET, SOCK_DGRAM), tcp6(AF_INET6, SOCK_STREAM), udp6(AF_INET6, SOCK_DGRAM);
    const u16 port = tcp.port;
    ASSERT_TRUE(port != 0 && udp.port != 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(QOSA_PortStat(port, QOSA_PORT_TCP), 1);
    const std::string p = std::to_string(port);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "LocalPort=" + p + ", usPort=" + p + ", state=10\r\n");
    EXPECT_EQ(QOSA_PortStat(0x10000u | port, QOSA_PORT_TCP), 1) << "only the low 16 bits count";
    EXPECT_EQ(QOSA_PortStat(udp.port, QOSA_PORT_UDP), 1);
    QOSA_CloseSocket(tcp.fd);
    tcp.fd = -1;
    EXPECT_EQ(QOSA_PortStat(port, QOSA_PORT_TCP), 0);
    if (tcp6.port == 0 || udp6.port == 0) GTEST_SKIP() << "no IPv6 loopback on this machine";
    EXPECT_EQ(QOSA_PortStat(tcp6.port, QOSA_PORT_TCP) + QOSA_PortStat(udp6.port, QOSA_PORT_UDP), 2) << "IPv6 table";
}

TEST(orv_set_socketport_no_inherit, MarkedSocketIsClosedInAnExecutedProgram) {
    const s32 fd = QOSA_Socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_TRUE(open_after_exec(fd)) << "the check itself must see an inherited descriptor";
    EXPECT_EQ(orv_set_socketport_no_inherit(fd), 0);
    EXPECT_FALSE(open_after_exec(fd));
    QOSA_CloseSocket(fd);
    EXPECT_TRUE(orv_set_socketport_no_inherit(-1) == -1 && errno == EBADF);
}
