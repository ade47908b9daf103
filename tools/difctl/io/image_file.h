/* An image as one command looks at it, reads it and changes it, wherever it lies. */
#ifndef DIFCTL_IMAGE_FILE_H
#define DIFCTL_IMAGE_FILE_H

#include "io/image_store.h"

#include <memory>
#include <string>

namespace difctl {

/* A file, block device or stream, or the export of an NBD server. Everything throws Error. */
class ImageFile {
public:
    using Use = ImageStore::Use;

    /* "-" is standard input. To change are only regular files, block devices that nothing mounts, and exports. */
    ImageFile(const std::string &path, Use use);

    /* For messages: the path with its control characters escaped. */
    const std::string &name() const { return name_; }

    /* See ImageStore. */
    std::optional<uint64_t> length() const { return store_->length(); }
    bool isPlace() const { return store_->isPlace(); }
    std::optional<FileAccess> access() const { return store_->access(); }
    std::span<uint8_t> lookAhead(size_t size) const { return store_->lookAhead(size); }
    ssize_t read(uint64_t offset, const Pieces &pieces, size_t done = 0) const {
        return store_->read(offset, pieces, done);
    }
    uint64_t nextData(uint64_t offset) const { return store_->nextData(offset); }
    bool waitForData(int cancelEvent) const { return store_->waitForData(cancelEvent); }
    void requireLength() const { store_->requireLength(); }
    void write(uint64_t offset, const Pieces &pieces) { store_->write(offset, pieces); }
    void sync() { store_->sync(); }

private:
    std::string name_;
    std::unique_ptr<ImageStore> store_;
};

} // namespace difctl

#endif
