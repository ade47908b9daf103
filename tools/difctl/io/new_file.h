/* A file that is complete or not there at all. */
#ifndef DIFCTL_NEW_FILE_H
#define DIFCTL_NEW_FILE_H

#include "io/file_access.h"
#include "io/sink.h"

#include <cstdint>
#include <optional>
#include <string>

namespace difctl {

/*
 * An image in a file that gets its name only at commit(), when all of it is on stable storage. Until then it has none, so
 * that nothing is left of it however the process ends; or a temporary one in the same directory, where the file system
 * knows no files without names. Blocks of the file that would hold only zeros are holes.
 */
class NewFile : public Sink {
public:
    /* `source`: the access to what is written, none if that is anyone's. What exists and may not be replaced is refused,
     * now and at commit(). */
    NewFile(const std::string &path, Replacing replacing, std::optional<FileAccess> source);
    ~NewFile() override;

    std::function<void()> write(const Pieces &pieces) override;
    void commit() override;
    std::string leftoverNote() const override { return ""; }

private:
    void requireUsable(const std::string &path);
    void create();
    std::string unusedName() const;
    void put(const Pieces &pieces, size_t from, size_t to);
    void giveName(bool replace);
    void syncDirectory();

    std::string name_;
    std::string target_;    /* the name to give, symbolic links resolved */
    std::string temporary_; /* the name until then, if it has one */
    Replacing replacing_;
    std::optional<FileAccess> source_;
    FileDescriptor file_;
    uint64_t offset_ = 0; /* how far the image has come */
    uint64_t end_ = 0;    /* where the file ends: before that if the image ends in a hole */
};

} // namespace difctl

#endif
