// Sockets on loopback: the wrappers, descriptor sets, address texts, local
// addresses, port state and close-on-exec.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <string>

#include "qosa_socket.h"

extern char** environ;

namespace {

sockaddr* sa(void* p) { return static_cast<sockaddr*>(p); }

// A socket bound to a free port of 127.0.0.1 or ::1 (IPv6 only), listening
// when it is a stream socket. port stays 0 when it could not be set up.
struct Bound {
    s32 fd = -1;
    u16 port = 0;
    Bound(int family, int type) {
        fd = QOSA_Socket(family, type, 0);
        sockaddr_in6 ss{};
        socklen_t len = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        if (family == AF_INET) {
            auto* a = reinterpret_cast<sockaddr_in*>(&ss);
            a->sin_family = AF_INET;
            a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        } else {
            int one = 1;
            QOSA_SetSockOpt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one);
            ss.sin6_family = AF_INET6;
            ss.sin6_addr = in6addr_loopback;
        }
        if (fd < 0 || QOSA_Bind(fd, sa(&ss), len) != 0) return;
        if (type == SOCK_STREAM && QOSA_Listen(fd, 4) != 0) return;
        if (QOSA_GetSockName(fd, sa(&ss), &len) == 0) port = ntohs(ss.sin6_port); // same offset in both families
    }
    ~Bound() { close(); }
    void close() {
        if (fd >= 0) QOSA_CloseSocket(fd);
        fd = -1;
    }
};

// The listener accepts the client's connection and sees the client's own
// address as its peer.
void expect_accepted(const Bound& srv, s32 client) {
    sockaddr_in6 peer{}, own{};
    socklen_t peerLen = sizeof peer, ownLen = sizeof own;
    s32 conn = QOSA_Accept(srv.fd, nullptr, nullptr);
    ASSERT_GE(conn, 0);
    EXPECT_EQ(QOSA_GetPeerName(conn, sa(&peer), &peerLen), 0);
    EXPECT_EQ(QOSA_GetSockName(client, sa(&own), &ownLen), 0);
    EXPECT_EQ(std::memcmp(&peer, &own, ownLen), 0);
    QOSA_CloseSocket(conn);
}

// Whether a program started with exec still has descriptor fd open.
bool open_after_exec(int fd) {
    std::string script = "test -e /proc/self/fd/" + std::to_string(fd);
    char* argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), script.data(), nullptr};
    pid_t pid = 0;
    if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, argv, environ) != 0) return false;
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace

TEST(DescriptorSet, WordsOf32BitsAsThePlatformSetHasThem) {
    fd_set set;
    std::memset(&set, 0xFF, sizeof set);
    QOSA_FD_ZERO(&set);
    u32 words[32];
    for (int d : {31, 33, 1023})
        QOSA_FD_SET(d, &set);
    std::memcpy(words, &set, sizeof words);
    for (int w = 0; w < 32; ++w)
        EXPECT_EQ(words[w], w == 0 ? 0x80000000u : w == 1 ? 2u : w == 31 ? 0x80000000u : 0u) << "word " << w;
    EXPECT_EQ(QOSA_FD_ISSET(33, &set), 2u);
    EXPECT_EQ(QOSA_FD_ISSET(32, &set), 0u);
    EXPECT_TRUE(FD_ISSET(1023, &set));
    FD_SET(500, &set);
    EXPECT_EQ(QOSA_FD_ISSET(500, &set), 1u << (500 % 32));
    QOSA_FD_CLR(33, &set);
    EXPECT_FALSE(FD_ISSET(33, &set));

    // Descriptors outside the set are ignored rather than written past it.
    fd_set before = set;
    QOSA_FD_SET(-1, &set);
    QOSA_FD_SET(1024, &set);
    QOSA_FD_CLR(-32, &set);
    EXPECT_EQ(std::memcmp(&before, &set, sizeof set), 0);
    EXPECT_EQ(QOSA_FD_ISSET(-1, &set), 0u);
    EXPECT_EQ(QOSA_FD_ISSET(1024, &set), 0u);
}

TEST(Connect, HostOrderIPv4AddressAndPortReachTheListener) {
    Bound srv(AF_INET, SOCK_STREAM);
    ASSERT_NE(srv.port, 0);
    // Only the low 16 bits of the port count.
    s32 c1 = QOSA_Socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(QOSA_ConnectAdd(c1, 0x7F000001u, 0x10000u | srv.port), 0) << std::strerror(errno);
    expect_accepted(srv, c1);
    QOSA_CloseSocket(c1);

    u32 host = 0x7F000001u;
    s32 c2 = QOSA_Socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(QOSA_ConnectAdd6(c2, AF_INET, &host, srv.port), 0) << std::strerror(errno);
    expect_accepted(srv, c2);
    QOSA_CloseSocket(c2);
}

TEST(Connect, IPv6AddressIsTakenUnchanged) {
    Bound srv(AF_INET6, SOCK_STREAM);
    if (srv.port == 0) GTEST_SKIP() << "no IPv6 loopback on this machine";
    s32 c = QOSA_Socket(AF_INET6, SOCK_STREAM, 0);
    ASSERT_EQ(QOSA_ConnectAdd6(c, AF_INET6, &in6addr_loopback, srv.port), 0) << std::strerror(errno);
    expect_accepted(srv, c);
    QOSA_CloseSocket(c);
}

TEST(AddressText, TypeTestConversionsAndFailedLookup) {
    EXPECT_EQ(QOSA_TestIpType("192.168.1.1"), AF_INET);
    EXPECT_EQ(QOSA_TestIpType("fe80::1"), ORV_Socket_Get_AF_INET6());
    for (const char* bad : {"host", "", "1.2.3"})
        EXPECT_EQ(QOSA_TestIpType(bad), -1) << '"' << bad << '"';
    EXPECT_STREQ(QOSA_InetNtoa(QOSA_InetAddr("192.168.1.1")), "192.168.1.1");

    // A numeric-only lookup of a name fails without a query leaving the machine.
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* list = nullptr;
    EXPECT_EQ(QOSA_GetAddrInfo("host", nullptr, &hints, &list), -1);
    EXPECT_EQ(list, nullptr);
}

TEST(LocalIp, AddressesOfUpInterfacesAreLocal) {
    EXPECT_EQ(QOSA_IsLocalIp(htonl(INADDR_LOOPBACK)), 1);
    EXPECT_EQ(QOSA_IsLocalIp(INADDR_LOOPBACK), 0) << "host order reads as 1.0.0.127";
    in_addr lo4{htonl(INADDR_LOOPBACK)};
    EXPECT_EQ(QOSA_IsLocalIp6(AF_INET, &lo4), 1);
    EXPECT_EQ(QOSA_IsLocalIp6(12345, &lo4), 0);

    // Documentation ranges, never assigned to a machine.
    in_addr far4;
    in6_addr far6;
    inet_pton(AF_INET, "203.0.113.77", &far4);
    inet_pton(AF_INET6, "2001:db8::77", &far6);
    EXPECT_EQ(QOSA_IsLocalIp(far4.s_addr), 0);
    EXPECT_EQ(QOSA_IsLocalIp6(AF_INET6, &far6), 0);

    // Every address the platform lists for an up interface.
    ifaddrs* list = nullptr;
    ASSERT_EQ(getifaddrs(&list), 0);
    for (ifaddrs* p = list; p != nullptr; p = p->ifa_next) {
        if (p->ifa_addr == nullptr || (p->ifa_flags & IFF_UP) == 0) continue;
        if (p->ifa_addr->sa_family == AF_INET) {
            in_addr a = reinterpret_cast<sockaddr_in*>(p->ifa_addr)->sin_addr;
            EXPECT_EQ(QOSA_IsLocalIp(a.s_addr), 1) << p->ifa_name;
            EXPECT_EQ(QOSA_IsLocalIp6(AF_INET, &a), 1) << p->ifa_name;
        } else if (p->ifa_addr->sa_family == AF_INET6) {
            EXPECT_EQ(QOSA_IsLocalIp6(AF_INET6, &reinterpret_cast<sockaddr_in6*>(p->ifa_addr)->sin6_addr), 1)
                << p->ifa_name;
        }
    }
    freeifaddrs(list);
}

TEST(PortStat, ListenerFoundUntilClosed) {
    Bound tcp(AF_INET, SOCK_STREAM), udp(AF_INET, SOCK_DGRAM);
    ASSERT_NE(tcp.port, 0);
    ASSERT_NE(udp.port, 0);
    std::string p = std::to_string(tcp.port);
    testing::internal::CaptureStdout();
    EXPECT_EQ(QOSA_PortStat(tcp.port, QOSA_PORT_TCP), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "LocalPort=" + p + ", usPort=" + p + ", state=10\r\n");
    u32 state = 0;
    EXPECT_EQ(qosaGet_Port_State("/proc/net/tcp", tcp.port, &state), 0);
    EXPECT_EQ(state, 0x0Au);
    EXPECT_EQ(QOSA_PortStat(0x10000u | tcp.port, QOSA_PORT_TCP), 1) << "only the low 16 bits count";
    EXPECT_EQ(QOSA_PortStat(udp.port, QOSA_PORT_UDP), 1);

    tcp.close();
    udp.close();
    EXPECT_EQ(QOSA_PortStat(tcp.port, QOSA_PORT_TCP), 0);
}

TEST(PortStat, IPv6OnlySocketsAreFoundInTheSecondTable) {
    Bound tcp(AF_INET6, SOCK_STREAM), udp(AF_INET6, SOCK_DGRAM);
    if (tcp.port == 0 || udp.port == 0) GTEST_SKIP() << "no IPv6 loopback on this machine";
    u32 state = 0;
    EXPECT_EQ(qosaGet_Port_State("/proc/net/tcp", tcp.port, &state), -1);
    EXPECT_EQ(qosaGet_Port_State("/proc/net/tcp6", tcp.port, &state), 0);
    EXPECT_EQ(QOSA_PortStat(tcp.port, QOSA_PORT_TCP), 1);
    EXPECT_EQ(qosaGet_Port_State("/proc/net/udp", udp.port, &state), -1);
    EXPECT_EQ(QOSA_PortStat(udp.port, QOSA_PORT_UDP), 1);
}

TEST(PortState, OnlyWellFormedLinesAfterTheHeaderMatch) {
    char path[] = "/tmp/qosa-port-table-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    const char* tail = " 00000000:00000000 00:00000000 00000000  1000        0 4242 1 0000000000000000 100 0 0 10 0\n";
    std::string table = std::string("   0: 0100007F:1F90 00000000:0000 0A") + tail; // header place: skipped
    table += "   1: 0100007F:1F91 00000000:0000 0A\n";                              // too short
    table += std::string("   2: 0100007F:1F93 0100007F:1F92 01") + tail;            // 1F92 is the remote port
    table += std::string("   3: 0100007F:1F90 00000000:0000 06") + tail;
    ASSERT_EQ(write(fd, table.data(), table.size()), static_cast<ssize_t>(table.size()));
    close(fd);

    u32 state = 99;
    EXPECT_EQ(qosaGet_Port_State(path, 0x1F90, &state), 0);
    EXPECT_EQ(state, 6u);
    EXPECT_EQ(qosaGet_Port_State(path, 0x1F93, &state), 0);
    EXPECT_EQ(state, 1u);
    EXPECT_EQ(qosaGet_Port_State(path, 0x1F91, &state), -1);
    EXPECT_EQ(qosaGet_Port_State(path, 0x1F92, &state), -1);
    EXPECT_EQ(qosaGet_Port_State(path, 0, &state), -1) << "an unparsed line is never port 0";
    unlink(path);
    EXPECT_EQ(qosaGet_Port_State(path, 0x1F90, &state), -1);
}

TEST(CloseOnExec, MarkedSocketIsClosedInAnExecutedProgram) {
    s32 fd = QOSA_Socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    int plain = dup(fd);
    ASSERT_TRUE(open_after_exec(fd)) << "the check itself must see an inherited descriptor";
    EXPECT_EQ(orv_set_socketport_no_inherit(fd), 0);
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_FALSE(open_after_exec(fd));
    EXPECT_TRUE(open_after_exec(plain));
    close(plain);
    QOSA_CloseSocket(fd);

    errno = 0;
    EXPECT_EQ(orv_set_socketport_no_inherit(-1), -1);
    EXPECT_EQ(errno, EBADF);
}
