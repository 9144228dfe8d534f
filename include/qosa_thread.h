/* Threads, condition variables, scheduling and sleeps. */
#ifndef QOSA_THREAD_H
#define QOSA_THREAD_H

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

QOSA_EXTERN_C_END

#endif /* QOSA_THREAD_H */
