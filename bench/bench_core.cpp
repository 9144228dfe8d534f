// The core frame against the plain platform calls.
#include <benchmark/benchmark.h>

#include <pthread.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "internal/bounded.h"
#include "qosa_lock.h"
#include "qosa_string.h"

namespace {

void Mutex_qosa(benchmark::State& st) {
    static QosaMutex m = QOSA_MUTEX_INITIALIZER;
    for (auto _ : st) {
        QOSA_MutexLock(&m);
        QOSA_MutexUnLock(&m);
    }
}
void Mutex_peer(benchmark::State& st) {
    static pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
    for (auto _ : st) {
        pthread_mutex_lock(&m);
        pthread_mutex_unlock(&m);
    }
}
BENCHMARK(Mutex_qosa)->Name("MutexLockUnlock.qosa");
BENCHMARK(Mutex_peer)->Name("MutexLockUnlock.peer");

void Memcpy_qosa(benchmark::State& st) {
    std::size_t n = static_cast<std::size_t>(st.range(0));
    std::vector<char> src(n, 'a'), dst(n);
    for (auto _ : st) {
        qosa::bounded::memcpy_s(dst.data(), n, src.data(), n);
        benchmark::ClobberMemory();
    }
}
void Memcpy_peer(benchmark::State& st) {
    std::size_t n = static_cast<std::size_t>(st.range(0));
    std::vector<char> src(n, 'a'), dst(n);
    for (auto _ : st) {
        std::memcpy(dst.data(), src.data(), n);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(Memcpy_qosa)->Name("memcpy_s.qosa")->Arg(16)->Arg(256)->Arg(4096);
BENCHMARK(Memcpy_peer)->Name("memcpy_s.peer")->Arg(16)->Arg(256)->Arg(4096);

void Memset_qosa(benchmark::State& st) {
    std::size_t n = static_cast<std::size_t>(st.range(0));
    std::vector<char> dst(n);
    for (auto _ : st) {
        qosa::bounded::memset_s(dst.data(), n, 0x5A, n);
        benchmark::ClobberMemory();
    }
}
void Memset_peer(benchmark::State& st) {
    std::size_t n = static_cast<std::size_t>(st.range(0));
    std::vector<char> dst(n);
    for (auto _ : st) {
        std::memset(dst.data(), 0x5A, n);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(Memset_qosa)->Name("memset_s.qosa")->Arg(16)->Arg(256)->Arg(4096);
BENCHMARK(Memset_peer)->Name("memset_s.peer")->Arg(16)->Arg(256)->Arg(4096);

void Ultostr_qosa(benchmark::State& st) {
    char buf[16];
    u32 v = 0;
    for (auto _ : st) {
        benchmark::DoNotOptimize(QOSA_Ultostr(buf, sizeof buf, v++, 16));
        benchmark::ClobberMemory();
    }
}
void Ultostr_peer(benchmark::State& st) {
    char buf[16];
    u32 v = 0;
    for (auto _ : st) {
        benchmark::DoNotOptimize(std::snprintf(buf, sizeof buf, "%x", v++));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(Ultostr_qosa)->Name("Ultostr.qosa");
BENCHMARK(Ultostr_peer)->Name("Ultostr.peer");

} // namespace
