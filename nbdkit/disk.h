/* The disk that clients see, over an image of protected blocks: reads that check, writes that protect. */
#ifndef DIF_NBDKIT_DISK_H
#define DIF_NBDKIT_DISK_H

#include "intent.h"
#include "layer.h"
#include "ledger.h"
#include "parameters.h"
#include "range_lock.h"

#include <atomic>

namespace nbd {

/* Bytes of the disk. */
struct Extent {
    uint64_t offset;
    uint64_t count;
};

/*
 * One a process, used by all connections at once. A byte of data is copied once on its way, between the client's buffer,
 * in which it lies without fields, and the thread's room for blocks, which is as warm as a cache can be; no request takes
 * memory. Calls return 0, or -1 and an errno value in `error`. Readers take no
 * lock; a block that fails beside a write is read once more under the lock of the writers.
 */
class Disk {
public:
    Disk(const Parameters &parameters, Ledger &ledger, Intent &intent)
        : parameters_(parameters), ledger_(ledger), intent_(intent) {}

    uint64_t sizeOf(uint64_t imageSize) const {
        return imageSize / geometry().blockSize * uint64_t{geometry().dataSize};
    }

    int read(const Layer &layer, uint8_t *data, Extent extent, int &error);

    /* `flags`: NBDKIT_FLAG_FUA, if each write of the layer is to have it. */
    int write(const Layer &layer, const uint8_t *data, Extent extent, uint32_t flags, int &error);

    /* With the layer's own zero, under which blocks of zeros stay unwritten; or with protected blocks of zeros. `flags` as
     * of nbdkit. */
    int zero(const Layer &layer, Extent extent, uint32_t flags, int &error);

    /* Gives up the whole blocks of the extent. */
    int trim(const Layer &layer, Extent extent, uint32_t flags, int &error);

    int flush(const Layer &layer, int &error);

    /* A flush, if there is one below; what has none has no writes that wait for it. */
    int settle(const Layer &layer, int &error);

    /* Adds the extents of the disk to `extents`. */
    int extents(const Layer &layer, Extent extent, uint32_t flags, struct nbdkit_extents *extents, int &error) const;

    /* Checks the `count` blocks from `first` on, kPieceBlocks at most, and tells the ledger of those that fail. */
    int scrub(const Layer &layer, uint64_t first, uint32_t count, int &error);

    /* Gives the blocks of the run that fail, which a crash may have torn, fields that fit their data. */
    int retag(const Layer &layer, BlockRun run, int &error);

    /* Client requests under way. */
    uint32_t busy() const { return busy_.load(std::memory_order_relaxed); }

    uint32_t pieceBlocks() const;
    const DifTypeInfo &geometry() const { return parameters_.format.geometry; }

private:
    class Busy;
    class Change;
    struct Part;

    int readPiece(const Layer &layer, const Part &part, uint8_t *data, int &error);
    uint32_t deliver(const uint8_t *blocks, const Part &part, uint32_t from, uint8_t *data);
    bool passes(BlockState state) const;
    void copyOut(const uint8_t *block, uint32_t index, const Part &part, uint8_t *data) const;
    bool isFault(uint64_t block, const uint8_t *bytes);
    int readForPatch(const Layer &layer, uint64_t block, uint8_t *bytes, int &error);
    int writeWhole(const Layer &layer, BlockRun run, const uint8_t *data, uint32_t flags, int &error);
    void protect(uint8_t *blocks, uint32_t count, uint64_t first, uint32_t type) const;
    template <typename WriteWhole>
    int change(const Layer &layer, const uint8_t *data, Extent extent, uint32_t flags, WriteWhole writeWhole,
               int &error);

    const Parameters &parameters_;
    Ledger &ledger_;
    Intent &intent_;
    RangeLock locks_;
    std::atomic<uint32_t> busy_{0};
};

} // namespace nbd

#endif
