/* Another copy of an image, from which blocks that fail are taken. */
#ifndef DIFCTL_REPLICA_H
#define DIFCTL_REPLICA_H

#include "io/image_file.h"
#include "pass/recognition.h"
#include "pass/request.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace difctl {

class Replica {
public:
    /* Of `image`, which was seen to be `seen` and is to pass `check`. Throws Error if the image shows no fields; if the
     * replica has another number of blocks, or shows other fields; or, without `force`, if most of a sample of blocks with
     * data that pass in both are not the same in both. */
    Replica(const std::string &path, const ImageFile &image, const Recognition &seen, const CheckOptions &check,
            bool force);

    const std::string &name() const { return file_.name(); }

    /* Checks the blocks of an image's request; of those that fail, takes what passes here and leaves the faults of the
     * others in it. For any thread. */
    void heal(Request &request);

    /* How many blocks were taken. */
    uint64_t taken() const { return taken_; }

private:
    /* Reads block `block` of `file`; answers whether it can be read, passes and is protected. */
    bool readGood(const ImageFile &file, uint64_t block, std::vector<uint8_t> &bytes) const;

    void requireLikeness(const ImageFile &image, uint64_t blockNum) const;

    ImageFile file_;
    const BlockFormat &format_;
    CheckOptions check_;
    std::atomic<uint64_t> taken_{0};
};

} // namespace difctl

#endif
