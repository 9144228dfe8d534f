// Message queues and the FIFO semaphore against their platform peers.
//
// Throughput: one iteration moves kBatch messages from the producers to the
// consumers (threads started per iteration), capacity kCapacity everywhere
// the peer allows one (a pipe keeps its own buffer). Peers: POSIX message
// queues, a pipe, and a mutex + condition-variable deque of byte buffers;
// each peer is paired with a run of the library's queue next to it.
// Latency: ping-pong between two threads, the time of one round trip at the
// median and the 99th percentile of each batch.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <mqueue.h>
#include <semaphore.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "qosa_queue.h"
#include "qosa_sem.h"

namespace {

constexpr std::uint32_t kBatch = 20000;
constexpr std::uint32_t kCapacity = 10; // POSIX message queues allow at most 10 by default
constexpr int kRoundTrips = 2000;

// ---- the transports ------------------------------------------------------

struct QosaQueue {
    u32 id = 0;
    explicit QosaQueue(std::size_t size) { ORV_QueueCreate("bench", kCapacity, &id, 0, static_cast<u32>(size)); }
    ~QosaQueue() { ORV_QueueDelete(id); }
    void send(const char* p, std::size_t n) { ORV_QueueWrite(id, p, static_cast<u32>(n), 0); }
    void recv(char* p, std::size_t n) { ORV_QueueRead(id, 0, p, static_cast<u32>(n)); }
};

struct PosixMq {
    std::string name;
    mqd_t q;
    explicit PosixMq(std::size_t size) {
        static std::atomic<int> serial{0};
        name = "/qosa_bench_" + std::to_string(getpid()) + "_" + std::to_string(serial++);
        mq_attr attr{};
        attr.mq_maxmsg = kCapacity;
        attr.mq_msgsize = static_cast<long>(size);
        q = mq_open(name.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600, &attr);
        if (q == static_cast<mqd_t>(-1)) std::perror("mq_open");
        mq_unlink(name.c_str());
    }
    ~PosixMq() { mq_close(q); }
    void send(const char* p, std::size_t n) const { mq_send(q, p, n, 0); }
    void recv(char* p, std::size_t n) const { mq_receive(q, p, n, nullptr); }
};

// Messages of one fixed size of at most PIPE_BUF: every write and every read
// moves one whole message.
struct Pipe {
    int fd[2] = {-1, -1};
    explicit Pipe(std::size_t /*size*/) {
        if (pipe(fd) != 0) std::perror("pipe");
    }
    ~Pipe() {
        close(fd[0]);
        close(fd[1]);
    }
    void send(const char* p, std::size_t n) const { benchmark::DoNotOptimize(write(fd[1], p, n)); }
    void recv(char* p, std::size_t n) const { benchmark::DoNotOptimize(read(fd[0], p, n)); }
};

struct CvDeque {
    std::mutex m;
    std::condition_variable notEmpty, notFull;
    std::deque<std::vector<char>> items;
    explicit CvDeque(std::size_t /*size*/) {}
    void send(const char* p, std::size_t n) {
        std::vector<char> item(p, p + n);
        std::unique_lock<std::mutex> lock(m);
        notFull.wait(lock, [&] { return items.size() < kCapacity; });
        items.push_back(std::move(item));
        lock.unlock();
        notEmpty.notify_one();
    }
    void recv(char* p, std::size_t n) {
        std::unique_lock<std::mutex> lock(m);
        notEmpty.wait(lock, [&] { return !items.empty(); });
        std::vector<char> item = std::move(items.front());
        items.pop_front();
        lock.unlock();
        notFull.notify_one();
        std::memcpy(p, item.data(), std::min(n, item.size()));
    }
};

// ---- throughput ----------------------------------------------------------

template <typename Q>
void throughput(benchmark::State& st, int producers, int consumers) {
    auto size = static_cast<std::size_t>(st.range(0));
    Q q(size);
    for (auto _ : st) {
        std::vector<std::thread> threads;
        for (int p = 0; p < producers; ++p)
            threads.emplace_back([&] {
                std::vector<char> msg(size, 'm');
                for (std::uint32_t i = 0; i < kBatch / producers; ++i)
                    q.send(msg.data(), size);
            });
        for (int c = 0; c < consumers; ++c)
            threads.emplace_back([&] {
                std::vector<char> buf(size);
                for (std::uint32_t i = 0; i < kBatch / consumers; ++i)
                    q.recv(buf.data(), size);
            });
        for (auto& t : threads)
            t.join();
    }
    st.SetItemsProcessed(static_cast<std::int64_t>(st.iterations()) * kBatch);
}

template <typename Q>
void Spsc(benchmark::State& st) {
    throughput<Q>(st, 1, 1);
}
template <typename Q>
void Mpmc(benchmark::State& st) {
    throughput<Q>(st, 4, 4);
}

#define QUEUE_PAIR(kind, peer, Peer)                                                                                   \
    BENCHMARK(kind<QosaQueue>)                                                                                         \
        ->Name("Queue" #kind ".vs_" #peer ".qosa")                                                                     \
        ->Arg(16)                                                                                                      \
        ->Arg(256)                                                                                                     \
        ->Arg(4096)                                                                                                    \
        ->UseRealTime()                                                                                                \
        ->Unit(benchmark::kMillisecond);                                                                               \
    BENCHMARK(kind<Peer>)                                                                                              \
        ->Name("Queue" #kind ".vs_" #peer ".peer")                                                                     \
        ->Arg(16)                                                                                                      \
        ->Arg(256)                                                                                                     \
        ->Arg(4096)                                                                                                    \
        ->UseRealTime()                                                                                                \
        ->Unit(benchmark::kMillisecond)

QUEUE_PAIR(Spsc, mq, PosixMq);
QUEUE_PAIR(Spsc, pipe, Pipe);
QUEUE_PAIR(Spsc, cvdeque, CvDeque);
QUEUE_PAIR(Mpmc, mq, PosixMq);
QUEUE_PAIR(Mpmc, pipe, Pipe);
QUEUE_PAIR(Mpmc, cvdeque, CvDeque);

// ---- latency -------------------------------------------------------------

// Round trips through two one-way channels made by make(); an echo thread
// sends back what it gets. Each iteration is a batch of kRoundTrips; its
// manual time is the chosen percentile of the batch.
template <typename Channel>
void ping_pong(benchmark::State& st, double percentile) {
    Channel there(16), back(16);
    char msg[16] = "ping";
    std::thread echo([&] {
        char buf[16];
        for (;;) {
            there.recv(buf, sizeof buf);
            back.send(buf, sizeof buf);
            if (buf[0] == 'q') return;
        }
    });
    std::vector<double> samples(kRoundTrips);
    for (auto _ : st) {
        for (double& s : samples) {
            auto t0 = std::chrono::steady_clock::now();
            there.send(msg, sizeof msg);
            back.recv(msg, sizeof msg);
            s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        }
        auto at = samples.begin() + static_cast<std::ptrdiff_t>(percentile * (kRoundTrips - 1));
        std::nth_element(samples.begin(), at, samples.end());
        st.SetIterationTime(*at);
    }
    msg[0] = 'q';
    there.send(msg, sizeof msg);
    back.recv(msg, sizeof msg);
    echo.join();
}

void PingPongP50_qosa(benchmark::State& st) { ping_pong<QosaQueue>(st, 0.5); }
void PingPongP50_peer(benchmark::State& st) { ping_pong<Pipe>(st, 0.5); }
void PingPongP99_qosa(benchmark::State& st) { ping_pong<QosaQueue>(st, 0.99); }
void PingPongP99_peer(benchmark::State& st) { ping_pong<Pipe>(st, 0.99); }
BENCHMARK(PingPongP50_qosa)
    ->Name("QueuePingPong.p50.vs_pipe.qosa")
    ->UseManualTime()
    ->Iterations(10)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(PingPongP50_peer)
    ->Name("QueuePingPong.p50.vs_pipe.peer")
    ->UseManualTime()
    ->Iterations(10)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(PingPongP99_qosa)
    ->Name("QueuePingPong.p99.vs_pipe.qosa")
    ->UseManualTime()
    ->Iterations(10)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(PingPongP99_peer)
    ->Name("QueuePingPong.p99.vs_pipe.peer")
    ->UseManualTime()
    ->Iterations(10)
    ->Unit(benchmark::kMicrosecond);

// Semaphores as one-way channels: post is the send, wait the receive. A
// round trip is two post-to-wake hand-overs.
struct FifoSemChannel {
    QOSA_SEM_S s{};
    explicit FifoSemChannel(std::size_t /*size*/) { QOSA_SemInit(&s, 0, 0); }
    ~FifoSemChannel() { QOSA_SemDestroy(&s); }
    void send(const char* p, std::size_t /*n*/) {
        quit = p[0] == 'q';
        QOSA_SemPost(&s);
    }
    void recv(char* p, std::size_t /*n*/) {
        QOSA_SemWait(&s);
        p[0] = quit ? 'q' : 'p';
    }
    std::atomic<bool> quit{false};
};
struct PosixSemChannel {
    sem_t s{};
    explicit PosixSemChannel(std::size_t /*size*/) { sem_init(&s, 0, 0); }
    ~PosixSemChannel() { sem_destroy(&s); }
    void send(const char* p, std::size_t /*n*/) {
        quit = p[0] == 'q';
        sem_post(&s);
    }
    void recv(char* p, std::size_t /*n*/) {
        sem_wait(&s);
        p[0] = quit ? 'q' : 'p';
    }
    std::atomic<bool> quit{false};
};

void SemP50_qosa(benchmark::State& st) { ping_pong<FifoSemChannel>(st, 0.5); }
void SemP50_peer(benchmark::State& st) { ping_pong<PosixSemChannel>(st, 0.5); }
void SemP99_qosa(benchmark::State& st) { ping_pong<FifoSemChannel>(st, 0.99); }
void SemP99_peer(benchmark::State& st) { ping_pong<PosixSemChannel>(st, 0.99); }
BENCHMARK(SemP50_qosa)->Name("SemPostToWake.p50.qosa")->UseManualTime()->Iterations(10)->Unit(benchmark::kMicrosecond);
BENCHMARK(SemP50_peer)->Name("SemPostToWake.p50.peer")->UseManualTime()->Iterations(10)->Unit(benchmark::kMicrosecond);
BENCHMARK(SemP99_qosa)->Name("SemPostToWake.p99.qosa")->UseManualTime()->Iterations(10)->Unit(benchmark::kMicrosecond);
BENCHMARK(SemP99_peer)->Name("SemPostToWake.p99.peer")->UseManualTime()->Iterations(10)->Unit(benchmark::kMicrosecond);

// A post and a wait on one thread: the cost without any hand-over.
void SemPostWait_qosa(benchmark::State& st) {
    QOSA_SEM_S s{};
    QOSA_SemInit(&s, 0, 0);
    for (auto _ : st) {
        QOSA_SemPost(&s);
        QOSA_SemWait(&s);
    }
    QOSA_SemDestroy(&s);
}
void SemPostWait_peer(benchmark::State& st) {
    sem_t s;
    sem_init(&s, 0, 0);
    for (auto _ : st) {
        sem_post(&s);
        sem_wait(&s);
    }
    sem_destroy(&s);
}
BENCHMARK(SemPostWait_qosa)->Name("SemPostWait.qosa");
BENCHMARK(SemPostWait_peer)->Name("SemPostWait.peer");

} // namespace
