/* Where an image goes: a file that is complete or not there at all, or standard output. */
#ifndef DIFCTL_DESTINATION_H
#define DIFCTL_DESTINATION_H

#include "io/file_access.h"
#include "io/transfer.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace difctl {

/* Which existing files may be replaced, and how the message ends that refuses the others. */
struct Replacing {
    std::function<bool(const std::string &path)> allowed;
    const char *otherwise;
};

/* What --force says about DST. */
inline Replacing replacingIf(bool force) {
    return {[force](const std::string &) { return force; }, "--force replaces it"};
}

/*
 * An image to write. A file gets its name only at commit(), when all of it is on stable storage. Until then it has none,
 * so that nothing is left of it however the process ends; or a temporary one in the same directory, where the file system
 * knows no files without names. Standard output has no way back. Everything throws Error.
 */
class Destination {
public:
    /* `path`, or standard output for "-". `source`: the access to what is written, none if that is anyone's. What exists
     * and may not be replaced is refused, now and at commit(). */
    Destination(const std::string &path, Replacing replacing, std::optional<FileAccess> source = {});
    ~Destination();
    Destination(const Destination &) = delete;
    Destination &operator=(const Destination &) = delete;

    void write(const Pieces &pieces);
    void commit();

    /* For messages: the path with its control characters escaped. */
    const std::string &name() const { return name_; }

    /* What to add to the message of a failure: that bytes have gone to standard output already, or nothing. */
    std::string leftoverNote() const;

private:
    void requireUsable(const std::string &path);
    void create();
    std::string unusedName() const;
    void giveName(bool replace);
    void syncDirectory();

    std::string name_;
    std::string target_;    /* the name to give, symbolic links resolved; empty: standard output */
    std::string temporary_; /* the name until then, if it has one */
    Replacing replacing_;
    std::optional<FileAccess> source_;
    FileDescriptor file_;
    uint64_t offset_ = 0;
};

} // namespace difctl

#endif
