/*
 * A request: a run of consecutive blocks of an image in memory. Everything that is done to blocks through the library
 * is done here, one list a request; calls on different requests may run at once.
 */
#ifndef DIFCTL_REQUEST_H
#define DIFCTL_REQUEST_H

#include "io/transfer.h"
#include "pass/block_format.h"
#include "pass/block_range.h"

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace difctl {

enum class FaultKind { kGuard, kLba, kVersion, kUnprotected, kUnreadable };
inline constexpr size_t kFaultKindNum = 5;

struct Fault {
    uint64_t block; /* index in the image */
    uint64_t lba;   /* the LBA expected there */
    FaultKind kind;
    DifTuple tuple; /* as found; nothing of a block that cannot be read */
    /* The guard as in a tuple, the LBA or the version that should be there; none where no single one should. */
    std::optional<uint64_t> expected;
};

/* How much data a request holds: enough to make per-request costs vanish, little enough for many to be in memory. */
inline constexpr uint32_t kRequestDataBytes = 1024 * 1024;

struct Request {
    const BlockFormat *format = nullptr;
    uint8_t *buf = nullptr; /* room for kRequestDataBytes of data with their fields */
    uint64_t firstBlock = 0;
    uint32_t blockNum = 0;
    std::vector<uint32_t> unreadable; /* blocks that cannot be read, in order: zeros are in their place */

    std::function<void()> rest; /* of what consumes it: when its turn is over, at once with other requests' */

    std::vector<Fault> faults; /* written by the checks, as is the result word */
    uint32_t checkResult = 0;
    uint32_t unprotected = 0;       /* of the checked blocks: those without a guard over their data */
    std::vector<uint8_t> kept;      /* tuples as keepTuples() found them */
    std::vector<uint32_t> replaced; /* blocks with other data than they were read with */

    uint32_t sectorNum() const { return blockNum << format->geometry.sectorShift; }
    uint8_t *block(uint32_t index) const { return buf + size_t{index} * format->geometry.blockSize; }
    uint8_t *tuple(uint32_t index) const { return block(index) + format->geometry.difOffset; }
    DifTuple fields(uint32_t index) const;

    /* Keeps the tuples as they are, to tell later which have been changed. */
    void keepTuples();
    const uint8_t *keptTuple(uint32_t index) const { return kept.data() + size_t{index} * sizeof(DifTuple); }

    /* Puts whole other bytes in a block's place, data and field. */
    void replaceBlock(uint32_t index, const uint8_t *bytes);

    /* Of the first `blocks` blocks: all bytes, or the data without the fields. */
    Pieces wholeBlocks(uint32_t blocks) const;
    Pieces dataOnly(uint32_t blocks) const;
};

struct ProtectOptions {
    uint32_t flags = 0;    /* DIF_INSERT_* */
    uint64_t imageLba = 0; /* of the image's first block */
    bool standard = false; /* plain T10 protection information with application tag 0 */
};

/* Writes tuples into the blocks. */
void protectRequest(Request &request, const ProtectOptions &options);

struct CheckOptions {
    uint64_t imageLba = 0;
    bool compareLbas = true;
    bool allBlocks = false; /* name every failed block, not only the first one of a request */
    bool report = false;
    bool convertToT10 = false;              /* rewrite passing tuples with the guard crc32c */
    bool takesUnreadable = false;           /* a block that cannot be read is a fault and not the end */
    bool requireProtected = false;          /* a block without a guard over its data is a fault */
    bool standard = false;                  /* plain T10 protection information, without version and flags */
    std::optional<uint8_t> requiredVersion; /* a tuple of another version is a version fault */
};

/* Whether the tuple says that no check is about its block: so both kinds of fields say it. */
bool isExempt(const DifTuple &tuple);

/* Checks the blocks at the tool's verify point. With `standard`, `report`, `convertToT10` and `requiredVersion` do not
 * count. */
void checkRequest(Request &request, const CheckOptions &options);

/* The result word (DIF_RESULT_*) of the checks `ctrlFlag` of one block, for which `lba` is expected. They count and log
 * nothing. */
uint32_t checkBlock(const Request &request, uint32_t index, uint32_t ctrlFlag, uint64_t lba);

/* Writes the faults of `faults` into the blocks; its LBA is that of the image's block `firstBlock`. */
void injectRequest(Request &request, const DifInjectParam &faults, uint64_t firstBlock);

struct ReplaceOptions {
    uint32_t flags = 0; /* DIF_REPLACE_* */
    uint64_t imageLba = 0;
    std::vector<BlockRange> blocks = {{}}; /* all */
    bool unwritten = true;                 /* blocks of zeros, too */
};

/* Rewrites fields of the blocks' tuples. */
void replaceRequest(Request &request, const ReplaceOptions &options);

/* How many 520-byte blocks one of 4160 bytes is made of, in as many bytes. */
inline constexpr uint32_t kFoldedBlocks = 8;
static_assert(kFoldedBlocks * kFormat520.geometry.blockSize == kFormat4160.geometry.blockSize);

/* Turns each kFoldedBlocks blocks of 520 bytes into one of 4160 bytes in the same place. These carry no LBAs unless
 * `imageLba` is that of the image's first one. */
void foldRequest(Request &request, std::optional<uint64_t> imageLba);

} // namespace difctl

#endif
