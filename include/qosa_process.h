/* Shared memory, mappings, signals and processes. */
#ifndef QOSA_PROCESS_H
#define QOSA_PROCESS_H

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

QOSA_EXTERN_C_END

#endif /* QOSA_PROCESS_H */
