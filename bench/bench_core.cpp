// The thin wrappers against the platform call they wrap: locks, strings,
// files, sockets, clocks, threads.
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

#include "bench.h"
#include "qosa_file.h"
#include "qosa_lock.h"
#include "qosa_socket.h"
#include "qosa_string.h"
#include "qosa_thread.h"
#include "qosa_time.h"

// pthread_self is declared const, so a loop of calls would be folded into
// one; this name for the same function makes the peer call it every time.
extern "C" pthread_t pthread_self_each_time(void) __asm__("pthread_self");

namespace {

using bench::keep;
using bench::u64;

constexpr const char* kPath = "/tmp"; // a path every host has

// One UDP socket for the whole run; the option read is SO_RCVBUF.
int udp_socket() {
    static const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    return fd;
}

const bench::Registrar reg([] {
    bench::pair(
        "mutex.lock+unlock", "QOSA_MutexLock+UnLock",
        [](u64 n) {
            static QosaMutex m = QOSA_MUTEX_INITIALIZER;
            for (u64 i = 0; i < n; ++i) {
                QOSA_MutexLock(&m);
                QOSA_MutexUnLock(&m);
            }
        },
        "pthread_mutex_lock+unlock",
        [](u64 n) {
            static pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
            for (u64 i = 0; i < n; ++i) {
                pthread_mutex_lock(&m);
                pthread_mutex_unlock(&m);
            }
        });
    bench::pair(
        "string.ultostr", "QOSA_Ultostr hex",
        [](u64 n) {
            char buf[16];
            for (u64 i = 0; i < n; ++i) {
                keep(QOSA_Ultostr(buf, sizeof buf, static_cast<u32>(i), 16));
                keep(buf);
            }
        },
        "snprintf %x",
        [](u64 n) {
            char buf[16];
            for (u64 i = 0; i < n; ++i) {
                keep(std::snprintf(buf, sizeof buf, "%x", static_cast<unsigned>(i)));
                keep(buf);
            }
        });
    bench::pair(
        "file.access", "QOSA_Access",
        [](u64 n) {
            for (u64 i = 0; i < n; ++i)
                keep(QOSA_Access(kPath, R_OK));
        },
        "access",
        [](u64 n) {
            for (u64 i = 0; i < n; ++i)
                keep(access(kPath, R_OK));
        });
    bench::pair(
        "file.stat", "QOSA_Stat",
        [](u64 n) {
            QOSA_STAT_S s;
            for (u64 i = 0; i < n; ++i) {
                keep(QOSA_Stat(kPath, &s));
                keep(s);
            }
        },
        "stat",
        [](u64 n) {
            struct stat s;
            for (u64 i = 0; i < n; ++i) {
                keep(stat(kPath, &s));
                keep(s);
            }
        });
    bench::pair(
        "socket.getsockopt", "QOSA_GetSockOpt SO_RCVBUF",
        [](u64 n) {
            int v = 0;
            for (u64 i = 0; i < n; ++i) {
                socklen_t len = sizeof v;
                keep(QOSA_GetSockOpt(udp_socket(), SOL_SOCKET, SO_RCVBUF, &v, &len));
                keep(v);
            }
        },
        "getsockopt SO_RCVBUF",
        [](u64 n) {
            int v = 0;
            for (u64 i = 0; i < n; ++i) {
                socklen_t len = sizeof v;
                keep(getsockopt(udp_socket(), SOL_SOCKET, SO_RCVBUF, &v, &len));
                keep(v);
            }
        });
    bench::pair(
        "time.sys-run-time", "QOSA_GetSysRunTime",
        [](u64 n) {
            for (u64 i = 0; i < n; ++i)
                keep(QOSA_GetSysRunTime());
        },
        "clock_gettime BOOTTIME",
        [](u64 n) {
            timespec ts;
            for (u64 i = 0; i < n; ++i) {
                clock_gettime(CLOCK_BOOTTIME, &ts);
                keep(ts);
            }
        });
    bench::pair(
        "time.system-time", "QOSA_GetSystemTime",
        [](u64 n) {
            for (u64 i = 0; i < n; ++i)
                keep(QOSA_GetSystemTime());
        },
        "gettimeofday",
        [](u64 n) {
            timeval tv;
            for (u64 i = 0; i < n; ++i) {
                gettimeofday(&tv, nullptr);
                keep(tv);
            }
        });
    bench::pair(
        "time.local-time", "QOSA_LocalTime_S",
        [](u64 n) {
            time_t t = 1709642096;
            struct tm tm;
            for (u64 i = 0; i < n; ++i) {
                keep(QOSA_LocalTime_S(&tm, &t));
                keep(tm);
            }
        },
        "localtime_r",
        [](u64 n) {
            time_t t = 1709642096;
            struct tm tm;
            for (u64 i = 0; i < n; ++i) {
                keep(localtime_r(&t, &tm));
                keep(tm);
            }
        });
    // A condition variable nobody waits on: the wrapper around the fast path.
    bench::pair(
        "thread.cond-signal", "QOSA_PthreadCondSignal",
        [](u64 n) {
            static pthread_cond_t c = PTHREAD_COND_INITIALIZER;
            for (u64 i = 0; i < n; ++i)
                keep(QOSA_PthreadCondSignal(&c));
        },
        "pthread_cond_signal",
        [](u64 n) {
            static pthread_cond_t c = PTHREAD_COND_INITIALIZER;
            for (u64 i = 0; i < n; ++i)
                keep(pthread_cond_signal(&c));
        });
    bench::pair(
        "thread.self", "QOSA_PthreadSelf",
        [](u64 n) {
            for (u64 i = 0; i < n; ++i)
                keep(QOSA_PthreadSelf());
        },
        "pthread_self",
        [](u64 n) {
            for (u64 i = 0; i < n; ++i)
                keep(pthread_self_each_time());
        });
});

} // namespace
