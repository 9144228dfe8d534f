// One /proc scan of the statistics against the command-line tools doing the
// same job: ps for the memory figures, ls of the task directory for the
// threads. The tools are spawned (no shell) and read to the end; wall time.
#include <benchmark/benchmark.h>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "qosa_mem.h"
#include "qosa_stat.h"

extern char** environ;

namespace {

// Runs argv with its output on a pipe, reads it all, waits for the end: the
// bytes read, or -1 when it could not be started.
long run(const char* const argv[]) {
    int out[2];
    if (pipe(out) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    pid_t pid = -1;
    int rc = posix_spawnp(&pid, argv[0], &actions, nullptr, const_cast<char* const*>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    long bytes = 0;
    char buf[4096];
    for (ssize_t n; rc == 0 && (n = read(out[0], buf, sizeof buf)) > 0;)
        bytes += n;
    close(out[0]);
    if (rc != 0) return -1;
    int status = 0;
    waitpid(pid, &status, 0);
    return bytes;
}

void MemScan_qosa(benchmark::State& st) {
    for (auto _ : st) {
        u32 total = 0, free = 0, n = 0;
        QOSA_OS_PROC_INFO_S* recs = nullptr;
        if (QOSA_OS_GetMEMAllocRate(&total, &free, &n, &recs) != 0) st.SkipWithError("no scan");
        QOSA_MemTypeFreeD(recs, QOSA_MEM_DYN, __LINE__, __FILE__);
        benchmark::DoNotOptimize(n);
    }
}
void MemScan_peer(benchmark::State& st) {
    const char* const argv[] = {"ps", "-e", "-o", "comm,vsz,rss", nullptr};
    for (auto _ : st)
        if (run(argv) <= 0) st.SkipWithError("ps did not run");
}
BENCHMARK(MemScan_qosa)->Name("ProcMemoryScan.qosa")->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(MemScan_peer)->Name("ProcMemoryScan.peer")->UseRealTime()->Unit(benchmark::kMicrosecond);

// The threads of this very process, found by its name.
void Threads_qosa(benchmark::State& st) {
    std::string name;
    std::getline(std::ifstream("/proc/self/comm"), name);
    for (auto _ : st) {
        u32 n = 0;
        QOSA_OS_THREAD_INFO_S* recs = nullptr;
        if (QOSA_OS_GetProcThread(name.c_str(), &n, &recs) != 0) st.SkipWithError("not found");
        QOSA_MemTypeFreeD(recs, QOSA_MEM_DYN, __LINE__, __FILE__);
        benchmark::DoNotOptimize(n);
    }
}
void Threads_peer(benchmark::State& st) {
    const std::string task = "/proc/" + std::to_string(getpid()) + "/task";
    const char* const argv[] = {"ls", task.c_str(), nullptr};
    for (auto _ : st)
        if (run(argv) <= 0) st.SkipWithError("ls did not run");
}
BENCHMARK(Threads_qosa)->Name("ProcThreads.qosa")->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(Threads_peer)->Name("ProcThreads.peer")->UseRealTime()->Unit(benchmark::kMicrosecond);

} // namespace
