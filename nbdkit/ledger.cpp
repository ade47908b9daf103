#include "ledger.h"

#include "dif_host.h"
#include "nbdkit_api.h"
#include "platform/hostlog.h"

#include <fmt/format.h>

namespace nbd {

namespace {

/* More are counted when they are first met only if there is room. */
constexpr size_t kMaxBad = 65536;
constexpr size_t kShownBad = 20;

struct CountText {
    const char *name; /* of the metric */
    const char *labels;
    const char *text;
};

constexpr std::array<CountText, static_cast<size_t>(Count::kEnd)> kCountTexts{{
    {"dif_nbd_blocks_read_total", "", "blocks read and checked"},
    {"dif_nbd_blocks_written_total", "", "blocks written"},
    {"dif_nbd_blocks_unwritten_read_total", "", "blocks read that were never written"},
    {"dif_nbd_read_modify_writes_total", "", "blocks written in part"},
    {"dif_nbd_races_absorbed_total", "", "blocks read again beside a write"},
    {"dif_nbd_blocks_failed_total", "{kind=\"field\"}", "blocks without a field"},
    {"dif_nbd_blocks_failed_total", "{kind=\"lba\"}", "blocks with a wrong LBA"},
    {"dif_nbd_blocks_failed_total", "{kind=\"guard\"}", "blocks with a wrong guard"},
    {"dif_nbd_blocks_healed_total", "", "failed blocks that are right again"},
    {"dif_nbd_blocks_scrubbed_total", "", "blocks scrubbed"},
    {"dif_nbd_blocks_retagged_total", "", "blocks with new fields after a crash"},
}};

/* A guard's bytes in the order of the field. */
uint16_t stored(uint16_t guard) {
    return __builtin_bswap16(guard);
}

std::string describe(BlockState state, const DifTuple &tuple, const uint8_t *bytes, const Parameters &parameters) {
    switch (state) {
    case BlockState::kWrongLba:
        return fmt::format("has the LBA {}", be32toh(tuple.lba));
    case BlockState::kWrongGuard:
        return fmt::format("has the guard {:04x}, its data {:04x}", stored(tuple.crc),
                           stored(image::guardOf(tuple.version, bytes, parameters.format.geometry.dataSize)));
    default:
        return "has no field";
    }
}

/* The kind of the library's counters. */
int statisticOf(BlockState state) {
    return state == BlockState::kWrongGuard ? DIF_STAT_CRC_ERROR
           : state == BlockState::kWrongLba ? DIF_STAT_LBA_ERROR
                                            : DIF_STAT_VERSION_ERROR;
}

} // namespace

void logLine(uint32_t level, const char *function, int line, const std::string &text) {
    hostlog_standard(DIF_MODULE_ID, level, function, line, 0, "%s", text.c_str());
}

std::string Ledger::placeOf(uint64_t block) const {
    const DifTypeInfo &geometry = parameters_.format.geometry;
    return fmt::format("block {} (LBA {}, offset {} in the disk, {} in the image)", block, parameters_.firstLba + block,
                       block * geometry.dataSize, block * geometry.blockSize);
}

std::string Ledger::faultOf(uint64_t block, const uint8_t *bytes, BlockState state) const {
    const DifTuple tuple = tupleOf(bytes, parameters_.format.geometry);
    return fmt::format("{} {}; field: crc {:04x} version {:02x} flags {:02x} lba {:08x}", placeOf(block),
                       describe(state, tuple, bytes, parameters_), stored(tuple.crc), tuple.version, tuple.app,
                       be32toh(tuple.lba));
}

void Ledger::blockRetagged(uint64_t block, const uint8_t *bytes, BlockState state) {
    add(Count::kRetagged, 1);
    NBD_LOG(DIF_HOST_LOG_WARNING, faultOf(block, bytes, state) + "; a crash may have torn it: it gets a new field");
}

void Ledger::blockFailed(uint64_t block, const uint8_t *bytes, BlockState state) {
    {
        const std::lock_guard lock(mutex_);
        if (bad_.size() == kMaxBad || !bad_.emplace(block, state).second) {
            return;
        }
        badNum_ = bad_.size();
    }
    const auto kind = static_cast<size_t>(state) - static_cast<size_t>(BlockState::kNoField);
    add(static_cast<Count>(static_cast<size_t>(Count::kNoField) + kind), 1);
    difVerifyStatisticAdd(DIF_MID_LUN, 0, statisticOf(state));
    const std::string text = faultOf(block, bytes, state);
    NBD_LOG(DIF_HOST_LOG_ERROR, text);
    nbdkit_error("dif: %s", text.c_str());
}

void Ledger::blocksWritten(uint64_t first, uint64_t count) {
    forget(first, count, " is written again");
}

void Ledger::blockPassed(uint64_t block) {
    forget(block, 1, " is right again, though it was not written here");
}

void Ledger::forget(uint64_t first, uint64_t count, const char *why) {
    if (badNum_.load(std::memory_order_relaxed) == 0) {
        return;
    }
    const std::lock_guard lock(mutex_);
    for (auto block = bad_.lower_bound(first); block != bad_.end() && block->first < first + count;) {
        NBD_LOG(DIF_HOST_LOG_NOTICE, placeOf(block->first) + why);
        add(Count::kHealed, 1);
        block = bad_.erase(block);
    }
    badNum_ = bad_.size();
}

std::string Ledger::text() {
    std::string text;
    for (size_t i = 0; i < kCountTexts.size(); ++i) {
        text += fmt::format("{:<38} {:>16}\n", kCountTexts[i].text, counters_[i].load(std::memory_order_relaxed));
    }
    const std::lock_guard lock(mutex_);
    text += fmt::format("{:<38} {:>16}\n", "blocks known to be bad now", bad_.size());
    size_t shown = 0;
    for (const auto &[block, state] : bad_) {
        if (++shown > kShownBad) {
            text += fmt::format("  and {} more\n", bad_.size() - kShownBad);
            break;
        }
        text += "  " + placeOf(block) + "\n";
    }
    return text;
}

std::string Ledger::metrics() const {
    std::string text;
    const char *family = "";
    for (size_t i = 0; i < kCountTexts.size(); ++i) {
        const CountText &count = kCountTexts[i];
        if (std::strcmp(family, count.name) != 0) {
            family = count.name;
            text +=
                fmt::format("# HELP {0} {1}.\n# TYPE {0} counter\n", family,
                            *count.labels == '\0' ? count.text : "blocks that failed, each once until it is written");
        }
        text += fmt::format("{}{} {}\n", count.name, count.labels, counters_[i].load(std::memory_order_relaxed));
    }
    text += "# HELP dif_nbd_blocks_bad Blocks known to be bad.\n# TYPE dif_nbd_blocks_bad gauge\n";
    return text + fmt::format("dif_nbd_blocks_bad {}\n", badNum_.load(std::memory_order_relaxed));
}

} // namespace nbd
