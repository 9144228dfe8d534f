/** @file
 * Message queues of byte messages between threads.
 *
 * A queue is known by the number ORV_QueueCreate hands out (1, 2, 3, ...;
 * numbers are never reused). It holds at most maxMsgNum messages of 1 to
 * maxMsgLen bytes each, copied in on writing and out on reading, oldest
 * first. Readers block while the queue is empty, writers while it is full;
 * a time-out of 0 waits without limit, any other value is the most
 * milliseconds to wait, measured on a clock that setting the wall clock does
 * not move. Any number of threads may read and write one queue; a queue must
 * not be deleted while another thread is inside a read or write of it. */
#ifndef QOSA_QUEUE_H
#define QOSA_QUEUE_H

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

/** @name Result codes
 * Success is 0; a read returns the bytes delivered. */
/** @{ */
#define ORV_QUEUE_ERR_CREATE_MSGLEN 0x20050006u      /**< maximum message length 0 */
#define ORV_QUEUE_ERR_CREATE_MODE 0x20050007u        /**< mode greater than 1 */
#define ORV_QUEUE_ERR_CREATE_NAME 0x20050008u        /**< name NULL */
#define ORV_QUEUE_ERR_CREATE_ID 0x20050009u          /**< id pointer NULL, or the numbering ran out */
#define ORV_QUEUE_ERR_NO_MEMORY 0x2005000Bu          /**< an allocation failed (create, write) */
#define ORV_QUEUE_ERR_CREATE_SYNC 0x2005000Cu        /**< a mutex or semaphore could not be made */
#define ORV_QUEUE_ERR_READ_NO_QUEUE 0x20050014u      /**< no queue has this id */
#define ORV_QUEUE_ERR_READ_BUF 0x20050015u           /**< buffer NULL */
#define ORV_QUEUE_ERR_READ_BUFLEN 0x20050016u        /**< buffer length 0 */
#define ORV_QUEUE_ERR_READ_TIMEOUT 0x20050018u       /**< the time-out ran out while waiting */
#define ORV_QUEUE_ERR_WRITE_NO_QUEUE 0x20050028u     /**< no queue has this id */
#define ORV_QUEUE_ERR_WRITE_MSG 0x20050029u          /**< message NULL */
#define ORV_QUEUE_ERR_WRITE_LEN 0x2005002Au          /**< length 0 or above the maximum */
#define ORV_QUEUE_ERR_DELETE_NO_QUEUE 0x20050050u    /**< no queue has this id */
#define ORV_QUEUE_ERR_DELETE_GONE 0x20050051u        /**< the queue left the list during the delete */
#define ORV_QUEUE_ERR_COUNT_NO_QUEUE 0x20050054u     /**< no queue has this id */
#define ORV_QUEUE_ERR_WRITE_TIMEOUT 0x20050065u      /**< the time-out ran out */
#define ORV_QUEUE_ERR_READ_RETRY_TIMEOUT 0xFFFFFFFFu /**< the time-out ran out while re-polling */
/** @} */

/** Longest name kept (longer names are cut). */
#define ORV_QUEUE_NAME_MAX 31u

/** Creates a queue. The library owns it until ORV_QueueDelete. Checks mode,
 * then maxMsgLen, then name, then queId.
 * @param name the queue's name (the first 31 bytes are kept)
 * @param maxMsgNum capacity in messages; 0 makes a queue that never accepts
 *        a message
 * @param queId receives the queue's number (1, 2, 3, ...; never reused)
 * @param mode 0 or 1 (stored, changes nothing)
 * @param maxMsgLen longest message in bytes, at least 1
 * @retval 0 created
 * @retval ORV_QUEUE_ERR_CREATE_MODE mode greater than 1
 * @retval ORV_QUEUE_ERR_CREATE_MSGLEN maxMsgLen 0
 * @retval ORV_QUEUE_ERR_CREATE_NAME name NULL
 * @retval ORV_QUEUE_ERR_CREATE_ID queId NULL, or the numbering ran out
 * @retval ORV_QUEUE_ERR_NO_MEMORY memory is short
 * @retval ORV_QUEUE_ERR_CREATE_SYNC a mutex or semaphore could not be made */
QOSA_API u32 ORV_QueueCreate(const char* name, u32 maxMsgNum, u32* queId, u32 mode, u32 maxMsgLen);
/** Removes a queue and every message in it. No other thread may be inside a
 * read or write of it. @param queId the queue
 * @retval 0 deleted
 * @retval ORV_QUEUE_ERR_DELETE_NO_QUEUE no queue has this id
 * @retval ORV_QUEUE_ERR_DELETE_GONE the queue left the list during the
 *         delete */
QOSA_API u32 ORV_QueueDelete(u32 queId);
/** Appends a copy of a message, waiting while the queue is full. Checks msg,
 * then the queue, then len.
 * @param queId the queue @param msg the message @param len its length, 1 to
 *        the queue's maximum
 * @param timeoutMs 0 waits without limit, else the most milliseconds to wait
 * @retval 0 written
 * @retval ORV_QUEUE_ERR_WRITE_MSG msg NULL
 * @retval ORV_QUEUE_ERR_WRITE_NO_QUEUE no queue has this id
 * @retval ORV_QUEUE_ERR_WRITE_LEN len 0 or above the queue's maximum
 * @retval ORV_QUEUE_ERR_NO_MEMORY the copy could not be allocated
 * @retval ORV_QUEUE_ERR_WRITE_TIMEOUT the time-out ran out */
QOSA_API u32 ORV_QueueWrite(u32 queId, const void* msg, u32 len, u32 timeoutMs);
/** Takes the oldest message, waiting while the queue is empty, and copies
 * min(its length, bufLen) bytes into buf (the rest of a longer message is
 * dropped). Checks bufLen, then buf, then the queue.
 * @param queId the queue
 * @param timeoutMs 0 waits without limit, else the most milliseconds to wait
 * @param buf receives the message @param bufLen size of buf in bytes
 * @return the bytes delivered, or one of these codes:
 * @retval ORV_QUEUE_ERR_READ_BUFLEN bufLen 0
 * @retval ORV_QUEUE_ERR_READ_BUF buf NULL
 * @retval ORV_QUEUE_ERR_READ_NO_QUEUE no queue has this id
 * @retval ORV_QUEUE_ERR_READ_TIMEOUT the time-out ran out while waiting
 * @retval ORV_QUEUE_ERR_READ_RETRY_TIMEOUT the time-out ran out while
 *         re-polling */
QOSA_API u32 ORV_QueueRead(u32 queId, u32 timeoutMs, void* buf, u32 bufLen);
/** Messages held now. @param queId the queue
 * @return the count; ORV_QUEUE_ERR_COUNT_NO_QUEUE when no queue has this id */
QOSA_API u32 ORV_QueueGetMsgNum(u32 queId);

QOSA_EXTERN_C_END

#endif /* QOSA_QUEUE_H */
