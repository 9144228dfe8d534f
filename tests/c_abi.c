/* The public headers from plain C11: every header included, a few calls made
 * through the shared library. */
/* Strict C11 hides the POSIX types the headers use: ask for them. */
#define _GNU_SOURCE
#include <stdio.h>
#include <string.h>

#include "qosa.h"

static QosaMutex s_mutex = QOSA_MUTEX_INITIALIZER;

#define EXPECT(cond)                                                                                                   \
    do {                                                                                                               \
        if (!(cond)) {                                                                                                 \
            fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #cond);                                         \
            return 1;                                                                                                  \
        }                                                                                                              \
    } while (0)

int main(void) {
    char buf[64];
    s32 v = 0;
    QOSA_SetLastErr(7u);
    EXPECT(QOSA_GetLastErr() == 7u);
    EXPECT(QOSA_MutexLock(&s_mutex) == 0);
    EXPECT(s_mutex.ulMagic1 == 0xFFFFFFFFu && s_mutex.ulMagic2 == 0xFFFFFFFFu);
    EXPECT(QOSA_MutexUnLock(&s_mutex) == 0);
    EXPECT(QOSA_StrLen(NULL) == 0u);
    EXPECT(QOSA_StrToInt32("0x1F", &v) == 0u && v == 31);
    EXPECT(QOSA_Ultostr(buf, sizeof buf, 255u, 16u) == 2 && strcmp(buf, "ff") == 0);
    EXPECT(QOSA_InitOperateHistory() == 0u);
    EXPECT(QOSA_DumpOperateHistory(buf, 8u) <= 0);
    EXPECT(sizeof(QOSA_OPERATE_REC_S) == 52u);
    puts("c_abi ok");
    return 0;
}
