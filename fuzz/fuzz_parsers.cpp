// The library's text parsers and rules against plain references:
// - /proc text: stat lines made the way the kernel prints them (any name,
//   blanks and parentheses included) must give back what they were made of;
//   arbitrary text and such lines cut anywhere must give what a plain
//   reference parse gives; the cpu line, meminfo and the shares likewise; the
//   process-name test and the state codes against their rules;
// - the date-time validity rule against a reference written from the rule
//   and, for whole dates, against the C library's calendar (timegm); the
//   arithmetic of the clock readings;
// - QOSA_Versionsort against versionsort, QOSA_Alphasort against alphasort;
// - QOSA_RelPath against realpath in a scratch tree of directories, files and
//   symbolic links (loops and dangling ones included);
// - the /proc/net socket-table reader against tables made as the kernel
//   prints them.
// Every text is passed in a block of exactly its length + 1.
#include <dirent.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <ftw.h>
#include <limits.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "internal/proc_parse.h"
#include "internal/time.h"
#include "qosa_file.h"
#include "qosa_socket.h"
#include "qosa_stat.h"
#include "qosa_time.h"

namespace st = qosa::stat;

// A sanitizer's, when one is linked in (not in the replay of plain builds).
extern "C" [[gnu::weak]] void __sanitizer_set_death_callback(void (*callback)());

namespace {

// The scratch tree of the path checks, removed at exit and on any finding.
std::string g_tree;

void remove_tree() {
    if (g_tree.empty()) return;
    nftw(
        g_tree.c_str(), [](const char* p, const struct stat*, int, struct FTW*) { return std::remove(p); }, 16,
        FTW_DEPTH | FTW_PHYS);
    g_tree.clear();
}

void check(bool ok) {
    if (ok) return;
    remove_tree();
    std::abort();
}

struct FreeDeleter {
    void operator()(void* p) const { std::free(p); }
};
using Text = std::unique_ptr<char, FreeDeleter>;

Text exact(const std::string& s) {
    Text t(static_cast<char*>(std::malloc(s.size() + 1)));
    std::memcpy(t.get(), s.data(), s.size());
    t.get()[s.size()] = '\0';
    return t;
}

std::string no_nul(std::string s, char instead = ' ') {
    std::replace(s.begin(), s.end(), '\0', instead);
    return s;
}

// ---- /proc stat lines -------------------------------------------------------

constexpr std::size_t kName = st::kNameMax;
using u128 = unsigned __int128;
constexpr char kBlanks[] = " \t\r\n";

// The reference: the name runs from the first "(" to the last ")"; field F
// (F >= 3) starts F - 2 blank-led steps after that ")".
struct RefLine {
    bool named = false;
    std::string name;
    std::size_t close = 0;
};

RefLine ref_name(const std::string& s) {
    RefLine r;
    const std::size_t open = s.find('('), close = s.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open) return r;
    r.named = true;
    r.name = s.substr(open + 1, std::min(close - open - 1, kName));
    r.close = close;
    return r;
}

bool ref_field(const std::string& s, std::size_t from, u32 steps, std::size_t* at) {
    std::size_t p = from;
    for (u32 i = 0; i < steps; ++i) {
        p = s.find(' ', p);
        if (p == std::string::npos) return false;
        p = s.find_first_not_of(kBlanks, p);
        if (p == std::string::npos) p = s.size();
    }
    *at = p;
    return true;
}

// The head, read in line order: the pid (a number first, else -1); a "("
// after blanks and a ")" after it (else 1): the token from the "(" to the
// last ")", cut to kNameMax; the state, the first character after blanks
// (else 2); the ppid and the pgrp, each a number (else 3 or 4); 5.
int ref_head(const std::string& s, st::StatHead* h) {
    *h = st::StatHead{};
    char* end = nullptr;
    h->pid = static_cast<s32>(std::strtol(s.c_str(), &end, 10));
    if (end == s.c_str()) return -1;
    std::size_t p = s.find_first_not_of(kBlanks, static_cast<std::size_t>(end - s.c_str()));
    const std::size_t close = s.rfind(')');
    if (p == std::string::npos || s[p] != '(' || close == std::string::npos || close < p) return 1;
    std::snprintf(h->token, sizeof h->token, "%s", s.substr(p, close - p + 1).c_str());
    p = s.find_first_not_of(kBlanks, close + 1);
    if (p == std::string::npos) return 2;
    h->state = s[p];
    int fields = 3;
    for (s32* n : {&h->ppid, &h->pgrp}) {
        const char* at = s.c_str() + p + (fields == 3 ? 1 : 0);
        *n = static_cast<s32>(std::strtol(at, &end, 10));
        if (end == at) break;
        p = static_cast<std::size_t>(end - s.c_str());
        ++fields;
    }
    return fields;
}

// The name, a field pair and the head of any text against the references.
void against_references(const std::string& s, u32 first) {
    const Text t = exact(s);
    const RefLine r = ref_name(s);

    char got[kName + 1];
    const char* close = st::stat_name(t.get(), got);
    check((close != nullptr) == r.named);
    if (r.named) check(close - t.get() == static_cast<std::ptrdiff_t>(r.close) && got == r.name);

    u32 value = 7;
    const u32 rc = st::stat_pair(t.get(), first, got, &value);
    std::size_t at = 0;
    if (!r.named || !ref_field(s, r.close, first - 2, &at)) {
        check(rc == 2 && value == 7);
    } else {
        char* end = nullptr;
        const unsigned long a = std::strtoul(s.c_str() + at, &end, 10);
        const unsigned long b = std::strtoul(end, nullptr, 10);
        check(rc == 0 && value == static_cast<u32>(a + b));
    }

    st::StatHead head, want;
    check(st::parse_stat_head(t.get(), &head) == ref_head(s, &want));
    check(head.pid == want.pid && std::strcmp(head.token, want.token) == 0 && head.state == want.state &&
          head.ppid == want.ppid && head.pgrp == want.pgrp);
}

// A line as the kernel prints /proc/PID/stat: fields 1..52, the name as is.
void made_stat_lines(FuzzedDataProvider& in) {
    const s32 pid = in.ConsumeIntegral<s32>();
    const std::string name = no_nul(in.ConsumeRandomLengthString(40), 'x');
    char state = in.ConsumeIntegralInRange<char>(33, 126);
    if (state == ')') state = 'R';
    const s32 ppid = in.ConsumeIntegral<s32>(), pgrp = in.ConsumeIntegral<s32>();
    std::vector<u64> field(53, 0); // field[i] is field i, from 6 on
    for (std::size_t i = 6; i < field.size(); ++i)
        field[i] = in.ConsumeIntegral<u64>();
    std::string line =
        std::to_string(pid) + " (" + name + ") " + state + " " + std::to_string(ppid) + " " + std::to_string(pgrp);
    for (std::size_t i = 6; i < field.size(); ++i)
        line += " " + std::to_string(field[i]);
    line += "\n";
    const Text t = exact(line);

    char got[kName + 1];
    const char* close = st::stat_name(t.get(), got);
    check(close != nullptr && *close == ')' && got == name.substr(0, kName));
    for (u32 first : {14u, 23u, 40u, 51u}) {
        u32 value = 0;
        check(st::stat_pair(t.get(), first, got, &value) == 0);
        check(value == static_cast<u32>(field[first] + field[first + 1]));
    }
    u32 value = 0;
    check(st::stat_pair(t.get(), 53, got, &value) == 2); // past the last field

    st::StatHead head;
    check(st::parse_stat_head(t.get(), &head) == 5);
    check(head.pid == pid && head.state == state && head.ppid == ppid && head.pgrp == pgrp);
    check(head.token == ("(" + name + ")").substr(0, kName));

    // The line cut anywhere, blanks of any kind after the cut.
    std::string cut = line.substr(0, in.ConsumeIntegralInRange<std::size_t>(0, line.size()));
    for (int n = in.ConsumeIntegralInRange(0, 3); n > 0; --n)
        cut += kBlanks[in.ConsumeIntegralInRange(0, 3)];
    against_references(cut, in.ConsumeIntegralInRange<u32>(2, 60));
}

void any_stat_lines(FuzzedDataProvider& in) {
    const u32 first = in.ConsumeIntegralInRange<u32>(2, 60);
    against_references(no_nul(in.ConsumeRemainingBytesAsString()), first);
}

// The name test, from its rule: the whole name in parentheses, or, for a
// token of 17 characters, the first 15 characters of the name. And the state
// code of any letter.
void name_tests(FuzzedDataProvider& in) {
    std::string name = no_nul(in.ConsumeRandomLengthString(24), 'n');
    std::string token;
    switch (in.ConsumeIntegralInRange(0, 3)) {
    case 0: // the kernel's token of this or another name
        token = ("(" + no_nul(in.ConsumeBool() ? name : in.ConsumeRandomLengthString(24), 'n')).substr(0, 16) + ")";
        break;
    case 1:
        token = ("(" + name + ")").substr(0, kName);
        break;
    case 2: // the name's first 15 characters, then anything
        token = "(" + name.substr(0, 15) + no_nul(in.ConsumeRandomLengthString(6), 't') + ")";
        break;
    default:
        token = no_nul(in.ConsumeRandomLengthString(20), 't');
        break;
    }
    const char letter = in.ConsumeIntegral<char>();
    static constexpr char kLetters[] = "RSDTW";
    static constexpr s32 kCodes[] = {QOSA_THREAD_STATE_RUNNING, QOSA_THREAD_STATE_SLEEPING, QOSA_THREAD_STATE_DISK_WAIT,
                                     QOSA_THREAD_STATE_STOPPED, QOSA_THREAD_STATE_PAGING};
    const char* known = letter != '\0' ? std::strchr(kLetters, letter) : nullptr;
    check(st::state_code(letter) == (known != nullptr ? kCodes[known - kLetters] : QOSA_THREAD_STATE_OTHER));
    const long n = static_cast<long>(name.size()), t = static_cast<long>(token.size());
    const bool whole = t >= 2 && n == t - 2 && token.compare(1, name.size(), name) == 0;
    const bool cut = t == 17 && name.size() >= 15 && token.compare(1, 15, name, 0, 15) == 0;
    const Text a = exact(name), b = exact(token);
    check(st::name_matches(a.get(), b.get()) == (whole || cut));
}

// The cpu line of /proc/stat and /proc/meminfo as the kernel prints them, and
// the busy share of two cpu samples against exact arithmetic. Counters stay
// below 2^60 (ticks; a machine never gets near).
void cpu_and_memory(FuzzedDataProvider& in) {
    std::string before = no_nul(in.ConsumeRandomLengthString(40));
    for (std::size_t p; (p = before.find("cpu ")) != std::string::npos;)
        before[p] = 'C';
    st::CpuSample want{};
    u64* counters[] = {&want.user, &want.nice, &want.system, &want.idle};
    std::string cpu = before + (in.ConsumeBool() ? "cpu  " : "cpu \t");
    for (u64* c : counters) {
        *c = in.ConsumeIntegralInRange<u64>(0, u64{1} << 60);
        cpu += std::to_string(*c) + " ";
    }
    cpu += "0 0 0\ncpu0 1 2 3 4\n";
    st::CpuSample got{1, 2, 3, 4};
    check(st::parse_cpu_line(exact(cpu).get(), &got) == 0);
    check(got.user == want.user && got.nice == want.nice && got.system == want.system && got.idle == want.idle);

    // A short line keeps the counters it does not reach; one that ends before
    // a counter, or no "cpu " line at all, is 2 and changes nothing.
    const int kept = in.ConsumeIntegralInRange(0, 4);
    const bool ends = in.ConsumeBool(), named = in.ConsumeIntegralInRange(0, 7) != 0;
    std::string line = before + (named ? "cpu " : "cpu0 ");
    st::CpuSample shortWant = want;
    u64* shortCounters[] = {&shortWant.user, &shortWant.nice, &shortWant.system, &shortWant.idle};
    for (int i = 0; i < kept; ++i)
        line += " " + std::to_string(*shortCounters[i] = in.ConsumeIntegral<u64>());
    line += ends ? " " : "\nintr 1 2\n";
    st::CpuSample shortGot = want;
    const bool refused = !named || (kept == 0 && ends);
    check(st::parse_cpu_line(exact(line).get(), &shortGot) == (refused ? 2u : 0u));
    if (refused) shortWant = want;
    check(std::memcmp(&shortGot, &shortWant, sizeof shortGot) == 0);

    // A process's share: its 32-bit ticks differenced modulo 2^32 (gone back:
    // 0) in the machine's ticks, capped at the whole.
    const u32 ticksBefore = in.ConsumeIntegral<u32>();
    const u32 ticksAfter =
        in.ConsumeBool() ? ticksBefore + in.ConsumeIntegralInRange<u32>(0, 1000) : in.ConsumeIntegral<u32>();
    const u64 machine = in.ConsumeBool() ? in.ConsumeIntegralInRange<u64>(0, 2000) : in.ConsumeIntegral<u64>();
    const u32 used = ticksAfter - ticksBefore;
    const u32 share = static_cast<s32>(used) < 0 || machine == 0 ? 0
                      : used >= machine                          ? 10000
                                                                 : static_cast<u32>(u128{used} * 10000 / machine);
    check(st::process_share(ticksBefore, ticksAfter, machine) == share);

    st::CpuSample later = want;
    for (u64* c : {&later.user, &later.nice, &later.system, &later.idle})
        *c += in.ConsumeIntegralInRange<u64>(0, u64{1} << 60);
    if (in.ConsumeBool()) later.idle = in.ConsumeIntegralInRange<u64>(0, u64{1} << 60); // may go back
    if (in.ConsumeIntegralInRange(0, 3) == 0) std::swap(want, later);                   // all may go back
    const u128 sumA = u128{want.user} + want.nice + want.system + want.idle;
    const u128 sumB = u128{later.user} + later.nice + later.system + later.idle;
    const u128 busyA = u128{want.user} + want.nice + want.system;
    const u128 busyB = u128{later.user} + later.nice + later.system;
    u32 rate = 0;
    if (sumB > sumA) {
        const u128 busy = busyB - busyA, total = sumB - sumA;
        rate = busy >= total ? 10000 : static_cast<u32>(busy * 10000 / total);
    }
    const u32 mine = st::busy_rate(want, later);
    // Totals too large to scale exactly are divided first: one step off at most.
    check(mine == rate || (sumB > sumA && sumB - sumA > UINT64_MAX / 10000 && mine == rate + 1));

    const u64 total = in.ConsumeIntegral<u64>(), freeKb = in.ConsumeIntegral<u64>();
    const bool withFree = in.ConsumeIntegralInRange(0, 7) != 0;
    const std::string pad(in.ConsumeIntegralInRange(1, 8), ' ');
    std::string mem = "MemTotal:" + pad + std::to_string(total) + " kB\n";
    if (withFree) mem += "MemFree:" + pad + std::to_string(freeKb) + " kB\n";
    mem += "MemAvailable:   1 kB\n";
    u32 t = 0, f = 0;
    check(st::parse_meminfo(exact(mem).get(), &t, &f) == (withFree ? 0u : 2u));
    check(t == std::min<u64>(total, UINT32_MAX));
    if (withFree) check(f == std::min<u64>(freeKb, UINT32_MAX));

    // Any text: a parse never reads past the text.
    const std::string any = no_nul(in.ConsumeRemainingBytesAsString());
    st::parse_cpu_line(exact(any).get(), &got);
    st::parse_meminfo(exact(any).get(), &t, &f);
}

// ---- date-time validity ------------------------------------------------------

bool ref_leap(long y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

u32 ref_month_days(long year, long month) {
    if (month == 4 || month == 6 || month == 9 || month == 11) return 30;
    if (month == 2) return year == -1 || ref_leap(year) ? 29 : 28;
    return 31;
}

bool ref_valid(const QOSA_SysTime& t) {
    auto within = [](long v, long lo, long hi) { return v == -1 || (v >= lo && v <= hi); };
    if (t.tm_year != -1 && t.tm_year < 1970) return false;
    if (!within(t.tm_mday, 1, 31) || !within(t.tm_mon, 1, 12)) return false;
    if (!within(t.tm_hour, 0, 23) || !within(t.tm_min, 0, 59) || !within(t.tm_sec, 0, 59)) return false;
    return t.tm_mday == -1 || static_cast<u32>(t.tm_mday) <= ref_month_days(t.tm_year, t.tm_mon);
}

s32 date_field(FuzzedDataProvider& in, std::initializer_list<s32> near) {
    if (in.ConsumeIntegralInRange(0, 7) == 0) return in.ConsumeIntegral<s32>();
    std::vector<s32> v(near);
    v.insert(v.end(), {-1, -2, 0, 1, INT_MIN, INT_MAX});
    const s32 base = v[in.ConsumeIntegralInRange<std::size_t>(0, v.size() - 1)];
    return base == INT_MIN || base == INT_MAX ? base : base + in.ConsumeIntegralInRange(-1, 1);
}

void dates(FuzzedDataProvider& in) {
    QOSA_SysTime t{};
    t.tm_sec = date_field(in, {59, 60, 30});
    t.tm_min = date_field(in, {59, 60, 30});
    t.tm_hour = date_field(in, {23, 24, 12});
    t.tm_mday = date_field(in, {28, 29, 30, 31, 32});
    t.tm_mon = date_field(in, {2, 4, 6, 9, 11, 12, 13});
    t.tm_year = date_field(in, {1969, 1970, 2000, 2023, 2024, 2100, 2400, 1904, 2038, 9999, 1800, 2200, 2600});
    const bool valid = ZAL_IsSysTimeValid(&t) == 1;
    check(valid == ref_valid(t));

    const u32 month = in.ConsumeBool() ? in.ConsumeIntegral<u32>() : in.ConsumeIntegralInRange<u32>(0, 13);
    check(Max_date(t.tm_year, month) == (month > 11 ? 31 : ref_month_days(t.tm_year, month)));

    // A whole date is valid exactly when the calendar keeps it as it is.
    const bool wildcard =
        t.tm_sec == -1 || t.tm_min == -1 || t.tm_hour == -1 || t.tm_mday == -1 || t.tm_mon == -1 || t.tm_year == -1;
    if (wildcard || t.tm_year < 1970 || t.tm_year > 9999 || t.tm_mon == INT_MIN) return;
    struct tm c {};
    c.tm_sec = t.tm_sec;
    c.tm_min = t.tm_min;
    c.tm_hour = t.tm_hour;
    c.tm_mday = t.tm_mday;
    c.tm_mon = t.tm_mon - 1;
    c.tm_year = t.tm_year - 1900;
    const struct tm asked = c;
    const time_t s = timegm(&c);
    struct tm back {};
    const bool kept = s != static_cast<time_t>(-1) && gmtime_r(&s, &back) != nullptr && back.tm_sec == asked.tm_sec &&
                      back.tm_min == asked.tm_min && back.tm_hour == asked.tm_hour && back.tm_mday == asked.tm_mday &&
                      back.tm_mon == asked.tm_mon && back.tm_year == asked.tm_year;
    check(valid == kept);
}

// ---- clock readings ------------------------------------------------------------

// Wall-clock milliseconds (0 before 1970; the seconds keep their low 32 bits),
// run-time milliseconds modulo 2^32, the UTC breakdown against gmtime_r, and
// a date-time record as the platform's: every field, month and year moved.
void readings(FuzzedDataProvider& in) {
    timeval tv{};
    tv.tv_sec = in.ConsumeBool() ? in.ConsumeIntegral<s64>() : in.ConsumeIntegralInRange<s64>(-2, s64{1} << 34);
    tv.tv_usec = in.ConsumeIntegralInRange<long>(-2, 999999);
    const u64 wall = tv.tv_sec < 0 || tv.tv_usec < 0
                         ? 0
                         : u64{static_cast<u32>(tv.tv_sec)} * 1000 + static_cast<u64>(tv.tv_usec) / 1000;
    check(qosa::time::wall_ms(tv) == wall);
    const timespec ts{in.ConsumeIntegralInRange<time_t>(0, s64{1} << 40),
                      in.ConsumeIntegralInRange<long>(0, 999999999)};
    check(qosa::time::run_ms(ts) == static_cast<u32>(static_cast<u64>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000));

    QOSA_TimeEx ex{};
    struct tm utc {};
    const time_t sec = tv.tv_sec;
    const bool broken = gmtime_r(&sec, &utc) != nullptr;
    check(qosa::time::to_time_ex(tv, &ex) == broken);
    if (broken && tv.tv_usec >= 0)
        check(ex.ms == static_cast<u32>(tv.tv_usec / 1000) && ex.tm_sec == utc.tm_sec && ex.tm_min == utc.tm_min &&
              ex.tm_hour == utc.tm_hour && ex.tm_mday == utc.tm_mday && ex.tm_mon == utc.tm_mon &&
              ex.tm_year == utc.tm_year);

    QOSA_SysTime t{};
    for (s32* f :
         {&t.tm_sec, &t.tm_min, &t.tm_hour, &t.tm_mday, &t.tm_mon, &t.tm_year, &t.tm_wday, &t.tm_yday, &t.tm_isdst})
        *f = in.ConsumeIntegralInRange(0, 7) == 0 ? -1 : in.ConsumeIntegralInRange<s32>(INT_MIN + 1900, INT_MAX);
    t.tm_gmtoff = in.ConsumeIntegral<long>();
    t.tm_zone = "ZONE";
    struct tm out;
    std::memset(&out, 0x5A, sizeof out);
    qosa::time::to_platform_tm(t, out);
    check(out.tm_sec == t.tm_sec && out.tm_min == t.tm_min && out.tm_hour == t.tm_hour && out.tm_mday == t.tm_mday &&
          out.tm_mon == (t.tm_mon == -1 ? -1 : t.tm_mon - 1) &&
          out.tm_year == (t.tm_year == -1 ? -1 : t.tm_year - 1900) && out.tm_wday == t.tm_wday &&
          out.tm_yday == t.tm_yday && out.tm_isdst == t.tm_isdst && out.tm_gmtoff == t.tm_gmtoff &&
          out.tm_zone == t.tm_zone);
}

// ---- version and alphabetical sort -------------------------------------------

int sign(int v) { return (v > 0) - (v < 0); }

void versions(FuzzedDataProvider& in) {
    auto entry = [&] {
        auto* d = static_cast<struct dirent*>(std::calloc(1, sizeof(struct dirent)));
        const std::string n = in.ConsumeRandomLengthString(sizeof d->d_name - 1);
        std::memcpy(d->d_name, n.data(), n.size());
        return std::unique_ptr<struct dirent, FreeDeleter>(d);
    };
    const auto a = entry(), b = entry();
    const struct dirent* pa = a.get();
    const struct dirent* pb = b.get();
    const int mine = sign(QOSA_Versionsort(&pa, &pb));
    check(mine == sign(versionsort(&pa, &pb)));
    check(mine == -sign(QOSA_Versionsort(&pb, &pa)));
    check(mine == sign(strverscmp(pa->d_name, pb->d_name)));
    check(sign(QOSA_Alphasort(&pa, &pb)) == sign(alphasort(&pa, &pb)));
}

// ---- path resolution ----------------------------------------------------------

struct Tree {
    std::string root;
    Tree() {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/qosa-fuzz-XXXXXX";
        check(mkdtemp(pattern.data()) != nullptr);
        char real[PATH_MAX];
        check(realpath(pattern.c_str(), real) != nullptr);
        root = g_tree = real;
        if (__sanitizer_set_death_callback != nullptr) __sanitizer_set_death_callback(remove_tree);
        const std::string deep(150, 'q'); // long resolved paths
        for (const std::string& d :
             {std::string("a"), std::string("a/b"), std::string("a/b/c"), std::string("w"), std::string("w/x"), deep})
            check(mkdir((root + "/" + d).c_str(), 0755) == 0);
        for (const char* f : {"f", "a/g"})
            std::fclose(std::fopen((root + "/" + f).c_str(), "w"));
        const std::pair<const char*, std::string> links[] = {{"la", "a"},
                                                             {"a/lb", "b/c"},
                                                             {"a/b/up", "../.."},
                                                             {"loop", "loop"},
                                                             {"a/loop2", "../loop"},
                                                             {"dangling", "nope"},
                                                             {"abs", root + "/a/b"},
                                                             {"lf", "f"},
                                                             {"a/b/c/deep", "../../../la/b"},
                                                             {"w/x/home", "../.."},
                                                             {"a/b/c/long", "../../../" + deep},
                                                             {"ql", deep},
                                                             {"lost", std::string(200, 'q')}};
        for (const auto& [at, to] : links)
            check(symlink(to.c_str(), (root + "/" + at).c_str()) == 0);
    }
    ~Tree() { remove_tree(); }
};

void paths(FuzzedDataProvider& in) {
    static const Tree tree;
    static constexpr const char* kParts[] = {"a",    "b",     "c",        "f",   "g",  "la",   "lb",   "up",
                                             "loop", "loop2", "dangling", "abs", "lf", "deep", "home", "long",
                                             "lost", "ql",    "w",        "x",   "..", ".",    "",     "nope"};
    std::string path;
    switch (in.ConsumeIntegralInRange(0, 3)) {
    case 0:
        path = tree.root + "/w/x";
        break;
    case 1:
        path = tree.root;
        break;
    case 2: // far beyond PATH_MAX
        path = tree.root;
        for (int i = in.ConsumeIntegralInRange(0, 2100); i > 0; --i)
            path += "/.";
        break;
    default:
        break; // relative to the working directory: only what does not exist there
    }
    for (int i = in.ConsumeIntegralInRange(0, 10); i > 0; --i) {
        path += in.ConsumeIntegralInRange(0, 5) == 0 ? "//" : "/";
        path += in.ConsumeIntegralInRange(0, 9) == 0
                    ? "zz" + no_nul(in.ConsumeRandomLengthString(6), 'z')
                    : kParts[in.ConsumeIntegralInRange<std::size_t>(0, std::size(kParts) - 1)];
    }
    if (in.ConsumeBool()) path += "/";
    if (path.rfind(tree.root, 0) != 0) path = "qosa-fuzz-missing" + path; // never there

    char want[PATH_MAX];
    const bool resolved = realpath(path.c_str(), want) != nullptr;
    const s32 len = resolved ? static_cast<s32>(std::strlen(want)) : in.ConsumeIntegralInRange(0, PATH_MAX);
    s32 outSize = 0;
    switch (in.ConsumeIntegralInRange(0, 5)) {
    case 0:
        outSize = len;
        break;
    case 1:
        outSize = len + 1;
        break;
    case 2:
        outSize = len - 1;
        break;
    case 3:
        outSize = in.ConsumeBool() ? INT_MIN : -1;
        break;
    default:
        outSize = in.ConsumeIntegralInRange(0, PATH_MAX + 10);
        break;
    }
    Text out(static_cast<char*>(std::malloc(outSize > 0 ? static_cast<std::size_t>(outSize) : 1)));
    const Text p = exact(path);
    const s32 rc = QOSA_RelPath(p.get(), out.get(), outSize);
    if (resolved && len < outSize)
        check(rc == 0 && std::strcmp(out.get(), want) == 0);
    else
        check(rc == 1);
}

// ---- /proc/net socket tables -----------------------------------------------------

// A socket table as the kernel prints /proc/net/tcp (and udp, tcp6, udp6):
// a header, then lines whole, cut after some fields, or not starting with a
// number. The state of the first whole line (after the header) whose local
// port is the one asked for must come back; a port 0 never matches.
void port_tables(FuzzedDataProvider& in) {
    const u16 port = in.ConsumeBool() ? in.ConsumeIntegralInRange<u16>(0, 3) : in.ConsumeIntegral<u16>();
    // The header is a text of its own or the first line made below.
    bool header = in.ConsumeBool();
    std::string table;
    if (!header) {
        table = no_nul(in.ConsumeRandomLengthString(60), ' ');
        std::replace(table.begin(), table.end(), '\n', ' ');
        table += "\n";
    }
    bool found = false;
    u32 want = 0;
    auto hex = [](u64 v, int width) {
        char b[32];
        std::snprintf(b, sizeof b, "%0*" PRIX64, width, v);
        return std::string(b);
    };
    for (int lines = in.ConsumeIntegralInRange(0, 12); lines > 0; --lines, header = false) {
        const int kind = in.ConsumeIntegralInRange(0, 3); // 0, 1 whole; 2 cut; 3 no number first
        if (kind == 3) {
            std::string junk = "x" + no_nul(in.ConsumeRandomLengthString(40), ' ');
            std::replace(junk.begin(), junk.end(), '\n', ' ');
            table += std::string(in.ConsumeIntegralInRange(0, 4), ' ') + junk + "\n";
            continue;
        }
        const bool v6 = in.ConsumeBool();
        const u32 localPorts[] = {port, port, 0, in.ConsumeIntegralInRange<u32>(0, 0xFFFFF), in.ConsumeIntegral<u16>()};
        const u32 localPort = in.PickValueInArray(localPorts);
        const u32 st = in.ConsumeIntegralInRange<u32>(0, in.ConsumeBool() ? 0xFF : 0xFFFFFFFF);
        auto addr = [&] {
            return hex(in.ConsumeIntegral<u64>(), 16).substr(0, 8) +
                   (v6 ? hex(in.ConsumeIntegral<u64>(), 16) + hex(in.ConsumeIntegral<u64>(), 8) : "");
        };
        const std::string pieces[15] = {
            std::string(in.ConsumeIntegralInRange(0, 4), ' ') + std::to_string(in.ConsumeIntegralInRange(0, 5000)),
            ": " + addr(),
            ":" + hex(localPort, 4),
            " " + addr(),
            ":" + hex(in.ConsumeBool() ? port : in.ConsumeIntegral<u16>(), 4), // the remote port never counts
            " " + hex(st, 2),
            " " + hex(in.ConsumeIntegral<u32>(), 8),
            ":" + hex(in.ConsumeIntegral<u32>(), 8),
            " " + hex(in.ConsumeIntegralInRange(0, 4), 2),
            ":" + hex(in.ConsumeIntegral<u32>(), 8),
            " " + hex(in.ConsumeIntegral<u32>(), 8),
            " " + std::to_string(in.ConsumeIntegralInRange(0, 65535)),
            " " + std::to_string(in.ConsumeIntegralInRange(0, 1000)),
            " " + std::to_string(in.ConsumeIntegral<u32>()),
            " " + std::string(in.ConsumeIntegralInRange<std::size_t>(1, 600), 'r') + " 0000000000000000 100 0 0 10 0"};
        const int kept = kind == 2 ? in.ConsumeIntegralInRange(1, 14) : 15;
        for (int i = 0; i < kept; ++i)
            table += pieces[i];
        table += "\n";
        if (!header && kept == 15 && !found && localPort == port && port != 0) {
            found = true;
            want = st;
        }
    }
    const int fd = memfd_create("qosa-fuzz-table", 0);
    check(fd >= 0 && write(fd, table.data(), table.size()) == static_cast<ssize_t>(table.size()));
    const bool missing = in.ConsumeIntegralInRange(0, 15) == 0; // no such table
    const std::string path = missing ? "/proc/self/fd/-1" : "/proc/self/fd/" + std::to_string(fd);
    u32 state = 0xABCD;
    const s32 rc = qosaGet_Port_State(path.c_str(), port, &state);
    close(fd);
    check(found && !missing ? rc == 0 && state == want : rc == -1 && state == 0xABCD);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    switch (in.ConsumeIntegralInRange(0, 8)) {
    case 0:
        made_stat_lines(in);
        break;
    case 1:
        any_stat_lines(in);
        break;
    case 2:
        name_tests(in);
        break;
    case 3:
        cpu_and_memory(in);
        break;
    case 4:
        dates(in);
        break;
    case 5:
        versions(in);
        break;
    case 6:
        paths(in);
        break;
    case 7:
        readings(in);
        break;
    default:
        port_tables(in);
        break;
    }
    return 0;
}
