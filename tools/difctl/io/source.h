/* An image on its way in: a file, a block device or a stream, read in order. */
#ifndef DIFCTL_SOURCE_H
#define DIFCTL_SOURCE_H

#include "io/image_file.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace difctl {

/* Reads what there is of the `size` bytes at `offset` of an image of known length; returns how many. Throws Error. */
uint64_t readAll(const ImageFile &file, uint64_t offset, uint8_t *bytes, uint64_t size);

/* A pass over an image from its start to its end. Everything throws Error. */
class Source {
public:
    /* The image's length must be a multiple, not 0, of `unitBytes`; that is tested at once where the length is known, else
     * at the end. */
    Source(const ImageFile &file, size_t unitBytes);

    /* Passes over the first `units` units; before the first read, and where the length is known. */
    void skip(uint64_t units) { offset_ += units * unitBytes_; }

    /* Fills `pieces` and returns the number of bytes read: less than asked for only at the end, and always whole units. */
    size_t read(const Pieces &pieces);

    /* Makes a read that waits for data, now or later, throw. For any thread. */
    void cancel() const;

    const std::string &name() const { return file_.name(); }

    /* The length in bytes; none for pipes and the like. */
    std::optional<uint64_t> length() const { return file_.length(); }

    /* The length in units; throws Error where it is not known. */
    uint64_t unitNum() const;

private:
    void requireUsableLength(uint64_t length) const;

    const ImageFile &file_;
    size_t unitBytes_;
    FileDescriptor cancelEvent_;
    uint64_t offset_ = 0;
    bool ended_ = false;
};

} // namespace difctl

#endif
