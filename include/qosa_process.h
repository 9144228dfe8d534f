/* Shared memory, mappings, signals and processes. */
#ifndef QOSA_PROCESS_H
#define QOSA_PROCESS_H

#include <pthread.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/types.h>
#include <time.h>

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

/* Pass-through wrappers: each returns the platform call's own result, with
 * the reason of a failure in the last error. A null guarded pointer (or an
 * empty path) gives -1 and nothing is called. */

/* An IPC key for path (guarded: null or empty path). */
QOSA_API key_t QOSA_Ftok(const char* path, s32 id);

/* Mappings. Lengths are widened to the platform's size type, offsets with
 * their sign. QOSA_MMapWin and QOSA_MUnMapWin are the same operations. */
QOSA_API void* QOSA_MMap(void* addr, u32 len, s32 prot, s32 flags, s32 fd, s32 offset);
QOSA_API void* QOSA_MMapWin(void* addr, u32 len, s32 prot, s32 flags, s32 fd, s32 offset);
QOSA_API s32 QOSA_MUnMap(void* addr, u32 len);
QOSA_API s32 QOSA_MUnMapWin(void* addr, u32 len);

/* Shared memory is not offered: these return fixed failures without calling
 * anything. QOSA_ShmOpen, and QOSA_ShmUnLink with a name, set the last error
 * to ENOSYS. */
QOSA_API s32 QOSA_ShmGet(key_t key, u32 size, s32 flags);
QOSA_API void* QOSA_ShmAt(s32 shmid, const void* addr, s32 flags);
QOSA_API s32 QOSA_ShmDt(const void* addr);
QOSA_API s32 QOSA_ShmCtl(s32 shmid, s32 cmd, struct shmid_ds* buf);
QOSA_API s32 QOSA_ShmOpen(const char* name, s32 oflag, mode_t mode);
QOSA_API s32 QOSA_ShmUnLink(const char* name);

/* Signals. */
QOSA_API s32 QOSA_SigAction(s32 sig, const struct sigaction* act, struct sigaction* oldAct);
/* Installs handler; always 0 (neither the previous handler nor a failure is
 * reported). */
QOSA_API s32 QOSA_Signal(s32 sig, void (*handler)(int));
/* A null set is refused (-1), not taken as a query of the mask. */
QOSA_API s32 QOSA_SigProcmask(s32 how, const sigset_t* set, sigset_t* oldSet);
QOSA_API s32 QOSA_PthreadSigmask(s32 how, const sigset_t* set, sigset_t* oldSet);
QOSA_API s32 QOSA_SigPending(sigset_t* set);
QOSA_API s32 QOSA_SigSuspend(const sigset_t* set);
QOSA_API s32 QOSA_SigWait(const sigset_t* set, s32* sig);
/* These two do not wait: -1 when set or info is null, else 0. */
QOSA_API s32 QOSA_SigWaitInfo(const sigset_t* set, siginfo_t* info);
QOSA_API s32 QOSA_SigTimedWait(const sigset_t* set, siginfo_t* info, const struct timespec* timeout);
/* Not offered: -1, nothing is sent. */
QOSA_API s32 QOSA_SigQueue(pid_t pid, s32 sig, const union sigval value);
QOSA_API s32 QOSA_PthreadKill(pthread_t thread, s32 sig);
QOSA_API s32 QOSA_Kill(pid_t pid, s32 sig);

/* Signal sets, worked on directly: signal s is bit s - 1 of the set, and the
 * set holds as many signals as it has bits. Numbers outside 1..capacity leave
 * the set unchanged (and are never members). -1 for a null set, else 0
 * (QOSA_SigIsMember: 1 or 0). */
QOSA_API s32 QOSA_SigEmptySet(sigset_t* set);
QOSA_API s32 QOSA_SigFillSet(sigset_t* set);
QOSA_API s32 QOSA_SigAddSet(sigset_t* set, s32 sig);
QOSA_API s32 QOSA_SigDelSet(sigset_t* set, s32 sig);
QOSA_API s32 QOSA_SigIsMember(const sigset_t* set, s32 sig);

/* Processes. */
QOSA_API pid_t QOSA_GetPID(void);
QOSA_API s64 QOSA_Fork(void);
QOSA_API s64 QOSA_Wait(s32* status);
QOSA_API pid_t QOSA_Waitpid(pid_t pid, s32* status, s32 options);
/* Not offered: 0, no process is started. */
QOSA_API s32 QOSA_CreateProcess(const char* path, char* const argv[]);
/* Ends the process at once (_exit): no exit handlers, no stdio flush. */
QOSA_API void QOSA_Exit(s32 status) __attribute__((noreturn));
QOSA_API s32 QOSA_Reboot(s32 howto);

QOSA_EXTERN_C_END

#endif /* QOSA_PROCESS_H */
