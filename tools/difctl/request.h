/*
 * A request: a run of consecutive blocks of an image in memory. Everything that is done to blocks through the library
 * is done here, one request a call; calls on different requests may run at once.
 */
#ifndef DIFCTL_REQUEST_H
#define DIFCTL_REQUEST_H

#include "block_format.h"
#include "image_io.h"

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

namespace difctl {

enum class FaultKind { kGuard, kLba, kVersion };
inline constexpr size_t kFaultKindNum = 3;

struct Fault {
    uint64_t block; /* index in the image */
    uint64_t lba;   /* the LBA expected there */
    FaultKind kind;
    std::array<uint8_t, sizeof(DifTuple)> tuple; /* as found */
};

/* How much data a request holds: enough to make per-request costs vanish, little enough for many to be in memory. */
inline constexpr uint32_t kRequestDataBytes = 1024 * 1024;

struct Request {
    const BlockFormat *format = nullptr;
    uint8_t *buf = nullptr; /* room for kRequestDataBytes of data with their fields */
    uint64_t firstBlock = 0;
    uint32_t blockNum = 0;

    std::vector<Fault> faults; /* written by checkRequest, as is the result word */
    uint32_t checkResult = 0;

    uint32_t sectorNum() const { return blockNum << format->geometry.sectorShift; }

    /* Of the first `blocks` blocks: all bytes, or the data without the fields. */
    Pieces wholeBlocks(uint32_t blocks) const;
    Pieces dataOnly(uint32_t blocks) const;
};

/* Writes tuples into the blocks, as DIF_INSERT_* says. `imageLba` is the LBA of the image's first block. */
void protectRequest(Request &request, uint32_t insertFlags, uint64_t imageLba);

struct CheckOptions {
    uint64_t imageLba = 0;
    bool compareLbas = true;
    bool allBlocks = false; /* name every failed block, not only the first one of a request */
    bool report = false;
    std::optional<uint8_t> requiredVersion; /* a tuple of another version is a version fault */
};

/* Checks the blocks at the tool's verify point. */
void checkRequest(Request &request, const CheckOptions &options);

} // namespace difctl

#endif
