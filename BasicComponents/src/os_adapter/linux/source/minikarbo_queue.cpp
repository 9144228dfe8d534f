// Numbered, bounded queues of byte messages between threads.
//
// Each queue guards its message chain and counts with its own mutex, held
// only to link or unlink a node (copies are made and freed outside it), and
// never while waiting: readers wait on hSemRead, which holds one unit per
// message written, and writers that find the queue full wait on hSemWrite.
// A writer registers under the mutex before it waits (ulWriteWaiting); a
// read that frees a place while writers are registered holds the place for
// the longest of them (ulPlacesHeld) and posts hSemWrite once. The writers'
// semaphore thus carries a unit only for a writer that is owed a place, a
// woken writer always finds its place, and a writer that gives up takes its
// claim back. Reads and writes share one wait (wait_turn): a waiter that
// wakes and still finds no message, or no place, puts the unit back and
// polls again after 1 ms. Time-outs run on the monotonic clock.
//
// The queue list is a head record holding the queues, newest first, guarded
// by g_hQueListMutex; the list mutex and a queue's mutex are never held
// together. The head record is made with the first queue and freed with the
// last. The list mutex lives for the whole process, so a lookup that races
// with the deletion of the last queue never locks a dead mutex, and first
// creations from several threads build the list once. A mutex that cannot be
// taken fails the call as if no queue had the id.
#define QOSA_UNIT_NAME "minikarbo_queue.c"

#include <sched.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <new>

#include "internal/clock.h"
#include "internal/common.h"
#include "internal/fifo_sem.h"
#include "internal/ilist.h"
#include "internal/queue_debug.h"
#include "qosa_lock.h"
#include "qosa_mem.h"
#include "qosa_queue.h"
#include "qosa_sem.h"
#include "qosa_string.h"

namespace {

using qosa::ilist::Link;
using qosa::ilist::List;

struct MsgNode {
    Link link; // on its queue's chain, oldest first
    u32 ulLen;
    void* pData; // a copy of exactly ulLen bytes
};

// Set-up steps of a queue, in order: what its teardown undoes.
enum Made : u32 { kMadeNothing, kMadeMutex, kMadeSemRead, kMadeSemWrite };

struct QueueRec {
    Link link; // on the queue list
    u32 ulQueId;
    char szName[32]; // at most 31 bytes of the name, zero-filled
    u32 ulMaxMsgNum;
    u32 ulMsgNum; // also read without hMutex (ORV_QueueGetMsgNum): accessed through msg_num / set_msg_num
    u32 ulMaxMsgLen;
    u32 ulMode; // stored, consulted by nothing
    List<MsgNode, &MsgNode::link> msgs;
    QosaMutex hMutex;
    QOSA_SEM_S hSemRead;
    QOSA_SEM_S hSemWrite;
    u32 ulWriteWaiting; // writers waiting for a place that no post is owed to yet (under hMutex)
    u32 ulPlacesHeld;   // free places promised to writers posted for, not yet written (under hMutex)
    u32 ulPosting;      // writers between linking their message and posting hSemRead (atomic)
    Made made;          // how far the set-up got
};

static_assert(offsetof(QueueRec, link) == 0);
static_assert(offsetof(QueueRec, ulQueId) < offsetof(QueueRec, szName));
static_assert(offsetof(QueueRec, szName) < offsetof(QueueRec, ulMaxMsgNum));
static_assert(offsetof(QueueRec, ulMaxMsgNum) < offsetof(QueueRec, ulMsgNum));
static_assert(offsetof(QueueRec, ulMsgNum) < offsetof(QueueRec, ulMaxMsgLen));
static_assert(offsetof(QueueRec, ulMaxMsgLen) < offsetof(QueueRec, ulMode));
static_assert(offsetof(QueueRec, ulMode) < offsetof(QueueRec, msgs));
static_assert(offsetof(QueueRec, msgs) < offsetof(QueueRec, hMutex));
static_assert(offsetof(QueueRec, hMutex) < offsetof(QueueRec, hSemRead));
static_assert(offsetof(QueueRec, hSemRead) < offsetof(QueueRec, hSemWrite));
static_assert(sizeof(QueueRec::szName) == ORV_QUEUE_NAME_MAX + 1);

// The queue list's head record, made with the first queue and freed with the
// last: the queues, newest first.
struct QueueList {
    List<QueueRec, &QueueRec::link> queues;
};

std::atomic<QueueList*> g_pstQueList{nullptr}; // changed under g_hQueListMutex
QosaMutex g_hQueListMutex = QOSA_MUTEX_INITIALIZER;
u32 s_ulQueId = 0; // the number the last queue got (under g_hQueListMutex)

u32 msg_num(QueueRec* q) { return std::atomic_ref<u32>(q->ulMsgNum).load(std::memory_order_relaxed); }
void set_msg_num(QueueRec* q, u32 n) { std::atomic_ref<u32>(q->ulMsgNum).store(n, std::memory_order_relaxed); }

// Tracked blocks of this unit; QOSA_HERE at the call records the caller's line.
void* take(u32 size, u32 line, const char* file) { return QOSA_MemTypeMallocD(size, QOSA_MEM_DYN, line, file); }
void give_back(void* p, u32 line, const char* file) { QOSA_MemTypeFreeD(p, QOSA_MEM_DYN, line, file); }

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

// The queue with this id on the list (g_hQueListMutex held), or NULL.
QueueRec* listed(QueueList* list, u32 queId) {
    for (QueueRec& q : list->queues)
        if (q.ulQueId == queId) return &q;
    return nullptr;
}

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

// Holds a free place for the longest registered writer and posts hSemWrite
// for it (hMutex held).
void wake_writer(QueueRec* q) {
    --q->ulWriteWaiting;
    ++q->ulPlacesHeld;
    QOSA_SemPost(&q->hSemWrite);
}

// True when a place is free that no woken writer has been promised.
bool has_room(QueueRec* q) { return msg_num(q) + q->ulPlacesHeld < q->ulMaxMsgNum; }

// A message node with its copy of the message, made before the queue is
// locked so that the mutex is held only to link it in. NULL when an
// allocation failed.
MsgNode* make_node(const void* msg, u32 len) {
    auto* node = static_cast<MsgNode*>(take(sizeof(MsgNode), QOSA_HERE));
    if (node == nullptr) return nullptr;
    void* copy = take(len, QOSA_HERE);
    if (copy == nullptr) {
        give_back(node, QOSA_HERE);
        return nullptr;
    }
    if (memcpy_s(copy, len, msg, len) != 0) std::puts("memcpy_s is fail");
    return new (node) MsgNode{{}, len, copy};
}

void free_node(MsgNode* node) {
    give_back(node->pData, QOSA_HERE);
    give_back(node, QOSA_HERE);
}

// Appends a message (hMutex held, a place free for it). A writer that woke
// for a place and leaves room behind passes the wake-up on, so every waiting
// writer is released while there is room.
void KARBO_ADAPT_WriteMsg(QueueRec* q, MsgNode* node, bool woken) {
    q->msgs.push_back(node);
    set_msg_num(q, msg_num(q) + 1);
    if (woken && q->ulWriteWaiting > 0 && has_room(q)) wake_writer(q);
}

// Unlinks the oldest message (hMutex held, at least one held); the place it
// frees goes to the longest registered writer.
MsgNode* KARBO_ADAPT_ReadMsg(QueueRec* q) {
    MsgNode* node = q->msgs.pop_front();
    if (q->ulWriteWaiting > 0) wake_writer(q);
    set_msg_num(q, msg_num(q) - 1);
    return node;
}

// Links the message in (hMutex held). The readers' unit is posted by
// post_read once the mutex is free, so the reader it wakes does not run into
// it. Between the unlock and the post a reader may already have taken the
// message, and its thread may delete the queue: ulPosting, raised here and
// lowered as the writer's last touch of the queue, makes the delete wait.
void link_message(QueueRec* q, MsgNode* node, bool woken) {
    KARBO_ADAPT_WriteMsg(q, node, woken);
    __atomic_fetch_add(&q->ulPosting, 1u, __ATOMIC_RELAXED);
}
u32 post_read(QueueRec* q) {
    QOSA_SemPost(&q->hSemRead);
    __atomic_fetch_sub(&q->ulPosting, 1u, __ATOMIC_RELEASE);
    return 0;
}

// Copies what fits of a taken message into buf (the rest of a longer message
// is dropped) and frees it; returns the bytes copied.
u32 copy_out(MsgNode* node, void* buf, u32 bufLen) {
    u32 n = node->ulLen < bufLen ? node->ulLen : bufLen;
    if (memcpy_s(buf, bufLen, node->pData, n) != 0) std::puts("memcpy_s is fail");
    free_node(node);
    return n;
}

// A writer whose time ran out takes its claim back: its registration while
// no post is owed to it, else the unit posted for it and the place held. Its
// message is dropped.
u32 writer_gives_up(QueueRec* q, MsgNode* node) {
    free_node(node);
    MutexGuard hold(&q->hMutex);
    if (!hold.locked()) return ORV_QUEUE_ERR_WRITE_TIMEOUT;
    if (q->ulWriteWaiting > 0)
        --q->ulWriteWaiting;
    else if (QOSA_SemTryWait(&q->hSemWrite) == 0 && q->ulPlacesHeld > 0)
        --q->ulPlacesHeld;
    return ORV_QUEUE_ERR_WRITE_TIMEOUT;
}

// How a wait for a turn at the queue ended.
enum class Turn {
    taken,          // the step ran under hMutex
    sem_timed_out,  // the semaphore's timed wait ran out
    poll_timed_out, // the time ran out between two waits
    no_lock,        // hMutex could not be taken
};

// Takes a unit of sem, waiting until the monotonic deadline (ns; < 0: no
// limit). A signal handler that interrupts an untimed wait does not end it.
bool take_unit(QOSA_SEM_S* sem, std::int64_t deadline) {
    if (deadline < 0) {
        while (QOSA_SemWait(sem) != 0 && errno == EINTR) {
        }
        return true;
    }
    std::int64_t left = deadline - qosa::clock::now_ns();
    if (left <= 0) return false;
    u32 ms = static_cast<u32>((left + qosa::clock::kNsPerMs - 1) / qosa::clock::kNsPerMs);
    return QOSA_SemWaitTimeOut(sem, ms) == 0;
}

// The one wait of reads and writes: takes a unit of sem (each stands for a
// message to read, or a place held for a writer), then runs step under
// hMutex; a step that finds no message or no place after all (false) hands
// the unit on and polls again after 1 ms. timeoutMs 0 waits without limit.
template <typename Step>
Turn wait_turn(QueueRec* q, QOSA_SEM_S* sem, u32 timeoutMs, Step step) {
    std::int64_t deadline = timeoutMs == 0 ? -1 : qosa::clock::now_ns() + timeoutMs * qosa::clock::kNsPerMs;
    for (;;) {
        if (!take_unit(sem, deadline)) return Turn::sem_timed_out;
        {
            MutexGuard hold(&q->hMutex);
            if (!hold.locked()) return Turn::no_lock;
            if (step()) return Turn::taken;
        }
        QOSA_SemPost(sem);
        qosa::clock::sleep_ns(qosa::clock::kNsPerMs);
        if (deadline >= 0 && qosa::clock::now_ns() >= deadline) return Turn::poll_timed_out;
    }
}

// The queue mutex is held for a few hundred nanoseconds at a time: a thread
// that finds it taken spins a little before it sleeps.
const pthread_mutexattr_t* adaptive() {
    static const pthread_mutexattr_t* attr = [] {
        static pthread_mutexattr_t a;
        pthread_mutexattr_init(&a);
        pthread_mutexattr_settype(&a, PTHREAD_MUTEX_ADAPTIVE_NP);
        return static_cast<const pthread_mutexattr_t*>(&a);
    }();
    return attr;
}

// The one teardown of a queue, for a creation that failed half-way and for
// a delete: releases its messages, undoes the set-up steps made, frees the
// record.
void teardown(QueueRec* q) {
    while (MsgNode* node = q->msgs.pop_front())
        free_node(node);
    if (q->made >= kMadeSemWrite) QOSA_SemDestroy(&q->hSemWrite);
    if (q->made >= kMadeSemRead) QOSA_SemDestroy(&q->hSemRead);
    if (q->made >= kMadeMutex) QOSA_MutexDestroy(&q->hMutex);
    give_back(q, QOSA_HERE);
}

// Makes the mutex and the two semaphores of a new queue; false on the first
// that fails (q->made tells how far it got).
bool make_sync(QueueRec* q) {
    if (QOSA_MutexInit(&q->hMutex, adaptive()) != 0) return false;
    q->made = kMadeMutex;
    if (QOSA_SemInit(&q->hSemRead, 0, 0) == -1) return false;
    q->made = kMadeSemRead;
    if (QOSA_SemInit(&q->hSemWrite, 0, 0) == -1) return false;
    q->made = kMadeSemWrite;
    return true;
}

} // namespace

namespace qosa::queue {

bool inspect(std::uint32_t queId, QueueCounts* out) {
    QueueRec* q = find_queue(queId);
    if (q == nullptr) return false;
    MutexGuard hold(&q->hMutex);
    if (!hold.locked()) return false;
    auto* read = std::launder(reinterpret_cast<qosa::sync::FifoSem*>(q->hSemRead.sem.aullStore));
    auto* write = std::launder(reinterpret_cast<qosa::sync::FifoSem*>(q->hSemWrite.sem.aullStore));
    *out =
        QueueCounts{msg_num(q),      qosa::sync::fifo_count(read),   qosa::sync::fifo_count(write),  q->ulWriteWaiting,
                    q->ulPlacesHeld, qosa::sync::fifo_waiters(read), qosa::sync::fifo_waiters(write)};
    return true;
}

bool list_exists() { return g_pstQueList.load(std::memory_order_acquire) != nullptr; }

std::uint32_t exchange_last_id(std::uint32_t id) {
    MutexGuard hold(&g_hQueListMutex);
    u32 was = s_ulQueId;
    s_ulQueId = id;
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
        void* head = take(sizeof(QueueList), QOSA_HERE);
        if (head == nullptr) return ORV_QUEUE_ERR_NO_MEMORY;
        list = new (head) QueueList{};
        g_pstQueList.store(list, std::memory_order_release);
    }

    void* mem = take(sizeof(QueueRec), QOSA_HERE);
    if (mem == nullptr) return ORV_QUEUE_ERR_NO_MEMORY;
    auto* q = new (mem) QueueRec{}; // zero-filled
    q->ulMaxMsgLen = maxMsgLen;
    q->ulMaxMsgNum = maxMsgNum;
    u32 nameLen = QOSA_StrLen(name);
    if (nameLen > ORV_QUEUE_NAME_MAX) nameLen = ORV_QUEUE_NAME_MAX; // the field stays terminated
    if (nameLen > 0 && memcpy_s(q->szName, sizeof(q->szName), name, nameLen) != 0) std::puts("memcpy_s is fail");
    q->ulMode = mode;

    u32 r = 0;
    if (!make_sync(q))
        r = ORV_QUEUE_ERR_CREATE_SYNC;
    else if (s_ulQueId == UINT32_MAX) // numbers are never reused: once the last one is handed out, creation fails
        r = ORV_QUEUE_ERR_CREATE_ID;
    if (r != 0) {
        teardown(q);
        return r;
    }
    q->ulQueId = ++s_ulQueId;
    list->queues.push_front(q);
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
        list->queues.remove(q);
        s_ulListVersion.fetch_add(1, std::memory_order_acq_rel);
        // Writers still posting for messages already taken finish first.
        while (__atomic_load_n(&q->ulPosting, __ATOMIC_ACQUIRE) != 0)
            sched_yield();
        teardown(q);
        r = 0;
    }
    if (list->queues.empty()) { // the last queue is gone: so is the list
        g_pstQueList.store(nullptr, std::memory_order_release);
        give_back(list, QOSA_HERE);
        return 0;
    }
    return r;
}

u32 ORV_QueueWrite(u32 queId, const void* msg, u32 len, u32 timeoutMs) {
    if (msg == nullptr) return ORV_QUEUE_ERR_WRITE_MSG;
    QueueRec* q = find_queue(queId);
    if (q == nullptr) return ORV_QUEUE_ERR_WRITE_NO_QUEUE;
    if (len == 0 || len > q->ulMaxMsgLen) return ORV_QUEUE_ERR_WRITE_LEN;
    MsgNode* node = make_node(msg, len);
    if (node == nullptr) return ORV_QUEUE_ERR_NO_MEMORY;

    bool linked = false;
    {
        MutexGuard hold(&q->hMutex);
        if (!hold.locked()) {
            free_node(node);
            return ORV_QUEUE_ERR_WRITE_NO_QUEUE;
        }
        linked = has_room(q);
        if (linked)
            link_message(q, node, false);
        else
            ++q->ulWriteWaiting; // the read that frees a place now posts for this writer
    }
    if (linked) return post_read(q);

    // A woken writer takes up the place held for it.
    Turn turn = wait_turn(q, &q->hSemWrite, timeoutMs, [&] {
        if (q->ulPlacesHeld > 0) --q->ulPlacesHeld;
        if (!has_room(q)) return false;
        link_message(q, node, true);
        return true;
    });
    if (turn == Turn::taken) return post_read(q);
    if (turn != Turn::no_lock) return writer_gives_up(q, node);
    free_node(node);
    return ORV_QUEUE_ERR_WRITE_NO_QUEUE;
}

u32 ORV_QueueRead(u32 queId, u32 timeoutMs, void* buf, u32 bufLen) {
    if (bufLen == 0) return ORV_QUEUE_ERR_READ_BUFLEN;
    if (buf == nullptr) return ORV_QUEUE_ERR_READ_BUF;
    QueueRec* q = find_queue(queId);
    if (q == nullptr) return ORV_QUEUE_ERR_READ_NO_QUEUE;

    MsgNode* node = nullptr;
    Turn turn = wait_turn(q, &q->hSemRead, timeoutMs, [&] {
        if (msg_num(q) == 0) return false;
        node = KARBO_ADAPT_ReadMsg(q);
        return true;
    });
    switch (turn) {
    case Turn::taken:
        return copy_out(node, buf, bufLen);
    case Turn::sem_timed_out:
        return ORV_QUEUE_ERR_READ_TIMEOUT;
    case Turn::poll_timed_out:
        return ORV_QUEUE_ERR_READ_RETRY_TIMEOUT;
    case Turn::no_lock:
        break;
    }
    return ORV_QUEUE_ERR_READ_NO_QUEUE;
}

u32 ORV_QueueGetMsgNum(u32 queId) {
    QueueRec* q = find_queue(queId);
    return q == nullptr ? ORV_QUEUE_ERR_COUNT_NO_QUEUE : msg_num(q);
}

} // extern "C"
