/* Where an image goes: a file that is complete or not there at all, or standard output. */
#ifndef DIFCTL_DESTINATION_H
#define DIFCTL_DESTINATION_H

#include "io/transfer.h"

#include <cstdint>
#include <string>

namespace difctl {

/*
 * An image to write. A file gets its name only at commit(), when all of it is on stable storage; until then it is a
 * temporary file in the same directory, and a destination that is not committed leaves nothing. Standard output has no
 * way back. Everything throws Error.
 */
class Destination {
public:
    /* `path`, or standard output for "-". An existing file is replaced if `force`, else refused, now and at commit(). */
    Destination(const std::string &path, bool force);
    ~Destination();
    Destination(const Destination &) = delete;
    Destination &operator=(const Destination &) = delete;

    void write(const Pieces &pieces);
    void commit();

    const std::string &name() const { return name_; }

    /* What to add to the message of a failure: that bytes have gone to standard output already, or nothing. */
    std::string leftoverNote() const;

private:
    bool toStandardOutput() const { return temporary_.empty(); }
    void createTemporary();

    std::string name_;
    std::string target_;    /* the name to give, symbolic links resolved */
    std::string temporary_; /* empty: standard output */
    bool force_;
    bool committed_ = false;
    FileDescriptor file_;
    uint64_t offset_ = 0;
};

} // namespace difctl

#endif
