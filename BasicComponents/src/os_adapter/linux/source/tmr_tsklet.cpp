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
#include "internal/tracked.h"
#include "qosa_timer.h"

namespace {

using qosa::timer::OwnedTasklet;
using qosa::timer::QueueAt;

tsklet* as_node(tsklet_head* q) { return reinterpret_cast<tsklet*>(q); }

// false when the queue's lock cannot be taken.
bool link_in(tsklet_head* q, tsklet* t, QueueAt at) {
    MutexGuard lock(&q->lock);
    if (!lock.locked()) return false; // GCOVR_EXCL_BR_LINE: see MutexGuard
    tsklet* before = at == QueueAt::back ? as_node(q) : q->next; // t goes in front of this one
    t->next = before;
    t->prev = before->prev;
    before->prev->next = t;
    before->prev = t;
    return true;
}

// 0; 12 (errno 12) without memory; 22 for no queue or a queue that cannot be locked.
u32 enqueue(tsklet_head* q, tsklet_fn fn, void* arg, QueueAt at) {
    if (q == nullptr || fn == nullptr) return EINVAL;
    auto* t = QOSA_ALLOC_OF(tsklet);
    if (t == nullptr) {
        errno = ENOMEM;
        return ENOMEM;
    }
    t->fn = fn;
    t->arg = arg;
    if (link_in(q, t, at)) return 0;
    QOSA_RELEASE(t); // GCOVR_EXCL_LINE: see MutexGuard
    return EINVAL;   // GCOVR_EXCL_LINE
}

// Takes every queued tasklet off q: the first of the batch (whose last links
// to NULL), or NULL; false when the lock cannot be taken.
bool detach(tsklet_head* q, tsklet** first) {
    MutexGuard lock(&q->lock);
    if (!lock.locked()) return false; // GCOVR_EXCL_BR_LINE: see MutexGuard
    *first = nullptr;
    if (q->next != as_node(q)) {
        *first = q->next;
        q->prev->next = nullptr; // the batch ends here
        q->next = as_node(q);
        q->prev = as_node(q);
    }
    return true;
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

bool tsklet_post(tsklet_head* q, OwnedTasklet* t, tsklet_fn fn, void* arg, QueueAt at) {
    t->node.fn = run_owned;
    t->node.arg = t;
    t->fn = fn;
    t->arg = arg;
    return link_in(q, &t->node, at);
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
    tsklet* first = nullptr;
    if (q == nullptr || !detach(q, &first)) return -1;
    while (first != nullptr) {
        tsklet* next = first->next;
        const bool mine = allocated(first); // an owned one may be gone after its call
        first->fn(first->arg);
        if (mine) QOSA_RELEASE(first);
        first = next;
    }
    return 0;
}

u32 tsklet_delinit(tsklet_head* q) {
    tsklet* t = nullptr;
    if (q == nullptr) return EINVAL;
    // A queue that cannot be locked is left as it is.
    if (!detach(q, &t)) return 0; // GCOVR_EXCL_BR_LINE: see MutexGuard
    while (t != nullptr) {
        tsklet* next = t->next;
        if (allocated(t)) QOSA_RELEASE(t);
        t = next;
    }
    QOSA_MutexDestroy(&q->lock);
    return 0;
}

} // extern "C"
