// The interposed entry points behind fault_inject.h. Defined in the
// executable, they replace the C library's for the library and the C library
// alike; under a sanitizer they replace its (weak) interceptors and pass to
// them, so the sanitizer still sees every block and thread.
#include "fault_inject.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
void __libc_free(void*);
// A sanitizer's entry points, when one is linked in.
void* __interceptor_malloc(std::size_t) __attribute__((weak));
void* __interceptor_calloc(std::size_t, std::size_t) __attribute__((weak));
void* __interceptor_realloc(void*, std::size_t) __attribute__((weak));
int __interceptor_posix_memalign(void**, std::size_t, std::size_t) __attribute__((weak));
void __interceptor_free(void*) __attribute__((weak));
int __interceptor_mprotect(void*, std::size_t, int) __attribute__((weak));
int __interceptor_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) __attribute__((weak));
}

namespace {

// Plain words with atomic builtins: this file is built without sanitizer
// instrumentation, since the allocator runs before a sanitizer is set up.
using Kind = fault::Kind;
int s_kind = 0; // a fault::Kind
long s_left = 0, s_seen = 0, s_live = 0;
bool s_struck = false;

template <class T>
T get(const T& v) {
    return __atomic_load_n(&v, __ATOMIC_RELAXED);
}
template <class T>
void set(T& v, T x) {
    __atomic_store_n(&v, x, __ATOMIC_SEQ_CST);
}
long add(long& v, long d) { return __atomic_fetch_add(&v, d, __ATOMIC_RELAXED); }

// Allocation faults strike the threads of the program: the one that armed
// them and those it started, from their start routine on (a sanitizer's own
// set-up of a new thread runs before it and is left alone).
thread_local bool t_ours = false;

// True when this allocation is to fail.
bool refuse() {
    if (!t_ours || get(s_kind) != static_cast<int>(Kind::Alloc)) return false;
    add(s_seen, 1);
    if (add(s_left, -1) != 1) return false;
    set(s_struck, true);
    errno = ENOMEM;
    return true;
}

bool strikes(Kind k) {
    if (get(s_kind) != static_cast<int>(k)) return false;
    set(s_struck, true);
    return true;
}

void* counted(void* p) {
    if (p != nullptr) add(s_live, 1);
    return p;
}

// The C library's, looked up before main so that no armed fault strikes the lookup.
using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
const auto s_create = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));

struct Start {
    void* (*routine)(void*);
    void* arg;
};
void* start_ours(void* p) {
    Start s = *static_cast<Start*>(p);
    __libc_free(p);
    t_ours = true;
    return s.routine(s.arg);
}

} // namespace

namespace fault {

void arm(Kind kind, long k) {
    t_ours = true;
    set(s_struck, false);
    set(s_seen, 0L);
    set(s_left, k);
    set(s_kind, static_cast<int>(kind));
}
bool disarm() {
    set(s_kind, 0);
    return get(s_struck);
}
long seen() { return get(s_seen); }
long live_blocks() { return get(s_live); }

} // namespace fault

extern "C" {

void* malloc(std::size_t n) {
    if (refuse()) return nullptr;
    return counted(__interceptor_malloc ? __interceptor_malloc(n) : __libc_malloc(n));
}

void* calloc(std::size_t count, std::size_t size) {
    if (refuse()) return nullptr;
    return counted(__interceptor_calloc ? __interceptor_calloc(count, size) : __libc_calloc(count, size));
}

void* realloc(void* p, std::size_t n) {
    if ((p == nullptr || n != 0) && refuse()) return nullptr;
    void* r = __interceptor_realloc ? __interceptor_realloc(p, n) : __libc_realloc(p, n);
    if (p == nullptr) return counted(r);
    if (n == 0 && r == nullptr) add(s_live, -1); // released
    return r;
}

int posix_memalign(void** out, std::size_t a, std::size_t n) {
    if (refuse()) return ENOMEM;
    if (__interceptor_posix_memalign) {
        int r = __interceptor_posix_memalign(out, a, n);
        return r == 0 ? (counted(*out), 0) : r;
    }
    if (a % sizeof(void*) != 0 || (a & (a - 1)) != 0) return EINVAL;
    void* p = counted(__libc_memalign(a, n));
    return p == nullptr ? ENOMEM : (*out = p, 0);
}

void free(void* p) {
    if (p != nullptr) add(s_live, -1);
    if (__interceptor_free)
        __interceptor_free(p);
    else
        __libc_free(p);
}

int mprotect(void* addr, std::size_t len, int prot) {
    if (prot == PROT_READ && strikes(Kind::Maps)) {
        errno = ENOMEM; // what the kernel says past vm.max_map_count
        return -1;
    }
    if (__interceptor_mprotect) return __interceptor_mprotect(addr, len, prot);
    return static_cast<int>(syscall(SYS_mprotect, addr, len, prot));
}

int pthread_create(pthread_t* t, const pthread_attr_t* attr, void* (*routine)(void*), void* arg) {
    if (strikes(Kind::Thread)) return EAGAIN;
    auto* start = static_cast<Start*>(__libc_malloc(sizeof(Start))); // outside the count
    if (start == nullptr) return EAGAIN;
    *start = Start{routine, arg};
    int r = (__interceptor_pthread_create ? __interceptor_pthread_create : s_create)(t, attr, start_ours, start);
    if (r != 0) __libc_free(start);
    return r;
}

} // extern "C"
