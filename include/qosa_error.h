/** @file
 * Last error and error texts. The last error is the calling thread's errno. */
#ifndef QOSA_ERROR_H
#define QOSA_ERROR_H

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

/** The calling thread's last error. @return errno */
QOSA_API u32 QOSA_GetLastErr(void);
/** Sets the calling thread's last error. @param err the value stored in errno */
QOSA_API void QOSA_SetLastErr(u32 err);
/** The last error of a socket call: the same errno as QOSA_GetLastErr.
 * @return errno */
QOSA_API u32 QOSA_GetLastSocketErr(void);
/** The text of an error number (strerror).
 * @param errnum the error number
 * @return the C library's text; it is not freed and may be overwritten by the
 *         next call */
QOSA_API char* QOSA_StrError(u32 errnum);
/** strerror_r with the XSI result. Note the order: buffer, length, number.
 * @param buf receives the text (NULL counts as a buffer of length 0)
 * @param bufLen size of buf in bytes
 * @param errnum the error number
 * @return 0 when written, else an error number (ERANGE when buf is too small;
 *         buf then holds what strerror_r left) */
QOSA_API int QOSA_StrError_S(char* buf, u32 bufLen, u32 errnum);

QOSA_EXTERN_C_END

#endif /* QOSA_ERROR_H */
