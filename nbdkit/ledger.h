/* What an operator sees of the disk: counters, and the blocks that are known to be bad. */
#ifndef DIF_NBDKIT_LEDGER_H
#define DIF_NBDKIT_LEDGER_H

#include "parameters.h"
#include "rule.h"

#include <array>
#include <atomic>
#include <map>
#include <mutex>
#include <string>

namespace nbd {

enum class Count : uint8_t {
    kRead,
    kWritten,
    kUnwrittenRead,
    kReadModifyWrites,
    kRacesAbsorbed,
    kNoField, /* failed blocks: these three in the order of BlockState */
    kWrongLba,
    kWrongGuard,
    kHealed,
    kScrubbed,
    kRetagged,
    kEnd
};

class Ledger {
public:
    explicit Ledger(const Parameters &parameters) : parameters_(parameters) {}

    void add(Count count, uint64_t number) {
        counters_[static_cast<size_t>(count)].fetch_add(number, std::memory_order_relaxed);
    }

    /* A block failed. It is counted and told to the log and to nbdkit's messages once, until it is written again. */
    void blockFailed(uint64_t block, const uint8_t *bytes, BlockState state);

    /* A block that failed after a crash gets a field that fits its data. */
    void blockRetagged(uint64_t block, const uint8_t *bytes, BlockState state);

    /* Blocks were written: those that were bad no longer are. */
    void blocksWritten(uint64_t first, uint64_t count);

    /* A block was scrubbed: if it was bad, something below has repaired it. */
    void blockPassed(uint64_t block);

    /* "block 5 (LBA 105, offset 2560 in the disk, 2600 in the image)" */
    std::string placeOf(uint64_t block) const;

    /* For people and for Prometheus. */
    std::string text();
    std::string metrics() const;

private:
    void forget(uint64_t first, uint64_t count, const char *why);
    std::string faultOf(uint64_t block, const uint8_t *bytes, BlockState state) const;

    const Parameters &parameters_;
    std::array<std::atomic<uint64_t>, static_cast<size_t>(Count::kEnd)> counters_{};
    std::mutex mutex_;
    std::map<uint64_t, BlockState> bad_;
    std::atomic<size_t> badNum_{0}; /* of bad_, to be looked at without the mutex */
};

/* Writes a line to the log. */
void logLine(uint32_t level, const char *function, int line, const std::string &text);
#define NBD_LOG(level, text) ::nbd::logLine(level, __func__, __LINE__, text)

} // namespace nbd

#endif
