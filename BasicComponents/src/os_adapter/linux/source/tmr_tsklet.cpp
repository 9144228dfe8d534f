// Tasklets: deferred calls queued by any thread and run in order by the timer
// thread.
//
// A drain detaches the whole queue under its lock and runs the detached batch
// without it, so a tasklet (a stop's completion callback, say) may queue to
// the very queue being drained; what it queues runs at the next drain, after
// the rest of the batch.
//
// Beside the tasklets that the queueing functions allocate, a queue takes
// tasklets in storage of their owners (OwnedTasklet): the timer thread's own
// requests, which must not fail for want of memory.
#define QOSA_UNIT_NAME "tmr_tsklet.c"

#include <cerrno>
#include <cstddef>

#include "internal/common.h"
#include "internal/timer_service.h"
#include "qosa_mem.h"
#include "qosa_timer.h"

namespace {

using qosa::timer::OwnedTasklet;
using qosa::timer::QueueAt;

tsklet* as_node(tsklet_head* q) { return reinterpret_cast<tsklet*>(q); }

// A filled tasklet, or NULL (errno 12) when there is no memory.
tsklet* make(tsklet_fn fn, void* arg) {
    auto* t = static_cast<tsklet*>(QOSA_MemTypeMallocD(sizeof(tsklet), 0, QOSA_HERE));
    if (t == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    t->fn = fn;
    t->arg = arg;
    return t;
}

void link_in(tsklet_head* q, tsklet* t, QueueAt at) {
    MutexGuard lock(&q->lock);
    tsklet* before = at == QueueAt::back ? as_node(q) : q->next; // t goes in front of this one
    t->next = before;
    t->prev = before->prev;
    before->prev->next = t;
    before->prev = t;
}

u32 enqueue(tsklet_head* q, tsklet_fn fn, void* arg, QueueAt at) {
    if (q == nullptr || fn == nullptr) return EINVAL;
    tsklet* t = make(fn, arg);
    if (t == nullptr) return ENOMEM;
    link_in(q, t, at);
    return 0;
}

// The call of every owned tasklet; the drain knows them by it.
void run_owned(void* p) {
    auto* t = static_cast<OwnedTasklet*>(p);
    t->fn(t->arg);
}

// Whether the queue allocated t (and so frees it).
bool allocated(const tsklet* t) { return t->fn != run_owned; }

} // namespace

namespace qosa::timer {

void tsklet_post(tsklet_head* q, OwnedTasklet* t, tsklet_fn fn, void* arg, QueueAt at) {
    t->node.fn = run_owned;
    t->node.arg = t;
    t->fn = fn;
    t->arg = arg;
    link_in(q, &t->node, at);
}

} // namespace qosa::timer

// tsklet_head starts with the same two links as a tasklet, so the head is a
// node of its own circular list.
static_assert(offsetof(tsklet_head, next) == offsetof(tsklet, next));
static_assert(offsetof(tsklet_head, prev) == offsetof(tsklet, prev));

extern "C" {

s32 tsklet_init(tsklet_head* q) {
    if (q == nullptr) return -1;
    q->next = as_node(q);
    q->prev = as_node(q);
    return QOSA_MutexInit(&q->lock, nullptr);
}

u32 tsklet_invokelater(tsklet_head* q, tsklet_fn fn, void* arg) { return enqueue(q, fn, arg, QueueAt::back); }

u32 tsklet_invokefirst(tsklet_head* q, tsklet_fn fn, void* arg) { return enqueue(q, fn, arg, QueueAt::front); }

s32 tsklet_invokeall(tsklet_head* q) {
    if (q == nullptr) return -1;
    if (QOSA_MutexLock(&q->lock) != 0) return -1;
    tsklet* first = nullptr;
    if (q->next != as_node(q)) {
        first = q->next;
        q->prev->next = nullptr; // the batch ends here
        q->next = as_node(q);
        q->prev = as_node(q);
    }
    s32 ret = QOSA_MutexUnLock(&q->lock);
    while (first != nullptr) {
        tsklet* next = first->next;
        const bool mine = allocated(first); // an owned one may be gone after its call
        first->fn(first->arg);
        if (mine) QOSA_MemTypeFreeD(first, 0, QOSA_HERE);
        first = next;
    }
    return ret;
}

u32 tsklet_delinit(tsklet_head* q) {
    if (q == nullptr) return EINVAL;
    QOSA_MutexLock(&q->lock);
    tsklet* t = q->next;
    while (t != as_node(q)) {
        tsklet* next = t->next;
        if (allocated(t)) QOSA_MemTypeFreeD(t, 0, QOSA_HERE);
        t = next;
    }
    q->next = as_node(q);
    q->prev = as_node(q);
    QOSA_MutexUnLock(&q->lock);
    QOSA_MutexDestroy(&q->lock);
    return 0;
}

} // extern "C"
