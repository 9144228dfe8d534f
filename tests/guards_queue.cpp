// Missing pointers of the message queues: each has its own code, given before the queue is looked up.
#include "guard_cases.h"
#include "qosa.h"

namespace {
u32 s_id;
char s_buf[4];
} // namespace

static GuardRows s_rows{
    {"ORV_QueueCreate_name", [] { return std::int64_t{ORV_QueueCreate(nullptr, 1, &s_id, 0, 8)}; }, 0x20050008},
    {"ORV_QueueCreate_id", [] { return std::int64_t{ORV_QueueCreate("q", 1, nullptr, 0, 8)}; }, 0x20050009},
    {"ORV_QueueRead_buf", [] { return std::int64_t{ORV_QueueRead(1, 0, nullptr, 4)}; }, 0x20050015},
    {"ORV_QueueRead_len", [] { return std::int64_t{ORV_QueueRead(1, 0, s_buf, 0)}; }, 0x20050016},
    {"ORV_QueueWrite_msg", [] { return std::int64_t{ORV_QueueWrite(1, nullptr, 4, 0)}; }, 0x20050029},
};
