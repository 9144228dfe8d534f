// Benchmarks come in pairs named "<case>.qosa" and "<case>.peer" (the plain
// platform call doing the same job). After the run the reporter prints the
// time of each library case as a ratio of its peer measured in the same run.
// With --benchmark_repetitions the medians are compared.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override;
    void PrintRatios() const;

  private:
    struct Pair {
        double qosa = 0, peer = 0;
    };
    std::map<std::string, Pair> single_, median_;
};
