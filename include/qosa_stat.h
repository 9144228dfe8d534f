/* System statistics from /proc. */
#ifndef QOSA_STAT_H
#define QOSA_STAT_H

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

QOSA_EXTERN_C_END

#endif /* QOSA_STAT_H */
