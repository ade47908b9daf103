/* The plugin below, or the filter, with whole blocks of the image. */
#ifndef DIF_NBDKIT_LAYER_H
#define DIF_NBDKIT_LAYER_H

#include "nbdkit_api.h"

#include <cstdint>
#include <memory>
#include <mutex>

namespace nbd {

/*
 * A connection to it. Calls return 0, or -1 and an errno value in `error`. Plugins that take one request at a time get
 * them so from the filter's own threads too; only the end of a client's connection is nbdkit's own and may fall beside.
 */
class Layer {
public:
    Layer(nbdkit_next *next, uint32_t blockSize, std::mutex *oneAtATime)
        : next_(next), blockSize_(blockSize), oneAtATime_(oneAtATime) {}

    int read(uint64_t first, uint32_t count, uint8_t *blocks, int &error) const {
        const auto turn = takeTurn();
        return next_->pread(next_, blocks, count * blockSize_, first * blockSize_, 0, &error);
    }

    int write(uint64_t first, uint32_t count, const uint8_t *blocks, uint32_t flags, int &error) const {
        const auto turn = takeTurn();
        return next_->pwrite(next_, blocks, count * blockSize_, first * blockSize_, flags, &error);
    }

    int zero(uint64_t first, uint32_t count, uint32_t flags, int &error) const {
        const auto turn = takeTurn();
        return next_->zero(next_, count * blockSize_, first * blockSize_, flags, &error);
    }

    int flush(int &error) const {
        const auto turn = takeTurn();
        return next_->flush(next_, 0, &error);
    }

    /* The first extent of the `bytes` at `offset`; others are not looked for. */
    int firstExtent(uint32_t bytes, uint64_t offset, nbdkit_extent &extent, int &error) const {
        const std::unique_ptr<nbdkit_extents, decltype(&nbdkit_extents_free)> extents(
            nbdkit_extents_new(offset, offset + bytes), &nbdkit_extents_free);
        if (extents == nullptr) {
            error = ENOMEM;
            return -1;
        }
        const auto turn = takeTurn();
        if (next_->extents(next_, bytes, offset, NBDKIT_FLAG_REQ_ONE, extents.get(), &error) != 0) {
            return -1;
        }
        extent = nbdkit_get_extent(extents.get(), 0);
        return 0;
    }
    /* Of bytes of the image; null and an errno value in `error` if it fails. To be freed with nbdkit_extents_free. */
    nbdkit_extents *extents(uint64_t offset, uint32_t count, int &error) const {
        const auto turn = takeTurn();
        return nbdkit_extents_full(next_, count, offset, 0, &error);
    }

    int cache(uint64_t first, uint32_t count, uint32_t flags, int &error) const {
        const auto turn = takeTurn();
        return next_->cache(next_, count * blockSize_, first * blockSize_, flags, &error);
    }

    /* For other calls, which are to be made while the turn is held. */
    nbdkit_next *next() const { return next_; }
    std::unique_lock<std::mutex> takeTurn() const {
        return oneAtATime_ == nullptr ? std::unique_lock<std::mutex>() : std::unique_lock(*oneAtATime_);
    }

private:
    nbdkit_next *next_;
    uint32_t blockSize_;
    std::mutex *oneAtATime_;
};

} // namespace nbd

#endif
