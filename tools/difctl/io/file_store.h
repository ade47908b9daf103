/* An image in a file, on a block device or from a stream. */
#ifndef DIFCTL_FILE_STORE_H
#define DIFCTL_FILE_STORE_H

#include "io/image_store.h"

#include <string>
#include <vector>

namespace difctl {

/*
 * What a path names, under one descriptor. It stays the same one whatever becomes of its name meanwhile, and who else uses
 * locks is kept out: of reading while a command changes it, of changing while one reads it. Standard input is used as it is
 * given, from where it stands.
 */
class FileStore : public ImageStore {
public:
    FileStore(const std::string &path, Use use);

    std::optional<uint64_t> length() const override { return length_; }
    bool isPlace() const override { return isDevice_; }
    std::optional<FileAccess> access() const override;
    std::span<uint8_t> lookAhead(size_t size) const override;
    ssize_t read(uint64_t offset, const Pieces &pieces, size_t done) const override;
    uint64_t nextData(uint64_t offset) const override;
    bool waitForData(int cancelEvent) const override;
    void requireLength() const override;
    void write(uint64_t offset, const Pieces &pieces) override;
    void sync() override;

private:
    void lock(Use use) const;

    std::string name_;
    FileDescriptor file_;
    FileDescriptor staging_; /* memory that the system can copy from; of a file to change */
    uint64_t start_ = 0;
    std::optional<uint64_t> length_;
    bool isDevice_ = false;
    mutable std::vector<uint8_t> ahead_; /* of a stream: read already, and to be read again */
};

} // namespace difctl

#endif
