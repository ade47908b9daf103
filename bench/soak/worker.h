/* A module of the storage stack, and a thread that works on its behalf in volumes of its own. */
#ifndef DIF_TESTS_SOAK_WORKER_H
#define DIF_TESTS_SOAK_WORKER_H

#include "volume.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <shared_mutex>

inline constexpr uint32_t kPoints = 3, kVolumes = 6, kMaxRange = 40;

struct Module {
    explicit Module(uint8_t id) : mid(id) {}
    const uint8_t mid;
    std::atomic<bool> isWanted{false}; /* exclusively: no new steps then, which would go on to starve the writer */
    std::shared_mutex settings;        /* held by its workers during a step, exclusively to change the next two */
    bool isOn = true;
    uint8_t level = DIF_VERIFY_LEVEL_MAJOR;
    std::atomic<uint64_t> counters[kPoints][DIF_STAT_BUTT] = {}; /* as the library's must read */
};

/* For a change of a module's settings. */
inline std::unique_lock<std::shared_mutex> holdExclusively(Module &module) {
    module.isWanted = true;
    std::unique_lock lock(module.settings);
    module.isWanted = false;
    module.isWanted.notify_all();
    return lock;
}

struct Tally {
    std::atomic<uint64_t> changes, steps, blocks, failedChecks, injected, found;
};
inline Tally tally;

class Worker {
public:
    Worker(Module &module, uint64_t seed) : module_(module), random_(seed) {
        volumes_.reserve(kVolumes);
        while (volumes_.size() < kVolumes)
            volumes_.emplace_back(random_);
    }

    /* One random piece of work on one random volume. */
    void step() {
        constexpr void (Worker::*kWork[])(Volume &) = {&Worker::write,     &Worker::move,     &Worker::spoil,
                                                       &Worker::spoil,     &Worker::trim,     &Worker::checkSome,
                                                       &Worker::checkSome, &Worker::checkSome};
        Volume &volume = volumes_[random_.from(0, kVolumes - 1)];
        const auto work = kWork[random_.from(0, std::size(kWork) - 1)];
        module_.isWanted.wait(true);
        const std::shared_lock lock(module_.settings);
        (this->*work)(volume);
        volume.verify();
        ++tally.steps;
    }

    /* Finds all faults that are left; the switch must be on and the module's level the highest. */
    void audit() {
        for (Volume &volume : volumes_)
            checkAll(volume, DIF_VERIFY_LEVEL_DEBUG);
    }

private:
    static bool isHidden(const Block &block) { return block.isHidden; }
    static bool isFaulty(const Block &block) { return block.fault != Fault::kNone; }

    /* New data, protected while DIF is on. Unprotected, it would be a fault. */
    void write(Volume &volume) {
        const Range range = volume.range(random_, kMaxRange);
        const bool isZero = random_.oneIn(8);
        if (std::any_of(range.blocks.begin(), range.blocks.end(), isHidden))
            return;
        for (Block &block : range.blocks) {
            for (uint32_t at = 0; module_.isOn && at < volume.dataSize; at += 8) {
                const uint64_t bytes = isZero ? 0 : random_.bits();
                std::memcpy(block.data + at, &bytes, sizeof bytes);
            }
        }
        DifOpParam op{volume.type + (isZero ? 1u : 0u), DIF_INSERT_CRC | DIF_INSERT_LBA, range.lba, nullptr};
        insertDifInSgl(volume.sgl, range.offsetByte, range.sectorNum, &op);
        require(op.lba == range.lba, "insertion did not restore the LBA");
        for (uint32_t i = 0; module_.isOn && i < range.count; ++i) {
            volume.takeGuard(range.blocks[i]);
            range.blocks[i].tuple[3] = 0;
            range.blocks[i].setLba(range.lba + i);
            range.blocks[i].fault = Fault::kNone;
        }
        tally.blocks += range.count;
    }

    /* Checked data to new LBAs, with or without new guards, in two passes that share out the blocks at random. */
    void move(Volume &volume) {
        const bool withGuard = random_.oneIn(2);
        const uint64_t lba = random_.oneIn(4) ? 0xFFFFFFF0 : random_.bits();
        const Range all = volume.range();
        checkAll(volume, DIF_VERIFY_LEVEL_CRITICAL);
        if (std::any_of(all.blocks.begin(), all.blocks.end(), isHidden))
            return;
        std::vector<uint32_t> bitmap((all.count + 31) / 32);
        std::generate(bitmap.begin(), bitmap.end(), [this] { return static_cast<uint32_t>(random_.bits()); });
        DifOpParam op{volume.type, DIF_REPLACE_LBA | (withGuard ? DIF_REPLACE_CRC : 0), lba, bitmap.data()};
        for (int pass = 0; pass < 2; ++pass) {
            replaceDifInSgl(volume.sgl, all.offsetByte, all.sectorNum, &op);
            require(op.lba == lba, "replacement did not restore the LBA");
            for (uint32_t i = 0; module_.isOn && i < all.count; ++i) {
                Block &block = all.blocks[i];
                if ((bitmap[i / 32] >> (i % 32) & 1) == 0)
                    continue;
                block.setLba(lba + i);
                if (withGuard)
                    volume.takeGuard(block);
                if (withGuard || block.fault == Fault::kLba)
                    block.fault = Fault::kNone;
            }
            volume.verify();
            std::transform(bitmap.begin(), bitmap.end(), bitmap.begin(), std::bit_not<>());
        }
        if (module_.isOn)
            volume.lba = lba;
        tally.blocks += all.count;
    }

    /* One fault into each of a few blocks that have none: a wrong version, LBA or guard, or data that lost some bits. */
    void spoil(Volume &volume) {
        constexpr uint8_t kUnknownVersions[] = {DIF_VERSION_INVALID, 0x01, 0x77, 0xFF};
        constexpr uint32_t kInjected[] = {0 /* the data */, DIF_INJECT_VERSION, DIF_INJECT_LBA, DIF_INJECT_CRC};
        const Range range = volume.range(random_, 3);
        if (std::any_of(range.blocks.begin(), range.blocks.end(), isFaulty))
            return;
        const uint32_t kind = random_.from(0, 3); /* if of a tuple's field, a Fault */
        DifInjectParam inject{volume.type, kInjected[kind], range.lba + random_.from(1, UINT32_MAX - 1), 0,
                              kUnknownVersions[random_.from(0, 3)]};
        const auto isRight = [&](const Block &block) { return inject.crc == volume.guard(block); };
        do
            inject.crc = static_cast<uint16_t>(random_.bits());
        while (std::any_of(range.blocks.begin(), range.blocks.end(), isRight));
        for (uint32_t i = 0; i < range.count; ++i) {
            Block &block = range.blocks[i];
            block.fault = kind == 0 ? Fault::kCrc : static_cast<Fault>(kind);
            block.isHidden = true;
            if (kInjected[kind] == DIF_INJECT_VERSION) {
                block.tuple[2] = inject.version;
            } else if (kInjected[kind] == DIF_INJECT_LBA) {
                block.setLba(inject.lba + i);
            } else if (kInjected[kind] == DIF_INJECT_CRC) {
                std::memcpy(block.tuple.data(), &inject.crc, sizeof inject.crc);
            } else {
                inject.crc = volume.guard(block);
                do /* half a CRC32C does not see the loss of every single bit */
                    block.data[random_.from(0, volume.dataSize - 1)] ^= static_cast<uint8_t>(1u << random_.from(0, 7));
                while (isRight(block));
            }
        }
        injectDifInSgl(volume.sgl, range.offsetByte, range.sectorNum, &inject);
        tally.injected += range.count;
    }

    /* Discards some blocks, which then are zeros behind an all-ones tuple, and trims all of a range. */
    void trim(Volume &volume) {
        const Range range = volume.range(random_, kMaxRange);
        for (Block &block : range.blocks) {
            if (!block.isHidden && random_.oneIn(2)) {
                std::memset(block.data, 0, volume.dataSize);
                std::memset(volume.tupleAt(block), 0xFF, sizeof(DifTuple));
                block.tuple = {};
                block.fault = Fault::kNone;
            }
        }
        DifCheckParam param{};
        param.type = volume.type;
        param.ctrlFlag = DIF_CHECK_TRIM_ZERO;
        require(checkDifInSgl(volume.sgl, range.offsetByte, range.sectorNum, &param, __func__, __LINE__) == DIF_OK,
                "the trim failed");
        tally.blocks += range.count;
    }

    void checkSome(Volume &volume) {
        constexpr uint32_t kAsked[] = {DIF_CHECK_CRC, DIF_CHECK_LBA, DIF_CHECK_CRC | DIF_CHECK_LBA};
        const auto any = [this](uint32_t low, uint32_t high) { return static_cast<uint8_t>(random_.from(low, high)); };
        check(volume, volume.range(random_, kMaxRange),
              kAsked[any(0, 2)] | (random_.oneIn(2) ? DIF_CHECK_ALL_BLOCKS : 0),
              any(DIF_VERIFY_LEVEL_CRITICAL, DIF_VERIFY_LEVEL_DEBUG),
              any(DIF_VERIFY_LEVEL_CRITICAL, DIF_VERIFY_LEVEL_DEBUG), any(1, kPoints));
    }

    void checkAll(Volume &volume, uint8_t level) {
        check(volume, volume.range(), DIF_CHECK_CRC | DIF_CHECK_LBA | DIF_CHECK_ALL_BLOCKS, level, level, 1);
    }

    struct Answer {
        uint32_t code, result, firstFailed;
        std::vector<uint32_t> failed; /* bitmap */
        bool operator==(const Answer &) const = default;
    };

    /* Checks on behalf of the module, against the answer that the faults in the range make for. */
    void check(Volume &volume, const Range &range, uint32_t flags, uint8_t crcLevel, uint8_t lbaLevel, uint8_t point) {
        constexpr uint32_t kResultBit[] = {0, DIF_RESULT_VERSION_ERROR, DIF_RESULT_LBA_ERROR, DIF_RESULT_CRC_ERROR};
        const bool crcOn = (flags & DIF_CHECK_CRC) != 0 && crcLevel <= module_.level;
        const bool lbaOn = (flags & DIF_CHECK_LBA) != 0 && lbaLevel <= module_.level;
        const bool allBlocks = (flags & DIF_CHECK_ALL_BLOCKS) != 0;
        const bool isSeen[] = {false, crcOn || lbaOn, lbaOn, crcOn}; /* by Fault */

        const std::vector<uint32_t> clear((range.count + 31) / 32);
        Answer expected{DIF_OK, module_.isOn ? 0 : DIF_RESULT_NOT_T10, DIF_ERR_BLOCK_NONE, clear};
        bool nonePassed = module_.isOn && allBlocks && (crcOn || lbaOn);
        for (uint32_t i = 0; module_.isOn && i < range.count; ++i) {
            const auto fault = static_cast<size_t>(range.blocks[i].fault);
            if (!isSeen[fault]) {
                nonePassed = false;
            } else if (allBlocks || expected.code == DIF_OK) {
                expected.code = DIF_ERR_CHECK;
                expected.result |= kResultBit[fault];
                expected.firstFailed = std::min(expected.firstFailed, i << volume.sectorShift);
                expected.failed[i / 32] |= 1u << (i % 32);
            }
        }
        for (uint32_t kind = DIF_STAT_VERSION_ERROR; kind < DIF_STAT_BUTT; ++kind)
            module_.counters[point - 1][kind] += (expected.result & kResultBit[kind]) != 0 ? 1 : 0;
        expected.result |= nonePassed ? DIF_RESULT_NONE_PASSED : 0;

        Answer answer{0, ~0u, 0, clear};
        DifCheckParam param{volume.type,        flags,          crcLevel,
                            lbaLevel,           module_.mid,    point,
                            range.lba,          &answer.result, answer.failed.data(),
                            &answer.firstFailed};
        const auto form = random_.oneIn(2) ? checkDifInSgl : checkDifInSglWithErrorReturn;
        answer.code = form(volume.sgl, range.offsetByte, range.sectorNum, &param, __func__, __LINE__);
        for (uint32_t i = 0; i < range.count; ++i) {
            if ((answer.failed[i / 32] >> (i % 32) & 1) != 0 && range.blocks[i].isHidden) {
                range.blocks[i].isHidden = false;
                ++tally.found;
            }
        }
        tally.failedChecks += answer.code != DIF_OK ? 1 : 0;
        tally.blocks += range.count;
        require(answer == expected, "a check missed a fault, or reported one that was not there");
        require(param.lba == range.lba && param.ctrlFlag == flags, "a check did not restore its record");
    }

    Module &module_;
    Random random_;
    std::vector<Volume> volumes_;
};

#endif
