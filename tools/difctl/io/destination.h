/* Where an image goes. */
#ifndef DIFCTL_DESTINATION_H
#define DIFCTL_DESTINATION_H

#include "io/file_access.h"
#include "io/sink.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace difctl {

/* What --force says about DST. */
inline Replacing replacingIf(bool force) {
    return {[force](const std::string &) { return force; }, "--force replaces it"};
}

/*
 * An image to write: a file that is complete or not there at all; or standard output, a block device or the export of an
 * NBD server, which have no way back. Everything throws Error.
 */
class Destination {
public:
    /* `path`, or standard output for "-". `source`: the access to what is written, none if that is anyone's. What exists
     * and may not be replaced is refused, now and at commit(). */
    Destination(const std::string &path, Replacing replacing, std::optional<FileAccess> source = {});

    /* See Sink. */
    void requireRoom(uint64_t bytes) const { sink_->requireRoom(bytes); }
    [[nodiscard]] std::function<void()> write(const Pieces &pieces) { return sink_->write(pieces); }
    void commit() { sink_->commit(); }
    std::string leftoverNote() const { return sink_->leftoverNote(); }

    /* For messages: the path with its control characters escaped. */
    const std::string &name() const { return name_; }

private:
    std::string name_;
    std::unique_ptr<Sink> sink_;
};

} // namespace difctl

#endif
