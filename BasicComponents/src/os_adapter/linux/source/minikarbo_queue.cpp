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
// claim back. A waiter that wakes and still finds no message, or no place,
// puts the unit back and polls again after 1 ms.
//
// The queue list is a head record followed by the queues, newest first,
// guarded by g_hQueListMutex; the list mutex and a queue's mutex are never
// held together. The head record is made with the first queue and freed with
// the last. The list mutex lives for the whole process, so a lookup that
// races with the deletion of the last queue never locks a dead mutex, and
// first creations from several threads build the list once.
#define QOSA_UNIT_NAME "minikarbo_queue.c"

#include <sched.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <new>

#include "internal/common.h"
#include "internal/fifo_sem.h"
#include "internal/queue_debug.h"
#include "qosa_lock.h"
#include "qosa_mem.h"
#include "qosa_queue.h"
#include "qosa_sem.h"
#include "qosa_string.h"
#include "qosa_thread.h"
#include "qosa_time.h"

namespace {

struct MsgNode {
    MsgNode* pstNext; // the next newer message
    u32 ulLen;
    void* pData; // a copy of exactly ulLen bytes
};

struct QueueRec {
    QueueRec* pstNext;
    u32 ulQueId;
    char szName[32]; // at most 31 bytes of the name, zero-filled
    u32 ulMaxMsgNum;
    u32 ulMsgNum; // also read without hMutex (ORV_QueueGetMsgNum): accessed through msg_num / set_msg_num
    u32 ulMaxMsgLen;
    u32 ulMode; // stored, consulted by nothing
    MsgNode* pstHead;
    MsgNode* pstTail;
    QosaMutex hMutex;
    QOSA_SEM_S hSemRead;
    QOSA_SEM_S hSemWrite;
    u32 ulWriteWaiting; // writers waiting for a place that no post is owed to yet (under hMutex)
    u32 ulPlacesHeld;   // free places promised to writers posted for, not yet written (under hMutex)
    u32 ulPosting;      // writers between linking their message and posting hSemRead (atomic)
};

static_assert(offsetof(QueueRec, pstNext) == 0);
static_assert(offsetof(QueueRec, ulQueId) < offsetof(QueueRec, szName));
static_assert(offsetof(QueueRec, szName) < offsetof(QueueRec, ulMaxMsgNum));
static_assert(offsetof(QueueRec, ulMaxMsgNum) < offsetof(QueueRec, ulMsgNum));
static_assert(offsetof(QueueRec, ulMsgNum) < offsetof(QueueRec, ulMaxMsgLen));
static_assert(offsetof(QueueRec, ulMaxMsgLen) < offsetof(QueueRec, ulMode));
static_assert(offsetof(QueueRec, ulMode) < offsetof(QueueRec, pstHead));
static_assert(offsetof(QueueRec, pstHead) < offsetof(QueueRec, pstTail));
static_assert(offsetof(QueueRec, pstTail) < offsetof(QueueRec, hMutex));
static_assert(offsetof(QueueRec, hMutex) < offsetof(QueueRec, hSemRead));
static_assert(offsetof(QueueRec, hSemRead) < offsetof(QueueRec, hSemWrite));
static_assert(sizeof(QueueRec::szName) == ORV_QUEUE_NAME_MAX + 1);

std::atomic<QueueRec*> g_pstQueList{nullptr}; // the head record; changed under g_hQueListMutex
QosaMutex g_hQueListMutex = QOSA_MUTEX_INITIALIZER;
u32 s_ulQueId = 0; // the number the last queue got (under g_hQueListMutex)

u32 msg_num(QueueRec* q) { return std::atomic_ref<u32>(q->ulMsgNum).load(std::memory_order_relaxed); }
void set_msg_num(QueueRec* q, u32 n) { std::atomic_ref<u32>(q->ulMsgNum).store(n, std::memory_order_relaxed); }

void* take(u32 size, u32 line) { return QOSA_MemTypeMallocD(size, QOSA_MEM_DYN, line, QOSA_UNIT_NAME); }
void give_back(void* p, u32 line) { QOSA_MemTypeFreeD(p, QOSA_MEM_DYN, line, QOSA_UNIT_NAME); }

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

// The queue with this id, or NULL. The record is used after the list mutex
// is released: deleting a queue that is in use is the caller's fault.
QueueRec* find_queue(u32 queId) {
    u64 version = s_ulListVersion.load(std::memory_order_acquire);
    LastLookup& last = t_stLastLookup;
    if (last.pstQue != nullptr && last.ulQueId == queId && last.ulVersion == version) return last.pstQue;
    if (g_pstQueList.load(std::memory_order_acquire) == nullptr) return nullptr;
    MutexGuard list(&g_hQueListMutex);
    QueueRec* head = g_pstQueList.load(std::memory_order_relaxed);
    if (!list.locked() || head == nullptr) return nullptr;
    for (QueueRec* q = head->pstNext; q != nullptr; q = q->pstNext) {
        if (q->ulQueId == queId) {
            last = LastLookup{queId, version, q};
            return q;
        }
    }
    return nullptr;
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
    auto* node = static_cast<MsgNode*>(take(sizeof(MsgNode), __LINE__));
    if (node == nullptr) return nullptr;
    memset_s(node, sizeof(MsgNode), 0, sizeof(MsgNode));
    void* copy = take(len, __LINE__);
    if (copy == nullptr) {
        give_back(node, __LINE__);
        return nullptr;
    }
    if (memcpy_s(copy, len, msg, len) != 0) std::puts("memcpy_s is fail");
    node->ulLen = len;
    node->pData = copy;
    return node;
}

void free_node(MsgNode* node) {
    give_back(node->pData, __LINE__);
    give_back(node, __LINE__);
}

// Appends a message (hMutex held, a place free for it). A writer that woke
// for a place and leaves room behind passes the wake-up on, so every waiting
// writer is released while there is room.
void KARBO_ADAPT_WriteMsg(QueueRec* q, MsgNode* node, bool woken) {
    if (q->pstTail == nullptr) {
        q->pstHead = node;
    } else {
        q->pstTail->pstNext = node;
    }
    q->pstTail = node;
    set_msg_num(q, msg_num(q) + 1);
    if (woken && q->ulWriteWaiting > 0 && has_room(q)) wake_writer(q);
}

// Unlinks the oldest message (hMutex held, at least one held); the place it
// frees goes to the longest registered writer.
MsgNode* KARBO_ADAPT_ReadMsg(QueueRec* q) {
    MsgNode* node = q->pstHead;
    q->pstHead = node->pstNext;
    if (q->ulWriteWaiting > 0) wake_writer(q);
    set_msg_num(q, msg_num(q) - 1);
    if (node == q->pstTail) q->pstTail = nullptr;
    return node;
}

// A woken writer locks hMutex and takes up the place held for it. False when
// there is none (it woke without its condition): hMutex is then released.
bool claim_place(QueueRec* q) {
    QOSA_MutexLock(&q->hMutex);
    if (q->ulPlacesHeld > 0) --q->ulPlacesHeld;
    if (has_room(q)) return true;
    QOSA_MutexUnLock(&q->hMutex);
    return false;
}

// Links the message in and releases hMutex, then posts the readers' unit (once
// the mutex is free, so the reader it wakes does not run into it). Between the
// unlock and the post a reader may already have taken the message, and its
// thread may delete the queue: ulPosting, raised before the unlock and
// lowered as the writer's last touch of the queue, makes the delete wait.
u32 finish_write(QueueRec* q, MsgNode* node, bool woken) {
    KARBO_ADAPT_WriteMsg(q, node, woken);
    __atomic_fetch_add(&q->ulPosting, 1u, __ATOMIC_RELAXED);
    QOSA_MutexUnLock(&q->hMutex);
    QOSA_SemPost(&q->hSemRead);
    __atomic_fetch_sub(&q->ulPosting, 1u, __ATOMIC_RELEASE);
    return 0;
}

// An untimed wait for a unit: a signal handler that interrupts it does not
// end it.
void wait_unit(QOSA_SEM_S* sem) {
    while (QOSA_SemWait(sem) != 0 && errno == EINTR) {
    }
}

// Takes the oldest message and releases hMutex, then copies what fits of it
// into buf (the rest of a longer message is dropped); returns the bytes
// copied.
u32 finish_read(QueueRec* q, void* buf, u32 bufLen) {
    MsgNode* node = KARBO_ADAPT_ReadMsg(q);
    QOSA_MutexUnLock(&q->hMutex);
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
    QOSA_MutexLock(&q->hMutex);
    if (q->ulWriteWaiting > 0)
        --q->ulWriteWaiting;
    else if (QOSA_SemTryWait(&q->hSemWrite) == 0 && q->ulPlacesHeld > 0)
        --q->ulPlacesHeld;
    QOSA_MutexUnLock(&q->hMutex);
    return ORV_QUEUE_ERR_WRITE_TIMEOUT;
}

// The milliseconds left of remaining since t0 on the run-time clock, or 0
// when they are used up (or the clock went back).
u32 time_left(u32 remaining, u32 t0) {
    u32 elapsed = QOSA_GetSysRunTime() - t0; // modulo 2^32
    if (elapsed > static_cast<u32>(INT32_MAX) || remaining <= elapsed) return 0;
    return remaining - elapsed;
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

void release_queue(QueueRec* q) {
    for (MsgNode* node = q->pstHead; node != nullptr;) {
        MsgNode* next = node->pstNext;
        free_node(node);
        node = next;
    }
    QOSA_SemDestroy(&q->hSemRead);
    QOSA_SemDestroy(&q->hSemWrite);
    QOSA_MutexDestroy(&q->hMutex);
    give_back(q, __LINE__);
}

} // namespace

namespace qosa::queue {

bool inspect(std::uint32_t queId, QueueCounts* out) {
    QueueRec* q = find_queue(queId);
    if (q == nullptr) return false;
    MutexGuard hold(&q->hMutex);
    auto* read = std::launder(reinterpret_cast<qosa::sync::FifoSem*>(q->hSemRead.sem.aullStore));
    auto* write = std::launder(reinterpret_cast<qosa::sync::FifoSem*>(q->hSemWrite.sem.aullStore));
    *out =
        QueueCounts{msg_num(q),      qosa::sync::fifo_count(read),   qosa::sync::fifo_count(write),  q->ulWriteWaiting,
                    q->ulPlacesHeld, qosa::sync::fifo_waiters(read), qosa::sync::fifo_waiters(write)};
    return true;
}

bool list_exists() { return g_pstQueList.load(std::memory_order_acquire) != nullptr; }

std::uint32_t exchange_last_id(std::uint32_t id) {
    MutexGuard list(&g_hQueListMutex);
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

    MutexGuard list(&g_hQueListMutex);
    if (!list.locked()) return ORV_QUEUE_ERR_CREATE_SYNC; // GCOVR_EXCL_BR_LINE: see MutexGuard
    QueueRec* head = g_pstQueList.load(std::memory_order_relaxed);
    if (head == nullptr) {
        head = static_cast<QueueRec*>(take(sizeof(QueueRec), __LINE__));
        if (head == nullptr) return ORV_QUEUE_ERR_NO_MEMORY;
        memset_s(head, sizeof(QueueRec), 0, sizeof(QueueRec));
        g_pstQueList.store(head, std::memory_order_release);
    }

    auto* q = static_cast<QueueRec*>(take(sizeof(QueueRec), __LINE__));
    if (q == nullptr) return ORV_QUEUE_ERR_NO_MEMORY;
    memset_s(q, sizeof(QueueRec), 0, sizeof(QueueRec));
    q->ulMaxMsgLen = maxMsgLen;
    q->ulMaxMsgNum = maxMsgNum;
    u32 nameLen = QOSA_StrLen(name);
    if (nameLen > ORV_QUEUE_NAME_MAX) nameLen = ORV_QUEUE_NAME_MAX; // the field stays terminated
    if (nameLen > 0 && memcpy_s(q->szName, sizeof(q->szName), name, nameLen) != 0) std::puts("memcpy_s is fail");
    q->ulMode = mode;

    // GCOVR_EXCL_START: glibc initialises a mutex of a valid type, and a semaphore of value 0, without fail
    if (QOSA_MutexInit(&q->hMutex, adaptive()) != 0) {
        give_back(q, __LINE__);
        return ORV_QUEUE_ERR_CREATE_SYNC;
    }
    if (QOSA_SemInit(&q->hSemRead, 0, 0) == -1) {
        QOSA_MutexDestroy(&q->hMutex);
        give_back(q, __LINE__);
        return ORV_QUEUE_ERR_CREATE_SYNC;
    }
    if (QOSA_SemInit(&q->hSemWrite, 0, 0) == -1) {
        QOSA_SemDestroy(&q->hSemRead);
        QOSA_MutexDestroy(&q->hMutex);
        give_back(q, __LINE__);
        return ORV_QUEUE_ERR_CREATE_SYNC;
    }
    // GCOVR_EXCL_STOP
    // Numbers are never reused: once the last one is handed out, creation fails.
    if (s_ulQueId == UINT32_MAX) {
        QOSA_SemDestroy(&q->hSemWrite);
        QOSA_SemDestroy(&q->hSemRead);
        QOSA_MutexDestroy(&q->hMutex);
        give_back(q, __LINE__);
        return ORV_QUEUE_ERR_CREATE_ID;
    }
    q->ulQueId = ++s_ulQueId;

    q->pstNext = head->pstNext;
    head->pstNext = q;
    *queId = q->ulQueId;
    return 0;
}

u32 ORV_QueueDelete(u32 queId) {
    QueueRec* q = find_queue(queId);
    if (q == nullptr) return ORV_QUEUE_ERR_DELETE_NO_QUEUE;

    MutexGuard list(&g_hQueListMutex);
    QueueRec* head = g_pstQueList.load(std::memory_order_relaxed);
    if (head == nullptr) return ORV_QUEUE_ERR_DELETE_GONE;
    QueueRec* prev = head;
    // The id is checked too: a queue deleted meanwhile by another thread may
    // have left its address to a new queue.
    while (prev->pstNext != nullptr && !(prev->pstNext == q && q->ulQueId == queId))
        prev = prev->pstNext;
    u32 r = ORV_QUEUE_ERR_DELETE_GONE;
    if (prev->pstNext == q && q->ulQueId == queId) {
        prev->pstNext = q->pstNext;
        s_ulListVersion.fetch_add(1, std::memory_order_acq_rel);
        // Writers still posting for messages already taken finish first.
        while (__atomic_load_n(&q->ulPosting, __ATOMIC_ACQUIRE) != 0)
            sched_yield();
        release_queue(q);
        r = 0;
    }
    if (head->pstNext == nullptr) { // the last queue is gone: so is the list
        g_pstQueList.store(nullptr, std::memory_order_release);
        give_back(head, __LINE__);
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

    QOSA_MutexLock(&q->hMutex);
    if (has_room(q)) return finish_write(q, node, false);
    ++q->ulWriteWaiting; // the read that frees a place now posts for this writer
    QOSA_MutexUnLock(&q->hMutex);

    if (timeoutMs == 0) {
        for (;;) {
            wait_unit(&q->hSemWrite);
            if (claim_place(q)) return finish_write(q, node, true);
            // No place after all: hand the wake-up on, poll again.
            QOSA_SemPost(&q->hSemWrite);
            QOSA_SleepMs(1);
        }
    }

    u32 remaining = timeoutMs;
    u32 t0 = QOSA_GetSysRunTime();
    if (QOSA_SemWaitTimeOut(&q->hSemWrite, remaining) != 0) return writer_gives_up(q, node);
    for (;;) {
        if (claim_place(q)) return finish_write(q, node, true);
        QOSA_SemPost(&q->hSemWrite);
        QOSA_SleepMs(1);
        remaining = time_left(remaining, t0);
        if (remaining == 0) return writer_gives_up(q, node);
        t0 = QOSA_GetSysRunTime();
        if (QOSA_SemWaitTimeOut(&q->hSemWrite, remaining) != 0) return writer_gives_up(q, node);
    }
}

u32 ORV_QueueRead(u32 queId, u32 timeoutMs, void* buf, u32 bufLen) {
    if (bufLen == 0) return ORV_QUEUE_ERR_READ_BUFLEN;
    if (buf == nullptr) return ORV_QUEUE_ERR_READ_BUF;
    QueueRec* q = find_queue(queId);
    if (q == nullptr) return ORV_QUEUE_ERR_READ_NO_QUEUE;

    if (timeoutMs == 0) {
        wait_unit(&q->hSemRead);
        QOSA_MutexLock(&q->hMutex);
        while (msg_num(q) == 0) {
            QOSA_MutexUnLock(&q->hMutex);
            QOSA_SemPost(&q->hSemRead);
            QOSA_SleepMs(1);
            wait_unit(&q->hSemRead);
            QOSA_MutexLock(&q->hMutex);
        }
        return finish_read(q, buf, bufLen);
    }

    u32 remaining = timeoutMs;
    u32 t0 = QOSA_GetSysRunTime();
    if (QOSA_SemWaitTimeOut(&q->hSemRead, remaining) != 0) return ORV_QUEUE_ERR_READ_TIMEOUT;
    for (;;) {
        QOSA_MutexLock(&q->hMutex);
        if (msg_num(q) > 0) return finish_read(q, buf, bufLen);
        QOSA_MutexUnLock(&q->hMutex);
        QOSA_SemPost(&q->hSemRead);
        QOSA_SleepMs(1);
        remaining = time_left(remaining, t0);
        if (remaining == 0) return ORV_QUEUE_ERR_READ_RETRY_TIMEOUT;
        t0 = QOSA_GetSysRunTime();
        if (QOSA_SemWaitTimeOut(&q->hSemRead, remaining) != 0) return ORV_QUEUE_ERR_READ_TIMEOUT;
    }
}

u32 ORV_QueueGetMsgNum(u32 queId) {
    QueueRec* q = find_queue(queId);
    return q == nullptr ? ORV_QUEUE_ERR_COUNT_NO_QUEUE : msg_num(q);
}

} // extern "C"
