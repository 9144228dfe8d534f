// Demo section: the core frame and the string utilities.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "demo.h"
#include "qosa.h"

namespace {
QosaMutex s_demoLock = QOSA_MUTEX_INITIALIZER;
}

static void run() {
    demo::heading("last error");
    QOSA_SetLastErr(ENOENT);
    char text[64];
    QOSA_StrError_S(text, sizeof text, QOSA_GetLastErr());
    std::printf("set %d, read back %u: %s\n", ENOENT, QOSA_GetLastErr(), text);

    demo::heading("a statically initialised mutex");
    std::printf("before the first lock: markers %08X %08X\n", s_demoLock.ulMagic1, s_demoLock.ulMagic2);
    int r = QOSA_MutexLock(&s_demoLock);
    std::printf("lock -> %d, markers now %08X %08X\n", r, s_demoLock.ulMagic1, s_demoLock.ulMagic2);
    std::printf("try-lock while held by this thread -> %d (EBUSY is %d)\n", QOSA_MutexTryLock(&s_demoLock), EBUSY);
    std::printf("unlock -> %d\n", QOSA_MutexUnLock(&s_demoLock));

    demo::heading("string conversions");
    s32 v = 0;
    u32 rc = QOSA_StrToInt32("0x1F", &v);
    std::printf("QOSA_StrToInt32(\"0x1F\") -> %u, value %d\n", rc, v);
    rc = QOSA_StrToInt32("99999999999999999999", &v);
    std::printf("QOSA_StrToInt32(twenty nines) -> %u (range error), value %d\n", rc, v);
    char num[16];
    for (u32 radix : {8u, 10u, 16u}) {
        s64 n = QOSA_Ultostr(num, sizeof num, 0xFFFFFFFFu, radix);
        std::printf("QOSA_Ultostr(0xFFFFFFFF, radix %2u) -> %-11s (%lld chars)\n", radix, num,
                    static_cast<long long>(n));
    }
    char big[11], small[11];
    std::printf("QOSA_IntToStr(2147483647) -> \"%s\", QOSA_IntToStr(-2147483648) -> \"%s\" (does not fit)\n",
                QOSA_IntToStr(2147483647, big), QOSA_IntToStr(-2147483647 - 1, small));
    char word[] = "vaneth";
    std::printf("QOSA_StrToUper(\"vaneth\") -> %s\n", QOSA_StrToUper(word));

    demo::heading("operate history");
    QOSA_InitOperateHistory();
    const struct {
        s32 op, time;
        u32 p1;
    } recs[] = {{1, 4567891, 0x10}, {2, 9006199, 0x10}, {1, 9006250, 0x11}};
    for (const auto& x : recs) {
        QOSA_OPERATE_REC_S rec{};
        rec.operate = x.op;
        rec.time = x.time;
        rec.tid = 1001;
        std::strcpy(rec.tname, "demo");
        rec.param1 = x.p1;
        QOSA_AddOperateRec(&rec);
    }
    char dump[1024];
    QOSA_DumpOperateHistory(dump, sizeof dump);
    std::fputs(dump, stdout);
}

static demo::Section s_section{10, "core frame: last error, mutexes, strings, operate history", run};
