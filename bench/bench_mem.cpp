// Tracked memory against the plain platform calls.
//
// The tracking switch is process-wide and cannot be turned off, and the other
// benchmarks of this run allocate through the front end; so the tracked cases
// call the tracker's own entry points (what the front end hands over to once
// tracking is on) and leave the switch off.
#include <benchmark/benchmark.h>

#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "qosa_mem.h"

namespace {

const char kFile[] = "bench_mem.cpp";

void tracker_ready() {
    static const int s_ready = MemInitManage();
    benchmark::DoNotOptimize(s_ready);
}

// ---- tracking off: the front end against malloc / free ----

void Off_qosa(benchmark::State& st) {
    auto n = static_cast<u32>(st.range(0));
    for (auto _ : st) {
        void* p = QOSA_MemTypeMallocD(n, QOSA_MEM_DYN, __LINE__, kFile);
        benchmark::DoNotOptimize(p);
        QOSA_MemTypeFreeD(p, QOSA_MEM_DYN, __LINE__, kFile);
    }
}
void Off_peer(benchmark::State& st) {
    auto n = static_cast<std::size_t>(st.range(0));
    for (auto _ : st) {
        void* p = std::malloc(n);
        benchmark::DoNotOptimize(p);
        std::free(p);
    }
}
BENCHMARK(Off_qosa)->Name("MemAllocFreeOff.qosa")->Arg(16)->Arg(256)->Arg(4096);
BENCHMARK(Off_peer)->Name("MemAllocFreeOff.peer")->Arg(16)->Arg(256)->Arg(4096);

// ---- tracking on: a guarded block against the bare page work it needs ----

void On_qosa(benchmark::State& st) {
    tracker_ready();
    auto n = static_cast<u32>(st.range(0));
    for (auto _ : st) {
        void* p = MemAllocMem(kFile, __LINE__, n, QOSA_MEM_DYN);
        benchmark::DoNotOptimize(p);
        MemFreeMem(kFile, __LINE__, p, QOSA_MEM_DYN);
    }
}
// A page-aligned allocation with the guard words written around the data and
// its last page made read-only, then writable again before it goes back: the
// floor of a guarded block, without the record.
void On_peer(benchmark::State& st) {
    auto n = static_cast<std::size_t>(st.range(0));
    std::size_t rounded = (n + 3) & ~std::size_t{3};
    std::size_t span = (rounded + 0x1007) & ~std::size_t{0xFFF};
    const u32 words[2] = {0, QOSA_MEM_GUARD_WORD};
    for (auto _ : st) {
        void* base = nullptr;
        if (posix_memalign(&base, 4096, span + 4096) != 0) break;
        char* p = static_cast<char*>(base) + (span - rounded);
        std::memcpy(p - 8, words, sizeof words);
        std::memcpy(p + n, &words[1], sizeof words[1]);
        mprotect(p + rounded, 4096, PROT_READ);
        benchmark::DoNotOptimize(p);
        mprotect(p + rounded, 4096, PROT_READ | PROT_WRITE);
        std::free(base);
    }
}
BENCHMARK(On_qosa)->Name("MemAllocFreeTracked.qosa")->Arg(16)->Arg(256)->Arg(4096);
BENCHMARK(On_peer)->Name("MemAllocFreeTracked.peer")->Arg(16)->Arg(256)->Arg(4096);
BENCHMARK(On_qosa)
    ->Name("MemAllocFreeTrackedThreads.qosa")
    ->Arg(256)
    ->Threads(1)
    ->Threads(2)
    ->Threads(4)
    ->UseRealTime();
BENCHMARK(On_peer)
    ->Name("MemAllocFreeTrackedThreads.peer")
    ->Arg(256)
    ->Threads(1)
    ->Threads(2)
    ->Threads(4)
    ->UseRealTime();

// ---- the listing of many live blocks, sorted by size ----

int discard(char*, u32 len) { return static_cast<int>(len); }

void ListBySize(benchmark::State& st) {
    tracker_ready();
    auto count = static_cast<std::size_t>(st.range(0));
    std::vector<void*> blocks;
    blocks.reserve(count);
    std::mt19937 rng(7);
    for (std::size_t i = 0; i < count; ++i) {
        void* p = MemAllocMem(kFile, __LINE__, 1 + rng() % 4000, QOSA_MEM_DYN);
        if (p == nullptr) break;
        blocks.push_back(p);
    }
    if (blocks.size() != count) st.SkipWithError("could not keep that many blocks");
    for (auto _ : st)
        MemGetMemRec(0, 1, nullptr, discard);
    for (void* p : blocks)
        MemFreeMem(kFile, __LINE__, p, QOSA_MEM_DYN);
    st.SetItemsProcessed(static_cast<std::int64_t>(st.iterations() * count));
}
BENCHMARK(ListBySize)->Name("MemGetMemRecBySize")->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

} // namespace
