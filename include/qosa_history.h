/* The operate-history ring: the last 512 operation records, for diagnostics. */
#ifndef QOSA_HISTORY_H
#define QOSA_HISTORY_H

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

#define QOSA_OPERATE_NONE 0
#define QOSA_OPERATE_CREATE_TM 1
#define QOSA_OPERATE_DELETE_TM 2

#define QOSA_OPERATE_HISTORY_NUM 512
#define QOSA_OPERATE_TNAME_LEN 32

typedef struct QOSA_OPERATE_REC_S {
    s32 operate; /* 0 "None" (an empty slot), 1 "CreateTm", 2 "DeleteTm" */
    s32 time;    /* in units of 10 ms from an origin of the caller's choosing */
    s32 tid;
    char tname[QOSA_OPERATE_TNAME_LEN];
    u32 param1;
    u32 param2;
} QOSA_OPERATE_REC_S;

typedef struct QOSA_OPERATE_HISTORY_S {
    QOSA_OPERATE_REC_S astRec[QOSA_OPERATE_HISTORY_NUM];
    s32 lNext; /* the slot after the one written last, 0..512 */
} QOSA_OPERATE_HISTORY_S;

QOSA_API extern QOSA_OPERATE_HISTORY_S s_stOperateHistory;

QOSA_API u32 QOSA_InitOperateHistory(void);
QOSA_API s32 QOSA_AddOperateRec(const QOSA_OPERATE_REC_S* rec);
QOSA_API s32 QOSA_DumpOperateHistory(char* buffer, u32 size);

QOSA_EXTERN_C_END

#endif /* QOSA_HISTORY_H */
