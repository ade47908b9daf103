#include "io/transfer.h"

#include "io/error.h"

#include <array>
#include <cerrno>
#include <climits>

#include <poll.h>
#include <sys/uio.h>
#include <unistd.h>

namespace difctl {

namespace {

/* Runs `call`, a form of readv or writev, on what follows the first `done` bytes of `pieces`. */
template <typename Call>
ssize_t transfer(const Pieces &pieces, size_t done, Call call) {
    std::array<iovec, IOV_MAX> vector; /* NOLINT(cppcoreguidelines-pro-type-member-init): 16 KiB, mostly unused */
    int used = 0;
    for (size_t index = done / pieces.size, skip = done % pieces.size; index < pieces.count && used < IOV_MAX;
         ++index) {
        vector[static_cast<size_t>(used++)] = {pieces.base + index * pieces.stride + skip, pieces.size - skip};
        skip = 0;
    }
    ssize_t moved = 0;
    do {
        moved = call(vector.data(), used);
    } while (moved < 0 && errno == EINTR);
    return moved;
}

} // namespace

FileDescriptor::~FileDescriptor() {
    set(-1);
}

void FileDescriptor::set(int number) {
    if (number_ > STDERR_FILENO) {
        ::close(number_);
    }
    number_ = number;
}

ssize_t readSome(int file, std::optional<uint64_t> offset, const Pieces &pieces, size_t done) {
    return transfer(pieces, done, [&](const iovec *vector, int used) {
        return offset ? ::preadv(file, vector, used, static_cast<off_t>(*offset)) : ::readv(file, vector, used);
    });
}

bool writeAll(int file, const Pieces &pieces, uint64_t &offset) {
    for (size_t done = 0; done < pieces.bytes();) {
        const ssize_t moved =
            transfer(pieces, done, [file](const iovec *vector, int used) { return ::writev(file, vector, used); });
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

bool writeAt(int file, uint64_t offset, const uint8_t *bytes, size_t size) {
    for (size_t done = 0; done < size;) {
        const ssize_t moved = ::pwrite(file, bytes + done, size - done, static_cast<off_t>(offset + done));
        if (moved < 0 && errno != EINTR) {
            return false;
        }
        done += moved > 0 ? static_cast<size_t>(moved) : 0;
    }
    return true;
}

int syncFile(int file) {
    int failed = 0;
    do {
        failed = ::fsync(file);
    } while (failed != 0 && errno == EINTR);
    return failed;
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
