#include "io/image_io.h"

#include "io/error.h"
#include "io/interrupt.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <filesystem>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace difctl {

namespace {

constexpr const char *kStandardInput = "standard input";
constexpr const char *kStandardOutput = "standard output";
constexpr const char *kNoWayBack = "what was written to standard output cannot be undone";

/* One readv or writev of what follows the first `done` bytes of `pieces`. */
template <auto Call>
ssize_t transfer(int file, const Pieces &pieces, size_t done) {
    std::array<iovec, IOV_MAX> vector; /* NOLINT(cppcoreguidelines-pro-type-member-init): 16 KiB, mostly unused */
    int used = 0;
    for (size_t index = done / pieces.size, skip = done % pieces.size; index < pieces.count && used < IOV_MAX;
         ++index) {
        vector[static_cast<size_t>(used++)] = {pieces.base + index * pieces.stride + skip, pieces.size - skip};
        skip = 0;
    }
    ssize_t moved = 0;
    do {
        moved = Call(file, vector.data(), used);
    } while (moved < 0 && errno == EINTR);
    return moved;
}

/* Writes all of `pieces`; on a failure, `offset` tells how far it got and errno why. */
bool writeAll(int file, const Pieces &pieces, uint64_t &offset) {
    for (size_t done = 0; done < pieces.bytes();) {
        const ssize_t moved = transfer<::writev>(file, pieces, done);
        if (moved >= 0) {
            done += static_cast<size_t>(moved);
            offset += static_cast<uint64_t>(moved);
        } else if (errno == EAGAIN) {
            pollfd ready = {.fd = file, .events = POLLOUT, .revents = 0};
            ::poll(&ready, 1, -1);
        } else {
            return false;
        }
    }
    return true;
}

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

std::string directoryOf(const std::string &path) {
    const auto parent = std::filesystem::path(path).parent_path();
    return parent.empty() ? "." : parent.string();
}

/* Gives the file its name unless that is taken. */
int renameIfFree(const char *from, const char *to) {
    if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) {
        return 0;
    }
    if (errno != EINVAL) {
        return -1;
    }
    /* A file system without that flag: a link refuses a taken name as well. */
    return ::link(from, to) == 0 ? ::unlink(from) : -1;
}

} // namespace

FileDescriptor::~FileDescriptor() {
    if (number_ > STDERR_FILENO) {
        ::close(number_);
    }
}

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
        const ssize_t moved = transfer<::readv>(file_.get(), pieces, done);
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

Destination::Destination(const std::string &path, bool force)
    : name_(path == "-" ? kStandardOutput : path), target_(path), force_(force) {
    if (path == "-") {
        if (::isatty(STDOUT_FILENO) == 1) {
            throw Error("standard output: is a terminal; redirect it or name a file");
        }
        file_.set(STDOUT_FILENO);
        holdingInterrupts([](Unfinished &unfinished) { unfinished.note = std::string("; ") + kNoWayBack; });
        return;
    }
    struct stat status = {};
    if (::lstat(path.c_str(), &status) == 0 && !force) {
        throw Error(name_ + ": exists already; --force replaces it");
    }
    if (::stat(path.c_str(), &status) == 0) {
        if (!S_ISREG(status.st_mode)) {
            throw Error(name_ + ": is not a regular file; write to '-' and redirect that");
        }
        target_ = std::filesystem::canonical(path).string();
    }
    createTemporary();
}

void Destination::createTemporary() {
    holdingInterrupts([this](Unfinished &unfinished) {
        std::string path;
        int file = -1;
        for (int attempt = 0; file < 0; ++attempt) {
            path = directoryOf(target_) + "/.difctl-" + std::to_string(::getpid()) + "-" + std::to_string(attempt) +
                   ".tmp";
            file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
            if (file < 0 && errno != EEXIST) {
                throw systemError(name_, "cannot create a file in " + directoryOf(target_), errno);
            }
        }
        file_.set(file);
        temporary_ = path;
        unfinished = {path, "; nothing new is left at " + name_};
    });
}

Destination::~Destination() {
    if (!toStandardOutput() && !committed_) {
        holdingInterrupts([this](Unfinished &unfinished) {
            ::unlink(temporary_.c_str());
            unfinished = {};
        });
    }
}

void Destination::write(const Pieces &pieces) {
    if (!writeAll(file_.get(), pieces, offset_)) {
        throw systemError(name_, "cannot write at offset " + std::to_string(offset_), errno);
    }
}

void Destination::commit() {
    if (toStandardOutput()) {
        return;
    }
    if (::fsync(file_.get()) != 0) {
        throw systemError(name_, "cannot bring its " + std::to_string(offset_) + " bytes to stable storage", errno);
    }
    holdingInterrupts([this](Unfinished &unfinished) {
        const int renamed =
            force_ ? ::rename(temporary_.c_str(), target_.c_str()) : renameIfFree(temporary_.c_str(), target_.c_str());
        if (renamed != 0 && errno == EEXIST) {
            throw Error(name_ + ": has appeared meanwhile and is left as it is; --force replaces it");
        }
        if (renamed != 0) {
            throw systemError(name_, "cannot give the file its name", errno);
        }
        committed_ = true;
        unfinished = {};
    });
    const FileDescriptor directory(::open(directoryOf(target_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    /* EINVAL: a file system whose directories need no such call. */
    if (::fsync(directory.get()) != 0 && errno != EINVAL) {
        throw systemError(directoryOf(target_), "cannot bring the directory to stable storage", errno);
    }
}

std::string Destination::leftoverNote() const {
    return toStandardOutput() && offset_ != 0 ? std::string("; ") + kNoWayBack : std::string();
}

InPlaceFile::InPlaceFile(const std::string &path) : name_(path) {
    if (path == "-") {
        throw Error(std::string(kStandardInput) + ": cannot be changed in place; name a file");
    }
    file_.set(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (file_.get() < 0) {
        throw systemError(name_, "cannot open for writing", errno);
    }
}

void InPlaceFile::write(uint64_t offset, const Pieces &pieces) {
    if (::lseek(file_.get(), static_cast<off_t>(offset), SEEK_SET) < 0 || !writeAll(file_.get(), pieces, offset)) {
        throw systemError(name_, "cannot write at offset " + std::to_string(offset), errno);
    }
}

void InPlaceFile::sync() {
    if (::fsync(file_.get()) != 0) {
        throw systemError(name_, "cannot bring the changes to stable storage", errno);
    }
}

void printResult(const std::string &text) {
    std::string copy = text;
    uint64_t offset = 0;
    if (!text.empty() &&
        !writeAll(STDOUT_FILENO, {reinterpret_cast<uint8_t *>(copy.data()), copy.size(), copy.size(), 1}, offset)) {
        throw systemError(kStandardOutput, "cannot write the results", errno);
    }
}

} // namespace difctl
