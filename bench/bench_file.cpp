// File wrappers against the plain platform calls.
#include <benchmark/benchmark.h>

#include <sys/stat.h>
#include <unistd.h>

#include "qosa_file.h"

namespace {

// An existing path that every host has.
constexpr const char* kPath = "/tmp";

void Access_qosa(benchmark::State& st) {
    for (auto _ : st)
        benchmark::DoNotOptimize(QOSA_Access(kPath, R_OK));
}
void Access_peer(benchmark::State& st) {
    for (auto _ : st)
        benchmark::DoNotOptimize(access(kPath, R_OK));
}
BENCHMARK(Access_qosa)->Name("Access.qosa");
BENCHMARK(Access_peer)->Name("Access.peer");

// Status in the library's record against the platform's own.
void Stat_qosa(benchmark::State& st) {
    QOSA_STAT_S s;
    for (auto _ : st) {
        benchmark::DoNotOptimize(QOSA_Stat(kPath, &s));
        benchmark::ClobberMemory();
    }
}
void Stat_peer(benchmark::State& st) {
    struct stat s;
    for (auto _ : st) {
        benchmark::DoNotOptimize(stat(kPath, &s));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(Stat_qosa)->Name("Stat.qosa");
BENCHMARK(Stat_peer)->Name("Stat.peer");

} // namespace
