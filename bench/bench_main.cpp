// Runs the registered cases and reports the ratios.
//
//   qosa-bench [--filter=WORD[,WORD...]] [--rounds=N] [--markdown=FILE] [--list]
//
// --filter keeps the cases whose name contains one of the words; --rounds sets
// the recorded rounds per case (default 7); --markdown also writes the table
// to FILE.
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "bench.h"

namespace bench {

namespace {

std::vector<Case>& registry() {
    static std::vector<Case> cases;
    return cases;
}

constexpr double kRoundTarget = 0.05; // seconds of work per round
constexpr double kRoundFloor = 0.02;  // a calibration round this long is trusted

struct Spread {
    double median = NAN, low = NAN, high = NAN;
};

Spread spread(std::vector<double> v) {
    Spread s;
    if (v.empty()) return s;
    std::sort(v.begin(), v.end());
    std::size_t m = v.size() / 2;
    s.median = v.size() % 2 ? v[m] : (v[m - 1] + v[m]) / 2;
    s.low = v.front();
    s.high = v.back();
    return s;
}

struct Row {
    std::string name, figure, ours, peer, oursValue, peerValue, ratio, reading;
};

std::string format(const char* fmt, double v, const char* unit) {
    char buf[64];
    std::snprintf(buf, sizeof buf, fmt, v, unit);
    return buf;
}

// Three significant digits in the unit that suits the value.
std::string value(Kind kind, double v) {
    if (!std::isfinite(v)) return "n/a";
    auto sig = [](double x, const char* unit) {
        const char* fmt = x >= 100 ? "%.0f %s" : x >= 10 ? "%.1f %s" : "%.2f %s";
        return format(fmt, x, unit);
    };
    switch (kind) {
    case Kind::Time:
    case Kind::Latency:
        if (v < 1e-6) return sig(v * 1e9, "ns");
        if (v < 1e-3) return sig(v * 1e6, "µs");
        if (v < 1) return sig(v * 1e3, "ms");
        return sig(v, "s");
    case Kind::Rate:
        if (v >= 1e6) return sig(v / 1e6, "M/s");
        if (v >= 1e3) return sig(v / 1e3, "k/s");
        return sig(v, "/s");
    case Kind::Share:
        return sig(v * 100, "% CPU");
    }
    return "?";
}

std::string ratio(const Spread& s) {
    if (!std::isfinite(s.median)) return "n/a";
    char buf[96];
    std::snprintf(buf, sizeof buf, "%.2f [%.2f–%.2f]", s.median, s.low, s.high);
    return buf;
}

const char* reading(Kind kind) {
    switch (kind) {
    case Kind::Rate:
        return "throughput, higher is better";
    case Kind::Share:
        return "CPU, lower is better";
    default:
        return "time, lower is better";
    }
}

// One round of one side: its figures.
std::vector<double> round(const Side& side, u64 n, std::size_t figures) {
    std::vector<double> out(figures, NAN);
    if (side.enter) side.enter();
    try {
        side.run(n, out.data());
    } catch (...) {
        if (side.leave) side.leave();
        throw;
    }
    if (side.leave) side.leave();
    return out;
}

// The units of work that make a round of this side last about kRoundTarget.
u64 calibrate(const Side& side, std::size_t figures) {
    u64 n = 1;
    for (;;) {
        auto t0 = Clock::now();
        round(side, n, figures);
        double took = seconds_since(t0);
        if (took >= kRoundFloor)
            return std::max<u64>(1, static_cast<u64>(static_cast<double>(n) * kRoundTarget / took));
        if (n > (u64{1} << 40)) throw Skip("the work takes no measurable time");
        double grow = kRoundTarget / std::max(took, 1e-7);
        n = static_cast<u64>(static_cast<double>(n) * std::clamp(grow, 2.0, 100.0));
    }
}

std::vector<Row> run_case(const Case& c, int rounds) {
    const std::size_t nf = c.figures.size();
    std::vector<std::vector<double>> ours, peer; // [round][figure]
    std::string skipped;
    try {
        if (c.setup) c.setup();
        u64 nOurs = c.units ? c.units : calibrate(c.ours, nf);
        u64 nPeer = c.units ? c.units : calibrate(c.peer, nf);
        round(c.ours, nOurs, nf); // warm-up
        round(c.peer, nPeer, nf);
        for (int r = 0; r < rounds; ++r) {
            ours.push_back(round(c.ours, nOurs, nf));
            peer.push_back(round(c.peer, nPeer, nf));
        }
    } catch (const std::exception& e) {
        skipped = e.what();
    }
    if (c.teardown) c.teardown(); // also after a set-up that failed half-way
    std::vector<Row> rows;
    for (std::size_t f = 0; f < nf; ++f) {
        const Figure& fig = c.figures[f];
        Row row{c.name, fig.name, c.ours.what, c.peer.what, "", "", "", reading(fig.kind)};
        if (!skipped.empty()) {
            row.ratio = "skipped: " + skipped;
        } else {
            std::vector<double> a, b, q;
            for (std::size_t r = 0; r < ours.size(); ++r) {
                a.push_back(ours[r][f]);
                b.push_back(peer[r][f]);
                q.push_back(ours[r][f] / peer[r][f]);
            }
            row.oursValue = value(fig.kind, spread(a).median);
            row.peerValue = value(fig.kind, spread(b).median);
            row.ratio = ratio(spread(q));
        }
        rows.push_back(row);
    }
    return rows;
}

std::string load_average() {
    std::ifstream in("/proc/loadavg");
    std::string a, b, c;
    in >> a >> b >> c;
    return a + " " + b + " " + c;
}

// A cell of a Markdown table.
std::string cell(const std::string& s) {
    std::string out;
    for (char ch : s) {
        if (ch == '|') out += '\\';
        out += ch;
    }
    return out;
}

// s padded with spaces to `width` characters (UTF-8), on the left or the right.
std::string pad(const std::string& s, std::size_t width, bool left = false) {
    std::size_t chars = 0;
    for (unsigned char ch : s)
        chars += (ch & 0xC0) != 0x80;
    std::string fill(width > chars ? width - chars : 0, ' ');
    return left ? fill + s : s + fill;
}

void print_row(const Row& r) {
    std::printf("%s %s %s %s | %s %s | %s %s\n", pad(r.name, 46).c_str(), pad(r.figure, 10).c_str(),
                pad(r.ours, 32).c_str(), pad(r.oursValue, 11, true).c_str(), pad(r.peer, 30).c_str(),
                pad(r.peerValue, 11, true).c_str(), pad(r.ratio, 22).c_str(), r.reading.c_str());
    std::fflush(stdout);
}

int usage(const char* self) {
    std::fprintf(stderr, "usage: %s [--filter=WORD[,WORD...]] [--rounds=N] [--markdown=FILE] [--list]\n", self);
    return 2;
}

} // namespace

void add(Case c) { registry().push_back(std::move(c)); }

Side percentiles(std::string what, std::function<void(u64, std::vector<double>&)> work) {
    return {std::move(what), [work = std::move(work)](u64 n, double* out) {
                std::vector<double> samples;
                samples.reserve(n);
                work(n, samples);
                if (samples.empty()) throw Skip("no samples");
                std::sort(samples.begin(), samples.end());
                auto at = [&](double q) { return samples[static_cast<std::size_t>(q * double(samples.size() - 1))]; };
                out[0] = at(0.50);
                out[1] = at(0.99);
            }};
}

} // namespace bench

int main(int argc, char** argv) {
    using namespace bench;
    std::vector<std::string> filters;
    int rounds = 7;
    std::string markdown;
    bool list = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto val = [&](const char* key) {
            std::size_t k = std::strlen(key);
            return arg.compare(0, k, key) == 0 ? arg.substr(k) : std::string();
        };
        if (!val("--filter=").empty()) {
            std::stringstream words(val("--filter="));
            for (std::string w; std::getline(words, w, ',');)
                if (!w.empty()) filters.push_back(w);
        } else if (!val("--rounds=").empty()) {
            rounds = std::atoi(val("--rounds=").c_str());
            if (rounds < 1) return usage(argv[0]);
        } else if (!val("--markdown=").empty()) {
            markdown = val("--markdown=");
        } else if (arg == "--list") {
            list = true;
        } else {
            return usage(argv[0]);
        }
    }
    auto chosen = [&](const Case& c) {
        if (filters.empty()) return true;
        return std::any_of(filters.begin(), filters.end(),
                           [&](const std::string& w) { return c.name.find(w) != std::string::npos; });
    };
    // The scale cases (the library against itself) come last.
    std::stable_partition(registry().begin(), registry().end(),
                          [](const Case& c) { return c.name.compare(0, 6, "scale.") != 0; });
    if (list) {
        for (const Case& c : registry())
            if (chosen(c)) std::printf("%s\n", c.name.c_str());
        return 0;
    }

    utsname host{};
    uname(&host);
    std::time_t now = std::time(nullptr);
    char when[32];
    std::strftime(when, sizeof when, "%Y-%m-%d %H:%M", std::localtime(&now));
    std::string loadBefore = load_average();
    std::printf("libqosa (libqosa.so) against the plain platform calls: %d recorded rounds per case, alternating, "
                "each after a warm-up round; ratio = ours / peer per round, median [lowest–highest].\n"
                "%s, %s, %ld CPUs, load average %s\n\n",
                rounds, when, host.nodename, sysconf(_SC_NPROCESSORS_ONLN), loadBefore.c_str());
    print_row({"case", "figure", "libqosa", "peer", "", "", "ratio", "ratio is"});

    std::vector<Row> rows;
    for (const Case& c : registry()) {
        if (!chosen(c)) continue;
        for (const Row& r : run_case(c, rounds)) {
            print_row(r);
            rows.push_back(r);
        }
    }
    std::string loadAfter = load_average();
    std::printf("\nload average at the end: %s\n", loadAfter.c_str());

    if (!markdown.empty()) {
        std::ofstream md(markdown);
        md << "# libqosa benchmarks\n\n"
           << "libqosa as users link it (`libqosa.so`) against the plain platform call, in one process, the two "
              "sides alternating: a warm-up round of each, then "
           << rounds
           << " recorded rounds (each side's work per round calibrated once to about 50 ms). Ratio: ours / peer "
              "per round, median [lowest–highest]. Scale cases compare the library with itself (larger / smaller); "
              "the timer service cases run a fixed window per round.\n\n"
           << when << ", " << host.nodename << ", " << sysconf(_SC_NPROCESSORS_ONLN) << " CPUs, load average "
           << loadBefore << " at the start, " << loadAfter << " at the end.\n\n"
           << "| case | figure | libqosa call | libqosa | peer call | peer | ratio | ratio is |\n"
           << "|---|---|---|--:|---|--:|---|---|\n";
        for (const Row& r : rows)
            md << "| " << cell(r.name) << " | " << cell(r.figure) << " | " << cell(r.ours) << " | " << r.oursValue
               << " | " << cell(r.peer) << " | " << r.peerValue << " | " << cell(r.ratio) << " | " << r.reading
               << " |\n";
        if (!md) {
            std::fprintf(stderr, "could not write %s\n", markdown.c_str());
            return 1;
        }
        std::printf("table written to %s\n", markdown.c_str());
    }
    return 0;
}
