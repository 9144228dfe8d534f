// Numbered, bounded queues of byte messages between threads.
//
// Each queue is a monitor: one futex lock guards its message chain, its count
// and two first-in first-out wait lists (internal/fifo_sem.h), one of readers
// that found it empty and one of writers that found it full. Nobody waits
// with the lock held, and whoever changes the queue serves the waiters it
// unblocks itself, before the woken thread even runs:
// - a write to an empty queue that a reader waits for hands the message to
//   the longest waiting reader (copied straight into its buffer);
// - a read from a full queue that a writer waits for links the longest
//   waiting writer's message (already in a node) into the place it freed.
// A woken thread then only returns: it never looks at the queue again, so it
// never runs into the lock; the thread that served it is done with the queue
// before the grant, and a delete waits for reads still copying out a message
// whose place a writer may have used (finishing). So a thread may delete the
// queue as soon as a call whose effect it saw has returned. Waiters are served strictly in the order they came, and a
// reader or writer that arrives later queues behind them (a full queue has writers waiting only while it stays full, an
// empty one readers only while it stays empty). Reads and writes share the one wait of the wait lists; time-outs run on
// the monotonic clock.
//
// Messages live in nodes, copied into them before the lock is taken where a
// node is at hand, and out of them after it is released. While memory
// tracking is off, a queue whose messages are at most kInlineMaxLen bytes
// keeps them in nodes sized for its longest message and keeps up to
// kSpareSlots freed nodes (no more than its capacity) in lock-free slots for
// the next writes, so a steady stream allocates nothing. With tracking on
// every message gets a node and a copy of its own, allocated before the lock
// is taken and freed after it is released, so the memory reports list each
// message held.
//
// The queue list is a head record with an index from id to queue (a table of
// buckets, id modulo a power of two, doubled as queues are added), guarded by
// g_hQueListMutex; the list mutex and a queue's lock are never held together.
// The head record is made with the first queue and freed with the last. The
// list mutex lives for the whole process, so a lookup that races with the
// deletion of the last queue never locks a dead mutex, and first creations
// from several threads build the list once. A list mutex that cannot be
// taken fails the call as if no queue had the id (create: 0x2005000C).
#define QOSA_UNIT_NAME "minikarbo_queue.c"

#include <sched.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <new>

#include "internal/clock.h"
#include "internal/common.h"
#include "internal/fifo_sem.h"
#include "internal/ilist.h"
#include "internal/mem_switch.h"
#include "internal/queue_debug.h"
#include "internal/str.h"
#include "internal/tracked.h"
#include "qosa_lock.h"
#include "qosa_queue.h"

namespace {

using namespace qosa::ilist;
using namespace qosa::sync;

// Longest message kept in a node of its queue's own size while tracking is
// off; queues of longer messages allocate each one.
constexpr u32 kInlineMaxLen = 4096;
// Inline nodes a queue keeps for reuse.
constexpr u32 kSpareSlots = 8;

struct MsgNode {
    Link link; // on its queue's chain (oldest first), or among its spare nodes
    u32 ulLen;
    void* pData; // the copy: a block of its own, or the node's own storage (the queue's longest message follows)
};
bool is_inline(const MsgNode* node) { return node->pData == node + 1; }
using MsgChain = List<MsgNode, &MsgNode::link>;

// A reader waiting for a message: the writer that serves it copies the message
// into buf (result: the bytes copied) or, with tracking on, hands it the node.
struct ReadWaiter : FifoWaiter {
    void* buf = nullptr;
    u32 len = 0;
    u32 result = 0;
    MsgNode* node = nullptr;
};
// A writer waiting for a place, its message ready in node.
struct WriteWaiter : FifoWaiter {
    MsgNode* node = nullptr;
};

struct QueueRec {
    Link link; // in its bucket of the index
    u32 ulQueId;
    char szName[32]; // at most 31 bytes of the name, zero-filled
    u32 ulMaxMsgNum;
    u32 ulMsgNum; // also read without the lock (ORV_QueueGetMsgNum): accessed through msg_num / set_msg_num
    u32 ulMaxMsgLen;
    u32 ulMode; // stored, consulted by nothing
    MsgChain msgs;
    FutexLock lock; // guards everything below and ulMsgNum
    Spin readSpin;
    Spin writeSpin;
    WaitList readers;                             // only while the queue is empty
    WaitList writers;                             // only while the queue is full
    u32 ulSlots;                                  // spare slots in use: at most kSpareSlots and the capacity
    std::atomic<MsgNode*> apstSpare[kSpareSlots]; // inline nodes kept for the next writes (no lock)
    // Reads that took a message and still copy it out or keep its node: what
    // they did is seen already (a writer may have used the place, and its
    // thread may delete the queue), so a delete waits for them.
    std::atomic<u32> finishing;
};

static_assert(offsetof(QueueRec, link) == 0);
static_assert(offsetof(QueueRec, ulQueId) < offsetof(QueueRec, szName));
static_assert(offsetof(QueueRec, szName) < offsetof(QueueRec, ulMaxMsgNum));
static_assert(offsetof(QueueRec, ulMaxMsgNum) < offsetof(QueueRec, ulMsgNum));
static_assert(offsetof(QueueRec, ulMsgNum) < offsetof(QueueRec, ulMaxMsgLen));
static_assert(offsetof(QueueRec, ulMaxMsgLen) < offsetof(QueueRec, ulMode));
static_assert(offsetof(QueueRec, ulMode) < offsetof(QueueRec, msgs));
static_assert(sizeof(QueueRec::szName) == ORV_QUEUE_NAME_MAX + 1);

using Bucket = List<QueueRec, &QueueRec::link>;
constexpr u32 kFirstBuckets = 16;

// The queue list's head record: the index of the live queues.
struct QueueList {
    u32 ulCount; // queues
    u32 ulMask;  // buckets - 1, buckets a power of two
    Bucket* pstBuckets;
};

std::atomic<QueueList*> g_pstQueList{nullptr}; // changed under g_hQueListMutex
QosaMutex g_hQueListMutex = QOSA_MUTEX_INITIALIZER;
u32 s_ulQueId = 0; // the number the last queue got (under g_hQueListMutex)

u32 msg_num(QueueRec* q) { return std::atomic_ref<u32>(q->ulMsgNum).load(std::memory_order_relaxed); }
void set_msg_num(QueueRec* q, u32 n) { std::atomic_ref<u32>(q->ulMsgNum).store(n, std::memory_order_relaxed); }

// Tracked blocks of this unit; QOSA_HERE at the call records the caller's line.
using qosa::tracked::alloc;
using qosa::tracked::release;

// ---- the index ---------------------------------------------------------------

Bucket* make_buckets(u32 n) {
    auto* b = static_cast<Bucket*>(alloc(sizeof(Bucket) * n, QOSA_HERE));
    if (b != nullptr)
        for (u32 i = 0; i < n; ++i)
            new (&b[i]) Bucket();
    return b;
}

Bucket& bucket(QueueList* list, u32 queId) { return list->pstBuckets[queId & list->ulMask]; }

// The queue with this id (g_hQueListMutex held), or NULL.
QueueRec* listed(QueueList* list, u32 queId) {
    for (QueueRec& q : bucket(list, queId))
        if (q.ulQueId == queId) return &q;
    return nullptr;
}

// Adds a queue (g_hQueListMutex held); the table doubles once it holds more
// queues than buckets (if that allocation fails it stays as it is).
void add_listed(QueueList* list, QueueRec* q) {
    if (list->ulCount > list->ulMask) {
        u32 n = (list->ulMask + 1) * 2;
        if (Bucket* grown = n != 0 ? make_buckets(n) : nullptr) {
            Bucket* old = list->pstBuckets;
            for (u32 i = 0; i <= list->ulMask; ++i)
                while (QueueRec* r = old[i].pop_front())
                    grown[r->ulQueId & (n - 1)].push_back(r);
            list->pstBuckets = grown;
            list->ulMask = n - 1;
            release(old, QOSA_HERE);
        }
    }
    bucket(list, q->ulQueId).push_front(q);
    ++list->ulCount;
}

// Each thread remembers the queue it looked up last; every delete bumps
// s_ulListVersion, which makes those memories stale. Ids are never reused,
// so a remembered queue is valid for as long as no delete ran since.
std::atomic<u64> s_ulListVersion{0};
struct LastLookup {
    u32 ulQueId;
    u64 ulVersion;
    QueueRec* pstQue;
};
thread_local LastLookup t_stLastLookup{0, 0, nullptr};

// The queue with this id, or NULL (also when the list mutex cannot be
// taken). The record is used after the list mutex is released: deleting a
// queue that is in use is the caller's fault.
QueueRec* find_queue(u32 queId) {
    u64 version = s_ulListVersion.load(std::memory_order_acquire);
    LastLookup& last = t_stLastLookup;
    if (last.pstQue != nullptr && last.ulQueId == queId && last.ulVersion == version) return last.pstQue;
    if (g_pstQueList.load(std::memory_order_acquire) == nullptr) return nullptr;
    MutexGuard hold(&g_hQueListMutex);
    QueueList* list = g_pstQueList.load(std::memory_order_relaxed);
    if (!hold.locked() || list == nullptr) return nullptr;
    QueueRec* q = listed(list, queId);
    if (q != nullptr) last = LastLookup{queId, version, q};
    return q;
}

// ---- messages ----------------------------------------------------------------

// Copies what fits of a message into a reader's buffer (the rest of a longer
// message is dropped); returns the bytes copied.
u32 copy_to(void* buf, u32 bufLen, const void* data, u32 len) {
    u32 n = len < bufLen ? len : bufLen;
    if (memcpy_s(buf, bufLen, data, n) != 0) std::puts("memcpy_s is fail");
    return n;
}

// True when this queue's messages go into inline nodes.
bool inline_nodes(const QueueRec* q) { return !qosa::mem::tracking() && q->ulMaxMsgLen <= kInlineMaxLen; }

// A node with a copy of the message in a block of its own, made before the
// queue is locked. NULL when an allocation failed.
MsgNode* make_node(const void* msg, u32 len) {
    auto* node = static_cast<MsgNode*>(alloc(sizeof(MsgNode), QOSA_HERE));
    if (node == nullptr) return nullptr;
    void* copy = alloc(len, QOSA_HERE);
    if (copy == nullptr) {
        release(node, QOSA_HERE);
        return nullptr;
    }
    if (memcpy_s(copy, len, msg, len) != 0) std::puts("memcpy_s is fail");
    return new (node) MsgNode{{}, len, copy};
}

void free_node(MsgNode* node) {
    if (!is_inline(node)) release(node->pData, QOSA_HERE);
    release(node, QOSA_HERE);
}

// A spare inline node, or NULL. The slots need no lock: a node is put into an
// empty slot and taken out by exchange, so each goes to one thread.
MsgNode* spare_node(QueueRec* q) {
    for (u32 i = 0; i < q->ulSlots; ++i)
        if (q->apstSpare[i].load(std::memory_order_relaxed) != nullptr)
            if (MsgNode* node = q->apstSpare[i].exchange(nullptr, std::memory_order_acquire)) return node;
    return nullptr;
}

// Releases a node that left the queue: an inline one is kept in an empty
// slot (else freed).
void release_node(QueueRec* q, MsgNode* node) {
    if (is_inline(node)) {
        for (u32 i = 0; i < q->ulSlots; ++i) {
            MsgNode* empty = nullptr;
            if (q->apstSpare[i].load(std::memory_order_relaxed) == nullptr &&
                q->apstSpare[i].compare_exchange_strong(empty, node, std::memory_order_release,
                                                        std::memory_order_relaxed))
                return;
        }
    }
    free_node(node);
}

// Copies the message into an inline node.
void fill(QueueRec* q, MsgNode* node, const void* msg, u32 len) {
    if (memcpy_s(node->pData, q->ulMaxMsgLen, msg, len) != 0) std::puts("memcpy_s is fail");
    node->ulLen = len;
}

// A new inline node holding a copy of the message; NULL when the allocation
// failed.
MsgNode* new_inline_node(QueueRec* q, const void* msg, u32 len) {
    void* mem = alloc(sizeof(MsgNode) + q->ulMaxMsgLen, QOSA_HERE);
    if (mem == nullptr) return nullptr;
    auto* node = new (mem) MsgNode{{}, 0, nullptr};
    node->pData = node + 1;
    fill(q, node, msg, len);
    return node;
}

// Appends a message (the lock held, a place free).
void KARBO_ADAPT_WriteMsg(QueueRec* q, MsgNode* node) {
    q->msgs.push_back(node);
    set_msg_num(q, msg_num(q) + 1);
}

// Takes the oldest message (the lock held, one held). The place it frees
// goes to the longest waiting writer, if any: its message is linked at once
// and returned in served, to be granted once the lock is released.
MsgNode* KARBO_ADAPT_ReadMsg(QueueRec* q, Claim* served) {
    MsgNode* node = q->msgs.pop_front();
    *served = claim(q->writers, q->writeSpin);
    if (served->waiter != nullptr)
        q->msgs.push_back(static_cast<WriteWaiter*>(served->waiter)->node);
    else
        set_msg_num(q, msg_num(q) - 1);
    return node;
}

std::int64_t timeout_ns(u32 timeoutMs) { return timeoutMs == 0 ? -1 : timeoutMs * qosa::clock::kNsPerMs; }

// The one teardown of a queue, for a creation that failed half-way and for
// a delete: releases its messages and spare nodes, frees the record.
void teardown(QueueRec* q) {
    while (MsgNode* node = q->msgs.pop_front())
        free_node(node);
    for (u32 i = 0; i < q->ulSlots; ++i)
        if (MsgNode* node = q->apstSpare[i].exchange(nullptr, std::memory_order_acquire)) free_node(node);
    release(q, QOSA_HERE);
}

} // namespace

namespace qosa::queue {

bool inspect(std::uint32_t queId, QueueCounts* out) {
    QueueRec* q = find_queue(queId);
    if (q == nullptr) return false;
    FutexGuard hold(q->lock);
    auto count = [](WaitList& l) {
        std::uint32_t n = 0;
        for ([[maybe_unused]] FifoWaiter& w : l)
            ++n;
        return n;
    };
    std::uint32_t spare = 0;
    for (u32 i = 0; i < q->ulSlots; ++i)
        spare += q->apstSpare[i].load(std::memory_order_relaxed) != nullptr;
    *out = QueueCounts{msg_num(q), count(q->readers), count(q->writers), spare};
    return true;
}

bool list_exists() { return g_pstQueList.load(std::memory_order_acquire) != nullptr; }

std::uint32_t exchange_last_id(std::uint32_t id) {
    MutexGuard hold(&g_hQueListMutex);
    u32 was = s_ulQueId;
    if (hold.locked()) s_ulQueId = id;
    return was;
}

} // namespace qosa::queue

extern "C" {

u32 ORV_QueueCreate(const char* name, u32 maxMsgNum, u32* queId, u32 mode, u32 maxMsgLen) {
    if (mode > 1) return ORV_QUEUE_ERR_CREATE_MODE;
    if (maxMsgLen == 0) return ORV_QUEUE_ERR_CREATE_MSGLEN;
    if (name == nullptr) return ORV_QUEUE_ERR_CREATE_NAME;
    if (queId == nullptr) return ORV_QUEUE_ERR_CREATE_ID;

    MutexGuard hold(&g_hQueListMutex);
    if (!hold.locked()) return ORV_QUEUE_ERR_CREATE_SYNC;
    QueueList* list = g_pstQueList.load(std::memory_order_relaxed);
    if (list == nullptr) {
        void* head = alloc(sizeof(QueueList), QOSA_HERE);
        if (head == nullptr) return ORV_QUEUE_ERR_NO_MEMORY;
        Bucket* buckets = make_buckets(kFirstBuckets);
        if (buckets == nullptr) {
            release(head, QOSA_HERE);
            return ORV_QUEUE_ERR_NO_MEMORY;
        }
        list = new (head) QueueList{0, kFirstBuckets - 1, buckets};
        g_pstQueList.store(list, std::memory_order_release);
    }

    void* mem = alloc(sizeof(QueueRec), QOSA_HERE);
    if (mem == nullptr) return ORV_QUEUE_ERR_NO_MEMORY;
    auto* q = new (mem) QueueRec{}; // zero-filled
    q->ulMaxMsgLen = maxMsgLen;
    q->ulMaxMsgNum = maxMsgNum;
    u32 nameLen = qosa::str_len(name);
    if (nameLen > ORV_QUEUE_NAME_MAX) nameLen = ORV_QUEUE_NAME_MAX; // the field stays terminated
    if (nameLen > 0 && memcpy_s(q->szName, sizeof(q->szName), name, nameLen) != 0) std::puts("memcpy_s is fail");
    q->ulMode = mode;
    q->readSpin = q->writeSpin = Spin{kSpinMaxNs};
    q->ulSlots = maxMsgNum < kSpareSlots ? maxMsgNum : kSpareSlots;

    // Numbers are never reused: once the last one is handed out, creation fails.
    if (s_ulQueId == UINT32_MAX) {
        teardown(q);
        return ORV_QUEUE_ERR_CREATE_ID;
    }
    q->ulQueId = ++s_ulQueId;
    add_listed(list, q);
    *queId = q->ulQueId;
    return 0;
}

u32 ORV_QueueDelete(u32 queId) {
    QueueRec* q = find_queue(queId);
    if (q == nullptr) return ORV_QUEUE_ERR_DELETE_NO_QUEUE;

    MutexGuard hold(&g_hQueListMutex);
    if (!hold.locked()) return ORV_QUEUE_ERR_DELETE_NO_QUEUE;
    QueueList* list = g_pstQueList.load(std::memory_order_relaxed);
    if (list == nullptr) return ORV_QUEUE_ERR_DELETE_GONE;
    // The id is checked too: a queue deleted meanwhile by another thread may
    // have left its address to a new queue.
    u32 r = ORV_QUEUE_ERR_DELETE_GONE;
    if (listed(list, queId) == q) {
        Bucket::remove(q);
        --list->ulCount;
        s_ulListVersion.fetch_add(1, std::memory_order_acq_rel);
        // A thread whose call is seen done may still be finishing it: the
        // lock is released and the reads are finished before the queue goes.
        { FutexGuard last(q->lock); }
        while (q->finishing.load(std::memory_order_acquire) != 0)
            sched_yield();
        teardown(q);
        r = 0;
    }
    if (list->ulCount == 0) { // the last queue is gone: so is the list
        g_pstQueList.store(nullptr, std::memory_order_release);
        release(list->pstBuckets, QOSA_HERE);
        release(list, QOSA_HERE);
        return 0;
    }
    return r;
}

u32 ORV_QueueWrite(u32 queId, const void* msg, u32 len, u32 timeoutMs) {
    if (msg == nullptr) return ORV_QUEUE_ERR_WRITE_MSG;
    QueueRec* q = find_queue(queId);
    if (q == nullptr) return ORV_QUEUE_ERR_WRITE_NO_QUEUE;
    if (len == 0 || len > q->ulMaxMsgLen) return ORV_QUEUE_ERR_WRITE_LEN;
    // The copy is made before the lock is taken, into a spare inline node if
    // there is one (else under the lock, into a new one).
    bool inlined = inline_nodes(q);
    MsgNode* node = inlined ? spare_node(q) : make_node(msg, len);
    if (node == nullptr && !inlined) return ORV_QUEUE_ERR_NO_MEMORY;
    if (node != nullptr && inlined) fill(q, node, msg, len);

    WriteWaiter self;
    Claim reader;
    {
        FutexGuard hold(q->lock);
        if (msg_num(q) < q->ulMaxMsgNum) reader = claim(q->readers, q->readSpin);
        if (reader.waiter == nullptr) {
            if (node == nullptr) node = new_inline_node(q, msg, len);
            if (node == nullptr) return ORV_QUEUE_ERR_NO_MEMORY;
            if (msg_num(q) < q->ulMaxMsgNum) {
                KARBO_ADAPT_WriteMsg(q, node);
                return 0;
            }
            // Full: the writer waits with its message ready; the read that
            // frees its place links it.
            self.node = node;
            enqueue(q->writers, q->writeSpin, self, timeout_ns(timeoutMs));
        }
    }
    if (reader.waiter != nullptr) {
        // A reader waits only on an empty queue: it takes the message at once
        // (a tracked node as it is). The queue is done with before the grant.
        auto* r = static_cast<ReadWaiter*>(reader.waiter);
        if (node != nullptr && !is_inline(node)) {
            r->node = node;
        } else {
            r->result = copy_to(r->buf, r->len, msg, len);
            if (node != nullptr) release_node(q, node);
        }
        grant(reader);
        return 0;
    }
    if (await(q->lock, q->writers, q->writeSpin, self, timeout_ns(timeoutMs)) == SemStatus::ok) return 0;
    release_node(q, node); // timed out: the message was never linked
    return ORV_QUEUE_ERR_WRITE_TIMEOUT;
}

u32 ORV_QueueRead(u32 queId, u32 timeoutMs, void* buf, u32 bufLen) {
    if (bufLen == 0) return ORV_QUEUE_ERR_READ_BUFLEN;
    if (buf == nullptr) return ORV_QUEUE_ERR_READ_BUF;
    QueueRec* q = find_queue(queId);
    if (q == nullptr) return ORV_QUEUE_ERR_READ_NO_QUEUE;

    ReadWaiter self;
    self.buf = buf;
    self.len = bufLen;
    Claim writer;
    MsgNode* node = nullptr;
    {
        FutexGuard hold(q->lock);
        if (msg_num(q) > 0) {
            node = KARBO_ADAPT_ReadMsg(q, &writer);
            q->finishing.fetch_add(1, std::memory_order_relaxed);
        } else {
            enqueue(q->readers, q->readSpin, self, timeout_ns(timeoutMs));
        }
    }
    if (node != nullptr) {
        // Copied out after the lock is released; the queue is done with
        // before the writer whose message took the place is granted.
        u32 n = copy_to(buf, bufLen, node->pData, node->ulLen);
        release_node(q, node);
        q->finishing.fetch_sub(1, std::memory_order_release);
        if (writer.waiter != nullptr) grant(writer);
        return n;
    }
    if (await(q->lock, q->readers, q->readSpin, self, timeout_ns(timeoutMs)) != SemStatus::ok)
        return ORV_QUEUE_ERR_READ_TIMEOUT;
    if (self.node == nullptr) return self.result;
    u32 n = copy_to(buf, bufLen, self.node->pData, self.node->ulLen);
    free_node(self.node);
    return n;
}

u32 ORV_QueueGetMsgNum(u32 queId) {
    QueueRec* q = find_queue(queId);
    return q == nullptr ? ORV_QUEUE_ERR_COUNT_NO_QUEUE : msg_num(q);
}

} // extern "C"
