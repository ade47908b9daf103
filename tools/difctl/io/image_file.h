/* An image under the one descriptor through which a command looks at it, reads it and changes it. */
#ifndef DIFCTL_IMAGE_FILE_H
#define DIFCTL_IMAGE_FILE_H

#include "io/file_access.h"
#include "io/transfer.h"

#include <cstdint>
#include <optional>
#include <string>

namespace difctl {

/*
 * A file, block device or stream. It stays the same one whatever becomes of its name meanwhile, and who else uses locks is
 * kept out: of reading while a command changes it, of changing while one reads it. Standard input is used as it is given,
 * from where it stands. Everything throws Error.
 */
class ImageFile {
public:
    enum class Use { kRead, kChange };

    /* "-" is standard input. To change are only regular files and block devices, and these only if nothing mounts them. */
    ImageFile(const std::string &path, Use use);

    /* For messages: the path with its control characters escaped. */
    const std::string &name() const { return name_; }

    /* The length in bytes when it was opened; none for pipes and the like. */
    std::optional<uint64_t> length() const { return length_; }

    /* Who may read it; none for what is not a file. */
    std::optional<FileAccess> access() const;

    /* One read into what follows the first `done` bytes of `pieces`, at `offset` where the length is known, else of what
     * comes next: readv's answer, but never EINTR. */
    ssize_t read(uint64_t offset, const Pieces &pieces, size_t done = 0) const;

    /* The first offset from `offset` on that is not in a hole; the length if there is none. */
    uint64_t nextData(uint64_t offset) const;

    /* Waits until a stream has something to read or `cancelEvent` is readable; returns whether it is the latter. */
    bool waitForData(int cancelEvent) const;

    /* Throws if the length of a file to change is no longer what it was. */
    void requireLength() const;

    /* Writes `pieces`, each as far from `offset` as it is from the first one in memory, and nothing between them. Whatever
     * another process does meanwhile, the file does not grow. */
    void write(uint64_t offset, const Pieces &pieces);
    void sync();

private:
    void lock(Use use) const;

    std::string name_;
    FileDescriptor file_;
    FileDescriptor staging_; /* memory that the system can copy from; of a file to change */
    uint64_t start_ = 0;
    std::optional<uint64_t> length_;
};

} // namespace difctl

#endif
