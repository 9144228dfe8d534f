/* Last error and error texts. The last error is the calling thread's errno. */
#ifndef QOSA_ERROR_H
#define QOSA_ERROR_H

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

QOSA_API u32 QOSA_GetLastErr(void);
QOSA_API void QOSA_SetLastErr(u32 err);
QOSA_API u32 QOSA_GetLastSocketErr(void);
QOSA_API char* QOSA_StrError(u32 errnum);
/* strerror_r with the XSI result: 0 when written, else an error number
 * (ERANGE when buf is too small). Note the order: buffer, length, number. */
QOSA_API int QOSA_StrError_S(char* buf, u32 bufLen, u32 errnum);

QOSA_EXTERN_C_END

#endif /* QOSA_ERROR_H */
