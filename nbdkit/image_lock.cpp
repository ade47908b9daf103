#include "image_lock.h"

#include "image/image_lock.h"
#include "nbdkit_api.h"

#include <fcntl.h>

namespace nbd {

int ImageLock::take(const std::string &path, bool toWrite) {
    const std::lock_guard guard(mutex_);
    if (path.empty() || (file_ >= 0 && (exclusive_ || !toWrite))) {
        return 0;
    }
    if (file_ < 0) {
        file_ = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
        file_ = file_ < 0 ? ::open(path.c_str(), O_RDONLY | O_CLOEXEC) : file_;
    }
    /* If it cannot be opened, the plugin has something to say about it. */
    if (file_ >= 0 && image::lockImage(file_, toWrite) != 0 && (errno == EAGAIN || errno == EACCES)) {
        nbdkit_error("dif: %s is locked by another process, such as difctl, another server or a virtual machine",
                     path.c_str());
        return -1;
    }
    exclusive_ = toWrite;
    return 0;
}

} // namespace nbd
