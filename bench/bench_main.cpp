// Runs every benchmark, then prints library / peer ratios.
#include <cstdio>

#include "ratio_reporter.h"

void RatioReporter::ReportRuns(const std::vector<Run>& runs) {
    for (const Run& r : runs) {
        bool median = r.run_type == Run::RT_Aggregate && r.aggregate_name == "median";
        if (!median && (r.run_type != Run::RT_Iteration || r.iterations == 0)) continue;
        std::string name = r.run_name.str();
        for (const char* tag : {".qosa", ".peer"}) {
            auto pos = name.find(tag);
            if (pos == std::string::npos) continue;
            Pair& p = (median ? median_ : single_)[name.substr(0, pos) + name.substr(pos + 5)];
            (tag[1] == 'q' ? p.qosa : p.peer) = r.GetAdjustedRealTime();
        }
    }
    ConsoleReporter::ReportRuns(runs);
}

void RatioReporter::PrintRatios() const {
    std::printf("\n%-44s %12s %12s %8s\n", "case (time per iteration)", "libqosa", "peer", "ratio");
    std::map<std::string, Pair> best = single_;
    for (const auto& [key, m] : median_)
        if (m.qosa > 0 && m.peer > 0) best[key] = m; // medians win when there are repetitions
    for (const auto& [key, p] : best) {
        if (p.qosa <= 0 || p.peer <= 0) continue;
        std::printf("%-44s %12.1f %12.1f %7.2fx\n", key.c_str(), p.qosa, p.peer, p.qosa / p.peer);
    }
}

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatios();
    benchmark::Shutdown();
    return 0;
}
