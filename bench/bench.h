// The benchmark harness: every case is a pair, a library call ("ours") and the
// plain platform call a user would pick instead ("peer"), or the library at
// two scales. Both sides run in one process in alternating rounds: each side's
// work per round is calibrated once to about 50 ms, then a warm-up round of
// each, then N recorded rounds ours, peer, ours, peer, ... Each round yields
// one value per figure; the report gives, per figure, the median of the
// per-round ratios ours / peer with the lowest and highest of them.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace bench {

using u64 = std::uint64_t;
using Clock = std::chrono::steady_clock;

inline double seconds_since(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

// Keeps a value (and everything written to memory before) from being optimised
// away.
template <typename T>
inline void keep(const T& value) {
    asm volatile("" : : "r,m"(value) : "memory");
}

// What a figure measures; it fixes its unit and which way is better.
enum class Kind {
    Time,    // seconds per unit of work, lower is better
    Rate,    // units of work per second, higher is better
    Latency, // seconds, a percentile of per-unit samples, lower is better
    Share,   // CPU time over wall time, lower is better
};

struct Figure {
    std::string name; // "time", "throughput", "p50", ...
    Kind kind;
};

// One contender. run(n, out) does n units of work and writes one value per
// figure of the case into out. enter and leave run untimed around every round
// of this side (for fixtures that cannot live beside the other side's).
struct Side {
    std::string what;
    std::function<void(u64 n, double* out)> run;
    std::function<void()> enter = {}, leave = {};
};

struct Case {
    std::string name;
    Side ours, peer;
    std::vector<Figure> figures = {{"time", Kind::Time}};
    u64 units = 0; // work per round; 0: calibrated, for each side on its own
    // Untimed, once around the case; teardown runs also when setup failed
    // half-way.
    std::function<void()> setup = {}, teardown = {};
};

// A side or a case that cannot run throws this (from run, enter or setup);
// the case is reported as skipped with the message.
struct Skip : std::runtime_error {
    using std::runtime_error::runtime_error;
};

void add(Case c);

// Registers at load time: `const bench::Registrar reg([] { bench::add(...); });`
struct Registrar {
    explicit Registrar(void (*f)()) { f(); }
};

// ---- sides for the usual shapes ----

// Figure: the wall time per unit of work(n).
inline Side timed(std::string what, std::function<void(u64)> work) {
    return {std::move(what), [work = std::move(work)](u64 n, double* out) {
                auto t0 = Clock::now();
                work(n);
                out[0] = seconds_since(t0) / static_cast<double>(n);
            }};
}

// Figure: units of work(n) per second of wall time.
inline Side rate(std::string what, std::function<void(u64)> work) {
    return {std::move(what), [work = std::move(work)](u64 n, double* out) {
                auto t0 = Clock::now();
                work(n);
                out[0] = static_cast<double>(n) / seconds_since(t0);
            }};
}

// The median and the 99th percentile of the samples (seconds) work(n, samples)
// leaves, one per unit.
Side percentiles(std::string what, std::function<void(u64, std::vector<double>&)> work);
inline const std::vector<Figure> kPercentiles = {{"p50", Kind::Latency}, {"p99", Kind::Latency}};

// The common case: time per call of ours against time per call of the peer.
inline void pair(std::string name, std::string oursWhat, std::function<void(u64)> ours, std::string peerWhat,
                 std::function<void(u64)> peer) {
    add({std::move(name), timed(std::move(oursWhat), std::move(ours)), timed(std::move(peerWhat), std::move(peer))});
}

} // namespace bench
