// Message queues and the FIFO semaphore against their platform peers, and
// the queues at scale.
//
// Throughput: a round moves n messages from the producers to the consumers
// (threads started per round) through one queue of capacity 10, against a
// POSIX message queue of capacity 10 and the same message size. Latency:
// ping-pong between two threads through two one-way channels, each round
// trip timed; p50 and p99 of each round.
#include <fcntl.h>
#include <mqueue.h>
#include <semaphore.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench.h"
#include "qosa_queue.h"
#include "qosa_sem.h"

namespace {

using bench::Clock;
using bench::keep;
using bench::u64;

constexpr u32 kCapacity = 10; // what a POSIX message queue allows by default

// ---- one-way channels of fixed-size messages ----

struct Queue {
    u32 id = 0;
    explicit Queue(std::size_t size) {
        if (ORV_QueueCreate("bench", kCapacity, &id, 0, static_cast<u32>(size)) != 0) throw bench::Skip("no queue");
    }
    ~Queue() { ORV_QueueDelete(id); }
    bool send(const char* p, std::size_t n) const { return ORV_QueueWrite(id, p, static_cast<u32>(n), 0) == 0; }
    bool recv(char* p, std::size_t n) const { return ORV_QueueRead(id, 0, p, static_cast<u32>(n)) == n; }
};

struct PosixMq {
    mqd_t q;
    explicit PosixMq(std::size_t size) {
        static std::atomic<int> serial{0};
        std::string name = "/qosa_bench_" + std::to_string(getpid()) + "_" + std::to_string(serial++);
        mq_attr attr{};
        attr.mq_maxmsg = kCapacity;
        attr.mq_msgsize = static_cast<long>(size);
        q = mq_open(name.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600, &attr);
        if (q == static_cast<mqd_t>(-1)) throw bench::Skip("mq_open failed");
        mq_unlink(name.c_str());
    }
    ~PosixMq() { mq_close(q); }
    bool send(const char* p, std::size_t n) const { return mq_send(q, p, n, 0) == 0; }
    bool recv(char* p, std::size_t n) const { return mq_receive(q, p, n, nullptr) == static_cast<ssize_t>(n); }
};

// Messages of at most PIPE_BUF bytes: each write and each read moves one.
struct Pipe {
    int fd[2] = {-1, -1};
    explicit Pipe(std::size_t) {
        if (pipe(fd) != 0) throw bench::Skip("pipe failed");
    }
    ~Pipe() {
        close(fd[0]);
        close(fd[1]);
    }
    bool send(const char* p, std::size_t n) const { return write(fd[1], p, n) == static_cast<ssize_t>(n); }
    bool recv(char* p, std::size_t n) const { return read(fd[0], p, n) == static_cast<ssize_t>(n); }
};

// Semaphores as channels: post is the send, wait the receive; the message's
// first byte (the quit mark) travels beside them.
struct FifoSem {
    QOSA_SEM_S s{};
    std::atomic<char> mark{0};
    explicit FifoSem(std::size_t) {
        if (QOSA_SemInit(&s, 0, 0) != 0) throw bench::Skip("no semaphore");
    }
    ~FifoSem() { QOSA_SemDestroy(&s); }
    bool send(const char* p, std::size_t) {
        mark = p[0];
        return QOSA_SemPost(&s) == 0;
    }
    bool recv(char* p, std::size_t) {
        bool ok = QOSA_SemWait(&s) == 0;
        p[0] = mark;
        return ok;
    }
};
struct PosixSem {
    sem_t s{};
    std::atomic<char> mark{0};
    explicit PosixSem(std::size_t) { sem_init(&s, 0, 0); }
    ~PosixSem() { sem_destroy(&s); }
    bool send(const char* p, std::size_t) {
        mark = p[0];
        return sem_post(&s) == 0;
    }
    bool recv(char* p, std::size_t) {
        bool ok = sem_wait(&s) == 0;
        p[0] = mark;
        return ok;
    }
};

// ---- throughput ----

template <typename Q>
void move_messages(Q& q, std::size_t size, int producers, int consumers, u64 n) {
    std::atomic<u64> failed{0};
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p)
        threads.emplace_back([&, p] {
            std::vector<char> msg(size, 'm');
            for (u64 i = n / producers + (static_cast<u64>(p) < n % producers); i > 0; --i)
                if (!q.send(msg.data(), size)) ++failed;
        });
    for (int c = 0; c < consumers; ++c)
        threads.emplace_back([&, c] {
            std::vector<char> buf(size);
            for (u64 i = n / consumers + (static_cast<u64>(c) < n % consumers); i > 0; --i)
                if (!q.recv(buf.data(), size)) ++failed;
        });
    for (auto& t : threads)
        t.join();
    if (failed != 0) throw bench::Skip("a send or receive failed");
}

template <typename Ours, typename Peer>
struct Channels {
    std::unique_ptr<Ours> ours;
    std::unique_ptr<Peer> peer;
};

template <typename Ours, typename Peer>
void throughput(std::string name, std::size_t size, int producers, int consumers) {
    auto ch = std::make_shared<Channels<Ours, Peer>>();
    bench::add(
        {std::move(name),
         bench::rate("ORV_QueueWrite/Read", [=](u64 n) { move_messages(*ch->ours, size, producers, consumers, n); }),
         bench::rate("mq_send/mq_receive", [=](u64 n) { move_messages(*ch->peer, size, producers, consumers, n); }),
         {{"throughput", bench::Kind::Rate}},
         0,
         [=] {
             ch->ours = std::make_unique<Ours>(size);
             ch->peer = std::make_unique<Peer>(size);
         },
         [=] {
             ch->ours.reset();
             ch->peer.reset();
         }});
}

// ---- latency ----

// n round trips; an echo thread sends back what it gets, until a 'q'.
template <typename C>
void ping_pong(u64 n, std::vector<double>& samples) {
    C there(16), back(16);
    std::thread echo([&] {
        char buf[16];
        do {
            if (!there.recv(buf, sizeof buf)) return;
            back.send(buf, sizeof buf);
        } while (buf[0] != 'q');
    });
    char msg[16] = "ping";
    for (u64 i = 0; i < n; ++i) {
        auto t0 = Clock::now();
        there.send(msg, sizeof msg);
        back.recv(msg, sizeof msg);
        samples.push_back(bench::seconds_since(t0));
    }
    msg[0] = 'q';
    there.send(msg, sizeof msg);
    back.recv(msg, sizeof msg);
    echo.join();
}

// ---- at scale ----

// Live queues, oldest first.
struct Population {
    std::deque<u32> ids;
    void fill(std::size_t count) {
        while (ids.size() < count) {
            u32 id = 0;
            if (ORV_QueueCreate("scale", kCapacity, &id, 0, 16) != 0) throw bench::Skip("no queue");
            ids.push_back(id);
        }
    }
    void clear() {
        for (; !ids.empty(); ids.pop_back())
            ORV_QueueDelete(ids.back());
    }
};

// A side that works on a population of `count` live queues, made before and
// removed after each of its rounds.
bench::Side at_scale(std::size_t count, const std::shared_ptr<Population>& pop, void (*work)(Population&, u64)) {
    char what[64];
    std::snprintf(what, sizeof what, "oldest of %zu queues", count);
    bench::Side s = bench::timed(what, [pop, work](u64 n) { work(*pop, n); });
    s.enter = [pop, count] { pop->fill(count); };
    s.leave = [pop] { pop->clear(); };
    return s;
}

// A write and a read on each of the two oldest queues, interleaved so that
// every call looks its queue up afresh (a thread remembers the queue it used
// last).
void write_read_oldest(Population& pop, u64 n) {
    const u32 a = pop.ids[0], b = pop.ids[1];
    char msg[16] = "scale", buf[16];
    for (u64 i = 0; i < n; ++i)
        if (ORV_QueueWrite(a, msg, sizeof msg, 0) != 0 || ORV_QueueWrite(b, msg, sizeof msg, 0) != 0 ||
            ORV_QueueRead(a, 0, buf, sizeof buf) != sizeof buf || ORV_QueueRead(b, 0, buf, sizeof buf) != sizeof buf)
            throw bench::Skip("write or read failed");
}

void delete_oldest_create(Population& pop, u64 n) {
    for (u64 i = 0; i < n; ++i) {
        if (ORV_QueueDelete(pop.ids.front()) != 0) throw bench::Skip("delete failed");
        pop.ids.pop_front();
        u32 id = 0;
        if (ORV_QueueCreate("scale", kCapacity, &id, 0, 16) != 0) throw bench::Skip("no queue");
        pop.ids.push_back(id);
    }
}

const bench::Registrar reg([] {
    for (auto [p, c] : {std::pair{1, 1}, {2, 2}, {4, 4}})
        for (std::size_t size : {16u, 256u, 4096u})
            throughput<Queue, PosixMq>(
                "queue." + std::to_string(p) + "P" + std::to_string(c) + "C." + std::to_string(size) + "B", size, p, c);
    bench::add({"queue.ping-pong", bench::percentiles("ORV_QueueWrite/Read", ping_pong<Queue>),
                bench::percentiles("pipe write/read", ping_pong<Pipe>), bench::kPercentiles});
    bench::add({"sem.post-to-wake", bench::percentiles("QOSA_SemPost/Wait", ping_pong<FifoSem>),
                bench::percentiles("sem_post/sem_wait", ping_pong<PosixSem>), bench::kPercentiles});
    // A post and a wait on one thread: the cost without any hand-over.
    bench::pair(
        "sem.post+wait", "QOSA_SemPost+Wait",
        [](u64 n) {
            FifoSem s(0);
            for (u64 i = 0; i < n; ++i) {
                QOSA_SemPost(&s.s);
                QOSA_SemWait(&s.s);
            }
        },
        "sem_post+sem_wait",
        [](u64 n) {
            PosixSem s(0);
            for (u64 i = 0; i < n; ++i) {
                sem_post(&s.s);
                sem_wait(&s.s);
            }
        });

    auto pop = std::make_shared<Population>();
    bench::add({"scale.queue.lookup+write+read-oldest.10000/10", at_scale(10000, pop, write_read_oldest),
                at_scale(10, pop, write_read_oldest)});
    bench::add({"scale.queue.delete-oldest+create.10000/10", at_scale(10000, pop, delete_oldest_create),
                at_scale(10, pop, delete_oldest_create)});
});

} // namespace
