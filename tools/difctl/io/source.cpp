#include "io/source.h"

#include "io/error.h"

#include <array>
#include <cerrno>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace difctl {

namespace {

/* Bytes from the current position of a regular file or block device to its end; none for anything else. */
std::optional<uint64_t> remainingLength(int file, const struct stat &status) {
    if (!S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode)) {
        return std::nullopt;
    }
    const off_t here = ::lseek(file, 0, SEEK_CUR);
    const off_t end = ::lseek(file, 0, SEEK_END);
    ::lseek(file, here, SEEK_SET);
    return end > here ? static_cast<uint64_t>(end - here) : 0;
}

} // namespace

Source::Source(const std::string &path, size_t unitBytes)
    : name_(path == "-" ? kStandardInput : path), unitBytes_(unitBytes),
      file_(path == "-" ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC)),
      cancelEvent_(::eventfd(0, EFD_CLOEXEC)) {
    if (file_.get() < 0) {
        throw systemError(name_, "cannot open", errno);
    }
    struct stat status = {};
    if (::fstat(file_.get(), &status) != 0) {
        throw systemError(name_, "cannot examine", errno);
    }
    if (S_ISDIR(status.st_mode)) {
        throw Error(name_ + ": is a directory, not an image");
    }
    length_ = remainingLength(file_.get(), status);
    if (length_) {
        requireUsableLength(*length_);
        ::posix_fadvise(file_.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    }
}

void Source::requireUsableLength(uint64_t length) const {
    if (length == 0) {
        throw Error(name_ + ": is empty, an image has at least one block");
    }
    if (length % unitBytes_ != 0) {
        throw Error(name_ + ": length " + std::to_string(length) + " is not whole blocks of " +
                    std::to_string(unitBytes_) + " bytes: " + std::to_string(length % unitBytes_) +
                    " bytes are left after " + std::to_string(length / unitBytes_) + " blocks");
    }
}

void Source::waitForData() const {
    std::array<pollfd, 2> ready = {pollfd{.fd = file_.get(), .events = POLLIN, .revents = 0},
                                   pollfd{.fd = cancelEvent_.get(), .events = POLLIN, .revents = 0}};
    while (::poll(ready.data(), ready.size(), -1) < 0 && errno == EINTR) {
    }
    if (ready[1].revents != 0) {
        throw Error(name_ + ": reading was cancelled");
    }
}

void Source::skip(uint64_t units) {
    const uint64_t bytes = units * unitBytes_;
    if (bytes != 0 && ::lseek(file_.get(), static_cast<off_t>(bytes), SEEK_CUR) < 0) {
        throw systemError(name_, "cannot go to offset " + std::to_string(bytes), errno);
    }
    offset_ += bytes;
}

uint64_t Source::unitNum() const {
    if (!length_) {
        throw Error(name_ + ": has no known length; this command needs an image in a file");
    }
    return *length_ / unitBytes_;
}

size_t Source::read(const Pieces &pieces) {
    size_t done = 0;
    while (done < pieces.bytes() && !ended_) {
        if (!length_) {
            waitForData();
        }
        const ssize_t moved = readSome(file_.get(), pieces, done);
        if (moved < 0 && errno != EAGAIN) {
            throw systemError(name_, "cannot read at offset " + std::to_string(offset_), errno);
        }
        if (moved > 0) {
            done += static_cast<size_t>(moved);
            offset_ += static_cast<uint64_t>(moved);
        }
        ended_ = moved == 0;
    }
    if (ended_ && length_.value_or(offset_) != offset_) {
        throw Error(name_ + ": changed its length while it was read: " + std::to_string(*length_) +
                    " bytes at first, the end at offset " + std::to_string(offset_));
    }
    if (ended_) {
        requireUsableLength(offset_);
    }
    return done;
}

void Source::cancel() const {
    ::eventfd_write(cancelEvent_.get(), 1);
}

} // namespace difctl
