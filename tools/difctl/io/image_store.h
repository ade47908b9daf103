/* What an image lies on. */
#ifndef DIFCTL_IMAGE_STORE_H
#define DIFCTL_IMAGE_STORE_H

#include "io/file_access.h"
#include "io/transfer.h"

#include <cstdint>
#include <optional>
#include <span>

namespace difctl {

/* Reading is for any threads at once where the length is known, and so is writing, at different places. Everything throws
 * Error. */
class ImageStore {
public:
    enum class Use { kRead, kChange };

    ImageStore() = default;
    virtual ~ImageStore() = default;
    ImageStore(const ImageStore &) = delete;
    ImageStore &operator=(const ImageStore &) = delete;

    /* The length in bytes when it was opened; none for pipes and the like. */
    virtual std::optional<uint64_t> length() const = 0;

    /* Whether the length is that of the place, a device or an export, in which an image may end earlier. */
    virtual bool isPlace() const = 0;

    /* The next `size` bytes of a stream, or what there is; reading gives them again. Empty where the length is known. */
    virtual std::span<uint8_t> lookAhead(size_t /*size*/) const { return {}; }

    /* Who may read it; none for what is not a file. */
    virtual std::optional<FileAccess> access() const = 0;

    /* One read into what follows the first `done` bytes of `pieces`, at `offset` where the length is known, else of what
     * comes next: readv's answer, but never EINTR. */
    virtual ssize_t read(uint64_t offset, const Pieces &pieces, size_t done) const = 0;

    /* The first offset from `offset` on that is not in a hole; the length if there is none. */
    virtual uint64_t nextData(uint64_t offset) const = 0;

    /* Waits until a stream has something to read or `cancelEvent` is readable; returns whether it is the latter. */
    virtual bool waitForData(int cancelEvent) const = 0;

    /* Throws if the length of an image to change is no longer what it was. */
    virtual void requireLength() const = 0;

    /* Writes `pieces`, each as far from `offset` as it is from the first one in memory, and nothing between them. Whatever
     * another process does meanwhile, the image does not grow. */
    virtual void write(uint64_t offset, const Pieces &pieces) = 0;
    virtual void sync() = 0;
};

} // namespace difctl

#endif
