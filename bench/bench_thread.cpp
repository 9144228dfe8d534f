// Thread wrappers against the plain platform calls.
#include <benchmark/benchmark.h>

#include <pthread.h>

#include "qosa_thread.h"

namespace {

// Signalling a condition variable nobody waits on: the cost of the wrapper
// around the platform's fast path.
void CondSignal_qosa(benchmark::State& st) {
    static pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    for (auto _ : st)
        benchmark::DoNotOptimize(QOSA_PthreadCondSignal(&cond));
}
void CondSignal_peer(benchmark::State& st) {
    static pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    for (auto _ : st)
        benchmark::DoNotOptimize(pthread_cond_signal(&cond));
}
BENCHMARK(CondSignal_qosa)->Name("PthreadCondSignal.qosa");
BENCHMARK(CondSignal_peer)->Name("PthreadCondSignal.peer");

// pthread_self is declared const, so a loop of calls would be folded into
// one; this name for the same function makes the peer call it every time.
extern "C" pthread_t pthread_self_each_time(void) __asm__("pthread_self");

void Self_qosa(benchmark::State& st) {
    for (auto _ : st)
        benchmark::DoNotOptimize(QOSA_PthreadSelf());
}
void Self_peer(benchmark::State& st) {
    for (auto _ : st)
        benchmark::DoNotOptimize(pthread_self_each_time());
}
BENCHMARK(Self_qosa)->Name("PthreadSelf.qosa");
BENCHMARK(Self_peer)->Name("PthreadSelf.peer");

} // namespace
