/* The timer service: relative and absolute timers, groups, tasklets, tick hooks. */
#ifndef QOSA_TIMER_H
#define QOSA_TIMER_H

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

QOSA_EXTERN_C_END

#endif /* QOSA_TIMER_H */
