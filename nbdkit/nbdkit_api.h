/* nbdkit's interface for filters. */
#ifndef DIF_NBDKIT_API_H
#define DIF_NBDKIT_API_H

#include <cerrno>

#include <nbdkit-filter.h>

#endif
