// Sockets on loopback: descriptor sets, connecting, addresses, port state, close-on-exec.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <string>

#include "qosa_socket.h"

extern char** environ;

namespace {

sockaddr* sa(void* p) { return static_cast<sockaddr*>(p); }

// Bound to a free port of 127.0.0.1 or ::1 (IPv6 only), listening when a
// stream socket; port stays 0 when it could not be set up.
struct Bound {
    s32 fd;
    u16 port = 0;
    Bound(int family, int type) : fd(QOSA_Socket(family, type, 0)) {
        sockaddr_in6 a{}; // family and port sit at the same offsets in both families
        a.sin6_family = static_cast<sa_family_t>(family);
        socklen_t len = family == AF_INET ? sizeof(sockaddr_in) : sizeof a;
        int one = 1;
        if (family == AF_INET)
            reinterpret_cast<sockaddr_in*>(&a)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        else
            a.sin6_addr = in6addr_loopback;
        QOSA_SetSockOpt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one); // fails harmlessly for IPv4
        if (fd >= 0 && QOSA_Bind(fd, sa(&a), len) == 0 && (type != SOCK_STREAM || QOSA_Listen(fd, 4) == 0) &&
            QOSA_GetSockName(fd, sa(&a), &len) == 0)
            port = ntohs(a.sin6_port);
    }
    ~Bound() { close(); }
    void close() { fd = fd >= 0 ? (QOSA_CloseSocket(fd), -1) : -1; }
};

// The listener accepts the client and sees the client's own address as its peer.
void expect_accepted(const Bound& srv, s32 client) {
    sockaddr_in6 peer{}, own{};
    socklen_t peerLen = sizeof peer, ownLen = sizeof own;
    s32 conn = QOSA_Accept(srv.fd, nullptr, nullptr);
    EXPECT_EQ(QOSA_GetPeerName(conn, sa(&peer), &peerLen) | QOSA_GetSockName(client, sa(&own), &ownLen), 0);
    EXPECT_EQ(std::memcmp(&peer, &own, ownLen), 0);
    QOSA_CloseSocket(conn);
    QOSA_CloseSocket(client);
}

bool open_after_exec(int fd) {
    std::string script = "test -e /proc/self/fd/" + std::to_string(fd);
    char* argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), script.data(), nullptr};
    pid_t pid = 0;
    int status = 0;
    return posix_spawn(&pid, "/bin/sh", nullptr, nullptr, argv, environ) == 0 && waitpid(pid, &status, 0) == pid &&
           WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace

TEST(DescriptorSet, WordsOf32BitsAsThePlatformSetHasThemAndOutOfRangeIgnored) {
    fd_set set;
    std::memset(&set, 0xFF, sizeof set);
    QOSA_FD_ZERO(&set);
    for (int d : {31, 33, 1023})
        QOSA_FD_SET(d, &set);
    u32 words[32];
    std::memcpy(words, &set, sizeof words);
    for (int w = 0; w < 32; ++w)
        EXPECT_EQ(words[w], w == 0 || w == 31 ? 0x80000000u : w == 1 ? 2u : 0u) << "word " << w;
    EXPECT_EQ(QOSA_FD_ISSET(33, &set), 2u);
    EXPECT_EQ(QOSA_FD_ISSET(32, &set), 0u);
    QOSA_FD_CLR(33, &set);
    EXPECT_FALSE(FD_ISSET(33, &set));

    fd_set before = set;
    QOSA_FD_SET(-1, &set);
    QOSA_FD_SET(1024, &set);
    QOSA_FD_CLR(-32, &set);
    EXPECT_EQ(std::memcmp(&before, &set, sizeof set), 0);
    EXPECT_EQ(QOSA_FD_ISSET(-1, &set) | QOSA_FD_ISSET(1024, &set), 0u);
}

TEST(Connect, HostOrderIPv4AndUnchangedIPv6AddressesReachTheListener) {
    Bound srv(AF_INET, SOCK_STREAM), srv6(AF_INET6, SOCK_STREAM);
    ASSERT_NE(srv.port, 0);
    s32 c = QOSA_Socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(QOSA_ConnectAdd(c, 0x7F000001u, 0x10000u | srv.port), 0) << "only the low 16 port bits count";
    expect_accepted(srv, c);
    u32 host = 0x7F000001u;
    c = QOSA_Socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(QOSA_ConnectAdd6(c, AF_INET, &host, srv.port), 0) << std::strerror(errno);
    expect_accepted(srv, c);
    if (srv6.port == 0) GTEST_SKIP() << "no IPv6 loopback on this machine";
    c = QOSA_Socket(AF_INET6, SOCK_STREAM, 0);
    ASSERT_EQ(QOSA_ConnectAdd6(c, AF_INET6, &in6addr_loopback, srv6.port), 0) << std::strerror(errno);
    expect_accepted(srv6, c);
}

TEST(AddressText, TypeTestConversionsAndFailedLookup) {
    EXPECT_EQ(QOSA_TestIpType("192.168.1.1"), AF_INET);
    EXPECT_EQ(QOSA_TestIpType("fe80::1"), ORV_Socket_Get_AF_INET6());
    for (const char* bad : {"host", "", "1.2.3"})
        EXPECT_EQ(QOSA_TestIpType(bad), -1) << '"' << bad << '"';
    EXPECT_STREQ(QOSA_InetNtoa(QOSA_InetAddr("192.168.1.1")), "192.168.1.1");
    addrinfo hints{}; // numeric only: no query leaves the machine
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* list = nullptr;
    EXPECT_EQ(QOSA_GetAddrInfo("host", nullptr, &hints, &list), -1);
}

TEST(LocalIp, AddressesOfUpInterfacesAreLocalOthersNot) {
    in_addr lo4{htonl(INADDR_LOOPBACK)};
    const in6_addr far6{{{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x77}}}; // documentation range
    EXPECT_EQ(QOSA_IsLocalIp(INADDR_LOOPBACK), 0) << "host order reads as 1.0.0.127";
    EXPECT_EQ(QOSA_IsLocalIp6(12345, &lo4), 0);
    EXPECT_EQ(QOSA_IsLocalIp(htonl(0xCB00714Du)), 0); // 203.0.113.77, documentation range
    EXPECT_EQ(QOSA_IsLocalIp6(AF_INET6, &far6), 0);
    ifaddrs* list = nullptr;
    ASSERT_EQ(getifaddrs(&list), 0);
    for (ifaddrs* p = list; p != nullptr; p = p->ifa_next) {
        if (p->ifa_addr == nullptr || (p->ifa_flags & IFF_UP) == 0) continue;
        if (p->ifa_addr->sa_family == AF_INET) {
            in_addr a = reinterpret_cast<sockaddr_in*>(p->ifa_addr)->sin_addr;
            EXPECT_EQ(QOSA_IsLocalIp(a.s_addr) + QOSA_IsLocalIp6(AF_INET, &a), 2) << p->ifa_name; // lo among them
        } else if (p->ifa_addr->sa_family == AF_INET6) {
            EXPECT_EQ(QOSA_IsLocalIp6(AF_INET6, &reinterpret_cast<sockaddr_in6*>(p->ifa_addr)->sin6_addr), 1);
        }
    }
    freeifaddrs(list);
}

TEST(PortStat, ListenersFoundInBothTablesUntilClosed) {
    Bound tcp(AF_INET, SOCK_STREAM), udp(AF_INET, SOCK_DGRAM);
    Bound tcp6(AF_INET6, SOCK_STREAM), udp6(AF_INET6, SOCK_DGRAM);
    ASSERT_TRUE(tcp.port != 0 && udp.port != 0);
    std::string p = std::to_string(tcp.port);
    testing::internal::CaptureStdout();
    EXPECT_EQ(QOSA_PortStat(tcp.port, QOSA_PORT_TCP), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "LocalPort=" + p + ", usPort=" + p + ", state=10\r\n");
    EXPECT_EQ(QOSA_PortStat(0x10000u | tcp.port, QOSA_PORT_TCP), 1) << "only the low 16 bits count";
    EXPECT_EQ(QOSA_PortStat(udp.port, QOSA_PORT_UDP), 1);
    tcp.close();
    EXPECT_EQ(QOSA_PortStat(tcp.port, QOSA_PORT_TCP), 0);
    if (tcp6.port == 0 || udp6.port == 0) GTEST_SKIP() << "no IPv6 loopback on this machine";
    EXPECT_EQ(QOSA_PortStat(tcp6.port, QOSA_PORT_TCP), 1) << "IPv6-only: in the second table alone";
    EXPECT_EQ(QOSA_PortStat(udp6.port, QOSA_PORT_UDP), 1);
}

TEST(PortState, OnlyWellFormedLinesAfterTheHeaderMatch) {
    const std::string
        path = "/tmp/qosa-port-table-" + std::to_string(getpid()),
        tail = " 00000000:00000000 00:00000000 00000000  1000        0 4242 1 0000000000000000 100 0 0 10 0\n";
    std::ofstream(path) << "   0: 0100007F:1F90 00000000:0000 0A" + tail +     // header place: skipped
                               "   1: 0100007F:1F91 00000000:0000 0A\n" +      // too short
                               "   2: 0100007F:1F93 0100007F:1F92 01" + tail + // 1F92 is the remote port
                               "   3: 0100007F:1F90 00000000:0000 06" + tail;
    u32 state = 99;
    EXPECT_EQ(qosaGet_Port_State(path.c_str(), 0x1F90, &state), 0);
    EXPECT_EQ(state, 6u);
    EXPECT_EQ(qosaGet_Port_State(path.c_str(), 0x1F93, &state), 0);
    EXPECT_EQ(state, 1u);
    for (u16 absent : {0x1F91, 0x1F92, 0}) // an unparsed line is never port 0
        EXPECT_EQ(qosaGet_Port_State(path.c_str(), absent, &state), -1) << absent;
    unlink(path.c_str());
    EXPECT_EQ(qosaGet_Port_State(path.c_str(), 0x1F90, &state), -1);
}

TEST(CloseOnExec, MarkedSocketIsClosedInAnExecutedProgram) {
    s32 fd = QOSA_Socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_TRUE(open_after_exec(fd)) << "the check itself must see an inherited descriptor";
    EXPECT_EQ(orv_set_socketport_no_inherit(fd), 0);
    EXPECT_FALSE(open_after_exec(fd));
    QOSA_CloseSocket(fd);
    errno = 0;
    EXPECT_EQ(orv_set_socketport_no_inherit(-1), -1);
    EXPECT_EQ(errno, EBADF);
}

// A select on no descriptors is the timer service's sleep: it waits the whole time out.
TEST(Select, SleepsOnNoDescriptors) {
    auto start = std::chrono::steady_clock::now();
    timeval tv{0, 10000};
    EXPECT_EQ(QOSA_Select(0, nullptr, nullptr, nullptr, &tv), 0);
    auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(10));
    EXPECT_LT(waited, std::chrono::seconds(2));
}
