/** @file
 * Shared memory, mappings, signals and processes.
 *
 * Pass-through wrappers: each returns the platform call's own result, with
 * the reason of a failure in the last error. A null guarded pointer (or an
 * empty path) gives -1 and nothing is called. */
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

/** An IPC key for a path (ftok). @param path an existing file
 * @param id the project id (low 8 bits used)
 * @return the key; -1 with errno, or for a null or empty path */
QOSA_API key_t QOSA_Ftok(const char* path, s32 id);

/** @name Mappings
 * Lengths are widened to the platform's size type, offsets with their sign.
 * QOSA_MMapWin and QOSA_MUnMapWin are the same operations. */
/** @{ */
/** mmap. @param addr the address hint, or NULL @param len bytes to map
 * @param prot PROT_ flags @param flags MAP_ flags @param fd the file, or -1
 * @param offset offset in the file
 * @return the mapping, released with QOSA_MUnMap; MAP_FAILED with errno */
QOSA_API void* QOSA_MMap(void* addr, u32 len, s32 prot, s32 flags, s32 fd, s32 offset);
/** The same as QOSA_MMap. @param addr,len,prot,flags,fd,offset as for
 * QOSA_MMap @return as QOSA_MMap */
QOSA_API void* QOSA_MMapWin(void* addr, u32 len, s32 prot, s32 flags, s32 fd, s32 offset);
/** munmap. @param addr the mapping @param len its length
 * @return 0; -1 with errno, or for a null addr */
QOSA_API s32 QOSA_MUnMap(void* addr, u32 len);
/** The same as QOSA_MUnMap. @param addr,len as for QOSA_MUnMap
 * @return as QOSA_MUnMap */
QOSA_API s32 QOSA_MUnMapWin(void* addr, u32 len);
/** @} */

/** @name Shared memory
 * Not offered: these return fixed failures without calling anything.
 * QOSA_ShmOpen, and QOSA_ShmUnLink with a name, set the last error to ENOSYS. */
/** @{ */
/** Not offered. @param key,size,flags not read @return -1 */
QOSA_API s32 QOSA_ShmGet(key_t key, u32 size, s32 flags);
/** Not offered. @param shmid,addr,flags not read @return NULL */
QOSA_API void* QOSA_ShmAt(s32 shmid, const void* addr, s32 flags);
/** Not offered. @param addr not read @return -1 */
QOSA_API s32 QOSA_ShmDt(const void* addr);
/** Not offered. @param shmid,cmd,buf not read @return -1 */
QOSA_API s32 QOSA_ShmCtl(s32 shmid, s32 cmd, struct shmid_ds* buf);
/** Not offered; sets the last error to ENOSYS. @param name,oflag,mode not
 * read @return -1 */
QOSA_API s32 QOSA_ShmOpen(const char* name, s32 oflag, mode_t mode);
/** Not offered; sets the last error to ENOSYS unless name is NULL.
 * @param name the name @return -1 */
QOSA_API s32 QOSA_ShmUnLink(const char* name);
/** @} */

/** @name Signals */
/** @{ */
/** sigaction. @param sig the signal @param act the new action, or NULL
 * @param oldAct receives the old action, or NULL @return 0; -1 with errno */
QOSA_API s32 QOSA_SigAction(s32 sig, const struct sigaction* act, struct sigaction* oldAct);
/** Installs handler with signal(); neither the previous handler nor a failure
 * is reported. @param sig the signal @param handler the handler, SIG_DFL or
 * SIG_IGN @return 0 */
QOSA_API s32 QOSA_Signal(s32 sig, void (*handler)(int));
/** sigprocmask: changes the signal mask of the process (multi-threaded
 * callers use QOSA_PthreadSigmask). @param how SIG_BLOCK, SIG_UNBLOCK or
 * SIG_SETMASK @param set the signals; NULL is refused, not taken as a query
 * @param oldSet receives the old mask, or NULL
 * @return 0; -1 with errno, or for a null set */
QOSA_API s32 QOSA_SigProcmask(s32 how, const sigset_t* set, sigset_t* oldSet);
/** pthread_sigmask: changes the calling thread's signal mask.
 * @param how SIG_BLOCK, SIG_UNBLOCK or SIG_SETMASK @param set the signals
 * @param oldSet receives the old mask, or NULL
 * @return 0 or an error number; -1 for a null set */
QOSA_API s32 QOSA_PthreadSigmask(s32 how, const sigset_t* set, sigset_t* oldSet);
/** sigpending. @param set receives the pending signals
 * @return 0; -1 with errno, or for NULL */
QOSA_API s32 QOSA_SigPending(sigset_t* set);
/** sigsuspend: waits for a signal with set as the mask. @param set the mask
 * @return -1 (EINTR once a handler ran), also for NULL */
QOSA_API s32 QOSA_SigSuspend(const sigset_t* set);
/** sigwait. @param set the signals waited for
 * @param sig receives the signal taken
 * @return 0 or an error number (EINVAL for a null sig); -1 for a null set */
QOSA_API s32 QOSA_SigWait(const sigset_t* set, s32* sig);
/** Does not wait. @param set,info must not be NULL
 * @return 0; -1 when set or info is NULL */
QOSA_API s32 QOSA_SigWaitInfo(const sigset_t* set, siginfo_t* info);
/** Does not wait. @param set,info must not be NULL @param timeout not read
 * @return 0; -1 when set or info is NULL */
QOSA_API s32 QOSA_SigTimedWait(const sigset_t* set, siginfo_t* info, const struct timespec* timeout);
/** Not offered: nothing is sent. @param pid,sig,value not read @return -1 */
QOSA_API s32 QOSA_SigQueue(pid_t pid, s32 sig, const union sigval value);
/** pthread_kill. @param thread the thread @param sig the signal (0 only
 * checks) @return 0 or an error number */
QOSA_API s32 QOSA_PthreadKill(pthread_t thread, s32 sig);
/** kill. @param pid the process (group) @param sig the signal (0 only checks)
 * @return 0; -1 with errno */
QOSA_API s32 QOSA_Kill(pid_t pid, s32 sig);
/** @} */

/** @name Signal sets
 * Worked on directly: signal s is bit s - 1 of the set, and the set holds as
 * many signals as it has bits. Numbers outside 1..capacity leave the set
 * unchanged (and are never members). */
/** @{ */
/** Clears every bit. @param set the set @return 0; -1 for NULL */
QOSA_API s32 QOSA_SigEmptySet(sigset_t* set);
/** Sets every bit. @param set the set @return 0; -1 for NULL */
QOSA_API s32 QOSA_SigFillSet(sigset_t* set);
/** Adds a signal. @param set the set @param sig the signal
 * @return 0; -1 for a null set */
QOSA_API s32 QOSA_SigAddSet(sigset_t* set, s32 sig);
/** Removes a signal. @param set the set @param sig the signal
 * @return 0; -1 for a null set */
QOSA_API s32 QOSA_SigDelSet(sigset_t* set, s32 sig);
/** Tests a signal. @param set the set @param sig the signal
 * @return 1 when a member, 0 when not; -1 for a null set */
QOSA_API s32 QOSA_SigIsMember(const sigset_t* set, s32 sig);
/** @} */

/** @name Processes */
/** @{ */
/** getpid. @return the calling process's id */
QOSA_API pid_t QOSA_GetPID(void);
/** fork. @return the child's id in the parent, 0 in the child; -1 with errno */
QOSA_API s64 QOSA_Fork(void);
/** wait. @param status receives the child's status, or NULL
 * @return the child's id; -1 with errno */
QOSA_API s64 QOSA_Wait(s32* status);
/** waitpid. @param pid the child (-1: any) @param status receives its status,
 * or NULL @param options WNOHANG ... @return the child's id, 0 with WNOHANG
 * when none changed; -1 with errno */
QOSA_API pid_t QOSA_Waitpid(pid_t pid, s32* status, s32 options);
/** Not offered: no process is started. @param path,argv not read @return 0 */
QOSA_API s32 QOSA_CreateProcess(const char* path, char* const argv[]);
/** Ends the process at once (_exit): no exit handlers, no stdio flush.
 * @param status the exit status */
QOSA_API void QOSA_Exit(s32 status) __attribute__((noreturn));
/** reboot (needs the privilege). @param howto the RB_ command
 * @return 0 (or no return); -1 with errno */
QOSA_API s32 QOSA_Reboot(s32 howto);
/** @} */

QOSA_EXTERN_C_END

#endif /* QOSA_PROCESS_H */
