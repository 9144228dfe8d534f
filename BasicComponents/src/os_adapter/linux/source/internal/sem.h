// The library's own semaphore calls (os_sem_config): what the QOSA_Sem*
// entry points of unnamed (and, by tag, named) records do, bound inside the
// library.
#pragma once

#include "qosa_sem.h"

namespace qosa::sem {

s32 init(QOSA_SEM_S* rec, u32 value);
s32 destroy(QOSA_SEM_S* rec);
s32 wait(QOSA_SEM_S* rec);
s32 post(QOSA_SEM_S* rec);
// Waits at most timeoutMs milliseconds on the monotonic clock.
s32 wait_timeout(QOSA_SEM_S* rec, u32 timeoutMs);
s32 try_wait(QOSA_SEM_S* rec);

} // namespace qosa::sem
