/* Files, streams, descriptors, directories and paths. */
#ifndef QOSA_FILE_H
#define QOSA_FILE_H

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

QOSA_EXTERN_C_END

#endif /* QOSA_FILE_H */
