/* UTF-8, wide and locale text conversion. */
#ifndef QOSA_TEXT_H
#define QOSA_TEXT_H

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

QOSA_EXTERN_C_END

#endif /* QOSA_TEXT_H */
