/* libqosa: the whole interface. */
#ifndef QOSA_H
#define QOSA_H

#include "qosa_types.h"
#include "qosa_error.h"
#include "qosa_lock.h"
#include "qosa_history.h"
#include "qosa_string.h"

#endif /* QOSA_H */
