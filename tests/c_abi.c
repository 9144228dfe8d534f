/* Every public header from plain C11 and a few calls through the shared library: built here, and against an
 * installed libqosa by the consumer tests. */
#define _GNU_SOURCE /* strict C11 hides the POSIX types the headers use */
#include <stdio.h>
#include <string.h>

#include <qosa.h>

static QosaMutex s_mutex = QOSA_MUTEX_INITIALIZER;
static int s_failures;

static void expect(int ok, int line, const char* what) {
    if (!ok) fprintf(stderr, "c_abi.c:%d: failed: %s\n", line, what), ++s_failures;
}
#define EXPECT(cond) expect((cond), __LINE__, #cond)

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
    puts(s_failures == 0 ? "c_abi ok" : "c_abi failed");
    return s_failures != 0;
}
