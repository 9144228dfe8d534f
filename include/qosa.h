/* libqosa: the whole interface. */
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
