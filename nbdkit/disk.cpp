#include "disk.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

namespace nbd {

namespace {

/* What is read from the layer or written to it at once; a request is a few pieces. */
constexpr size_t kPieceDataBytes = size_t{128} << 10;
constexpr size_t kPieceBytes = kPieceDataBytes / 512 * 520;
static_assert(kPieceBytes == kPieceDataBytes / 4096 * 4160);
/* So many blocks are copied and protected while they are in the fastest cache. */
constexpr size_t kWarmBytes = size_t{16} << 10;
/* The most that the layer takes at once, in a size that its 32 bits can say. */
constexpr uint64_t kMostZeroed = uint64_t{1} << 18;

/* Room for a piece, one a thread for its life; null and ENOMEM if it cannot be had. */
uint8_t *pieceRoom(int &error) {
    thread_local const std::unique_ptr<uint8_t[]> room(new (std::nothrow) uint8_t[kPieceBytes]);
    if (room == nullptr) {
        error = ENOMEM;
    }
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete): the room goes with its thread, not with a call
    return room.get();
}

} // namespace

class Disk::Busy {
public:
    explicit Busy(std::atomic<uint32_t> &count) : count_(count) { count_.fetch_add(1, std::memory_order_relaxed); }
    ~Busy() { count_.fetch_sub(1, std::memory_order_relaxed); }
    Busy(const Busy &) = delete;
    Busy &operator=(const Busy &) = delete;

private:
    std::atomic<uint32_t> &count_;
};

/* A change of blocks under way: others that change them wait, and a crash will find the regions marked. */
class Disk::Change {
public:
    Change(Disk &disk, BlockRun run)
        : disk_(disk), run_(run), hold_(disk.locks_, run.first, run.count),
          error_(disk.intent_.isOpen() ? disk.intent_.begin(run) : 0) {}
    ~Change() {
        if (error_ == 0 && disk_.intent_.isOpen()) {
            disk_.intent_.end(run_);
        }
    }
    Change(const Change &) = delete;
    Change &operator=(const Change &) = delete;

    /* 0, or why it may not begin. */
    int error() const { return error_; }

private:
    Disk &disk_;
    BlockRun run_;
    RangeLock::Hold hold_;
    int error_;
};

/* What of a request lies in blocks that fit into a piece. */
struct Disk::Part {
    uint64_t first; /* block */
    uint32_t blocks;
    uint32_t skipped; /* bytes in front of the request's in the first block */
    uint32_t bytes;   /* of the request */

    Part(const DifTypeInfo &geometry, uint32_t most, Extent extent)
        : first(extent.offset / geometry.dataSize), skipped(static_cast<uint32_t>(extent.offset % geometry.dataSize)) {
        const uint64_t wanted = (skipped + extent.count + geometry.dataSize - 1) / geometry.dataSize;
        blocks = static_cast<uint32_t>(std::min<uint64_t>(wanted, most));
        bytes = static_cast<uint32_t>(std::min<uint64_t>(uint64_t{blocks} * geometry.dataSize - skipped, extent.count));
    }
};

uint32_t Disk::pieceBlocks() const {
    return static_cast<uint32_t>(kPieceBytes / geometry().blockSize);
}

/* ---- Reading ------------------------------------------------------------------------------------------------------ */

bool Disk::passes(BlockState state) const {
    return state == BlockState::kGood || (state == BlockState::kUnwritten && parameters_.zerosAreUnwritten);
}

/* Copies what is asked for of the part's block with that index. */
void Disk::copyOut(const uint8_t *block, uint32_t index, const Part &part, uint8_t *data) const {
    const uint32_t begin = index == 0 ? part.skipped : 0;
    const uint32_t at = index * geometry().dataSize + begin - part.skipped;
    std::memcpy(data + at, block + begin, std::min(geometry().dataSize - begin, part.bytes - at));
}

/* Whether the block must not be used. Tells the ledger of blocks that fail. */
bool Disk::isFault(uint64_t block, const uint8_t *bytes) {
    const BlockState state = stateOf(bytes, geometry(), parameters_.firstLba + block);
    if (passes(state)) {
        return false;
    }
    ledger_.blockFailed(block, bytes, state == BlockState::kUnwritten ? BlockState::kNoField : state);
    return !parameters_.servesFaults;
}

/* Copies out what is right, from the block with index `from` on. Returns the index of the first that is not, or the end. */
uint32_t Disk::deliver(const uint8_t *blocks, const Part &part, uint32_t from, uint8_t *data) {
    const DifTypeInfo &info = geometry();
    uint64_t unwritten = 0;
    uint32_t index = from;
    for (; index < part.blocks; ++index) {
        const uint8_t *const block = blocks + size_t{index} * info.blockSize;
        const BlockState state = stateOf(block, info, parameters_.firstLba + part.first + index);
        if (!passes(state)) {
            break;
        }
        unwritten += state == BlockState::kUnwritten ? 1 : 0;
        copyOut(block, index, part, data);
    }
    if (unwritten != 0) {
        ledger_.add(Count::kUnwrittenRead, unwritten);
    }
    return index;
}

int Disk::readPiece(const Layer &layer, const Part &part, uint8_t *data, int &error) {
    uint8_t *const blocks = pieceRoom(error);
    if (blocks == nullptr || layer.read(part.first, part.blocks, blocks, error) != 0) {
        return -1;
    }
    ledger_.add(Count::kRead, part.blocks);
    uint32_t index = deliver(blocks, part, 0, data);
    if (index == part.blocks) {
        return 0;
    }
    /* A write may have been on its way. With the writers kept out, what fails now is wrong. */
    const RangeLock::Hold hold(locks_, part.first, part.blocks);
    if (layer.read(part.first, part.blocks, blocks, error) != 0) {
        return -1;
    }
    bool failed = false;
    bool served = false;
    for (index = deliver(blocks, part, 0, data); index < part.blocks; index = deliver(blocks, part, index + 1, data)) {
        uint8_t *const block = blocks + size_t{index} * geometry().blockSize;
        if (isFault(part.first + index, block)) {
            failed = true;
            continue;
        }
        served = true;
        copyOut(block, index, part, data);
    }
    if (failed) {
        error = EIO;
        return -1;
    }
    ledger_.add(Count::kRacesAbsorbed, served ? 0 : 1);
    return 0;
}

int Disk::read(const Layer &layer, uint8_t *data, Extent extent, int &error) {
    const Busy busy(busy_);
    while (extent.count != 0) {
        const Part part(geometry(), pieceBlocks(), extent);
        if (readPiece(layer, part, data, error) != 0) {
            return -1;
        }
        data += part.bytes;
        extent = {extent.offset + part.bytes, extent.count - part.bytes};
    }
    return 0;
}

/* ---- Writing ------------------------------------------------------------------------------------------------------ */

void Disk::protect(uint8_t *blocks, uint32_t count, uint64_t first, uint32_t type) const {
    DifOpParam param = {type, DIF_INSERT_CRC | DIF_INSERT_LBA, parameters_.firstLba + first, nullptr};
    insertDifInBlocks(blocks, count, &geometry(), &param);
}

/* Reads a block that is to be changed in part: one that fails must not get a field that says it is right. */
int Disk::readForPatch(const Layer &layer, uint64_t block, uint8_t *bytes, int &error) {
    if (layer.read(block, 1, bytes, error) != 0) {
        return -1;
    }
    ledger_.add(Count::kReadModifyWrites, 1);
    if (isFault(block, bytes)) {
        error = EIO;
        return -1;
    }
    return 0;
}

/* Writes whole blocks of `data`, or of zeros if it is null. */
int Disk::writeWhole(const Layer &layer, BlockRun run, const uint8_t *data, uint32_t flags, int &error) {
    const DifTypeInfo &info = geometry();
    uint8_t *const room = pieceRoom(error);
    if (room == nullptr) {
        return -1;
    }
    const uint32_t warm = static_cast<uint32_t>(kWarmBytes / info.dataSize);
    while (run.count != 0) {
        const auto blocks = static_cast<uint32_t>(std::min<uint64_t>(run.count, pieceBlocks()));
        for (uint32_t done = 0; done < blocks; done += warm) {
            const uint32_t now = std::min(warm, blocks - done);
            uint8_t *const begin = room + size_t{done} * info.blockSize;
            for (uint32_t index = 0; index < now; ++index) {
                uint8_t *const block = begin + size_t{index} * info.blockSize;
                if (data != nullptr) {
                    std::memcpy(block, data, info.dataSize);
                    data += info.dataSize;
                } else {
                    std::memset(block, 0, info.dataSize);
                }
            }
            /* A type whose data is zeros has its guard without a look at them. */
            protect(begin, now, run.first + done, parameters_.format.type + (data == nullptr ? 1 : 0));
        }
        if (layer.write(run.first, blocks, room, flags, error) != 0) {
            return -1;
        }
        run = {run.first + blocks, run.count - blocks};
    }
    return 0;
}

/*
 * Changes an extent to `data`, or to zeros if it is null: its whole blocks by `writeWhole`, those at its ends that it
 * covers in part by reading, changing and writing them. Nothing is changed if one of these is bad.
 */
template <typename WriteWhole>
int Disk::change(const Layer &layer, const uint8_t *data, Extent extent, uint32_t flags, WriteWhole writeWhole,
                 int &error) {
    if (extent.count == 0) {
        return 0;
    }
    struct Edge {
        uint64_t block;
        uint32_t begin; /* in the block */
        uint32_t bytes;
        uint64_t at; /* in the request */
        uint8_t bytesOfBlock[4160];
    };
    const Busy busy(busy_);
    const uint32_t dataSize = geometry().dataSize;
    const uint64_t end = extent.offset + extent.count;
    const uint64_t first = extent.offset / dataSize;
    const BlockRun all = {first, (end - 1) / dataSize - first + 1};
    const Change change(*this, all);
    if (change.error() != 0) {
        error = change.error();
        return -1;
    }
    BlockRun whole = all;
    Edge edges[2];
    size_t edgeNum = 0;
    if (const auto begin = static_cast<uint32_t>(extent.offset % dataSize);
        begin != 0 || (all.count == 1 && extent.count < dataSize)) {
        const auto bytes = static_cast<uint32_t>(std::min<uint64_t>(dataSize - begin, extent.count));
        edges[edgeNum] = {first, begin, bytes, 0, {}};
        ++edgeNum;
        whole = {whole.first + 1, whole.count - 1};
    }
    if (const auto bytes = static_cast<uint32_t>(end % dataSize); bytes != 0 && whole.count != 0) {
        edges[edgeNum] = {whole.first + whole.count - 1, 0, bytes, extent.count - bytes, {}};
        ++edgeNum;
        --whole.count;
    }
    for (size_t i = 0; i < edgeNum; ++i) {
        if (readForPatch(layer, edges[i].block, edges[i].bytesOfBlock, error) != 0) {
            return -1;
        }
    }
    if (whole.count != 0 &&
        writeWhole(whole, data == nullptr ? nullptr : data + (whole.first * dataSize - extent.offset)) != 0) {
        return -1;
    }
    for (size_t i = 0; i < edgeNum; ++i) {
        Edge &edge = edges[i];
        if (data != nullptr) {
            std::memcpy(edge.bytesOfBlock + edge.begin, data + edge.at, edge.bytes);
        } else {
            std::memset(edge.bytesOfBlock + edge.begin, 0, edge.bytes);
        }
        protect(edge.bytesOfBlock, 1, edge.block, parameters_.format.type);
        if (layer.write(edge.block, 1, edge.bytesOfBlock, flags & NBDKIT_FLAG_FUA, error) != 0) {
            return -1;
        }
    }
    ledger_.add(Count::kWritten, all.count);
    ledger_.blocksWritten(all.first, all.count);
    return 0;
}

int Disk::write(const Layer &layer, const uint8_t *data, Extent extent, uint32_t flags, int &error) {
    return change(
        layer, data, extent, flags,
        [&](BlockRun run, const uint8_t *from) { return writeWhole(layer, run, from, flags, error); }, error);
}

int Disk::zero(const Layer &layer, Extent extent, uint32_t flags, int &error) {
    const auto writeZeros = [&](BlockRun run, const uint8_t * /*data*/) {
        if (!parameters_.zerosAreUnwritten) {
            return writeWhole(layer, run, nullptr, flags & NBDKIT_FLAG_FUA, error);
        }
        while (run.count != 0) {
            const auto blocks = static_cast<uint32_t>(std::min(run.count, kMostZeroed));
            if (layer.zero(run.first, blocks, flags, error) != 0) {
                return -1;
            }
            run = {run.first + blocks, run.count - blocks};
        }
        return 0;
    };
    return change(layer, nullptr, extent, flags, writeZeros, error);
}

int Disk::trim(const Layer &layer, Extent extent, uint32_t flags, int &error) {
    const uint64_t dataSize = geometry().dataSize;
    const uint64_t first = (extent.offset + dataSize - 1) / dataSize;
    const uint64_t end = (extent.offset + extent.count) / dataSize;
    return first >= end
               ? 0
               : zero(layer, {first * dataSize, (end - first) * dataSize}, flags | NBDKIT_FLAG_MAY_TRIM, error);
}

int Disk::flush(const Layer &layer, int &error) {
    const Busy busy(busy_);
    const uint64_t began = intent_.flushBegins();
    if (layer.flush(error) != 0) {
        return -1;
    }
    intent_.flushEnded(began);
    return 0;
}

int Disk::settle(const Layer &layer, int &error) {
    if (layer.next()->can_flush(layer.next()) == 1) {
        return flush(layer, error);
    }
    intent_.flushEnded(intent_.flushBegins());
    return 0;
}

/* ---- Looking ------------------------------------------------------------------------------------------------------ */

int Disk::extents(const Layer &layer, Extent extent, uint32_t flags, struct nbdkit_extents *extents, int &error) const {
    const DifTypeInfo &info = geometry();
    /* So many blocks that their bytes are a count of nbdkit's. What is not told is asked for again. */
    const uint64_t first = extent.offset / info.dataSize;
    const uint64_t wanted = (extent.offset + extent.count - 1) / info.dataSize - first + 1;
    uint64_t blocks = std::min<uint64_t>(wanted, UINT32_MAX / info.blockSize);
    if ((flags & NBDKIT_FLAG_REQ_ONE) != 0) {
        nbdkit_extent one = {};
        if (layer.firstExtent(static_cast<uint32_t>(blocks * info.blockSize), first * info.blockSize, one, error) !=
            0) {
            return -1;
        }
        blocks = std::clamp<uint64_t>(one.length / info.blockSize, 1, blocks);
    }
    const std::unique_ptr<nbdkit_extents, decltype(&nbdkit_extents_free)> below(
        layer.extents(first * info.blockSize, static_cast<uint32_t>(blocks * info.blockSize), error),
        &nbdkit_extents_free);
    if (below == nullptr) {
        return -1;
    }
    /* A block reads as zeros if all of its bytes do, and is a hole if all of it lies in holes. */
    const size_t num = nbdkit_extents_count(below.get());
    const nbdkit_extent last = nbdkit_get_extent(below.get(), num - 1); /* nbdkit leaves out those behind a million */
    blocks = std::min(blocks, (last.offset + last.length) / info.blockSize - first);
    size_t index = 0;
    uint64_t runFirst = first;
    uint32_t runType = 0;
    const auto tell = [&](uint64_t end) {
        return nbdkit_add_extent(extents, runFirst * info.dataSize, (end - runFirst) * info.dataSize, runType);
    };
    for (uint64_t block = first; block < first + blocks;) {
        const uint64_t begin = block * info.blockSize;
        nbdkit_extent at = nbdkit_get_extent(below.get(), index);
        while (at.offset + at.length <= begin) {
            at = nbdkit_get_extent(below.get(), ++index);
        }
        uint32_t type = at.type;
        uint64_t next = (at.offset + at.length) / info.blockSize; /* the block in which the extent ends */
        if (next <= block) {
            for (size_t i = index + 1; i < num && nbdkit_get_extent(below.get(), i).offset < begin + info.blockSize;
                 ++i) {
                type &= nbdkit_get_extent(below.get(), i).type;
            }
            next = block + 1;
        }
        type = (type & NBDKIT_EXTENT_ZERO) != 0 ? type : 0;
        if (block != runFirst && type != runType) {
            if (tell(block) != 0) {
                error = errno;
                return -1;
            }
            if ((flags & NBDKIT_FLAG_REQ_ONE) != 0) {
                return 0;
            }
            runFirst = block;
        }
        runType = type;
        block = std::min(next, first + blocks);
    }
    if (tell(first + blocks) != 0) {
        error = errno;
        return -1;
    }
    return 0;
}

int Disk::scrub(const Layer &layer, uint64_t first, uint32_t count, int &error) {
    uint8_t *const blocks = pieceRoom(error);
    if (blocks == nullptr || layer.read(first, count, blocks, error) != 0) {
        return -1;
    }
    for (uint32_t index = 0; index < count; ++index) {
        uint8_t *const block = blocks + size_t{index} * geometry().blockSize;
        const BlockState state = stateOf(block, geometry(), parameters_.firstLba + first + index);
        if (passes(state)) {
            ledger_.blockPassed(first + index);
            continue;
        }
        const RangeLock::Hold hold(locks_, first + index, 1);
        if (layer.read(first + index, 1, block, error) != 0) {
            return -1;
        }
        isFault(first + index, block);
    }
    ledger_.add(Count::kScrubbed, count);
    return 0;
}

int Disk::retag(const Layer &layer, BlockRun run, int &error) {
    while (run.count != 0) {
        const auto count = static_cast<uint32_t>(std::min<uint64_t>(run.count, pieceBlocks()));
        uint8_t *const blocks = pieceRoom(error);
        const RangeLock::Hold hold(locks_, run.first, count);
        if (blocks == nullptr || layer.read(run.first, count, blocks, error) != 0) {
            return -1;
        }
        for (uint32_t index = 0; index < count; ++index) {
            const uint64_t number = run.first + index;
            uint8_t *const block = blocks + size_t{index} * geometry().blockSize;
            const BlockState state = stateOf(block, geometry(), parameters_.firstLba + number);
            if (passes(state)) {
                continue;
            }
            ledger_.blockRetagged(number, block, state);
            protect(block, 1, number, parameters_.format.type);
            if (layer.write(number, 1, block, 0, error) != 0) {
                return -1;
            }
            ledger_.blocksWritten(number, 1);
        }
        run = {run.first + count, run.count - count};
    }
    return 0;
}

} // namespace nbd
