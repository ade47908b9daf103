/* An image on its way in. */
#ifndef DIFCTL_SOURCE_H
#define DIFCTL_SOURCE_H

#include "io/error.h"
#include "io/image_file.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace difctl {

/* Fills `bytes` with what there is at `offset` of an image of known length; returns how many it is. Throws Error:
 * Unreadable where other places may not meet the error. */
uint64_t readAll(const ImageFile &file, uint64_t offset, std::span<uint8_t> bytes);

/* An image to read once, from its start to its end. Everything throws Error. */
class Source {
public:
    /* The image's length must be a multiple, not 0, of `unitBytes`; that is tested at once where the length is known, else
     * at the end. Behind the last unit of a device or an export there may be more. */
    Source(const ImageFile &file, size_t unitBytes);

    /* Fills `pieces` from the unit `first` on and returns the number of bytes read: less than asked for only at the end, and
     * always whole units. Where the length is known, threads may read at once, but only one at the end, where it looks
     * whether there is more by now; else one thread reads what comes next, whose place the caller knows. */
    size_t read(uint64_t first, const Pieces &pieces);

    /* Makes a read that waits for data, now or later, throw. For any thread. */
    void cancel() const;

    const std::string &name() const { return file_.name(); }

    /* The length in bytes; none for pipes and the like. */
    std::optional<uint64_t> length() const { return file_.length(); }

    /* The length in units; throws Error where it is not known. */
    uint64_t unitNum() const;

private:
    void requireUsableLength(uint64_t length) const;
    /* ImageFile::read's answer: negative only where there is nothing yet. */
    ssize_t readOnce(uint64_t offset, const Pieces &pieces, size_t done) const;
    size_t readNext(uint64_t offset, const Pieces &pieces);
    Error changedLength(const std::string &now) const;

    const ImageFile &file_;
    size_t unitBytes_;
    FileDescriptor cancelEvent_;
    bool ended_ = false; /* so far as reading has come there */
};

} // namespace difctl

#endif
