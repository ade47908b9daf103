#ifndef DIFCTL_ERROR_H
#define DIFCTL_ERROR_H

#include <stdexcept>
#include <string>
#include <system_error>

namespace difctl {

/* Why a command could not be done: one line that names the file, the offset or the value. Exit status 2. */
class Error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/* "NAME: WHAT: the system's text for `errorNumber`" */
inline Error systemError(const std::string &name, const std::string &what, int errorNumber) {
    return Error(name + ": " + what + ": " + std::system_category().message(errorNumber));
}

} // namespace difctl

#endif
