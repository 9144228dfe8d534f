// The library's own mutex calls (os_lock): what the QOSA_Mutex* entry points
// do, bound inside the library. A QosaMutex still holding
// QOSA_MUTEX_INITIALIZER is initialised by its first lock.
#pragma once

#include "qosa_lock.h"

namespace qosa::lock {

int init(QosaMutex* m, const pthread_mutexattr_t* attr);
int destroy(QosaMutex* m);
int lock(QosaMutex* m);
int unlock(QosaMutex* m);

} // namespace qosa::lock
