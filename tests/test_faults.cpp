// The fault sweep: every entry point that allocates or opens, tracking off and on, one child process per case:
// with the k-th allocation failing (each k up to the call's count), with too few descriptors, with thread
// creation failing and, tracking on, with guard pages refused. A case wants the documented failure or a correct
// success, nothing left behind (blocks, descriptors, threads, live timers), no tracker error record but a failed
// allocation's out-of-memory one, and the call to work again after.

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdarg>
#include <ctime>
#include <filesystem>
#include <functional>

#include "fault_inject.h"
#include "internal/mem_table.h"
#include "timer_helpers.h"

// The statistics sample twice, a second apart: in this executable the two
// samples are taken back to back (no tick passes, which is a valid result).
extern "C" unsigned sleep(unsigned) { return 0; }

namespace {

using namespace qosa_test;
using enum fault::Kind;
using R = long long;        // a call's result; a pointer as its address
constexpr R kWrong = 0xBAD; // the call returned 0 but did not do its job
template <class T = char>
T* ptr(R r) {
    return reinterpret_cast<T*>(static_cast<std::intptr_t>(r));
}

// What a row's functions share in one child.
struct Ctx {
    char dir[32] = "/tmp/qosa_fXXXXXX", a[64] = {}, b[64] = {}; // a, b: two names in dir (a path free of links)
    char buf[PATH_MAX + 1] = {}, name[16] = {};                 // name: this process's
    void *h = nullptr, *out = nullptr;                          // h: the handle under test
    u32 id = 0, n = 0, u = 0, v = 0;
    std::atomic<int> hits{0}, dones{0};
    QOSA_RelTimerGrp* grp = nullptr;
    QOSA_OS_PROC_INFO_S* procs = nullptr;
    QOSA_OS_THREAD_INFO_S* threads = nullptr;
    dirent** list = nullptr;
    addrinfo* ai = nullptr;
    pthread_t tid{};
};

enum Flags : unsigned {
    Threads = 1,     // also run with thread creation failing
    TrackedOnly = 2, // a tracker primitive: tracking on only
    NoWarm = 4,      // no warm-up call (absolute timers: their requests go once a second)
    Racy = 8,        // may fail without a fault (a /proc scan racing other processes): retried as a caller would
};

struct Row {
    const char* name;
    std::function<R(Ctx&)> call;
    std::vector<R> fails;                        // the documented failure results
    std::function<void(Ctx&, R)> undo = nullptr; // takes back what the call did, whatever its result
    std::function<void(Ctx&)> setup = nullptr;
    std::function<bool(Ctx&, R)> ok = nullptr; // a correct success (default: 0, or any non-null pointer)
    unsigned flags = 0;
};
void PrintTo(const Row& r, std::ostream* os) { *os << r.name; }

#define F(...) (std::vector<R>{__VA_ARGS__})
#define CALL(...) []([[maybe_unused]] Ctx& c) -> R { return std::intptr_t((__VA_ARGS__)); }
#define IS(...) []([[maybe_unused]] Ctx& c, [[maybe_unused]] R r) -> bool { return __VA_ARGS__; }
#define DO(...) []([[maybe_unused]] Ctx& c, [[maybe_unused]] R r) { __VA_ARGS__; }
#define SETUP(...) []([[maybe_unused]] Ctx& c) { __VA_ARGS__; }

// A case, and what its child process found (in memory the parent shares).
struct Case {
    bool tracked;
    fault::Kind fault;
    long k;              // Alloc: the allocation that fails (0: none, it only counts); Fds: descriptors left free
    bool struck = false; // the fault struck (Fds: the call failed)
    long seen = 0;       // allocations the call made
};
std::string describe(const Row& row, const Case& c) {
    static const char* const kinds[] = {"none ", "alloc ", "thread ", "maps ", "fds "};
    return row.name + std::string(c.tracked ? " tracked " : " untracked ") + kinds[int(c.fault)] + std::to_string(c.k);
}

std::string s_what; // the case, as describe() says it
bool s_bad = false;

// Says what went wrong in this child case, quoting what the library printed
// last (its diagnostics go to a memory file on standard output).
void complain(const char* fmt, ...) {
    char what[512];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(what, sizeof what, fmt, args);
    va_end(args);
    std::fflush(stdout);
    const std::string said = slurp("/proc/self/fd/1");
    std::fprintf(stderr, "[%s] %s; the library said: %s\n", s_what.c_str(), what,
                 said.c_str() + said.size() - std::min<std::size_t>(said.size(), 159));
    s_bad = true;
}

void hit(void* c) { ++static_cast<Ctx*>(c)->hits; }
void done(void* c) { ++static_cast<Ctx*>(c)->dones; }
std::atomic<int> s_grpHits{0};
void grp_hit(u32, u32) { ++s_grpHits; }
void* idle(void*) { return nullptr; }
int sink(char*, u32) { return 0; }

void* rel_timer(Ctx& c) { return c.h = QOSA_CreateRelTimerM(hit, QOSA_TIMER_LOOP, __LINE__, __FILE__); }
void* abs_timer(Ctx& c, u32 mode = QOSA_TIMER_LOOP) { return c.h = QOSA_CreateAbsTimerM(hit, mode); }
bool restart(Ctx& c) { return c.dones = 0, QOSA_StartRelTimer(c.h, 100000, &c) == 0; }
// A call that returned 0 must have its effect: the callback counted in `n` runs `times` times (and the timer is
// then released when `count` is given); kWrong when it does not come.
R then(u32 r, const std::atomic<int>& n, int times, s32* count = nullptr) {
    return r != 0 || eventually([&] { return n >= times && (count == nullptr || live(*count) == 0); }) ? r : kWrong;
}
u32 service() { return QOSA_StartTimerTask(nullptr, nullptr); }
u32 group(Ctx& c) { return QOSA_InitReltimerGrp(&c.grp, 2, grp_hit); }
bool member_runs(Ctx& c, u32 m) { return QOSA_StartRelTimerofGrp(c.grp, m, 100000, 7, 0) == 0; }
bool full_group(Ctx& c) { return group(c) == 0 && member_runs(c, 0) && member_runs(c, 1); }
R member_fires(Ctx& c) { return s_grpHits = 0, then(QOSA_StartRelTimerofGrp(c.grp, 0, 10, 7, 0), s_grpHits, 4); }

u32 new_queue(Ctx& c) { return ORV_QueueCreate("q", 4, &c.id, 0, 16); }
void write_hello(Ctx& c) { ORV_QueueWrite(c.id, "hello", 5, 0); }
void hello_queue(Ctx& c) { new_queue(c), write_hello(c); }
bool holds_hello(Ctx& c) { return std::memcmp(c.buf, "hello", 5) == 0; }

void put_file(const char* path, const char* text) { std::ofstream(path) << text; }
void tracked_free(void* p) { QOSA_MemTypeFreeD(p, QOSA_MEM_DYN, __LINE__, __FILE__); }
void* block(u32 size = 64) { return QOSA_MemTypeMallocD(size, QOSA_MEM_DYN, __LINE__, __FILE__); }
// A TCP port listened on (by a socket bound on listen).
u32 listener() {
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in at{};
    socklen_t len = sizeof at;
    listen(s, 1), getsockname(s, reinterpret_cast<sockaddr*>(&at), &len);
    return ntohs(at.sin_port);
}

// A call that returns a new block (released with free_it) holding `want`.
Row block_row(const char* name, std::function<R(Ctx&)> call, const void* want, std::size_t bytes,
              void (*free_it)(void*) = ORV_StrMemFree, unsigned flags = 0) {
    auto same = [=](Ctx&, R r) { return std::memcmp(ptr(r), want, bytes) == 0; };
    auto release = [=](Ctx&, R r) { free_it(ptr(r)); }; // the warm-up call made the locale objects the process keeps
    return {name, std::move(call), F(0), release, nullptr, same, flags};
}

std::string times(int n, const std::string& s) { return n == 0 ? "" : s + times(n - 1, s); }
const char kText[] = "h\xC3\xA9llo", kLatin[] = "h\xE9llo", kZeros[12] = {};
const wchar_t kWide[] = L"h\u00E9llo";
const u32 kUnits[] = {'h', 0xE9, 'l', 'l', 'o', 0};
const std::string kEuros = times(400, "\xE2\x82\xAC");
const std::wstring kWideEuros(400, L'\u20AC');
const QOSA_SysTime kEverySecond{-1, -1, -1, -1, -1, -1, 0, 0, 0, 0, nullptr};
const in_addr kLoopback{htonl(INADDR_LOOPBACK)};
const addrinfo kNumeric{AI_NUMERICHOST | AI_NUMERICSERV, 0, 0, 0, 0, nullptr, nullptr, nullptr};
constexpr R kQueueNoMem = ORV_QUEUE_ERR_NO_MEMORY;

// ---- the table: name, call, failure results, undo, set-up, success test, flags ----

const std::vector<Row>& rows() {
    static const std::vector<Row> table{
        {"ORV_QueueCreate", CALL(new_queue(c)), F(kQueueNoMem), DO(ORV_QueueDelete(c.id)),
         SETUP(ORV_QueueCreate("other", 4, &c.n, 0, 16))},
        // The first queue also makes the list's head record, which a failure leaves until the last queue goes.
        {"ORV_QueueCreate_first", CALL(new_queue(c)), F(kQueueNoMem),
         DO(r != 0 && new_queue(c), ORV_QueueDelete(c.id))},
        {"ORV_QueueWrite", CALL(ORV_QueueWrite(c.id, "hello", 5, 0)), F(kQueueNoMem), nullptr, SETUP(new_queue(c)),
         IS(ORV_QueueRead(c.id, 1, c.buf, 16) == 5 && holds_hello(c))},
        {"ORV_QueueRead", CALL(ORV_QueueRead(c.id, 0, c.buf, 16)), F(), DO(write_hello(c)), SETUP(hello_queue(c)),
         IS(r == 5 && holds_hello(c))},
        {"ORV_QueueDelete", CALL(ORV_QueueDelete(c.id)), F(), DO(hello_queue(c)), SETUP(hello_queue(c))},

        // The timer service starts with the first timer; a start that says so has its thread.
        {"QOSA_StartTimerTask", CALL((c.tid = {}, QOSA_StartTimerTask(&c.tid, nullptr))), F(ENOMEM, EAGAIN),
         DO(QOSA_StopTimerTask()), nullptr, IS(r == 0 && c.tid != pthread_t{}), Threads},
        {"QOSA_CreateRelTimerM", CALL(rel_timer(c)), F(0), DO(QOSA_FreeRelTimer(c.h), QOSA_StopTimerTask()), nullptr,
         nullptr, Threads},
        // A periodic timer keeps firing.
        {"QOSA_StartRelTimer", CALL(then(QOSA_StartRelTimer(c.h, 10, &c), c.hits, 4)), F(ENOMEM),
         DO(then(QOSA_StopRelTimer_Safe(c.h, done, &c), c.dones, 1), c.hits = c.dones = 0), SETUP(rel_timer(c))},
        {"QOSA_StopRelTimer_Safe", CALL(then(QOSA_StopRelTimer_Safe(c.h, done, &c), c.dones, 1)), F(ENOMEM),
         DO(restart(c)), SETUP(rel_timer(c), restart(c))},
        {"QOSA_StopRelTimer_SafeEx", CALL(then(QOSA_StopRelTimer_SafeEx(c.h, done, &c, &c.out), c.dones, 1)), F(ENOMEM),
         DO(restart(c)), SETUP(rel_timer(c), restart(c))},
        {"QOSA_FreeRelTimer", CALL(QOSA_FreeRelTimer(c.h)), F(ENOMEM), DO(r == 0 && rel_timer(c) && restart(c)),
         SETUP(rel_timer(c), restart(c))},
        {"QOSA_FreeRelTimerArg_safe", CALL(QOSA_FreeRelTimerArg_safe(c.h)), F(ENOMEM), DO(if (r == 0) c.h = block()),
         SETUP(service(), c.h = block())},
        // Fires once, then is released and no longer counted.
        {"QOSA_StartRelTimer_Simple", CALL(then(QOSA_StartRelTimer_Simple(10, hit, &c), c.hits, 1, &g_reltmNum)),
         F(ENOMEM), DO(c.hits = 0), SETUP(service())},
        {"QOSA_CreateAbsTimerM", CALL(abs_timer(c)), F(0), DO(QOSA_FreeAbsTimer(c.h), QOSA_StopTimerTask()), nullptr,
         nullptr, Threads},
        // A QOSA_TIMER_ONCE_FREE timer fires once, then is released and no longer counted.
        {"QOSA_StartAbsTimer", CALL(then(QOSA_StartAbsTimer(c.h, &kEverySecond, &c), c.hits, 1, &g_abstmNum)),
         F(ENOMEM), DO(c.hits = 0, r == 0 && abs_timer(c, QOSA_TIMER_ONCE_FREE)),
         SETUP(abs_timer(c, QOSA_TIMER_ONCE_FREE)), nullptr, NoWarm},
        {"QOSA_StopAbsTimer_Safe", CALL(QOSA_StopAbsTimer_Safe(c.h, done, &c)), F(ENOMEM), nullptr, SETUP(abs_timer(c)),
         nullptr, NoWarm},
        {"QOSA_FreeAbsTimer", CALL(QOSA_FreeAbsTimer(c.h)), F(ENOMEM), DO(r == 0 && abs_timer(c)), SETUP(abs_timer(c)),
         nullptr, NoWarm},
        {"QOSA_InitReltimerGrp", CALL(group(c)), F(0x20160036), DO(r == 0 && QOSA_FreeRelTimerGrp(c.grp)),
         SETUP(service())},
        // The timer left by a member's failed start is released by its next start.
        {"QOSA_StartRelTimerofGrp", CALL(member_fires(c)), F(0x2016003D),
         DO(r != 0 && member_runs(c, 0), QOSA_StopRelTimerofGrp(c.grp, 0)), SETUP(group(c))},
        {"QOSA_StopRelTimerofGrp", CALL(QOSA_StopRelTimerofGrp(c.grp, 0)), F(0x20160043),
         DO(r == 0 && member_runs(c, 0)), SETUP(group(c), member_runs(c, 0))},
        // A failed free leaves the members it had not reached: the caller frees again. The group's memory may
        // wait for the service's teardown (the stop here), but no longer.
        {"QOSA_FreeRelTimerGrp", CALL(QOSA_FreeRelTimerGrp(c.grp)), F(0x20160048),
         DO(r != 0 && QOSA_FreeRelTimerGrp(c.grp), QOSA_StopTimerTask(), full_group(c)), SETUP(full_group(c))},

        block_row("ORV_Utf8ToUnicodeW", CALL(ORV_Utf8ToUnicodeW(kText)), kWide, sizeof kWide),
        // Long multi-byte text is moved to a block of its size.
        block_row("ORV_Utf8ToUnicodeW_long", CALL(ORV_Utf8ToUnicodeW(kEuros.c_str())), kWideEuros.c_str(),
                  sizeof(wchar_t) * 401),
        block_row("ORV_Utf8ToUnicodeA", CALL(ORV_Utf8ToUnicodeA(kText)), kLatin, sizeof kLatin),
        block_row("ORV_UnicodeToUtf8", CALL(ORV_UnicodeToUtf8(kWide)), kText, sizeof kText),
        block_row("ORV_UnicodeToLocale", CALL(ORV_UnicodeToLocale(L"abc")), "abc", 4),
        block_row("ORV_LocaleToUnicodeW", CALL(ORV_LocaleToUnicodeW("abc")), L"abc", sizeof L"abc"),
        block_row("ORV_LocaleToUtf8", CALL(ORV_LocaleToUtf8("abc")), "abc", 4),
        block_row("ORV_Utf8ToLocale", CALL(ORV_Utf8ToLocale("abc")), "abc", 4),
        block_row("unicodeStr_to_utf8Str", CALL(unicodeStr_to_utf8Str(kUnits)), kText, sizeof kText),
        block_row("utf8Str_to_unicodeStr", CALL(utf8Str_to_unicodeStr(kText)), kUnits, sizeof kUnits),
        block_row("QOSA_StrDupEx", CALL(QOSA_StrDupEx("dup", __LINE__, __FILE__)), "dup", 4, tracked_free),

        block_row("MemCallocMem", CALL(MemCallocMem(__FILE__, __LINE__, 3, 4)), kZeros, 12, tracked_free, TrackedOnly),
        block_row("MemAlignMem", CALL(MemAlignMem(__FILE__, __LINE__, 0, 200)), "", 0, tracked_free, TrackedOnly),
        // When the block cannot grow, the old one stays as it was.
        {"MemReAllocMem", CALL(MemReAllocMem(__FILE__, __LINE__, c.h, 64)), F(0),
         DO(c.h = r != 0 ? ptr(r) : c.h; std::memcmp(c.h, "abcd", 4) && (complain("the old block changed"), 0)),
         SETUP(c.h = std::memcpy(block(4), "abcd", 4)), IS(std::memcmp(ptr(r), "abcd", 4) == 0), TrackedOnly},
        {"QOSA_MemGetMemRec", CALL(QOSA_MemGetMemRec(0, 1, nullptr, sink)), F(), nullptr, SETUP(c.h = block(4)),
         nullptr, TrackedOnly},
        {"QOSA_MemGetMemScan", CALL(QOSA_MemGetMemScan(sink)), F(1), nullptr,
         SETUP(sysMemLogMemErr(nullptr, 1, "x.c", 1, 0, QOSA_MEM_NO_MEM)), nullptr, TrackedOnly},
        {"MemRecordMemRecFun", CALL((MemRecordMemRecFun(c.a), 0)), F(), DO(unlink(c.a)), nullptr, nullptr, TrackedOnly},

        {"QOSA_ScanDir", CALL(QOSA_ScanDir(c.dir, &c.list, nullptr, nullptr)), F(-1),
         DO(if (r > 0) QOSA_DestoryNameList(c.list, u32(r))), SETUP(put_file(c.a, "a"), put_file(c.b, "b")),
         IS(r == 4)},
        {"QOSA_MkDir_P", CALL(QOSA_MkDir_P(c.buf, 0700)), F(-1), DO(std::filesystem::remove_all(c.a)),
         SETUP(std::snprintf(c.buf, sizeof c.buf, "%s/a/x/y", c.dir)), IS(r == 0 && access(c.buf, F_OK) == 0)},
        {"QOSA_RelPath", CALL(QOSA_RelPath(c.b, c.buf, sizeof c.buf)), F(1), nullptr,
         SETUP(mkdir(c.a, 0700), std::snprintf(c.b, sizeof c.b, "%s/a/../a", c.dir)),
         IS(r == 0 && std::strcmp(c.buf, c.a) == 0)},
        {"QOSA_CopyFile", CALL(QOSA_CopyFile(c.a, c.b)), F(-1), DO(unlink(c.b)), SETUP(put_file(c.a, "payload")),
         IS(r == 0 && slurp(c.b) == "payload")},
        {"QOSA_Fopen", CALL(QOSA_Fopen(c.dir, "r")), F(0), DO(r && QOSA_Fclose(ptr<FILE>(r)))},
        {"QOSA_OpenDir", CALL(QOSA_OpenDir(c.dir)), F(0), DO(r && QOSA_CloseDir(ptr<DIR>(r)))},
        {"QOSA_TmpFile", CALL(QOSA_TmpFile()), F(0), DO(r && QOSA_Fclose(ptr<FILE>(r)))},
        {"QOSA_Creat", CALL(QOSA_Creat(c.a, 0600)), F(-1), DO(close(int(r))), nullptr, IS(r >= 0)},
        {"QOSA_Open", CALL(QOSA_Open(c.a, O_RDWR | O_CREAT, 0600)), F(-1), DO(close(int(r))), nullptr, IS(r >= 0)},

        {"QOSA_OS_GetCPUBusyRateAll", CALL(QOSA_OS_GetCPUBusyRateAll(&c.u)), F(2), nullptr, nullptr,
         IS(r == 0 && c.u <= 10000)},
        {"QOSA_OS_GetCPUBusyRate", CALL(QOSA_OS_GetCPUBusyRate(&c.n, &c.procs)), F(1, 2), DO(tracked_free(c.procs)),
         nullptr, IS(r == 0 && c.n > 0), Racy},
        {"QOSA_OS_GetMEMAllocRate", CALL(QOSA_OS_GetMEMAllocRate(&c.u, &c.v, &c.n, &c.procs)), F(1, 2),
         DO(tracked_free(c.procs), c.procs = nullptr), nullptr, IS(r == 0 && c.n > 0 && c.u >= c.v)},
        {"QOSA_OS_GetProcThread", CALL(QOSA_OS_GetProcThread(c.name, &c.n, &c.threads)), F(1, 2),
         DO(tracked_free(c.threads)), nullptr, IS(r == 0 && c.threads != nullptr), Racy},

        {"QOSA_SemOpen", CALL(QOSA_SemOpen(c.dir + 4, O_CREAT, 0600, 1)), F(0),
         DO(QOSA_SemClose(ptr<QOSA_SEM_S>(r)), QOSA_SemUnLink(c.dir + 4))},
        {"QOSA_Socket", CALL(QOSA_Socket(AF_INET, SOCK_DGRAM, 0)), F(-1), DO(close(int(r))), nullptr, IS(r >= 0)},
        {"QOSA_IsLocalIp", CALL(QOSA_IsLocalIp(kLoopback.s_addr)), F(0), nullptr, nullptr, IS(r == 1)},
        {"QOSA_IsLocalIp6", CALL(QOSA_IsLocalIp6(AF_INET, &kLoopback)), F(0), nullptr, nullptr, IS(r == 1)},
        {"QOSA_PortStat", CALL(QOSA_PortStat(c.u, QOSA_PORT_TCP)), F(0), nullptr, SETUP(c.u = listener()), IS(r == 1)},
        {"QOSA_GetAddrInfo", CALL(QOSA_GetAddrInfo("127.0.0.1", "80", &kNumeric, &c.ai)), F(-1),
         DO(QOSA_FreeAddrInfo(c.ai), c.ai = nullptr)},
        {"QOSA_PthreadCreate", CALL(QOSA_PthreadCreate(&c.tid, nullptr, idle, nullptr)), F(EAGAIN),
         DO(r == 0 && QOSA_PthreadJoin(c.tid, nullptr)), nullptr, nullptr, Threads},
    };
    return table;
}

// What may be left behind, on fixed storage: taking it leaves nothing allocated.
struct State {
    long blocks = 0, tracked = 0;
    s32 rel = 0, abs = 0;
    int tasks = 0, nfds = 0, fds[64] = {};
    bool operator==(const State&) const = default;
};
// Calls fn with each number listed in a /proc directory (but the listing's own descriptor).
template <class Fn>
void each(const char* dir, Fn fn) {
    DIR* d = opendir(dir);
    for (dirent* e; d != nullptr && (e = readdir(d)) != nullptr;)
        if (e->d_name[0] != '.' && std::atoi(e->d_name) != dirfd(d)) fn(std::atoi(e->d_name));
    if (d != nullptr) closedir(d);
}
State now() {
    State s{fault::live_blocks(), qosa::mem::load(qosa::mem::g_MemMonitorRecord.ulCurCnt), live(g_reltmNum),
            live(g_abstmNum)};
    each("/proc/self/task", [&](int) { ++s.tasks; });
    each("/proc/self/fd", [&](int fd) { s.nfds < 64 ? void(s.fds[s.nfds++] = fd) : void(); });
    return s;
}
// The tracker's error records from number `from` on, but the out-of-memory ones when an allocation failed.
u32 errors(u32 from, bool allocFailed) {
    const auto& t = qosa::mem::g_MemMonitorRecord;
    u32 n = 0;
    for (u32 i = from; i < qosa::mem::load(t.ulErrCnt); ++i)
        n += !(allocFailed && t.astErrRec[i].ulStatus == QOSA_MEM_NO_MEM);
    return n;
}

void settle(const State& want, const char* when) {
    State s;
    if (eventually([&] { return (s = now()) == want; })) return;
    complain("%s: left behind: blocks %ld -> %ld, tracked %ld -> %ld, threads %d -> %d, relative timers %d -> %d, "
             "absolute timers %d -> %d, descriptors %d -> %d",
             when, want.blocks, s.blocks, want.tracked, s.tracked, want.tasks, s.tasks, want.rel, s.rel, want.abs,
             s.abs, want.nfds, s.nfds);
}

bool is_failure(const Row& row, R r) { return std::find(row.fails.begin(), row.fails.end(), r) != row.fails.end(); }
bool is_success(Ctx& c, const Row& row, R r) { return row.ok ? row.ok(c, r) : r == 0 || is_failure(row, 0); }

// A call without a fault must succeed (a racy one is retried, as a caller would).
void attempt(Ctx& c, const Row& row, const char* what) {
    R r = row.call(c);
    for (int i = 0; (row.flags & Racy) && is_failure(row, r) && i < 20; ++i)
        std::this_thread::sleep_for(5ms), r = row.call(c);
    if (is_failure(row, r) || !is_success(c, row, r)) complain("%s: result %lld without a fault", what, r);
    if (row.undo) row.undo(c, r);
}

// The descriptor limit that leaves exactly `spare` numbers free below it (s: what is open).
rlim_t limit_for(const State& s, long spare) {
    for (rlim_t lim = 0, free = 0;; ++lim)
        if (std::find(s.fds, s.fds + s.nfds, int(lim)) == s.fds + s.nfds && free++ == rlim_t(spare)) return lim;
}

[[noreturn]] void child(const Row& row, Case& cs) {
    s_what = describe(row, cs);
    alarm(60);                                    // a case that hangs is killed
    dup2(memfd_create("said", 0), STDOUT_FILENO); // the library's diagnostics, quoted by complain()
    tzset();                                      // the time zone is loaded once per process
    if (cs.tracked) QOSA_MemInitMemMange();
    Ctx c;
    if (mkdtemp(c.dir) == nullptr) std::exit(2);
    std::snprintf(c.a, sizeof c.a, "%s/a", c.dir), std::snprintf(c.b, sizeof c.b, "%s/b", c.dir);
    // Named after the directory, as is the semaphore: unique even beside process trees whose numbers overlap ours.
    std::snprintf(c.name, sizeof c.name, "%s", name_self(c.dir + 5).c_str());
    if (row.setup) row.setup(c);
    const u32 errs = qosa::mem::load(qosa::mem::g_MemMonitorRecord.ulErrCnt);
    if (!(row.flags & NoWarm)) attempt(c, row, "warm-up");
    // Waits until the timer thread ran what was queued (slower under a sanitizer) and a joined thread is gone from
    // the task list too (under qemu-user its host thread lingers).
    State before = now();
    for (State was{}; !(was == before);)
        std::this_thread::sleep_for(kUnderEmulator ? 100ms : 20ms * kSlack), was = before, before = now();

    rlimit fds{};
    getrlimit(RLIMIT_NOFILE, &fds);
    const rlimit low{cs.fault == Fds ? limit_for(before, cs.k) : fds.rlim_cur, fds.rlim_max};
    setrlimit(RLIMIT_NOFILE, &low);
    fault::arm(cs.fault, cs.k);
    const R r = row.call(c);
    const bool struck = fault::disarm();
    cs.seen = fault::seen();
    setrlimit(RLIMIT_NOFILE, &fds);

    const bool failed = is_failure(row, r);
    cs.struck = cs.fault == Fds ? failed : struck;
    if (failed && (!cs.struck || cs.fault == Maps) && !(row.flags & Racy))
        complain("fails (%lld) without the fault", r);
    if (!failed && !is_success(c, row, r)) complain("result %lld: neither the documented failure nor a success", r);
    if (row.undo) row.undo(c, r);
    settle(before, "after the call under the fault");
    attempt(c, row, "called again");
    settle(before, "after calling again");
    if (u32 n = errors(errs, cs.fault == Alloc && struck)) complain("%u error records", n);
    std::filesystem::remove_all(c.dir);
    std::exit(s_bad); // not _exit: coverage data is written, and a leak checker checks, at exit
}

// Whether case k of a call that made n allocations is run: every k of the first 64 (the first turns of every loop:
// the scans of /proc grow their arrays after 20 processes) and of the last 24, 12 in between.
bool sampled(long k, long n) { return k <= 64 || k > n - 24 || (k - 64) % ((n - 88) / 12 + 1) == 0; }

class Faults : public ::testing::TestWithParam<Row> {};

// A row's cases, and what their child processes found, in memory they share.
constexpr int kMaxCases = 256; // 2 x (1 count + 100 sampled + 17 short of descriptors + 2)
Case* const s_cases = static_cast<Case*>(
    mmap(nullptr, kMaxCases * sizeof(Case), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

// Runs the cases of a row in child processes, six at a time. A case may ask for more: a dry run for each k of the
// allocations it counted, a run short of descriptors for one more.
TEST_P(Faults, Sweep) {
    const Row& row = GetParam();
    int n = 0, next = 0;
    for (bool tracked : {false, true}) {
        if (!tracked && (row.flags & TrackedOnly)) continue;
        s_cases[n++] = {tracked, Alloc, 0}; // counts the allocations; completes
        s_cases[n++] = {tracked, Fds, 0};
        if (row.flags & Threads) s_cases[n++] = {tracked, Thread, 1};
        if (tracked) s_cases[n++] = {tracked, Maps, 1};
    }
    pid_t pids[kMaxCases] = {};
    for (int running = 0; next < n || running > 0; --running) {
        for (; next < n && running < 6; ++next, ++running) {
            std::fflush(nullptr);
            if ((pids[next] = fork()) == 0) child(row, s_cases[next]);
            ASSERT_GT(pids[next], 0) << row.name << ": fork failed";
        }
        int status = 0;
        const long at = std::find(pids, pids + next, wait(&status)) - pids;
        ASSERT_LT(at, next) << row.name << ": no child to wait for";
        const Case& cs = s_cases[at];
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << describe(row, cs) << (WIFSIGNALED(status) ? std::string(": ") + strsignal(WTERMSIG(status)) : "");
        EXPECT_TRUE(cs.fault != Thread || cs.struck) << row.name << " creates no thread";
        EXPECT_TRUE(cs.fault != Fds || cs.k < 16) << row.name << " never completes with descriptors";
        if (cs.fault == Alloc && cs.k == 0)
            for (long k = 1; k <= cs.seen; ++k)
                if (sampled(k, cs.seen)) s_cases[n++] = {cs.tracked, Alloc, k};
        if (cs.fault == Fds && cs.struck && cs.k < 16) s_cases[n++] = {cs.tracked, Fds, cs.k + 1};
    }
    std::printf("%s: %d cases\n", row.name, n);
}

INSTANTIATE_TEST_SUITE_P(EveryEntryPoint, Faults, ::testing::ValuesIn(rows()),
                         [](const ::testing::TestParamInfo<Row>& info) { return std::string(info.param.name); });

// Past the kernel's map budget mprotect refuses guard pages: the blocks are
// served all the same (and tracked: the sweep's Maps cases), their guard words
// still find an overflow, and the refusal is said once, in one line, on
// standard output (here standard error, for the death test's pattern).
bool refused_guard_pages() {
    dup2(STDERR_FILENO, STDOUT_FILENO);
    QOSA_MemInitMemMange();
    for (int i = 0; i < 3; ++i)
        MemAllocMem(__FILE__, __LINE__, 16, 0);
    fault::arm(Maps);
    auto* a = static_cast<char*>(MemAllocMem(__FILE__, __LINE__, 5, 0));
    auto* b = static_cast<char*>(MemAllocMem(__FILE__, __LINE__, 4096, 0));
    const bool refused = fault::disarm();
    std::memset(a, 1, 5), std::memset(b, 1, 4096);
    a[5] ^= 1; // the tail guard
    const u32 damaged = MemFreeMem(__FILE__, __LINE__, a, 0), good = MemFreeMem(__FILE__, __LINE__, b, 0);
    return refused && damaged == QOSA_MEM_DOWN_OVERFLOW && good == 0;
}

TEST(MemAllocMem, RefusedGuardPagesAreSaidOnceAndBlocksStayChecked) {
    EXPECT_EXIT(std::exit(refused_guard_pages() ? 0 : 1), ::testing::ExitedWithCode(0),
                "^[^\n]*past 3 guarded blocks[^\n]*sysctl vm.max_map_count[^\n]*\n$");
}

} // namespace
