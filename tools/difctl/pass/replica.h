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
    /* `claims` are about both copies; what they leave open gets what the replica shows. Throws Error as recognise() does, and
     * for what is not whole blocks of a known number. */
    Replica(const std::string &path, Claims &claims, const CheckOptions &check);

    const std::string &name() const { return file_.name(); }

    /* Throws Error if `image` has another number of blocks, or, without `force`, if most of a sample of blocks that pass in both are
     * not the same in both. */
    void requireLikeness(const ImageFile &image, bool force);

    /* Checks the blocks of an image's request; of those that fail, takes what passes here and leaves the faults of the
     * others in it. For any thread. */
    void heal(Request &request);

    /* How many blocks were taken. */
    uint64_t taken() const { return taken_; }

private:
    /* Reads block `block` of `file`; answers whether it passes and is protected. */
    bool readGood(const ImageFile &file, uint64_t block, std::vector<uint8_t> &bytes) const;

    ImageFile file_;
    Recognition seen_;
    CheckOptions check_;
    uint64_t blockNum_;
    std::atomic<uint64_t> taken_{0};
};

} // namespace difctl

#endif
