// Socket options through the library against the plain platform call.
#include <benchmark/benchmark.h>

#include <sys/socket.h>
#include <unistd.h>

#include "qosa_socket.h"

namespace {

// One socket for the whole run; the option read is SO_RCVBUF.
struct Socket {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    ~Socket() {
        if (fd >= 0) close(fd);
    }
};

void GetSockOpt_qosa(benchmark::State& st) {
    Socket s;
    int value = 0;
    for (auto _ : st) {
        socklen_t len = sizeof value;
        benchmark::DoNotOptimize(QOSA_GetSockOpt(s.fd, SOL_SOCKET, SO_RCVBUF, &value, &len));
        benchmark::DoNotOptimize(value);
    }
}
void GetSockOpt_peer(benchmark::State& st) {
    Socket s;
    int value = 0;
    for (auto _ : st) {
        socklen_t len = sizeof value;
        benchmark::DoNotOptimize(getsockopt(s.fd, SOL_SOCKET, SO_RCVBUF, &value, &len));
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(GetSockOpt_qosa)->Name("GetSockOpt.qosa");
BENCHMARK(GetSockOpt_peer)->Name("GetSockOpt.peer");

} // namespace
