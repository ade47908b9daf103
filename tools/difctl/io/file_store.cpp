#include "io/file_store.h"

#include "image/image_lock.h"
#include "io/error.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <vector>

#include <fcntl.h>
#include <linux/fs.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace difctl {

namespace {

int openImage(const std::string &path, ImageStore::Use use) {
    if (path == "-") {
        return STDIN_FILENO;
    }
    /* O_EXCL: the system refuses a block device that it uses itself; for files it means nothing. */
    const int flags = use == ImageStore::Use::kChange ? O_RDWR | O_EXCL : O_RDONLY;
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

/* A part of a file in memory. */
class Mapping {
public:
    Mapping(int file, uint64_t offset, size_t size)
        : skipped_(offset % static_cast<uint64_t>(::sysconf(_SC_PAGESIZE))), size_(skipped_ + size),
          begin_(::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, file,
                        static_cast<off_t>(offset - skipped_))) {}
    ~Mapping() {
        if (begin_ != MAP_FAILED) {
            ::munmap(begin_, size_);
        }
    }
    Mapping(const Mapping &) = delete;
    Mapping &operator=(const Mapping &) = delete;

    /* Null and errno if the file cannot be mapped. */
    uint8_t *at() const { return begin_ == MAP_FAILED ? nullptr : static_cast<uint8_t *>(begin_) + skipped_; }

private:
    uint64_t skipped_;
    size_t size_;
    void *begin_;
};

} // namespace

FileStore::FileStore(const std::string &path, Use use)
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
    isDevice_ = S_ISBLK(status.st_mode);
    if (!length_) {
        return;
    }
    if (path != "-") {
        lock(use);
        ::fstat(file_.get(), &status); /* who had the lock may have changed the length */
        length_ = endOf(file_.get(), status);
    } else if (const off_t here = ::lseek(file_.get(), 0, SEEK_CUR); here > 0) {
        start_ = std::min(static_cast<uint64_t>(here), *length_);
        *length_ -= start_;
    }
    if (use == Use::kChange) {
        staging_.set(::memfd_create("difctl", MFD_CLOEXEC));
    }
    ::posix_fadvise(file_.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
}

void FileStore::lock(Use use) const {
    if (image::lockImage(file_.get(), use == Use::kChange) == 0) {
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

std::optional<FileAccess> FileStore::access() const {
    return accessOf(file_.get());
}

std::span<uint8_t> FileStore::lookAhead(size_t size) const {
    if (length_) {
        return {};
    }
    std::vector<uint8_t> bytes(size);
    size_t done = 0;
    for (ssize_t moved = 1; moved != 0 && done < size; done += static_cast<size_t>(std::max<ssize_t>(moved, 0))) {
        waitForData(-1);
        moved = readSome(file_.get(), std::nullopt, {bytes.data(), size, size, 1}, done);
        if (moved < 0 && errno != EAGAIN) {
            break; /* reading says so */
        }
    }
    bytes.resize(done);
    ahead_ = std::move(bytes);
    return ahead_;
}

ssize_t FileStore::read(uint64_t offset, const Pieces &pieces, size_t done) const {
    if (!ahead_.empty()) {
        const std::span<uint8_t> place = pieces.after(done);
        const size_t size = std::min(place.size(), ahead_.size());
        std::copy_n(ahead_.begin(), size, place.begin());
        ahead_.erase(ahead_.begin(), ahead_.begin() + static_cast<ptrdiff_t>(size));
        return static_cast<ssize_t>(size);
    }
    return readSome(file_.get(), length_ ? std::optional(start_ + offset) : std::nullopt, pieces, done);
}

uint64_t FileStore::nextData(uint64_t offset) const {
    if (file_.get() == STDIN_FILENO) {
        return offset; /* others may stand where it does */
    }
    const off_t data = ::lseek(file_.get(), static_cast<off_t>(offset), SEEK_DATA);
    if (data < 0) {
        return errno == ENXIO ? *length_ : offset;
    }
    return static_cast<uint64_t>(data);
}

bool FileStore::waitForData(int cancelEvent) const {
    if (!ahead_.empty()) {
        return false;
    }
    std::array<pollfd, 2> ready = {pollfd{.fd = file_.get(), .events = POLLIN, .revents = 0},
                                   pollfd{.fd = cancelEvent, .events = POLLIN, .revents = 0}};
    while (::poll(ready.data(), ready.size(), -1) < 0 && errno == EINTR) {
    }
    return ready[1].revents != 0;
}

void FileStore::requireLength() const {
    const off_t end = ::lseek(file_.get(), 0, SEEK_END);
    if (end < 0) {
        throw systemError(name_, "cannot examine", errno);
    }
    if (static_cast<uint64_t>(end) != *length_) {
        throw Error(name_ + ": changed its length meanwhile from " + std::to_string(*length_) + " to " +
                    std::to_string(end) + " bytes");
    }
}

/*
 * Of a file, through a mapping, which ends where the file ends: a write behind the end would bring back what another process
 * has cut off. The system copies, so that a page which cannot be had is an error and not a signal.
 */
void FileStore::write(uint64_t offset, const Pieces &pieces) {
    if (isDevice_ && pieces.count == 1) {
        if (!writeAt(file_.get(), offset, pieces.base, pieces.size)) {
            throw systemError(name_, "cannot write at offset " + std::to_string(offset), errno);
        }
        return;
    }
    std::vector<uint8_t> bytes;
    bytes.reserve(pieces.bytes());
    for (size_t index = 0; index < pieces.count; ++index) {
        const uint8_t *piece = pieces.base + index * pieces.stride;
        bytes.insert(bytes.end(), piece, piece + pieces.size);
    }
    if (!writeAt(staging_.get(), 0, bytes.data(), bytes.size())) {
        throw systemError(name_, "cannot prepare a write at offset " + std::to_string(offset), errno);
    }
    const Mapping mapping(file_.get(), offset, (pieces.count - 1) * pieces.stride + pieces.size);
    if (mapping.at() == nullptr) {
        throw systemError(name_, "cannot be mapped at offset " + std::to_string(offset), errno);
    }
    const Pieces target = {mapping.at(), pieces.size, pieces.stride, pieces.count};
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t moved = readSome(staging_.get(), done, target, done);
        if (moved <= 0) {
            requireLength();
            if (pieces.count == 1 && writeAt(file_.get(), offset, pieces.base, pieces.size)) {
                /* Over pages that a mapping would have to read, and cannot. Only what is cut off between these two lines
                 * comes back, as zeros. */
                return;
            }
            const uint64_t place = offset + done / pieces.size * pieces.stride;
            throw Error(name_ + ": cannot write at offset " + std::to_string(place) + ": its device is full or fails");
        }
        done += static_cast<size_t>(moved);
    }
}

void FileStore::sync() {
    if (syncFile(file_.get()) != 0) {
        throw systemError(name_, "cannot bring the changes to stable storage", errno);
    }
}

} // namespace difctl
