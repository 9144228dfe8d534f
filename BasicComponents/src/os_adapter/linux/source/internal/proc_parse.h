// Text steps of the /proc statistics: stat lines, the cpu line of /proc/stat
// and /proc/meminfo. Kept apart from the scans so they can be run on
// hand-written text.
//
// A stat line reads "PID (NAME) STATE PPID PGRP ...". NAME is the kernel's
// process name as is: it may hold blanks and parentheses, so it runs from the
// first "(" to the last ")". Fields are counted from PID as field 1.
#pragma once

#include "qosa_stat.h"

namespace qosa::stat {

// Bytes looked at per /proc file (one read).
inline constexpr u32 kReadSize = 512;
// Characters of a process name kept in a record.
inline constexpr u32 kNameMax = sizeof(QOSA_OS_PROC_INFO_S::szProcName) - 1;

// The four counters of the "cpu " line of /proc/stat, in clock ticks.
struct CpuSample {
    u64 user, nice, system, idle;
};

// The cpu line at or after the first "cpu " of text: 0, or 2 when there is no
// such line or no number could be read (a short line keeps the counters it
// did not reach).
u32 parse_cpu_line(const char* text, CpuSample* sample);
// Busy share of the machine between two samples, 0..10000. Counters are
// differenced as 64-bit values; no tick between the samples gives 0.
u32 busy_rate(const CpuSample& a, const CpuSample& b);
// Share of a process whose ticks went from before to after (32-bit counters,
// differenced modulo 2^32) in total machine ticks, 0..10000. Ticks that went
// back (another process of the same name) give 0.
u32 process_share(u32 before, u32 after, u64 total);

// From p: find the next blank, then step over every following space, tab,
// carriage return and line feed; steps times. nullptr when a space is missing.
const char* step_fields(const char* p, u32 steps);
// The name of a stat line, cut to kNameMax characters, into name (kNameMax +
// 1 bytes, always terminated). The position of the closing ")" or nullptr
// when the line has no "(" followed later by a ")".
const char* stat_name(const char* line, char* name);
// Reads the name and the sum of fields first and first + 1 (low 32 bits) of
// a stat line: 0, or 2 when the line has no name in parentheses or ends
// before field first.
u32 stat_pair(const char* line, u32 first, char* name, u32* value);

// The leading fields of a stat line. token is the name with its parentheses,
// cut to kNameMax characters, as a search compares it.
struct StatHead {
    s32 pid;
    char token[kNameMax + 1];
    char state;
    s32 ppid;
    s32 pgrp;
};
// Fields read in line order (0..5), or -1 when the line does not start with
// a number.
int parse_stat_head(const char* line, StatHead* head);
// True when the searched name matches a name token: the whole name, or, for a
// token of 17 characters (the kernel keeps 15), its first 15 characters.
bool name_matches(const char* searched, const char* token);
// Thread state code of a state letter (QOSA_THREAD_STATE_*).
s32 state_code(char letter);

// MemTotal and MemFree of /proc/meminfo text, in kB (saturated at 2^32 - 1):
// 0, or 2 when a line is missing. *total is set before MemFree is looked for.
u32 parse_meminfo(const char* text, u32* total, u32* freeMem);

} // namespace qosa::stat
