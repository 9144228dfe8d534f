/* Message queues of byte messages between threads. */
#ifndef QOSA_QUEUE_H
#define QOSA_QUEUE_H

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

QOSA_EXTERN_C_END

#endif /* QOSA_QUEUE_H */
