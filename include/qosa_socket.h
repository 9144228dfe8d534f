/* Sockets, resolver, descriptor sets, local addresses and port state. */
#ifndef QOSA_SOCKET_H
#define QOSA_SOCKET_H

#include "qosa_types.h"

QOSA_EXTERN_C_BEGIN

QOSA_EXTERN_C_END

#endif /* QOSA_SOCKET_H */
