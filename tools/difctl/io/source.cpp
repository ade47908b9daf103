#include "io/source.h"

#include <algorithm>
#include <cerrno>

#include <sys/eventfd.h>

namespace difctl {

namespace {

[[noreturn]] void throwReadError(const std::string &name, uint64_t offset) {
    const int errorNumber = errno;
    const Error error = systemError(name, "cannot read at offset " + std::to_string(offset), errorNumber);
    if (isErrorOfPlace(errorNumber)) {
        throw Unreadable(error);
    }
    throw error;
}

} // namespace

uint64_t readAll(const ImageFile &file, uint64_t offset, std::span<uint8_t> bytes) {
    const Pieces pieces = {bytes.data(), bytes.size(), bytes.size(), 1};
    uint64_t done = 0;
    for (ssize_t moved = 1; moved > 0 && done < bytes.size(); done += static_cast<uint64_t>(moved)) {
        moved = file.read(offset + done, pieces, done);
        if (moved < 0) {
            throwReadError(file.name(), offset + done);
        }
    }
    return done;
}

Source::Source(const ImageFile &file, size_t unitBytes)
    : file_(file), unitBytes_(unitBytes), cancelEvent_(::eventfd(0, EFD_CLOEXEC)) {
    if (length()) {
        requireUsableLength(*length());
    }
}

void Source::requireUsableLength(uint64_t length) const {
    if (length == 0) {
        throw Error(name() + ": is empty, an image has at least one block");
    }
    if (length % unitBytes_ != 0 && (!file_.isPlace() || length < unitBytes_)) {
        throw Error(name() + ": length " + std::to_string(length) + " is not whole blocks of " +
                    std::to_string(unitBytes_) + " bytes: " + std::to_string(length % unitBytes_) +
                    " bytes are left after " + std::to_string(length / unitBytes_) + " blocks");
    }
}

uint64_t Source::unitNum() const {
    if (!length()) {
        throw Error(name() + ": has no known length; this command needs an image in a file");
    }
    return *length() / unitBytes_;
}

size_t Source::read(uint64_t first, const Pieces &pieces) {
    const uint64_t offset = first * unitBytes_;
    if (!length()) {
        return readNext(offset, pieces);
    }
    const size_t bytes = static_cast<size_t>(std::min<uint64_t>(pieces.bytes(), *length() - offset));
    for (size_t done = 0; done < bytes;) {
        const ssize_t moved = readOnce(offset + done, pieces, done);
        if (moved == 0) {
            throw changedLength("the end at offset " + std::to_string(offset + done));
        }
        done += static_cast<size_t>(std::max<ssize_t>(moved, 0));
    }
    uint8_t further = 0;
    if (offset == *length() && !ended_) {
        ended_ = true;
        if (readOnce(offset, {&further, 1, 1, 1}, 0) != 0) {
            throw changedLength("more of them at the end");
        }
    }
    return bytes;
}

Error Source::changedLength(const std::string &now) const {
    return Error(name() + ": changed its length while it was read: " + std::to_string(*length()) + " bytes at first, " +
                 now);
}

ssize_t Source::readOnce(uint64_t offset, const Pieces &pieces, size_t done) const {
    const ssize_t moved = file_.read(offset, pieces, done);
    if (moved < 0 && errno != EAGAIN) {
        throwReadError(name(), offset);
    }
    return moved;
}

size_t Source::readNext(uint64_t offset, const Pieces &pieces) {
    size_t done = 0;
    while (done < pieces.bytes() && !ended_) {
        if (file_.waitForData(cancelEvent_.get())) {
            throw Error(name() + ": reading was cancelled");
        }
        const ssize_t moved = readOnce(offset + done, pieces, done);
        done += static_cast<size_t>(std::max<ssize_t>(moved, 0));
        ended_ = moved == 0;
    }
    if (ended_) {
        requireUsableLength(offset + done);
    }
    return done;
}

void Source::cancel() const {
    ::eventfd_write(cancelEvent_.get(), 1);
}

} // namespace difctl
