/** @file
 * The whole interface of libqosa: includes every family's header.
 *
 * @mainpage libqosa API reference
 *
 * libqosa is a Linux operating-system adapter: SDK code calls its flat C
 * interface instead of the operating system. Include qosa.h (or a family's
 * header, see Files) and link with -lqosa (pkg-config qosa) or the CMake
 * target qosa::qosa. The headers use POSIX types: with -std=c11 define
 * _GNU_SOURCE first.
 *
 * Conventions that hold unless a function says otherwise:
 * - Pass-through wrappers return the platform call's own result, with the
 *   reason of a failure in errno (the pthread family returns 0 or an error
 *   number). A guarded pointer that is NULL, or a guarded path that is NULL
 *   or empty, gives a fixed failure value (-1, NULL or 0) without calling the
 *   platform and without touching errno. 32-bit results keep the low 32 bits.
 * - The last error (QOSA_GetLastErr) is the calling thread's errno.
 * - Services have result codes of their own, 0 for success: message queues
 *   0x2005xxxx (qosa_queue.h), timer groups 0x2016xxxx (qosa_timer.h); timer
 *   operations return 12 (ENOMEM) and 22 (EINVAL); statistics 0 to 3.
 * - Memory that a function returns belongs to the caller and is released
 *   with QOSA_MemTypeFreeD, converted text with ORV_StrMemFree; each function
 *   names exceptions (texts of the C library, malloc'd report copies).
 * - Nothing aborts on bad input and no exception crosses the interface.
 * - The library runs one thread of its own, the timer thread (qosa_timer.h);
 *   everything else runs on the caller's thread.
 */
#ifndef QOSA_H
#define QOSA_H

#include "qosa_types.h"
#include "qosa_error.h"
#include "qosa_lock.h"
#include "qosa_history.h"
#include "qosa_mem.h"
#include "qosa_thread.h"
#include "qosa_sem.h"
#include "qosa_process.h"
#include "qosa_time.h"
#include "qosa_timer.h"
#include "qosa_queue.h"
#include "qosa_text.h"
#include "qosa_string.h"
#include "qosa_file.h"
#include "qosa_stat.h"
#include "qosa_socket.h"

#endif /* QOSA_H */
