/** @file
 * The operate-history ring: the last 512 operation records, for diagnostics.
 *
 * Callers add a record for each operation of interest; the dump renders the
 * ring newest first as a text table. The ring is static storage of the
 * library (nothing to create or free) and takes no lock: concurrent adds
 * never share a slot, a dump may show a record that is being written. */
#ifndef QOSA_HISTORY_H
#define QOSA_HISTORY_H

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

#define QOSA_OPERATE_NONE 0      /**< Operation code of an empty slot ("None"); never shown. */
#define QOSA_OPERATE_CREATE_TM 1 /**< Operation code shown as "CreateTm". */
#define QOSA_OPERATE_DELETE_TM 2 /**< Operation code shown as "DeleteTm". */

#define QOSA_OPERATE_HISTORY_NUM 512 /**< Records the ring holds. */
#define QOSA_OPERATE_TNAME_LEN 32    /**< Bytes of a record's thread name. */

/** One operation record, filled by the caller and copied whole into the ring. */
typedef struct QOSA_OPERATE_REC_S {
    s32 operate;                        /**< 0 "None" (an empty slot), 1 "CreateTm", 2 "DeleteTm"; others "undefined" */
    s32 time;                           /**< in units of 10 ms from an origin of the caller's choosing */
    s32 tid;                            /**< id of the thread that performed the operation */
    char tname[QOSA_OPERATE_TNAME_LEN]; /**< its name, NUL-terminated within the field */
    u32 param1;                         /**< first parameter, shown in hexadecimal */
    u32 param2;                         /**< second parameter, shown in hexadecimal */
} QOSA_OPERATE_REC_S;

/** The ring: 512 records and the slot to write next. */
typedef struct QOSA_OPERATE_HISTORY_S {
    QOSA_OPERATE_REC_S astRec[QOSA_OPERATE_HISTORY_NUM]; /**< the records, by slot */
    s32 lNext;                                           /**< the slot after the one written last, 0..512 */
} QOSA_OPERATE_HISTORY_S;

/** The ring itself, zero at load time. */
QOSA_API extern QOSA_OPERATE_HISTORY_S s_stOperateHistory;

/** Empties the ring, next-slot value included. @return 0 */
QOSA_API u32 QOSA_InitOperateHistory(void);
/** Copies a record into the next slot (after slot 511 the ring wraps to 0).
 * @param rec the record
 * @return 0; non-zero for a null rec (the slot is then cleared) */
QOSA_API s32 QOSA_AddOperateRec(const QOSA_OPERATE_REC_S* rec);
/** Writes the ring into buffer as text: a title, then one row per record,
 * newest first ("  HHHH:MM:SS(mmm) operate 0xparam1 0xparam2 tid tname").
 * @param buffer receives the text, always NUL-terminated
 * @param size size of buffer in bytes
 * @return the length of the text, also when a full buffer ended it early; 0
 *         or less when the title, or the next row, did not fit whole (what
 *         fitted stays); an error number for a null buffer or size 0 */
QOSA_API s32 QOSA_DumpOperateHistory(char* buffer, u32 size);

QOSA_EXTERN_C_END

#endif /* QOSA_HISTORY_H */
