// Memory: the front end with tracking off against malloc, and the tracker's
// guarded blocks against the bare page work they need.
//
// The tracking switch is process-wide and cannot be turned off, and the other
// cases of this run allocate through the front end; so the tracked cases call
// the tracker's own entry points (what the front end hands over to once
// tracking is on) and leave the switch off.
#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench.h"
#include "qosa_mem.h"

namespace {

using bench::keep;
using bench::u64;

const char kFile[] = "bench_mem.cpp";

void tracker_ready() {
    static const int s_ready = MemInitManage();
    keep(s_ready);
}

// A page-aligned allocation with the guard words written around the data and
// the page behind it made read-only, then writable again before it goes back:
// the floor of a guarded block, without the record.
void guarded_floor(std::size_t n) {
    std::size_t rounded = (n + 3) & ~std::size_t{3};
    std::size_t span = (rounded + 0x1007) & ~std::size_t{0xFFF};
    const u32 words[2] = {0, QOSA_MEM_GUARD_WORD};
    void* base = nullptr;
    if (posix_memalign(&base, 4096, span + 4096) != 0) throw bench::Skip("posix_memalign failed");
    char* p = static_cast<char*>(base) + (span - rounded);
    std::memcpy(p - 8, words, sizeof words);
    std::memcpy(p + n, &words[1], sizeof words[1]);
    mprotect(p + rounded, 4096, PROT_READ);
    keep(p);
    mprotect(p + rounded, 4096, PROT_READ | PROT_WRITE);
    std::free(base);
}

void tracked_block(u32 n) {
    void* p = MemAllocMem(kFile, __LINE__, n, QOSA_MEM_DYN);
    if (p == nullptr) throw bench::Skip("MemAllocMem failed");
    keep(p);
    MemFreeMem(kFile, __LINE__, p, QOSA_MEM_DYN);
}

// work(k) on each of `threads` threads, n calls in all; a failure on one of
// them is thrown here.
template <typename F>
void on_threads(int threads, u64 n, F work) {
    std::vector<std::thread> pool;
    std::vector<std::exception_ptr> failed(threads);
    for (int t = 0; t < threads; ++t)
        pool.emplace_back([&, t] {
            try {
                work(n / threads + (static_cast<u64>(t) < n % threads));
            } catch (...) {
                failed[t] = std::current_exception();
            }
        });
    for (auto& th : pool)
        th.join();
    for (auto& e : failed)
        if (e) std::rethrow_exception(e);
}

int discard(char*, u32 len) { return static_cast<int>(len); }

// Live tracked blocks of random sizes, for the listing.
struct Blocks {
    std::vector<void*> live;
    void grow(std::size_t count) {
        std::mt19937 rng(static_cast<unsigned>(live.size() + 7));
        for (std::size_t i = 0; i < count; ++i) {
            void* p = MemAllocMem(kFile, __LINE__, 1 + rng() % 4000, QOSA_MEM_DYN);
            if (p == nullptr) throw bench::Skip("could not keep that many blocks");
            live.push_back(p);
        }
    }
    void shrink_to(std::size_t count) {
        while (live.size() > count) {
            MemFreeMem(kFile, __LINE__, live.back(), QOSA_MEM_DYN);
            live.pop_back();
        }
    }
};
Blocks s_blocks;

// One listing sorted by size of the blocks live now; figure: time per block.
bench::Side listing(std::string what) {
    return {std::move(what), [](u64 n, double* out) {
                auto t0 = bench::Clock::now();
                for (u64 i = 0; i < n; ++i)
                    MemGetMemRec(0, 1, nullptr, discard);
                out[0] = bench::seconds_since(t0) / static_cast<double>(n * s_blocks.live.size());
            }};
}

const bench::Registrar reg([] {
    for (u32 size : {16u, 256u, 4096u}) {
        std::string at = std::string(".").append(std::to_string(size)).append("B");
        bench::pair(
            "mem.alloc+free.untracked" + at, "QOSA_MemTypeMallocD+FreeD",
            [size](u64 n) {
                for (u64 i = 0; i < n; ++i) {
                    void* p = QOSA_MemTypeMallocD(size, QOSA_MEM_DYN, __LINE__, kFile);
                    keep(p);
                    QOSA_MemTypeFreeD(p, QOSA_MEM_DYN, __LINE__, kFile);
                }
            },
            "malloc+free",
            [size](u64 n) {
                for (u64 i = 0; i < n; ++i) {
                    void* p = std::malloc(size);
                    keep(p);
                    std::free(p);
                }
            });
        // The fill and the copy go through the library's bounds-checked layer.
        bench::pair(
            "mem.alloc-filled+free" + at, "QOSA_MemTypeMallocS+FreeD",
            [size](u64 n) {
                for (u64 i = 0; i < n; ++i) {
                    void* p = QOSA_MemTypeMallocS(size, 0x5A, QOSA_MEM_DYN, __LINE__, kFile);
                    keep(p);
                    QOSA_MemTypeFreeD(p, QOSA_MEM_DYN, __LINE__, kFile);
                }
            },
            "malloc+memset+free",
            [size](u64 n) {
                for (u64 i = 0; i < n; ++i) {
                    void* p = std::malloc(size);
                    if (p != nullptr) std::memset(p, 0x5A, size);
                    keep(p);
                    std::free(p);
                }
            });
        bench::pair(
            "mem.strdup+free" + at, "QOSA_StrDupEx+QOSA_MemTypeFreeD",
            [size](u64 n) {
                const std::string text(size - 1, 'd');
                for (u64 i = 0; i < n; ++i) {
                    char* p = QOSA_StrDupEx(text.c_str(), __LINE__, kFile);
                    keep(p);
                    QOSA_MemTypeFreeD(p, QOSA_MEM_DYN, __LINE__, kFile);
                }
            },
            "strdup+free",
            [size](u64 n) {
                const std::string text(size - 1, 'd');
                for (u64 i = 0; i < n; ++i) {
                    char* p = strdup(text.c_str());
                    keep(p);
                    std::free(p);
                }
            });
        bench::pair(
            "mem.alloc+free.tracked" + at, "MemAllocMem+MemFreeMem",
            [size](u64 n) {
                tracker_ready();
                for (u64 i = 0; i < n; ++i)
                    tracked_block(size);
            },
            "posix_memalign+mprotect+free",
            [size](u64 n) {
                for (u64 i = 0; i < n; ++i)
                    guarded_floor(size);
            });
    }
    for (int threads : {1, 2, 4})
        bench::pair(
            "mem.alloc+free.tracked.256B." + std::to_string(threads) + (threads == 1 ? "thread" : "threads"),
            "MemAllocMem+MemFreeMem",
            [threads](u64 n) {
                tracker_ready();
                on_threads(threads, n, [](u64 k) {
                    for (u64 i = 0; i < k; ++i)
                        tracked_block(256);
                });
            },
            "posix_memalign+mprotect+free",
            [threads](u64 n) {
                on_threads(threads, n, [](u64 k) {
                    for (u64 i = 0; i < k; ++i)
                        guarded_floor(256);
                });
            });
    // Each guarded block costs the process two memory mappings; 20,000 stay
    // well inside the default limit of 65,530.
    bench::Side big = listing("20,000 live blocks");
    big.enter = [] { s_blocks.grow(18000); };
    big.leave = [] { s_blocks.shrink_to(2000); };
    bench::add({"scale.mem.list-by-size.20000/2000",
                big,
                listing("2,000 live blocks"),
                {{"per block", bench::Kind::Time}},
                0,
                [] {
                    tracker_ready();
                    s_blocks.grow(2000);
                },
                [] { s_blocks.shrink_to(0); }});
});

} // namespace
