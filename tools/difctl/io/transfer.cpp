#include "io/transfer.h"

#include "io/error.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

#include <poll.h>
#include <sys/uio.h>
#include <unistd.h>

namespace difctl {

namespace {

/* Runs `call`, a form of readv or writev, on the bytes from the `from`-th to before the `to`-th of `pieces`. */
template <typename Call>
ssize_t transfer(const Pieces &pieces, size_t from, size_t to, Call call) {
    std::array<iovec, IOV_MAX> vector; /* NOLINT(cppcoreguidelines-pro-type-member-init): 16 KiB, mostly unused */
    int used = 0;
    for (size_t at = from; at < to && used < IOV_MAX; ++used) {
        const std::span<uint8_t> piece = pieces.after(at);
        vector[static_cast<size_t>(used)] = {piece.data(), std::min(piece.size(), to - at)};
        at += piece.size();
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

bool isZero(const uint8_t *bytes, size_t size) {
    /* The first byte is, and every other is like the one before it. */
    return size == 0 || (bytes[0] == 0 && std::memcmp(bytes, bytes + 1, size - 1) == 0);
}

bool isZero(const Pieces &pieces, size_t from, size_t to) {
    while (from < to) {
        const std::span<uint8_t> piece = pieces.after(from);
        const size_t size = std::min(piece.size(), to - from);
        if (!isZero(piece.data(), size)) {
            return false;
        }
        from += size;
    }
    return true;
}

Pieces gathered(const Pieces &pieces) {
    for (size_t index = 1; index < pieces.count && pieces.stride != pieces.size; ++index) {
        std::memmove(pieces.base + index * pieces.size, pieces.base + index * pieces.stride, pieces.size);
    }
    return {pieces.base, pieces.bytes(), pieces.bytes(), 1};
}

ssize_t readSome(int file, std::optional<uint64_t> offset, const Pieces &pieces, size_t done) {
    return transfer(pieces, done, pieces.bytes(), [&](const iovec *vector, int used) {
        return offset ? ::preadv(file, vector, used, static_cast<off_t>(*offset)) : ::readv(file, vector, used);
    });
}

bool writePart(int file, const Pieces &pieces, size_t from, size_t to, uint64_t &offset) {
    while (from < to) {
        const ssize_t moved =
            transfer(pieces, from, to, [file](const iovec *vector, int used) { return ::writev(file, vector, used); });
        if (moved >= 0) {
            from += static_cast<size_t>(moved);
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

bool writeAll(int file, const Pieces &pieces, uint64_t &offset) {
    return writePart(file, pieces, 0, pieces.bytes(), offset);
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
