/*
 * The write-intent file: in which regions of the disk writes may be under way. A region's bit is on stable storage before
 * the first write to it goes out, and is cleared some time after a flush has covered all of its writes. After a stop that
 * was not clean, the regions that are marked hold the blocks that the stop may have torn.
 *
 *     0     8 bytes  "DIFINTNT"
 *     8     u32      version of this format, 1
 *     12    u32      bytes of a block
 *     16    u64      LBA of the first block
 *     24    u64      blocks of the disk
 *     32    u64      blocks of a region
 *     40    u64      block at which scrubbing goes on
 *     4096           a byte a region: 1 if it is marked
 *
 * Numbers are little-endian.
 */
#ifndef DIF_NBDKIT_INTENT_H
#define DIF_NBDKIT_INTENT_H

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace nbd {

struct IntentHeader {
    char magic[8];
    uint32_t version;
    uint32_t blockSize;
    uint64_t firstLba;
    uint64_t blocks;
    uint64_t regionBlocks;
    uint64_t scrubbedTo;
};
static_assert(sizeof(IntentHeader) == 48, "layout of the file");

/* A run of blocks. */
struct BlockRun {
    uint64_t first;
    uint64_t count;
};

class Intent {
public:
    Intent() = default;
    ~Intent();
    Intent(const Intent &) = delete;
    Intent &operator=(const Intent &) = delete;

    /* Opens or creates the file for this process alone. Nothing is written to what is no such file. Returns 0; or -1, after
     * nbdkit_error. */
    int open(const std::string &path);
    bool isOpen() const { return file_ >= 0; }

    /* Takes the file for a disk of that geometry, a new one after writing it. `marked` becomes the regions that a stop left
     * marked; they stay so until end() for each. Returns 0; or -1, after nbdkit_error. */
    int attach(uint32_t blockSize, uint64_t firstLba, uint64_t blocks, std::vector<BlockRun> &marked);

    /* To be around every write. The first returns 0; or an errno value if the mark cannot be made durable. */
    int begin(BlockRun run);
    void end(BlockRun run);

    /* A flush covers the writes that have ended before it begins. */
    uint64_t flushBegins();
    void flushEnded(uint64_t began);

    /* Clears the marks that writes no longer need and no write has needed for a while; at a clean stop, at once. */
    void clear(bool atOnce);

    /* Where scrubbing goes on after a restart. */
    uint64_t scrubbedTo() const { return header_.scrubbedTo; }
    void setScrubbedTo(uint64_t block);

private:
    struct Region {
        bool marked = false;
        uint32_t writes = 0;    /* under way */
        uint64_t lastWrite = 0; /* in the order of all writes and flushes */
        std::chrono::steady_clock::time_point lastTime{};
    };

    int mark(uint64_t region, bool marked);

    int file_ = -1;
    std::string path_;
    IntentHeader header_{};
    std::mutex mutex_;
    std::vector<Region> regions_;
    uint64_t order_ = 0;
    uint64_t flushed_ = 0;
};

} // namespace nbd

#endif
