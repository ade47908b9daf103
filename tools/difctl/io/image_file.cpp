#include "io/image_file.h"

#include "io/error.h"

#include <algorithm>
#include <array>
#include <cerrno>

#include <fcntl.h>
#include <linux/fs.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace difctl {

namespace {

int openImage(const std::string &path, ImageFile::Use use) {
    if (path == "-") {
        return STDIN_FILENO;
    }
    /* O_EXCL: the system refuses a block device that it uses itself; for files it means nothing. */
    const int flags = use == ImageFile::Use::kChange ? O_RDWR | O_EXCL : O_RDONLY;
    return ::open(path.c_str(), flags | O_CLOEXEC);
}

/* Where a regular file or block device ends; none for anything else. */
std::optional<uint64_t> endOf(int file, const struct stat &status) {
    uint64_t end = 0;
    if (S_ISREG(status.st_mode)) {
        return static_cast<uint64_t>(status.st_size);
    }
    return S_ISBLK(status.st_mode) && ::ioctl(file, BLKGETSIZE64, &end) == 0 ? std::optional(end) : std::nullopt;
}

} // namespace

ImageFile::ImageFile(const std::string &path, Use use)
    : name_(path == "-" ? kStandardInput : printable(path)), file_(openImage(path, use)) {
    if (path == "-" && use == Use::kChange) {
        throw Error(name_ + ": cannot be changed in place; name a file");
    }
    if (file_.get() < 0 && errno == EBUSY) {
        throw Error(name_ + ": is in use by the system, as a mounted file system or part of another device");
    }
    if (file_.get() < 0) {
        throw systemError(name_, use == Use::kChange ? "cannot open for writing" : "cannot open", errno);
    }
    struct stat status = {};
    if (::fstat(file_.get(), &status) != 0) {
        throw systemError(name_, "cannot examine", errno);
    }
    if (S_ISDIR(status.st_mode)) {
        throw Error(name_ + ": is a directory, not an image");
    }
    length_ = endOf(file_.get(), status);
    if (!length_) {
        return;
    }
    if (path != "-") {
        lock(use);
        length_ = endOf(file_.get(), status);
    } else if (const off_t here = ::lseek(file_.get(), 0, SEEK_CUR); here > 0) {
        start_ = std::min(static_cast<uint64_t>(here), *length_);
        *length_ -= start_;
    }
    ::posix_fadvise(file_.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
}

void ImageFile::lock(Use use) const {
    /* Of the open file, not of the process: so are the locks of virtual machines on their disks, which begin at byte 100. */
    struct flock whole = {};
    whole.l_type = use == Use::kChange ? F_WRLCK : F_RDLCK;
    whole.l_whence = SEEK_SET;
    if (::fcntl(file_.get(), F_OFD_SETLK, &whole) == 0) {
        return;
    }
    if (errno == EAGAIN || errno == EACCES) {
        throw Error(name_ + ": is locked by another process, such as another difctl or a virtual machine that has the "
                            "disk open");
    }
    if (use == Use::kChange) {
        throw systemError(name_, "cannot be locked against other processes and is left as it is", errno);
    }
}

std::optional<FileAccess> ImageFile::access() const {
    return accessOf(file_.get());
}

ssize_t ImageFile::read(uint64_t offset, const Pieces &pieces, size_t done) const {
    return readSome(file_.get(), length_ ? std::optional(start_ + offset) : std::nullopt, pieces, done);
}

uint64_t ImageFile::nextData(uint64_t offset) const {
    const off_t data = ::lseek(file_.get(), static_cast<off_t>(offset), SEEK_DATA);
    if (data < 0) {
        return errno == ENXIO ? *length_ : offset;
    }
    return static_cast<uint64_t>(data);
}

bool ImageFile::waitForData(int cancelEvent) const {
    std::array<pollfd, 2> ready = {pollfd{.fd = file_.get(), .events = POLLIN, .revents = 0},
                                   pollfd{.fd = cancelEvent, .events = POLLIN, .revents = 0}};
    while (::poll(ready.data(), ready.size(), -1) < 0 && errno == EINTR) {
    }
    return ready[1].revents != 0;
}

void ImageFile::requireLength() const {
    struct stat status = {};
    if (::fstat(file_.get(), &status) != 0) {
        throw systemError(name_, "cannot examine", errno);
    }
    if (const auto end = endOf(file_.get(), status); end != start_ + *length_) {
        throw Error(name_ + ": changed its length meanwhile from " + std::to_string(*length_) + " to " +
                    std::to_string(end.value_or(0)) + " bytes");
    }
}

void ImageFile::write(uint64_t offset, const uint8_t *bytes, size_t size) {
    if (!writeAt(file_.get(), offset, bytes, size)) {
        throw systemError(name_, "cannot write at offset " + std::to_string(offset), errno);
    }
}

void ImageFile::sync() {
    if (::fsync(file_.get()) != 0) {
        throw systemError(name_, "cannot bring the changes to stable storage", errno);
    }
}

} // namespace difctl
