// Clocks and time conversions against the plain platform calls.
#include <benchmark/benchmark.h>

#include <sys/time.h>
#include <time.h>

#include "qosa_time.h"

namespace {

void RunTime_qosa(benchmark::State& st) {
    for (auto _ : st)
        benchmark::DoNotOptimize(QOSA_GetSysRunTime());
}
void RunTime_peer(benchmark::State& st) {
    for (auto _ : st) {
        timespec ts;
        clock_gettime(CLOCK_BOOTTIME, &ts);
        benchmark::DoNotOptimize(ts);
    }
}
BENCHMARK(RunTime_qosa)->Name("GetSysRunTime.qosa");
BENCHMARK(RunTime_peer)->Name("GetSysRunTime.peer");

void SystemTime_qosa(benchmark::State& st) {
    for (auto _ : st)
        benchmark::DoNotOptimize(QOSA_GetSystemTime());
}
void SystemTime_peer(benchmark::State& st) {
    for (auto _ : st) {
        timeval tv;
        gettimeofday(&tv, nullptr);
        benchmark::DoNotOptimize(tv);
    }
}
BENCHMARK(SystemTime_qosa)->Name("GetSystemTime.qosa");
BENCHMARK(SystemTime_peer)->Name("GetSystemTime.peer");

void LocalTimeS_qosa(benchmark::State& st) {
    time_t t = 1709642096;
    struct tm tm;
    for (auto _ : st) {
        benchmark::DoNotOptimize(QOSA_LocalTime_S(&tm, &t));
        benchmark::ClobberMemory();
    }
}
void LocalTimeS_peer(benchmark::State& st) {
    time_t t = 1709642096;
    struct tm tm;
    for (auto _ : st) {
        benchmark::DoNotOptimize(localtime_r(&t, &tm));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(LocalTimeS_qosa)->Name("LocalTime_S.qosa");
BENCHMARK(LocalTimeS_peer)->Name("LocalTime_S.peer");

} // namespace
