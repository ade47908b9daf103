/* nbdkit's interface for filters, and errors in words for its messages. */
#ifndef DIF_NBDKIT_API_H
#define DIF_NBDKIT_API_H

#include <cerrno>

#include <string>
#include <system_error>

#include <nbdkit-filter.h>

namespace nbd {

/* The system's words for an errno value. */
inline std::string errorText(int error) {
    return std::generic_category().message(error);
}

} // namespace nbd

#endif
