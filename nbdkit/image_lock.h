/* Keeping other programs from the image file that the plugin serves. */
#ifndef DIF_NBDKIT_IMAGE_LOCK_H
#define DIF_NBDKIT_IMAGE_LOCK_H

#include <mutex>
#include <string>

namespace nbd {

/*
 * A lock of the open file over all of it, as difctl and virtual machines take them: shared until a client may write,
 * then exclusive. It goes with the process.
 */
class ImageLock {
public:
    /* Returns 0; or -1, after nbdkit_error, if another process has the image. What cannot be locked is left unlocked. */
    int take(const std::string &path, bool toWrite);

private:
    std::mutex mutex_;
    int file_ = -1;
    bool exclusive_ = false;
};

} // namespace nbd

#endif
