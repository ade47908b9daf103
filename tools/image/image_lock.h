/* The lock by which those who use an image keep out of each other's way. */
#ifndef IMAGE_IMAGE_LOCK_H
#define IMAGE_IMAGE_LOCK_H

#include <fcntl.h>

namespace image {

/* Of the open file, not of the process, and over all of it: so are the locks of virtual machines on their disks, which begin
 * at byte 100. Returns 0; or -1 and errno, EAGAIN or EACCES if another has it. */
inline int lockImage(int file, bool exclusive) {
    struct flock whole = {};
    whole.l_type = exclusive ? F_WRLCK : F_RDLCK;
    whole.l_whence = SEEK_SET;
    return ::fcntl(file, F_OFD_SETLK, &whole);
}

} // namespace image

#endif
