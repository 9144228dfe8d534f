// The /proc statistics against what a user would do instead: ps for the
// memory figures of every process, and for the thread census of a process
// named by the caller (this one as it is, and with 1,000 threads) finding it
// among /proc's stat files, then reading each thread's stat file in its task
// directory.
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "bench.h"
#include "qosa_mem.h"
#include "qosa_stat.h"

extern char** environ;

namespace {

using bench::keep;
using bench::u64;

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

// The census looks a process up by name: give this one a name no other
// process has.
const char* own_name() {
    static char name[16];
    if (name[0] == 0) {
        std::snprintf(name, sizeof name, "qbench%d", static_cast<int>(getpid()) % 100000000);
        prctl(PR_SET_NAME, name);
    }
    return name;
}

u32 census_qosa(u64 n) {
    u32 count = 0;
    for (u64 i = 0; i < n; ++i) {
        QOSA_OS_THREAD_INFO_S* recs = nullptr;
        if (QOSA_OS_GetProcThread(own_name(), &count, &recs) != 0) throw bench::Skip("process not found");
        keep(recs);
        QOSA_MemTypeFreeD(recs, QOSA_MEM_DYN, __LINE__, __FILE__);
    }
    return count;
}

struct ThreadState {
    int tid;
    char state;
};

// The first process whose stat line gives it this name: its pid, or "" when none.
std::string find_process(const char* name) {
    const std::string want = std::string("(") + name + ") ";
    std::string found;
    DIR* proc = opendir("/proc");
    while (dirent* e = proc != nullptr && found.empty() ? readdir(proc) : nullptr) {
        if (e->d_name[0] < '0' || e->d_name[0] > '9') continue;
        char path[300], buf[512];
        std::snprintf(path, sizeof path, "/proc/%s/stat", e->d_name);
        int fd = open(path, O_RDONLY | O_CLOEXEC);
        ssize_t got = fd < 0 ? -1 : read(fd, buf, sizeof buf - 1);
        if (fd >= 0) close(fd);
        if (got > 0 && std::string_view(buf, got).find(want) != std::string_view::npos) found = e->d_name;
    }
    if (proc != nullptr) closedir(proc);
    return found;
}

// The named process found, then each thread's id and state letter from
// /proc/<pid>/task/<tid>/stat.
std::size_t census_direct(u64 n) {
    std::vector<ThreadState> out;
    for (u64 i = 0; i < n; ++i) {
        out.clear();
        const std::string pid = find_process(own_name());
        DIR* dir = pid.empty() ? nullptr : opendir(("/proc/" + pid + "/task").c_str());
        if (dir == nullptr) throw bench::Skip("no task directory");
        while (dirent* e = readdir(dir)) {
            if (e->d_name[0] < '0' || e->d_name[0] > '9') continue;
            char path[300], buf[512];
            std::snprintf(path, sizeof path, "/proc/%s/task/%s/stat", pid.c_str(), e->d_name);
            int fd = open(path, O_RDONLY | O_CLOEXEC);
            if (fd < 0) continue;
            ssize_t got = read(fd, buf, sizeof buf - 1);
            close(fd);
            if (got <= 0) continue;
            buf[got] = 0;
            const char* paren = std::strrchr(buf, ')');
            if (paren != nullptr && paren[1] == ' ') out.push_back({std::atoi(e->d_name), paren[2]});
        }
        closedir(dir);
        keep(out.data());
    }
    return out.size();
}

// 999 threads parked on a pipe beside the main one; closing the pipe ends them.
struct Crowd {
    int fd[2] = {-1, -1};
    std::vector<pthread_t> threads;
    void start(int count) {
        if (pipe(fd) != 0) throw bench::Skip("pipe failed");
        pthread_attr_t attr;
        pthread_attr_init(&attr);
        pthread_attr_setstacksize(&attr, 64 * 1024);
        for (int i = 0; i < count; ++i) {
            pthread_t t;
            if (pthread_create(
                    &t, &attr,
                    [](void* p) -> void* {
                        char c;
                        keep(read(*static_cast<int*>(p), &c, 1));
                        return nullptr;
                    },
                    &fd[0]) != 0)
                break;
            threads.push_back(t);
        }
        pthread_attr_destroy(&attr);
        if (threads.size() != static_cast<std::size_t>(count)) throw bench::Skip("could not start the threads");
    }
    void stop() {
        if (fd[1] >= 0) close(fd[1]);
        for (pthread_t t : threads)
            pthread_join(t, nullptr);
        threads.clear();
        if (fd[0] >= 0) close(fd[0]);
        fd[0] = fd[1] = -1;
    }
} s_crowd;

const bench::Registrar reg([] {
    bench::pair(
        "stat.memory-scan", "QOSA_OS_GetMEMAllocRate",
        [](u64 n) {
            for (u64 i = 0; i < n; ++i) {
                u32 total = 0, free = 0, count = 0;
                QOSA_OS_PROC_INFO_S* recs = nullptr;
                if (QOSA_OS_GetMEMAllocRate(&total, &free, &count, &recs) != 0) throw bench::Skip("no scan");
                QOSA_MemTypeFreeD(recs, QOSA_MEM_DYN, __LINE__, __FILE__);
            }
        },
        "ps -e -o comm,vsz,rss",
        [](u64 n) {
            const char* const argv[] = {"ps", "-e", "-o", "comm,vsz,rss", nullptr};
            for (u64 i = 0; i < n; ++i)
                if (run(argv) <= 0) throw bench::Skip("ps did not run");
        });
    bench::pair(
        "stat.thread-census", "QOSA_OS_GetProcThread", [](u64 n) { census_qosa(n); },
        "find in /proc, read task/<tid>/stat", [](u64 n) { census_direct(n); });
    bench::Case crowd{"stat.thread-census.1000threads",
                      bench::timed("QOSA_OS_GetProcThread",
                                   [](u64 n) {
                                       if (census_qosa(n) < 1000) throw bench::Skip("threads missing");
                                   }),
                      bench::timed("find in /proc, read task/<tid>/stat", [](u64 n) {
                          if (census_direct(n) < 1000) throw bench::Skip("threads missing");
                      })};
    crowd.setup = [] { s_crowd.start(999); };
    crowd.teardown = [] { s_crowd.stop(); };
    bench::add(crowd);
});

} // namespace
