// System statistics from /proc: the machine's and every process's CPU busy
// rate, memory figures, and the thread census of a named process. No state
// is shared between calls; every array is a tracked block, the result arrays
// go to the caller.
#define QOSA_UNIT_NAME "os_run_config.c"

#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/common.h"
#include "internal/error.h"
#include "internal/mem_switch.h"
#include "internal/proc_parse.h"
#include "internal/tracked.h"
#include "qosa_mem.h"
#include "qosa_stat.h"

static_assert(sizeof(QOSA_OS_PROC_INFO_S) == 24 && offsetof(QOSA_OS_PROC_INFO_S, ulValue) == 20,
              "an 18-byte name, then the 32-bit figure");
static_assert(sizeof(QOSA_OS_THREAD_INFO_S) == 8 && offsetof(QOSA_OS_THREAD_INFO_S, iState) == 4);

// ==== text steps ============================================================

namespace qosa::stat {

namespace {

constexpr u32 kFull = 10000;

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

const char* skip_blanks(const char* p) {
    while (is_blank(*p))
        ++p;
    return p;
}

// part / total in hundredths of a percent; part >= total is the whole.
u32 share_of(u64 part, u64 total) {
    if (total == 0) return 0;
    if (part >= total) return kFull;
    if (total <= UINT64_MAX / kFull) return static_cast<u32>(part * kFull / total);
    return static_cast<u32>(part / (total / kFull));
}

u32 saturated(unsigned long v) { return v > UINT32_MAX ? UINT32_MAX : static_cast<u32>(v); }

} // namespace

u32 parse_cpu_line(const char* text, CpuSample* sample) {
    const char* line = std::strstr(text, "cpu ");
    if (line == nullptr) return 2;
    u64 v[4] = {sample->user, sample->nice, sample->system, sample->idle};
    if (sscanf_s(line, "cpu %" SCNu64 " %" SCNu64 " %" SCNu64 " %" SCNu64, &v[0], &v[1], &v[2], &v[3]) < 0) return 2;
    *sample = CpuSample{v[0], v[1], v[2], v[3]};
    return 0;
}

u32 busy_rate(const CpuSample& a, const CpuSample& b) {
    // Counters that went back (the idle count can, on some kernels) give 0.
    if (b.user + b.nice + b.system + b.idle < a.user + a.nice + a.system + a.idle) return 0;
    const u64 busy = (b.user + b.nice + b.system) - (a.user + a.nice + a.system);
    const u64 total = (b.user + b.nice + b.system + b.idle) - (a.user + a.nice + a.system + a.idle);
    return share_of(busy, total);
}

u32 process_share(u32 before, u32 after, u64 total) {
    const u32 used = after - before;
    return static_cast<s32>(used) < 0 ? 0 : share_of(used, total);
}

const char* step_fields(const char* p, u32 steps) {
    for (u32 i = 0; i < steps; ++i) {
        p = std::strchr(p, ' ');
        if (p == nullptr) return nullptr;
        p = skip_blanks(p);
    }
    return p;
}

const char* stat_name(const char* line, char* name) {
    name[0] = '\0';
    const char* open = std::strchr(line, '(');
    const char* close = std::strrchr(line, ')');
    if (open == nullptr || close == nullptr || close < open) return nullptr;
    std::size_t len = static_cast<std::size_t>(close - open - 1);
    if (len > kNameMax) len = kNameMax;
    // A process may have an empty name: nothing to copy then.
    if (len != 0 && memcpy_s(name, kNameMax + 1, open + 1, len) != 0) return nullptr;
    name[len] = '\0';
    return close;
}

u32 stat_pair(const char* line, u32 first, char* name, u32* value) {
    const char* close = stat_name(line, name);
    if (close == nullptr) return 2;
    // The blank after ")" ends field 2: field F is F - 2 steps away.
    const char* p = step_fields(close, first - 2);
    if (p == nullptr) return 2;
    char* end = nullptr;
    const u64 a = std::strtoul(p, &end, 10);
    const u64 b = std::strtoul(end, nullptr, 10);
    *value = static_cast<u32>(a + b);
    return 0;
}

int parse_stat_head(const char* line, StatHead* head) {
    memset_s(head, sizeof *head, 0, sizeof *head);
    char* end = nullptr;
    const long pid = std::strtol(line, &end, 10);
    if (end == line) return -1;
    head->pid = static_cast<s32>(pid);
    const char* open = skip_blanks(end);
    const char* close = std::strrchr(open, ')');
    if (*open != '(' || close == nullptr) return 1;
    std::size_t len = static_cast<std::size_t>(close - open + 1);
    if (len > kNameMax) len = kNameMax;
    if (memcpy_s(head->token, sizeof head->token, open, len) != 0) return 1;
    head->token[len] = '\0';
    const char* p = skip_blanks(close + 1);
    if (*p == '\0') return 2;
    head->state = *p++;
    s32* numbers[] = {&head->ppid, &head->pgrp};
    int fields = 3;
    for (s32* n : numbers) {
        const long v = std::strtol(p, &end, 10);
        if (end == p) break;
        *n = static_cast<s32>(v);
        p = end;
        ++fields;
    }
    return fields;
}

bool name_matches(const char* searched, const char* token) {
    const u32 n = qosa::str_len(searched);
    const u32 t = qosa::str_len(token);
    if (t < 2) return false;
    if (n == t - 2 && std::strncmp(token + 1, searched, n) == 0) return true;
    // The kernel keeps 15 characters: "(" + 15 + ")".
    constexpr u32 kKernelName = 15;
    return t == kKernelName + 2 && std::strncmp(token + 1, searched, kKernelName) == 0;
}

s32 state_code(char letter) {
    switch (letter) {
    case 'R':
        return QOSA_THREAD_STATE_RUNNING;
    case 'S':
        return QOSA_THREAD_STATE_SLEEPING;
    case 'D':
        return QOSA_THREAD_STATE_DISK_WAIT;
    case 'T':
        return QOSA_THREAD_STATE_STOPPED;
    case 'W':
        return QOSA_THREAD_STATE_PAGING;
    default:
        return QOSA_THREAD_STATE_OTHER;
    }
}

u32 parse_meminfo(const char* text, u32* total, u32* freeMem) {
    // The number reader skips the blanks that pad each label.
    static constexpr char kTotal[] = "MemTotal: ";
    static constexpr char kFree[] = "MemFree: ";
    const char* t = std::strstr(text, kTotal);
    if (t == nullptr) return 2;
    *total = saturated(std::strtoul(t + sizeof kTotal - 1, nullptr, 10));
    const char* f = std::strstr(text, kFree);
    if (f == nullptr) return 2;
    *freeMem = saturated(std::strtoul(f + sizeof kFree - 1, nullptr, 10));
    return 0;
}

} // namespace qosa::stat

// ==== scans =================================================================
//
// The fills, copies and path prints of the scans work on buffers whose sizes
// fit what goes in (a directory name is at most 255 bytes): their failure
// branches cannot be taken and are marked as left out of the coverage figures.

using namespace qosa::stat;

namespace {

using ProcInfo = QOSA_OS_PROC_INFO_S;
using ThreadInfo = QOSA_OS_THREAD_INFO_S;

// The working array grows by this many records.
constexpr u32 kGrowStep = 20;
constexpr char kOpenFailed[] = "Open proc file system failed";
constexpr char kNotFound[] = "Can not find this process: ";
// Paths of /proc entries: "/proc/" + a directory name (at most 255) + "/stat".
constexpr std::size_t kPathSize = 272;

// Diagnostics: a message or the failing call, then the file or step.
void diag(const char* what, const char* where) { std::printf("%s,%s \n", what, where); }

// A tracked block of records that the call still owns; released when the call
// returns unless handed over with release().
template <typename T>
class Owned {
  public:
    Owned() = default;
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
    ~Owned() { reset(nullptr); }

    T* get() const { return p_; }
    T& operator[](u32 i) const { return p_[i]; }
    T* release() {
        T* p = p_;
        p_ = nullptr;
        return p;
    }
    void reset(T* p) {
        qosa::tracked::release(p_, line_, QOSA_UNIT_NAME);
        p_ = p;
    }
    // A block of n records (none for n = 0) recorded at line.
    static T* allocate(u32 n, u32 line) {
        return static_cast<T*>(qosa::tracked::alloc(std::size_t{n} * sizeof(T), line, QOSA_UNIT_NAME));
    }
    // Replaces the block by one of want records, the first have copied across;
    // the copy's status is added to status. False (block kept) when short.
    bool resize(u32 have, u32 want, u32 line, int* status) {
        T* bigger = allocate(want, line);
        if (bigger == nullptr) return false;
        if (have != 0) *status += memcpy_s(bigger, want * sizeof(T), p_, have * sizeof(T));
        reset(bigger);
        line_ = line;
        return true;
    }
    bool take(u32 n, u32 line) {
        reset(allocate(n, line));
        line_ = line;
        return p_ != nullptr;
    }

  private:
    T* p_ = nullptr;
    u32 line_ = 0; // where the block was allocated
};

// Room for record n of a /proc scan's working array, which grows kGrowStep
// records at a time (recorded at line); false, with a diagnostic naming who,
// when it cannot grow.
bool room_for(Owned<ProcInfo>& work, u32 n, u32 line, int* status, const char* who) {
    if (n % kGrowStep != 0 || work.resize(n, n + kGrowStep, line, status)) return true;
    diag(who, "working array not grown");
    return false;
}

// A directory stream, closed when the call returns. A failure to open it is
// reported at once.
class Dir {
  public:
    explicit Dir(const char* path) : d_(opendir(path)) {
        if (d_ == nullptr) diag(kOpenFailed, path);
    }
    Dir(const Dir&) = delete;
    Dir& operator=(const Dir&) = delete;
    ~Dir() {
        if (d_ != nullptr) closedir(d_);
    }
    bool open() const { return d_ != nullptr; }
    // The next entry whose name begins with a digit, or nullptr at the end.
    const char* next_process() {
        if (d_ == nullptr) return nullptr;
        // readdir on a stream of its own is safe in any thread.
        while (const dirent* e = readdir(d_))
            if (e->d_name[0] >= '0' && e->d_name[0] <= '9') return e->d_name;
        return nullptr;
    }

  private:
    DIR* d_;
};

// A directory listing in directory order, released when the call returns.
class NameList {
  public:
    explicit NameList(const char* path) : n_(scandir(path, &list_, nullptr, nullptr)) {}
    NameList(const NameList&) = delete;
    NameList& operator=(const NameList&) = delete;
    ~NameList() {
        // scandir's entries and list come from malloc.
        for (int i = 0; i < n_; ++i)
            std::free(list_[i]);
        std::free(list_);
    }
    int size() const { return n_; }
    const char* name(int i) const { return list_[i]->d_name; }

  private:
    dirent** list_ = nullptr;
    int n_;
};

bool all_digits(const char* s) {
    if (*s == '\0') return false;
    for (; *s != '\0'; ++s)
        if (*s < '0' || *s > '9') return false;
    return true;
}

// Reads at most kReadSize bytes from the start of path into buf (kReadSize + 1
// bytes); the text read is terminated. False when it cannot be opened or
// nothing could be read.
bool read_head(const char* path, char* buf) {
    // Close-on-exec, so a program started by another thread meanwhile does not
    // inherit the file.
    FILE* f = std::fopen(path, "rbe");
    if (f == nullptr) return false;
    const std::size_t n = std::fread(buf, 1, kReadSize, f);
    std::fclose(f);
    buf[n] = '\0';
    // A process that exited between the open and the read reads as empty:
    // treat it like one that was already gone at the open.
    return n != 0;
}

u32 OS_ReadCpuTime(CpuSample* sample) {
    char buf[kReadSize + 1];
    if (memset_s(buf, sizeof buf, 0, sizeof buf) != 0) return 2; // GCOVR_EXCL_BR_LINE
    if (!read_head("/proc/stat", buf)) return 2;
    return parse_cpu_line(buf, sample);
}

// The name and user + system ticks (fields 14 and 15) of process pidName.
u32 OS_GetProcCpuTime(const char* pidName, char* name, u32* ticks) {
    char path[kPathSize];
    if (sprintf_s(path, sizeof path, "/proc/%s/stat", pidName) <= 0) return 2; // GCOVR_EXCL_BR_LINE
    char buf[kReadSize + 1];
    if (!read_head(path, buf)) return 2;
    return stat_pair(buf, 14, name, ticks);
}

u64 sum(const CpuSample& s) { return s.user + s.nice + s.system + s.idle; }

// ---- process census ----

enum class Found { Yes, No, ParentUnreadable };
struct Process {
    s32 pid;
    char state;
};

enum class Read { Ok, NoPath, NoFile };
// "/proc/<pid>/stat" (or, for a thread of process owner, the thread's own
// "/proc/<owner>/task/<pid>/stat") into path and its head into buf. The
// thread's own file costs the kernel that thread alone; "/proc/<tid>/stat"
// sums over the whole thread group.
Read read_stat(s32 pid, char* path, char* buf, s32 owner = 0) {
    int len = owner != 0 ? sprintf_s(path, kPathSize, "/proc/%d/task/%d/stat", owner, pid)
                         : sprintf_s(path, kPathSize, "/proc/%d/stat", pid);
    if (len <= 0) return Read::NoPath; // GCOVR_EXCL_BR_LINE
    return read_head(path, buf) ? Read::Ok : Read::NoFile;
}

// The stat head of pid (a thread of owner, when given) with at least need
// fields; an unreadable file is reported. False when the entry is to be
// skipped.
bool stat_head_of(s32 pid, int need, char* buf, StatHead* head, s32 owner = 0) {
    char path[kPathSize];
    Read r = read_stat(pid, path, buf, owner);
    if (r == Read::NoFile) diag(kOpenFailed, path);
    return r == Read::Ok && parse_stat_head(buf, head) >= need;
}

// The first process called name whose parent is called otherwise, in list
// order. A parent number of 0 means no parent process (the first process of
// the system and kernel threads).
Found find_process(const char* name, const NameList& procs, char* buf, Process* found) {
    for (int i = 0; i < procs.size(); ++i) {
        if (!all_digits(procs.name(i))) continue;
        StatHead self;
        if (!stat_head_of(std::atoi(procs.name(i)), 4, buf, &self) || !name_matches(name, self.token)) continue;
        if (self.ppid != 0) {
            char path[kPathSize];
            Read r = read_stat(self.ppid, path, buf);
            if (r == Read::NoPath) continue;
            if (r == Read::NoFile) return Found::ParentUnreadable;
            StatHead parent;
            if (parse_stat_head(buf, &parent) < 2 || name_matches(name, parent.token)) continue;
        }
        *found = Process{self.pid, self.state};
        return Found::Yes;
    }
    return Found::No;
}

// The threads listed in the task directory of process owner.
u32 threads_from_tasks(s32 owner, const NameList& tasks, char* buf, u32* count, ThreadInfo** records) {
    Owned<ThreadInfo> out;
    if (!out.take(static_cast<u32>(tasks.size()), __LINE__)) return 1;
    u32 n = 0;
    for (int i = 0; i < tasks.size(); ++i) {
        if (!all_digits(tasks.name(i))) continue;
        StatHead t;
        if (stat_head_of(std::atoi(tasks.name(i)), 3, buf, &t, owner))
            out[n++] = ThreadInfo{t.pid, state_code(t.state)};
    }
    *count = n;
    *records = out.release();
    return 0;
}

// Appends every process called name whose parent is ppid, one record more
// each time; *last (when given) becomes the last one's number. False when
// memory is short.
bool append_children(const char* name, const NameList& procs, s32 ppid, char* buf, Owned<ThreadInfo>& out, u32* n,
                     s32* last) {
    int status = 0;
    for (int i = 0; i < procs.size(); ++i) {
        if (!all_digits(procs.name(i))) continue;
        StatHead child;
        if (!stat_head_of(std::atoi(procs.name(i)), 5, buf, &child)) continue;
        if (child.ppid != ppid || !name_matches(name, child.token)) continue;
        if (last != nullptr) *last = child.pid;
        if (!out.resize(*n, *n + 1, __LINE__, &status)) return false;
        out[(*n)++] = ThreadInfo{child.pid, state_code(child.state)};
    }
    return true;
}

// Without task directories the threads show as processes: P, its same-named
// children, and the children of the last of them (the thread manager).
u32 threads_as_processes(const char* name, const NameList& procs, const Process& p, char* buf, u32* count,
                         ThreadInfo** records) {
    Owned<ThreadInfo> out;
    if (!out.take(1, __LINE__)) return 1;
    out[0] = ThreadInfo{p.pid, state_code(p.state)};
    u32 n = 1;
    s32 manager = -1;
    if (!append_children(name, procs, p.pid, buf, out, &n, &manager)) return 1;
    if (manager != -1 && !append_children(name, procs, manager, buf, out, &n, nullptr)) return 1;
    *count = n;
    *records = out.release();
    return 0;
}

} // namespace

extern "C" {

u32 QOSA_OS_GetCPUBusyRateAll(u32* rate) {
    if (rate == nullptr) return 3;
    CpuSample a, b;
    // GCOVR_EXCL_BR_START
    if (memset_s(&a, sizeof a, 0, sizeof a) != 0 || memset_s(&b, sizeof b, 0, sizeof b) != 0) return 3;
    // GCOVR_EXCL_BR_STOP
    *rate = 0;
    if (OS_ReadCpuTime(&a) != 0) return 2;
    sleep(1);
    if (OS_ReadCpuTime(&b) != 0) return 2;
    *rate = busy_rate(a, b);
    return 0;
}

u32 QOSA_OS_GetCPUBusyRate(u32* count, QOSA_OS_PROC_INFO_S** records) {
    if (count == nullptr || records == nullptr) return 3;
    ProcInfo scratch, spare;
    CpuSample a, b;
    // Status of every bounded fill and copy made here; reported at the end.
    int status = memset_s(&scratch, sizeof scratch, 0, sizeof scratch) + memset_s(&a, sizeof a, 0, sizeof a) +
                 memset_s(&b, sizeof b, 0, sizeof b);
    *count = 0;
    *records = nullptr;
    if (OS_ReadCpuTime(&a) != 0) return 2;

    // First scan: every process's name and ticks so far.
    Owned<ProcInfo> work;
    u32 n = 0;
    {
        Dir proc("/proc");
        if (!proc.open()) return 2;
        for (const char* pid = proc.next_process(); pid != nullptr; pid = proc.next_process()) {
            if (!room_for(work, n, __LINE__, &status, "QOSA_OS_GetCPUBusyRate")) break;
            ProcInfo& r = work[n];
            if (OS_GetProcCpuTime(pid, r.szProcName, &r.ulValue) != 0) return 1;
            ++n;
        }
    }
    if (work.get() == nullptr) return 1;

    sleep(1);
    if (OS_ReadCpuTime(&b) != 0) return 2;
    const u64 total = sum(b) >= sum(a) ? sum(b) - sum(a) : 0; // counters that went back give 0

    // Second scan: each process takes the first unmatched record of its name;
    // matched records move to the front, in match order.
    u32 m = 0;
    {
        Dir proc("/proc");
        if (!proc.open()) return 2;
        for (const char* pid = proc.next_process(); pid != nullptr; pid = proc.next_process()) {
            if (OS_GetProcCpuTime(pid, scratch.szProcName, &scratch.ulValue) != 0) break;
            for (u32 j = m; j < n; ++j) {
                if (std::strcmp(work[j].szProcName, scratch.szProcName) != 0) continue;
                work[j].ulValue = process_share(work[j].ulValue, scratch.ulValue, total);
                if (j != m) {
                    status += memcpy_s(&spare, sizeof spare, &work[j], sizeof spare);
                    status += memcpy_s(&work[j], sizeof spare, &work[m], sizeof spare);
                    status += memcpy_s(&work[m], sizeof spare, &spare, sizeof spare);
                }
                ++m;
                break;
            }
        }
    }

    Owned<ProcInfo> result;
    if (!result.take(m, __LINE__)) return 1;
    status += memcpy_s(result.get(), m * sizeof(ProcInfo), work.get(), m * sizeof(ProcInfo));
    if (status != 0) std::printf("safe function fail");
    *records = result.release();
    *count = m;
    return 0;
}

u32 QOSA_OS_GetMEMAllocRate(u32* total, u32* freeMem, u32* count, QOSA_OS_PROC_INFO_S** records) {
    if (total == nullptr || freeMem == nullptr || count == nullptr || records == nullptr || *records != nullptr) {
        diag("QOSA_OS_GetMEMAllocRate", "null argument or records already set");
        return 3;
    }
    char buf[kReadSize + 1];
    if (memset_s(buf, sizeof buf, 0, sizeof buf) != 0) return 3; // GCOVR_EXCL_BR_LINE
    *total = *freeMem = *count = 0;
    if (!read_head("/proc/meminfo", buf)) {
        diag(kOpenFailed, "/proc/meminfo");
        return 2;
    }
    if (parse_meminfo(buf, total, freeMem) != 0) return 2;

    Owned<ProcInfo> work;
    u32 n = 0;
    {
        Dir proc("/proc");
        if (!proc.open()) return 2;
        if (!work.take(kGrowStep, __LINE__)) {
            diag("QOSA_OS_GetMEMAllocRate", "working array not allocated");
            return 1;
        }
        int status = 0;
        char path[kPathSize];
        for (const char* pid = proc.next_process(); pid != nullptr; pid = proc.next_process()) {
            if (n != 0 && !room_for(work, n, __LINE__, &status, "QOSA_OS_GetMEMAllocRate")) break;
            if (sprintf_s(path, sizeof path, "/proc/%s/stat", pid) <= 0) break; // GCOVR_EXCL_BR_LINE
            // A process that is gone ends the scan; the ones before it stay.
            if (!read_head(path, buf)) {
                diag(kOpenFailed, path);
                break;
            }
            ProcInfo& r = work[n];
            if (stat_pair(buf, 23, r.szProcName, &r.ulValue) != 0) return 2;
            ++n;
        }
    }

    Owned<ProcInfo> result;
    if (n == 0 || !result.take(n, __LINE__)) return 1;
    // GCOVR_EXCL_BR_START
    if (memcpy_s(result.get(), n * sizeof(ProcInfo), work.get(), n * sizeof(ProcInfo)) != 0) return 1;
    // GCOVR_EXCL_BR_STOP
    *records = result.release();
    *count = n;
    return 0;
}

u32 QOSA_OS_GetProcThread(const char* name, u32* count, QOSA_OS_THREAD_INFO_S** records) {
    if (name == nullptr || count == nullptr || records == nullptr) {
        diag("QOSA_OS_GetProcThread", "null argument");
        return 3;
    }
    char buf[kReadSize + 1];
    if (memset_s(buf, sizeof buf, 0, sizeof buf) != 0) return 3; // GCOVR_EXCL_BR_LINE
    *count = 0;
    *records = nullptr;

    NameList procs("/proc");
    if (procs.size() < 0) {
        char text[64] = "";
        qosa::err::str_error(text, sizeof text, static_cast<u32>(errno));
        std::printf("QOSA_ScanDir ERROR: %s\n", text);
        return 2;
    }
    Process p{};
    switch (find_process(name, procs, buf, &p)) {
    case Found::Yes:
        break;
    case Found::ParentUnreadable:
        return 2;
    case Found::No:
        diag(kNotFound, name);
        return 2;
    }

    char path[kPathSize];
    if (sprintf_s(path, sizeof path, "/proc/%d/task", p.pid) <= 0) return 2; // GCOVR_EXCL_BR_LINE
    NameList tasks(path);
    if (tasks.size() >= 0) return threads_from_tasks(p.pid, tasks, buf, count, records);
    return threads_as_processes(name, procs, p, buf, count, records);
}

} // extern "C"
