#include "blocks.h"
#include "chain.h"

namespace {

/* What a call left behind. */
struct Outcome {
    uint32_t ret = 0, result = 0x5A5A5A5A, index = 0x5A5A5A5A;
    std::array<uint32_t, 2> bitmap{0x80000001, 0};
    std::array<uint64_t, DIF_STAT_BUTT> counters{};
    std::vector<uint8_t> bytes;
};

void expectSame(const Outcome &one, const Outcome &other) {
    const auto numbers = [](const Outcome &o) { return std::tie(o.ret, o.result, o.index, o.bitmap, o.counters); };
    EXPECT_EQ(numbers(one), numbers(other));
    EXPECT_TRUE(one.bytes == other.bytes);
}

/* A range of random blocks, contiguous and in a random chain, with some blocks around it. */
class Twins : public StartedDif {
protected:
    template <typename Step>
    void repeat(Step step) {
        for (int i = 0; i < 2000 && !HasFailure(); ++i) {
            renew();
            SCOPED_TRACE(format("call %d: type %u, blocks %u to %u, DIF %s", i, type, offset, offset + count,
                                isOn ? "on" : "off"));
            step();
            host.take();
        }
    }

    /* One call of each form on equal data. */
    template <typename Param, typename Contiguous, typename List>
    std::pair<Outcome, Outcome> both(Param &param, Contiguous contiguous, List list) {
        Blocks work = blocks;
        Outcome one = observe(param, [&] { return contiguous(work.data(offset)); });
        one.bytes = work.bytes;
        Chain chain(lengths);
        chain.fill(blocks.bytes);
        Outcome other = observe(param, [&] { return list(chain.at(0)); });
        other.bytes = chain.bytes();
        return {one, other};
    }

    uint32_t start() const { return offset * blocks.info.blockSize; }

    Random random;
    bool isOn = true;
    uint32_t type = 0, offset = 0, count = 0, sectors = 0; // offset and count in blocks
    uint64_t lba = 0;
    Blocks blocks{0, 0};
    Lengths lengths;

private:
    void renew() {
        type = random.below(DIF_DATA_BUTT);
        const uint32_t total = 1 + random.below(type < 2 ? 40 : 8);
        offset = random.below(total);
        count = random.below(total - offset + 1);
        blocks = Blocks(type, total, random.below(1000000));
        sectors = (count << blocks.info.sectorShift) + random.below(1u << blocks.info.sectorShift);
        lba = random.oneIn(2) ? random.below(10) : 0xFFFFFFFFu - random.below(4);
        lengths = {{}};
        for (uint32_t k = 0, n; k < total; k += n) {
            if (!lengths.back().empty() && random.oneIn(3))
                lengths.emplace_back();
            n = 1 + random.below(std::min(total - k, random.of({1, 3, 16})));
            lengths.back().push_back(n * blocks.info.blockSize);
        }
        for (uint32_t k = 0; k < total; ++k)
            protect(k);
        isOn = !random.oneIn(8);
        setDifOn(isOn);
        setSysDifVerifyLevel(static_cast<uint8_t>(random.below(5)));
    }

    /* A right tuple of either version for most blocks. */
    void protect(uint32_t k) {
        DifOpParam op{type, DIF_INSERT_CRC | (random.oneIn(5) ? 0 : DIF_INSERT_LBA), lba + k - offset, nullptr};
        if (random.oneIn(4) || (type & 1) != 0)
            blocks.zeroData(k);
        setSysDifCrcVersion(static_cast<uint8_t>(random.of({DIF_VERSION_T10, DIF_VERSION_CRC32C})));
        insertDifInBlocks(blocks.data(k), 1, &blocks.info, &op);
        uint8_t *const tuple = blocks.tuple(k);
        const uint32_t how = random.below(24);
        if (how < 2)
            tuple[random.below(8)] ^= static_cast<uint8_t>(1 << random.below(8));
        else if (how < 5)
            memset(tuple, 0xFF, how < 4 ? 8 : 4);
        else if (how == 5)
            tuple[2] = static_cast<uint8_t>(random.of({0x00, 0x13, 0x29, 0x34, 0x1F, 0xFF}));
        else if (how == 6)
            tuple[3] |= DIF_APP_BST;
    }

    template <typename Param, typename Call>
    Outcome observe(Param &param, Call call) {
        Outcome outcome;
        if constexpr (std::is_same_v<Param, DifCheckParam>) {
            param.checkResult = param.checkResult != nullptr ? &outcome.result : nullptr;
            param.errBlockIndex = param.errBlockIndex != nullptr ? &outcome.index : nullptr;
            param.errBlockBitmap = param.errBlockBitmap != nullptr ? outcome.bitmap.data() : nullptr;
        }
        const Param before = param;
        difVerifyStatisticClean();
        outcome.ret = call();
        EXPECT_EQ(memcmp(&before, &param, offsetof(Param, lba) + sizeof param.lba), 0); // the record is put back
        if constexpr (std::is_same_v<Param, DifCheckParam>) {
            EXPECT_EQ(param.checkResult, before.checkResult);
            difVerifyStatisticGet(param.mid, static_cast<uint8_t>(param.subPid - 1), outcome.counters.data());
        }
        return outcome;
    }
};

TEST_F(Twins, Writing) {
    repeat([&] {
        const auto same = [&](auto contiguous, auto list, auto param) {
            const auto [one, other] = both(
                param, [&](uint8_t *buf) { return contiguous(buf, sectors, &param), 0u; },
                [&](const Sgl *sgl) { return list(sgl, start(), sectors, &param), 0u; });
            expectSame(one, other);
        };
        uint32_t bitmap[] = {random.below(~0u), random.below(~0u)};
        const uint32_t flags = random.below(0x400);
        same(insertDif, insertDifInSgl, DifOpParam{type, flags, lba, bitmap});
        same(replaceDif, replaceDifInSgl, DifOpParam{type, flags, lba, random.oneIn(2) ? bitmap : nullptr});
        same(injectDif, injectDifInSgl, DifInjectParam{type, flags, lba, static_cast<uint16_t>(flags * 77), 0x1F});
    });
}

TEST_F(Twins, Checks) {
    repeat([&] {
        uint32_t flags = (random.below(~0u) & random.below(~0u) & 0xF7F0000u) | random.of({0, DIF_CHECK_ALL_BLOCKS});
        flags |= random.of({DIF_CHECK_CRC, DIF_CHECK_LBA, DIF_CHECK_CRC | DIF_CHECK_LBA, DIF_CHECK_REPORT_MASK, 0});
        if (flags == DIF_CHECK_TRIM_ZERO) // with nothing else asked, only lists are trimmed as a whole
            flags = 0;
        const uint32_t checkType = isOn && random.oneIn(12) ? type : type & 2;
        Check call(checkType, flags, lba);
        DifCheckParam &param = call.param;
        param.crcLevel = static_cast<uint8_t>(random.below(5));
        param.lbaLevel = static_cast<uint8_t>(random.below(5));
        param.mid = static_cast<uint8_t>(random.of({DIF_MID_CACHE, DIF_MID_CACHE, DIF_MID_CACHE, DIF_MID_POOL}));
        param.subPid = static_cast<uint8_t>(random.of({0, 1, 1, 1, 2, 2, 2, 3}));
        for (uint32_t **output : {&param.checkResult, &param.errBlockIndex, &param.errBlockBitmap})
            *output = random.oneIn(4) ? nullptr : *output;
        SCOPED_TRACE(format("flags %x, mid %u, point %u", flags, param.mid, param.subPid));

        const Blocks before = blocks;
        const auto contiguous = [&](uint8_t *buf) { return checkDif(buf, sectors, &param, "caller", 42); };
        const auto list = [&](decltype(checkDifInSgl) *op) {
            return [=, this, &param](const Sgl *sgl) { return op(sgl, start(), sectors, &param, "caller", 42); };
        };
        auto [one, other] = both(param, contiguous, list(checkDifInSgl));
        if (!isOn && (flags & DIF_CHECK_TRIM_ZERO) != 0) { // only lists are trimmed then
            for (uint32_t k = offset; k < offset + count; ++k) {
                if (std::all_of(blocks.data(k), blocks.data(k) + blocks.info.dataSize,
                                [](uint8_t b) { return b == 0; }) &&
                    std::all_of(blocks.tuple(k), blocks.tuple(k) + 8, [](uint8_t b) { return b == 0xFF; }))
                    memset(&one.bytes[start() + (k - offset) * blocks.info.blockSize + blocks.info.difOffset], 0, 8);
            }
        }
        expectSame(one, other);

        const bool isKnown = (flags & (DIF_CHECK_CRC | DIF_CHECK_LBA)) == 0 ||
                             (param.mid == DIF_MID_CACHE && param.subPid != 0 && param.subPid <= 2);
        if (isOn && (!isKnown || (checkType & 1) != 0 || count == 0)) {
            one = Outcome{};
            one.ret = DIF_ERR_SGL;
            one.bytes = blocks.bytes;
        }
        expectSame(one, both(param, contiguous, list(checkDifInSglWithErrorReturn)).second);
    });
}

TEST_F(Twins, Questions) {
    repeat([&] {
        if (random.oneIn(2)) { // zeros, but for a byte at times
            for (uint32_t k = offset; k < offset + count; ++k)
                blocks.zeroData(k);
            blocks.bytes[random.below(static_cast<uint32_t>(blocks.bytes.size()))] = random.oneIn(2);
        }
        Check call(type & 2, random.of({0, DIF_CHECK_ZERO_DATA}), lba);
        DifCheckParam &param = call.param;
        const auto same = [&](auto contiguous, auto list) {
            const auto [one, other] = both(param, contiguous, list);
            expectSame(one, other);
        };
        same([&](uint8_t *buf) { return noDifZeroDataCheck(buf, sectors, &param); },
             [&](const Sgl *sgl) { return noDifZeroDataCheckInSgl(sgl, start(), sectors, &param); });
        same([&](uint8_t *buf) { return noDifSetCheckResult(buf, sectors, &param), 0u; },
             [&](const Sgl *sgl) { return noDifSetCheckResultInSgl(sgl, start(), sectors, &param), 0u; });
        if (type < 2) {
            const auto byEntries = [&](uint8_t *) { // an exempt tuple speaks for the blocks of its own entry
                bool answer = true;
                uint32_t k = 0;
                for (const auto &node : lengths) {
                    for (const uint32_t length : node) {
                        const uint32_t from = std::max(k, offset), to = std::min(k += length / 520, offset + count);
                        answer = answer && (from >= to || isDifEvictable(blocks.data(from), to - from));
                    }
                }
                return answer;
            };
            same(byEntries, [&](const Sgl *sgl) { return isDifEvictableInSgl(sgl, start(), sectors); });
        }
        param.ctrlFlag = random.of({DIF_CHECK_LBA, DIF_CHECK_CRC, DIF_CHECK_LBA | DIF_CHECK_CRC});
        const auto oneEntry = [&](uint8_t *) {
            Chain chain(Lengths{{static_cast<uint32_t>(blocks.bytes.size())}});
            chain.fill(blocks.bytes);
            return checkDifInSglWithStdT10(chain.at(0), start(), sectors, &param);
        };
        same(oneEntry, [&](const Sgl *sgl) { return checkDifInSglWithStdT10(sgl, start(), sectors, &param); });
    });
}

} // namespace
