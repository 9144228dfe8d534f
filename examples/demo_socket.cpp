// Demo section: a TCP listener on loopback, its port state while open and
// after closing, and which addresses are this machine's own.
#include <arpa/inet.h>

#include <cstdio>
#include <initializer_list>

#include "demo.h"
#include "qosa.h"

static void run() {
    demo::heading("port state of a loopback listener");
    s32 fd = QOSA_Socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = QOSA_InetAddr("127.0.0.1");
    socklen_t len = sizeof addr;
    auto* sa = reinterpret_cast<sockaddr*>(&addr);
    if (fd < 0 || QOSA_Bind(fd, sa, len) != 0 || QOSA_Listen(fd, 4) != 0 || QOSA_GetSockName(fd, sa, &len) != 0) {
        std::printf("could not open a listener on 127.0.0.1\n");
        if (fd >= 0) QOSA_CloseSocket(fd);
        return;
    }
    u16 port = ntohs(addr.sin_port);
    std::printf("listening on 127.0.0.1:%u\n", port);
    std::fflush(stdout);
    s32 inUse = QOSA_PortStat(port, QOSA_PORT_TCP);
    std::printf("QOSA_PortStat(%u, TCP) -> %d\n", port, inUse);
    u32 state = 0;
    s32 r = qosaGet_Port_State("/proc/net/tcp", port, &state);
    std::printf("qosaGet_Port_State(/proc/net/tcp) -> %d, state %u (10 = listening)\n", r, state);
    QOSA_CloseSocket(fd);
    std::printf("after closing: QOSA_PortStat -> %d, qosaGet_Port_State -> %d\n", QOSA_PortStat(port, QOSA_PORT_TCP),
                qosaGet_Port_State("/proc/net/tcp", port, &state));

    demo::heading("local addresses");
    for (const char* text : {"127.0.0.1", "203.0.113.77"})
        std::printf("QOSA_IsLocalIp(%s) -> %d\n", text, QOSA_IsLocalIp(QOSA_InetAddr(text)));
}

static demo::Section s_section{50, "sockets: port state and local addresses", run};
