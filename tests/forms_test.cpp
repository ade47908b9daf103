#include "chain.h"
#include "fake_host.h"
#include "model.h"

namespace {

/* A range of random blocks, in one buffer and in a random chain: every form of an operation against the model. */
class Forms : public StartedDif {
protected:
    template <typename Step>
    void repeat(Step step) {
        for (int i = 0; i < 2000 && !HasFailure(); ++i) {
            renew();
            SCOPED_TRACE(format("round %d: type %u, blocks %u to %u of %u, DIF %s, level %u", i, type, offset,
                                offset + count, blocks.count, isOn ? "on" : "off", level));
            step();
        }
    }

    /* A call over the range must make `want` of all the blocks. */
    template <typename Call>
    auto onBuffer(const Blocks &want, Call call) {
        const Lengths one{{static_cast<uint32_t>(blocks.bytes.size())}};
        return expect(want, one, [&](Chain &chain) { return call(chain.buffer(0) + start(), sectors); });
    }
    template <typename Call>
    auto onList(const Blocks &want, Call call) {
        return expect(want, lengths, [&](Chain &chain) { return call(chain.at(0), start(), sectors); });
    }

    bool allZero() {
        bool answer = true;
        for (uint32_t i = 0; i < count; ++i)
            answer = answer && blocks.isZero(offset + i);
        return answer;
    }

    Random random;
    bool isOn = true;
    uint8_t version = 0, level = 0;
    uint32_t type = 0, offset = 0, count = 0, sectors = 0; /* offset and count in blocks */
    uint64_t lba = 0;
    Blocks blocks{0, 0};
    Lengths lengths;

private:
    uint32_t start() const { return offset * blocks.info.blockSize; }

    template <typename Call>
    auto expect(const Blocks &want, const Lengths &shape, Call call) {
        Chain chain(shape, blocks.bytes, random.from(0, 8));
        host.take();
        host.later();
        const auto answer = call(chain);
        EXPECT_TRUE(chain.bytes() == want.bytes);
        return answer;
    }

    void renew() {
        type = random.of({0, 0, 0, 2});
        const uint32_t total = random.from(1, type == 0 ? 40 : 8);
        offset = random.from(0, total - 1);
        count = random.from(0, total - offset);
        blocks = Blocks(type, total, random.bits());
        sectors = (count << blocks.info.sectorShift) + random.from(0, (1u << blocks.info.sectorShift) - 1);
        lba = random.of<uint64_t>({0, 7, 0xFFFFFFFE, 0x100000005});
        lengths = randomLengths(random, total, blocks.info.blockSize);
        const bool mostlyZero = random.oneIn(3), allRight = random.oneIn(3);
        for (uint32_t k = 0; k < total; ++k)
            fillBlock(k, mostlyZero, allRight);
        setDifOn(isOn = !random.oneIn(8));
        setSysDifCrcVersion(version = random.of<uint8_t>({DIF_VERSION_T10, DIF_VERSION_CRC32C}));
        setSysDifVerifyLevel(level = random.of<uint8_t>({0, 1, 2, 3, 4, 255}));
    }

    void fillBlock(uint32_t k, bool mostlyZero, bool isRight) {
        if (mostlyZero || random.oneIn(3))
            blocks.zeroData(k);
        if (random.oneIn(mostlyZero ? 20 : 5))
            blocks.data(k)[random.from(0, blocks.info.dataSize - 1)] = 1;
        Tuple tuple = blocks.right(k, lba + k - offset, random.of<uint8_t>({0x13, 0x29}));
        if (!isRight) {
            tuple.version = random.of<uint8_t>({0x00, 0x13, 0x13, 0x13, 0x29, 0x29, 0x34, 0x1F, 0xFF});
            tuple.guard = random.oneIn(4) ? random.of<uint16_t>({0, 0xBAD}) : blocks.guard(k, tuple.version);
            tuple.app = random.of<uint8_t>({0, 1, 2, 2, 2, 3, 0xFF});
            tuple.lba += random.oneIn(5) ? 1 : 0;
        }
        blocks.set(k, !random.oneIn(8) ? tuple : random.oneIn(3) ? Tuple{} : kOnes);
    }
};

TEST_F(Forms, Writing) {
    repeat([&] {
        uint32_t bitmap[] = {static_cast<uint32_t>(random.bits()), static_cast<uint32_t>(random.bits())};
        const uint32_t flags = random.from(0, random.oneIn(2) ? 0x3FF : ~0u - 1), anyType = type + random.from(0, 1);
        const auto expect = [&](auto buffer, auto list, auto param, bool isDone, auto modelOf) {
            const auto before = param;
            Blocks want = blocks;
            for (uint32_t i = 0; i < (isDone ? count : 0); ++i)
                modelOf(want, offset + i, i, before);
            onBuffer(want, [&](auto... range) { return buffer(range..., &param), 0; });
            EXPECT_EQ(param.lba, lba);
            onList(want, [&](auto... range) { return list(range..., &param), 0; });
            EXPECT_EQ(param.lba, lba);
        };
        const DifOpParam op{anyType, flags, lba, random.oneIn(2) ? bitmap : nullptr};
        const DifInjectParam inject{anyType, flags, lba, 0x1234, 0x1F};
        expect(insertDif, insertDifInSgl, op, isOn, [&](auto &&...args) { modelInsert(args..., version); });
        expect(replaceDif, replaceDifInSgl, op, isOn, [&](auto &&...args) { modelReplace(args..., version); });
        expect(injectDif, injectDifInSgl, inject, true, modelInject);
    });
}

TEST_F(Forms, Checks) {
    enum Form { kBuffer, kList, kReturning };
    uint32_t failures = 0;
    const auto check = [&](Form form, DifCheckParam asked) {
        Check call(type, 0);
        asked.checkResult = random.oneIn(4) ? nullptr : &call.result;
        asked.errBlockIndex = random.oneIn(4) ? nullptr : &call.index;
        asked.errBlockBitmap = random.oneIn(4) ? nullptr : call.bitmap.data();
        call.param = asked;
        const auto has = [&](uint32_t flag) { return (asked.ctrlFlag & flag) != 0; };
        const bool isKnown = !has(DIF_CHECK_CRC | DIF_CHECK_LBA) || asked.subPid == 1 || asked.subPid == 2;

        CheckModel model(asked, level);
        Blocks want = blocks;
        const bool trimsOnly = isOn && form == kList && asked.ctrlFlag == DIF_CHECK_TRIM_ZERO;
        const bool isRefused = isOn && form == kReturning && (!isKnown || count == 0);
        if (isOn && !trimsOnly && !isRefused)
            model.run(want, offset, count);
        for (uint32_t i = 0; (trimsOnly || (!isOn && form != kBuffer && has(DIF_CHECK_TRIM_ZERO))) && i < count; ++i)
            modelTrim(want, offset + i);
        if (!isOn)
            model.result = DIF_RESULT_NOT_T10 | (has(DIF_CHECK_ZERO_DATA) && allZero() ? DIF_RESULT_ALL_ZERO : 0);
        if (isRefused)
            model.code = DIF_ERR_SGL;
        if (trimsOnly || isRefused)
            model.result = model.index = Check::kUntouched;

        difVerifyStatisticClean();
        const auto list = form == kList ? checkList : checkListReturning;
        EXPECT_EQ(form == kBuffer ? onBuffer(want, [&](auto... range) { return checkBuffer(range..., &call.param); })
                                  : onList(want, [&](auto... range) { return list(range..., &call.param); }),
                  model.code);
        EXPECT_EQ(memcmp(&asked, &call.param, sizeof asked), 0);
        EXPECT_EQ(call.result, asked.checkResult != nullptr ? model.result : Check::kUntouched);
        EXPECT_EQ(call.index, asked.errBlockIndex != nullptr ? model.index : Check::kUntouched);
        EXPECT_EQ(call.bitmap, asked.errBlockBitmap != nullptr ? model.bitmap : Check(0, 0).bitmap);
        std::array<uint64_t, DIF_STAT_BUTT> counters{};
        difVerifyStatisticGet(DIF_MID_CACHE, static_cast<uint8_t>(asked.subPid - 1), counters.data());
        EXPECT_TRUE(counters == model.counted() || asked.subPid == 0);
        const Lines events = host.take();
        const auto warnings = std::count_if(events.begin(), events.end(), [](const std::string &event) {
            return event.find("DIF_WARNING_CHECK_DIF:") != event.npos && event.find("HAVE BST") == event.npos;
        });
        EXPECT_EQ(warnings, model.code == DIF_ERR_CHECK ? 1 : 0);
        failures += model.code == DIF_ERR_CHECK ? 1 : 0;
    };
    repeat([&] {
        uint32_t flags = random.of({DIF_CHECK_CRC, DIF_CHECK_LBA, DIF_CHECK_CRC | DIF_CHECK_LBA, 0u, 0x2000000u});
        for (uint32_t bit = 18; bit < 28; ++bit)
            flags |= random.oneIn(4) ? 1u << bit : 0;
        flags = random.oneIn(10) ? DIF_CHECK_TRIM_ZERO : flags;
        const auto crcLevel = random.of<uint8_t>({0, 1, 2, 2, 3, 4, 5}), lbaLevel = random.of<uint8_t>({0, 1, 2, 3, 5});
        const auto point = random.of<uint8_t>({1, 1, 1, 1, 2, 2, 2, 2, 0, 3, 63, 64});
        SCOPED_TRACE(format("flags %x, levels %u %u, point %u", flags, crcLevel, lbaLevel, point));
        for (const Form form : {kBuffer, kList, kReturning})
            check(form, {type, flags, crcLevel, lbaLevel, DIF_MID_CACHE, point, lba, nullptr, nullptr, nullptr});
    });
    EXPECT_GT(failures, 300u); // the mix has both outcomes
}

TEST_F(Forms, Questions) {
    const auto runs = [&](auto ask) { // whether the answers about the range's blocks in every entry are true
        bool answer = true;
        uint32_t k = 0;
        for (const auto &node : lengths) {
            for (const uint32_t length : node) {
                const uint32_t from = std::max(k, offset), to = std::min(k += length / 520, offset + count);
                answer = answer && (from >= to || ask(blocks.data(from), to - from));
            }
        }
        return answer;
    };
    const auto stdT10Fault = [&](uint32_t flags, uint32_t i) {
        const Tuple tuple = blocks.tuple(offset + i);
        const bool isLbaWrong = tuple.lba != static_cast<uint32_t>(lba + i);
        const bool isCrcWrong = (flags & DIF_CHECK_CRC) != 0 && tuple.guard != blocks.guard(offset + i);
        return tuple.isExempt()                             ? 0
               : (flags & DIF_CHECK_LBA) != 0 && isLbaWrong ? DIF_RESULT_LBA_ERROR
               : isCrcWrong                                 ? DIF_RESULT_CRC_ERROR
                                                            : 0;
    };
    repeat([&] {
        for (uint32_t i = 0; i < (random.oneIn(2) ? count : 0); ++i)
            blocks.zeroData(offset + i);
        const uint32_t flags = random.of({DIF_CHECK_LBA, DIF_CHECK_CRC, DIF_CHECK_LBA | DIF_CHECK_CRC});
        Check call(type, flags, lba);
        const Blocks same = blocks;
        EXPECT_EQ(onBuffer(same, [&](auto... range) { return noDifZeroDataCheck(range..., &call.param); }), allZero());
        EXPECT_EQ(onList(same, [&](auto... range) { return noDifZeroDataCheckInSgl(range..., &call.param); }),
                  allZero());
        if (type == DIF_DATA_520) {
            EXPECT_EQ(onList(same, isDifEvictableInSgl), runs(isDifEvictable));
        }
        uint32_t result = 0;
        for (uint32_t i = 0; i < count && result == 0; ++i)
            result = stdT10Fault(flags, i);
        EXPECT_EQ(onList(same, [&](auto... range) { return checkDifInSglWithStdT10(range..., &call.param); }),
                  !isOn         ? DIF_OK
                  : count == 0  ? DIF_ERR_SGL
                  : result != 0 ? DIF_ERR_CHECK
                                : DIF_OK);
        EXPECT_EQ(call.result, isOn && count != 0 ? result : Check::kUntouched);
    });
}

} // namespace
