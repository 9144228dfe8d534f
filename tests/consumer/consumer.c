/* A tiny C program built against an installed libqosa. */
#define _GNU_SOURCE /* the headers use POSIX types */
#include <qosa.h>
#include <stdio.h>

static QosaMutex s_lock = QOSA_MUTEX_INITIALIZER;

int main(void) {
    char text[12];
    if (QOSA_MutexLock(&s_lock) != 0) return 1;
    QOSA_MutexUnLock(&s_lock);
    if (QOSA_Ultostr(text, sizeof text, 255u, 16u) != 2) return 2;
    printf("consumer ok: %s\n", text);
    return 0;
}
