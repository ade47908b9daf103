/* How the process ends: well, or with one line that says why not. */
#ifndef DIFCTL_ERROR_H
#define DIFCTL_ERROR_H

#include "io/printable.h"

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace difctl {

/* Exit status of a command that was done. */
inline constexpr int kAllWell = 0;
inline constexpr int kFaultsFound = 1;
/* Exit status of one that could not be. */
inline constexpr int kNotDone = 2;

/* Why a command could not be done: one line that names the file, the offset or the value. */
class Error : public std::runtime_error {
public:
    explicit Error(const std::string &text) : std::runtime_error(printable(text)) {}
};

/* Why some place of an image could not be read: there may be others that can. */
class Unreadable : public Error {
public:
    explicit Unreadable(const Error &error) : Error(error) {}
};

/* What says that of a place: a device's own error, one of its medium, one of its own protection information. */
inline bool isErrorOfPlace(int errorNumber) {
    return errorNumber == EIO || errorNumber == ENODATA || errorNumber == EILSEQ;
}

/* "NAME: WHAT: the system's text for `errorNumber`" */
inline Error systemError(const std::string &name, const std::string &what, int errorNumber) {
    return Error(name + ": " + what + ": " + std::system_category().message(errorNumber));
}

} // namespace difctl

#endif
