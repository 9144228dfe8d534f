// The interposed entry points behind fault_inject.h. Defined in the executable, they replace the C library's for
// the library and the C library alike; under a sanitizer they replace its (weak) interceptors and pass to them, so
// the sanitizer still sees every block and thread.
#include "fault_inject.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <utility>

using fault::Kind;

extern "C" {
void *__libc_malloc(size_t), *__libc_calloc(size_t, size_t), *__libc_realloc(void*, size_t);
void __libc_free(void*);
// A sanitizer's entry points, when one is linked in.
[[gnu::weak]] void *__interceptor_malloc(size_t), *__interceptor_calloc(size_t, size_t),
    *__interceptor_realloc(void*, size_t);
[[gnu::weak]] void __interceptor_free(void*);
[[gnu::weak]] int __interceptor_posix_memalign(void**, size_t, size_t), __interceptor_mprotect(void*, size_t, int),
    __interceptor_pthread_create(pthread_t*, const pthread_attr_t*, void*(*)(void*), void*);
}
#define NEXT(f, ...) (__interceptor_##f ? __interceptor_##f(__VA_ARGS__) : __libc_##f(__VA_ARGS__))

namespace {

// Plain words with atomic builtins: this file is built without sanitizer
// instrumentation, since the allocator runs before a sanitizer is set up.
long s_kind = 0, s_left = 0, s_seen = 0, s_live = 0, s_struck = 0;
long get(const long& v) { return __atomic_load_n(&v, __ATOMIC_RELAXED); }
void set(long& v, long x) { __atomic_store_n(&v, x, __ATOMIC_SEQ_CST); }
long add(long& v, long d) { return __atomic_fetch_add(&v, d, __ATOMIC_RELAXED); }

// Allocation faults strike the threads of the program: the one that armed
// them and those it started, from their start routine on (a sanitizer's own
// set-up of a new thread runs before it and is left alone).
thread_local bool t_ours = false;

bool strikes(Kind k) {
    if (get(s_kind) != static_cast<long>(k)) return false;
    set(s_struck, 1L);
    return true;
}
// True when this allocation is to fail.
bool refuse() {
    if (!t_ours || get(s_kind) != static_cast<long>(Kind::Alloc)) return false;
    add(s_seen, 1);
    return add(s_left, -1) == 1 && strikes(Kind::Alloc) && (errno = ENOMEM) != 0;
}
void* counted(void* p) {
    if (p != nullptr) add(s_live, 1);
    return p;
}

// The C library's, looked up before main so that no armed fault strikes the lookups.
const auto s_create = reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
const auto s_memalign = reinterpret_cast<decltype(&posix_memalign)>(dlsym(RTLD_NEXT, "posix_memalign"));
const auto s_mprotect = reinterpret_cast<decltype(&mprotect)>(dlsym(RTLD_NEXT, "mprotect"));

using Start = std::pair<void* (*)(void*), void*>; // a thread's start routine and its argument
void* start_ours(void* p) {
    const auto [routine, arg] = *static_cast<Start*>(p);
    __libc_free(p);
    t_ours = true;
    return routine(arg);
}

} // namespace

namespace fault {
void arm(Kind kind, long k) {
    t_ours = true;
    set(s_struck, 0L), set(s_seen, 0L), set(s_left, k), set(s_kind, static_cast<long>(kind));
}
bool disarm() { return set(s_kind, 0L), get(s_struck) != 0; }
long seen() { return get(s_seen); }
long live_blocks() { return get(s_live); }
} // namespace fault

extern "C" {

void* malloc(size_t n) { return refuse() ? nullptr : counted(NEXT(malloc, n)); }
void* calloc(size_t count, size_t size) { return refuse() ? nullptr : counted(NEXT(calloc, count, size)); }
void* realloc(void* p, size_t n) {
    if ((p == nullptr || n != 0) && refuse()) return nullptr;
    void* r = NEXT(realloc, p, n);
    if (p == nullptr) return counted(r);
    if (n == 0 && r == nullptr) add(s_live, -1); // released
    return r;
}
void free(void* p) {
    if (p != nullptr) add(s_live, -1);
    NEXT(free, p);
}

int posix_memalign(void** out, size_t a, size_t n) {
    if (refuse()) return ENOMEM;
    const int r = (__interceptor_posix_memalign ? __interceptor_posix_memalign : s_memalign)(out, a, n);
    if (r == 0) counted(*out);
    return r;
}

int mprotect(void* addr, size_t len, int prot) {
    if (prot == PROT_READ && strikes(Kind::Maps)) return errno = ENOMEM, -1; // the kernel's past vm.max_map_count
    return (__interceptor_mprotect ? __interceptor_mprotect : s_mprotect)(addr, len, prot);
}

int pthread_create(pthread_t* t, const pthread_attr_t* attr, void* (*routine)(void*), void* arg) {
    if (strikes(Kind::Thread)) return EAGAIN;
    auto* start = static_cast<Start*>(__libc_malloc(sizeof(Start))); // outside the count
    if (start == nullptr) return EAGAIN;
    *start = Start{routine, arg};
    const int r = (__interceptor_pthread_create ? __interceptor_pthread_create : s_create)(t, attr, start_ours, start);
    if (r != 0) __libc_free(start);
    return r;
}

} // extern "C"
