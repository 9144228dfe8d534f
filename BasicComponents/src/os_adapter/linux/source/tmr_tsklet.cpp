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
#include "internal/ilist.h"
#include "internal/lock.h"
#include "internal/timer_service.h"
#include "internal/tracked.h"
#include "qosa_timer.h"

namespace {

using qosa::ilist::Link;
using qosa::timer::OwnedTasklet;
using qosa::timer::QueueAt;

// The queue is a ring of the library's one list, its head the first two
// fields of tsklet_head and each node the first two of a tasklet: every link
// is read and written as an ilist::Link, never through the records' own
// pointer fields.
Link* ring(tsklet_head* q) { return reinterpret_cast<Link*>(q); }
Link* link_of(tsklet* t) { return reinterpret_cast<Link*>(t); }
tsklet* node(Link* l) { return reinterpret_cast<tsklet*>(l); }

// false when the queue's lock cannot be taken.
bool link_in(tsklet_head* q, tsklet* t, QueueAt at) {
    MutexGuard lock(&q->lock);
    if (!lock.locked()) return false; // GCOVR_EXCL_BR_LINE: see MutexGuard
    Link* head = ring(q);
    qosa::ilist::link_before(at == QueueAt::back ? head : head->next, link_of(t));
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

// Takes every queued tasklet off q: the first of the batch (chained by next
// up to NULL), or NULL; false when the lock cannot be taken.
bool detach(tsklet_head* q, Link** first) {
    MutexGuard lock(&q->lock);
    if (!lock.locked()) return false; // GCOVR_EXCL_BR_LINE: see MutexGuard
    *first = qosa::ilist::take_all(ring(q));
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

// tsklet_head and tsklet both start with the two links of an ilist::Link.
static_assert(offsetof(tsklet_head, next) == offsetof(Link, next) && offsetof(tsklet, next) == offsetof(Link, next));
static_assert(offsetof(tsklet_head, prev) == offsetof(Link, prev) && offsetof(tsklet, prev) == offsetof(Link, prev));

namespace qosa::timer {

s32 queue_init(tsklet_head* q) {
    if (q == nullptr) return -1;
    qosa::ilist::make_ring(ring(q));
    return qosa::lock::init(&q->lock, nullptr);
}

u32 queue_later(tsklet_head* q, tsklet_fn fn, void* arg) { return enqueue(q, fn, arg, QueueAt::back); }

u32 queue_first(tsklet_head* q, tsklet_fn fn, void* arg) { return enqueue(q, fn, arg, QueueAt::front); }

s32 queue_drain(tsklet_head* q) {
    Link* l = nullptr;
    if (q == nullptr || !detach(q, &l)) return -1;
    while (l != nullptr) {
        tsklet* t = node(l);
        l = l->next;
        const bool mine = allocated(t); // an owned one may be gone after its call
        t->fn(t->arg);
        if (mine) QOSA_RELEASE(t);
    }
    return 0;
}

u32 queue_discard(tsklet_head* q) {
    Link* l = nullptr;
    if (q == nullptr) return EINVAL;
    // A queue that cannot be locked is left as it is.
    if (!detach(q, &l)) return 0; // GCOVR_EXCL_BR_LINE: see MutexGuard
    while (l != nullptr) {
        tsklet* t = node(l);
        l = l->next;
        if (allocated(t)) QOSA_RELEASE(t);
    }
    qosa::lock::destroy(&q->lock);
    return 0;
}

} // namespace qosa::timer

extern "C" {

s32 tsklet_init(tsklet_head* q) { return qosa::timer::queue_init(q); }

u32 tsklet_invokelater(tsklet_head* q, tsklet_fn fn, void* arg) { return qosa::timer::queue_later(q, fn, arg); }

u32 tsklet_invokefirst(tsklet_head* q, tsklet_fn fn, void* arg) { return qosa::timer::queue_first(q, fn, arg); }

s32 tsklet_invokeall(tsklet_head* q) { return qosa::timer::queue_drain(q); }

u32 tsklet_delinit(tsklet_head* q) { return qosa::timer::queue_discard(q); }

} // extern "C"
