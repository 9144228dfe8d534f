/* Semaphores: unnamed (FIFO wake order), named and System V. */
#ifndef QOSA_SEM_H
#define QOSA_SEM_H

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

QOSA_EXTERN_C_END

#endif /* QOSA_SEM_H */
