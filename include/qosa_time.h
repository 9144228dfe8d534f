/* Time and clocks. */
#ifndef QOSA_TIME_H
#define QOSA_TIME_H

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

QOSA_EXTERN_C_END

#endif /* QOSA_TIME_H */
