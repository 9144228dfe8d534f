// Guarded entry points of the sockets family.
#include "guard_cases.h"
#include "qosa.h"

// Present arguments for the rows that miss another one.
static char s_buf[64];
static socklen_t s_len = sizeof s_buf;
static struct sockaddr_storage s_addr;
static struct sockaddr* const s_sa = reinterpret_cast<struct sockaddr*>(&s_addr);
static u32 s_state;
static fd_set* const s_noSet = nullptr;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnonnull"

static GuardRows s_rows{
    {"QOSA_Bind", [] { return QOSA_Bind(-1, nullptr, 16); }, -1},
    {"QOSA_Connect", [] { return QOSA_Connect(-1, nullptr, 16); }, -1},
    {"QOSA_Send", [] { return QOSA_Send(-1, nullptr, 4, 0); }, -1},
    {"QOSA_Recv", [] { return QOSA_Recv(-1, nullptr, 4, 0); }, -1},
    {"QOSA_Sendto", [] { return QOSA_Sendto(-1, nullptr, 4, 0, s_sa, 16); }, 0},
    {"QOSA_Recvfrom", [] { return QOSA_Recvfrom(-1, nullptr, 4, 0, s_sa, &s_len); }, 0},
    {"QOSA_GetSockName_addr", [] { return QOSA_GetSockName(-1, nullptr, &s_len); }, -1},
    {"QOSA_GetSockName_len", [] { return QOSA_GetSockName(-1, s_sa, nullptr); }, -1},
    {"QOSA_GetPeerName_addr", [] { return QOSA_GetPeerName(-1, nullptr, &s_len); }, -1},
    {"QOSA_GetPeerName_len", [] { return QOSA_GetPeerName(-1, s_sa, nullptr); }, -1},
    {"QOSA_GetSockOpt_value", [] { return QOSA_GetSockOpt(-1, SOL_SOCKET, SO_TYPE, nullptr, &s_len); }, -1},
    {"QOSA_GetSockOpt_len", [] { return QOSA_GetSockOpt(-1, SOL_SOCKET, SO_TYPE, s_buf, nullptr); }, -1},
    {"QOSA_SetSockOpt", [] { return QOSA_SetSockOpt(-1, SOL_SOCKET, SO_REUSEADDR, nullptr, 4); }, -1},
    {"QOSA_GetHostName", [] { return QOSA_GetHostName(nullptr, 64); }, -1},
    {"QOSA_GetHostByName_null", [] { return as_flag(QOSA_GetHostByName(nullptr)); }, 0},
    {"QOSA_GetHostByName_empty", [] { return as_flag(QOSA_GetHostByName("")); }, 0},
    {"QOSA_GetAddrInfo", [] { return QOSA_GetAddrInfo("localhost", nullptr, nullptr, nullptr); }, -1},
    {"QOSA_FreeAddrInfo", [] { return QOSA_FreeAddrInfo(nullptr), std::int64_t{0}; }, 0},
    {"QOSA_InetAddr", [] { return std::int64_t{QOSA_InetAddr(nullptr)}; }, 0},
    {"QOSA_Inet_Pton_text", [] { return QOSA_Inet_Pton(AF_INET, nullptr, s_buf); }, 0},
    {"QOSA_Inet_Pton_out", [] { return QOSA_Inet_Pton(AF_INET, "127.0.0.1", nullptr); }, 0},
    {"QOSA_Inet_Ntop_addr", [] { return as_flag(QOSA_Inet_Ntop(AF_INET, nullptr, s_buf, sizeof s_buf)); }, 0},
    {"QOSA_Inet_Ntop_text", [] { return as_flag(QOSA_Inet_Ntop(AF_INET, s_buf, nullptr, 64)); }, 0},
    {"QOSA_ConnectAdd6_v4", [] { return QOSA_ConnectAdd6(-1, AF_INET, nullptr, 80); }, -1},
    {"QOSA_ConnectAdd6_v6", [] { return QOSA_ConnectAdd6(-1, AF_INET6, nullptr, 80); }, -1},
    {"QOSA_FD_ZERO", [] { return QOSA_FD_ZERO(s_noSet), std::int64_t{0}; }, 0},
    {"QOSA_FD_SET", [] { return QOSA_FD_SET(3, s_noSet), std::int64_t{0}; }, 0},
    {"QOSA_FD_CLR", [] { return QOSA_FD_CLR(3, s_noSet), std::int64_t{0}; }, 0},
    {"QOSA_FD_ISSET", [] { return std::int64_t{QOSA_FD_ISSET(3, s_noSet)}; }, 0},
    {"QOSA_IsLocalIp6", [] { return QOSA_IsLocalIp6(AF_INET6, nullptr); }, 0},
    {"QOSA_PortStat_port", [] { return QOSA_PortStat(0x10000u, QOSA_PORT_TCP); }, -1},
    {"QOSA_PortStat_protocol", [] { return QOSA_PortStat(80, 3); }, -1},
    {"qosaGet_Port_State_null", [] { return qosaGet_Port_State(nullptr, 80, &s_state); }, -1},
    {"qosaGet_Port_State_empty", [] { return qosaGet_Port_State("", 80, &s_state); }, -1},
    {"qosaGet_Port_State_state", [] { return qosaGet_Port_State("/proc/net/tcp", 80, nullptr); }, -1},
    {"QOSA_TestIpType", [] { return QOSA_TestIpType(nullptr); }, -1},
};

#pragma GCC diagnostic pop
