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

} // namespace

FileDescriptor::~FileDescriptor() {
    if (number_ > STDERR_FILENO) {
        ::close(number_);
    }
}

ssize_t readSome(int file, const Pieces &pieces, size_t done) {
    return transfer<::readv>(file, pieces, done);
}

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

void printResult(const std::string &text) {
    std::string copy = text;
    uint64_t offset = 0;
    if (!text.empty() &&
        !writeAll(STDOUT_FILENO, {reinterpret_cast<uint8_t *>(copy.data()), copy.size(), copy.size(), 1}, offset)) {
        throw systemError(kStandardOutput, "cannot write the results", errno);
    }
}

} // namespace difctl
