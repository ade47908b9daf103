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
        return expect(want, one, [&](Chain &chain) { return call(chain.buffer(0) + start()); });
    }
    template <typename Call>
    auto onList(const Blocks &want, Call call) {
        return expect(want, lengths, [&](Chain &chain) { return call(chain.at(0)); });
    }

    uint32_t start() const { return offset * blocks.info.blockSize; }

    /* Answers about the range. */
    bool allZero() {
        bool answer = true;
        for (uint32_t i = 0; i < count; ++i)
            answer = answer && blocks.isZero(offset + i);
        return answer;
    }
    bool isEvictable(uint32_t k, uint32_t number) {
        const Tuple first = blocks.tuple(k);
        bool hasBst = false;
        for (uint32_t i = 0; i < number; ++i)
            hasBst = hasBst || (blocks.tuple(k + i).app & DIF_APP_BST) != 0;
        return number == 0 || !hasBst || (first.version == 0xFF && first.app == 0xFF);
    }
    bool isEvictableByEntries() { /* an exempt tuple speaks for the blocks of its own entry */
        bool answer = true;
        uint32_t k = 0;
        for (const auto &node : lengths) {
            for (const uint32_t length : node) {
                const uint32_t from = std::max(k, offset), to = std::min(k += length / 520, offset + count);
                answer = answer && (from >= to || isEvictable(from, to - from));
            }
        }
        return answer;
    }
    uint32_t stdT10Fault(const DifCheckParam &asked, uint32_t i) {
        const Tuple tuple = blocks.tuple(offset + i);
        if (tuple.version == 0xFF && tuple.app == 0xFF)
            return 0;
        if ((asked.ctrlFlag & DIF_CHECK_LBA) != 0 && tuple.lba != static_cast<uint32_t>(lba + i))
            return DIF_RESULT_LBA_ERROR;
        return (asked.ctrlFlag & DIF_CHECK_CRC) != 0 && tuple.guard != blocks.guard(offset + i) ? DIF_RESULT_CRC_ERROR
                                                                                                : 0;
    }

    Random random;
    bool isOn = true;
    uint8_t version = 0, level = 0;
    uint32_t type = 0, offset = 0, count = 0, sectors = 0; /* offset and count in blocks */
    uint64_t lba = 0;
    Blocks blocks{0, 0};
    Lengths lengths;

private:
    template <typename Call>
    auto expect(const Blocks &want, const Lengths &shape, Call call) {
        Chain chain(shape, blocks.bytes, random.from(0, 8));
        host.take();
        host.later();
        auto answer = call(chain);
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
        const bool allZero = random.oneIn(3), allRight = random.oneIn(3);
        for (uint32_t k = 0; k < total; ++k)
            fillBlock(k, allZero, allRight);
        setDifOn(isOn = !random.oneIn(8));
        setSysDifCrcVersion(version = random.of<uint8_t>({DIF_VERSION_T10, DIF_VERSION_CRC32C}));
        setSysDifVerifyLevel(level = random.of<uint8_t>({0, 1, 2, 3, 4, 255}));
    }

    void fillBlock(uint32_t k, bool allZero, bool allRight) {
        if (allZero || random.oneIn(3))
            blocks.zeroData(k);
        if (random.oneIn(allZero ? 20 : 5))
            blocks.data(k)[random.from(0, blocks.info.dataSize - 1)] = 1;
        Tuple tuple = blocks.right(k, lba + k - offset, random.of<uint8_t>({0x13, 0x29}));
        if (!allRight) {
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
        uint32_t bitmap[] = {random.from(0, ~0u - 1), random.from(0, ~0u - 1)};
        const auto flags = random.from(0, random.oneIn(2) ? 0x3FF : ~0u - 1);
        const auto expect = [&](auto buffer, auto list, auto param, auto makeOf, bool isDone) {
            const auto before = param;
            Blocks want = blocks;
            for (uint32_t i = 0; i < (isDone ? count : 0); ++i)
                makeOf(want, offset + i, i, before);
            onBuffer(want, [&](uint8_t *buf) { return buffer(buf, sectors, &param), 0; });
            EXPECT_EQ(param.lba, lba);
            onList(want, [&](const Sgl *sgl) { return list(sgl, start(), sectors, &param), 0; });
            EXPECT_EQ(param.lba, lba);
        };
        const auto inserted = [&](auto &&...args) { modelInsert(args..., version); };
        const auto replaced = [&](auto &&...args) { modelReplace(args..., version); };
        const auto injected = [&](auto &&...args) { modelInject(args...); };
        const uint32_t anyType = type + random.from(0, 1);
        expect(insertDif, insertDifInSgl, DifOpParam{anyType, flags, lba, bitmap}, inserted, isOn);
        DifOpParam op{anyType, flags, lba, random.oneIn(2) ? bitmap : nullptr};
        expect(replaceDif, replaceDifInSgl, op, replaced, isOn);
        expect(injectDif, injectDifInSgl, DifInjectParam{anyType, flags, lba, 0x1234, 0x1F}, injected, true);
    });
}

TEST_F(Forms, Checks) {
    enum Form { kBuffer, kList, kReturning };
    uint32_t failures = 0;
    repeat([&] {
        uint32_t flags = random.of({DIF_CHECK_CRC, DIF_CHECK_LBA, DIF_CHECK_CRC | DIF_CHECK_LBA, 0u, 0x2000000u});
        for (uint32_t bit = 18; bit < 28; ++bit)
            flags |= random.oneIn(4) ? 1u << bit : 0;
        flags = random.oneIn(10) ? DIF_CHECK_TRIM_ZERO : flags;
        DifCheckParam asked{type, flags, 0, 0, DIF_MID_CACHE, 0, lba, nullptr, nullptr, nullptr};
        asked.crcLevel = random.of<uint8_t>({0, 1, 2, 2, 3, 4, 5});
        asked.lbaLevel = random.of<uint8_t>({0, 1, 2, 2, 3, 4, 5});
        asked.subPid = random.of<uint8_t>({1, 1, 1, 1, 2, 2, 2, 2, 0, 3, 63, 64});
        const bool isKnown = (flags & (DIF_CHECK_CRC | DIF_CHECK_LBA)) == 0 || asked.subPid == 1 || asked.subPid == 2;
        SCOPED_TRACE(format("flags %x, levels %u %u, point %u", flags, asked.crcLevel, asked.lbaLevel, asked.subPid));
        for (const Form form : {kBuffer, kList, kReturning}) {
            Check call(type, flags);
            call.param = asked;
            call.param.checkResult = random.oneIn(4) ? nullptr : &call.result;
            call.param.errBlockIndex = random.oneIn(4) ? nullptr : &call.index;
            call.param.errBlockBitmap = random.oneIn(4) ? nullptr : call.bitmap.data();
            const DifCheckParam before = call.param;

            Blocks want = blocks;
            CheckModel model(asked, level);
            const bool isTrimmed = form == kList ? flags == DIF_CHECK_TRIM_ZERO || !isOn : form == kReturning && !isOn;
            for (uint32_t i = 0; isTrimmed && (flags & DIF_CHECK_TRIM_ZERO) != 0 && i < count; ++i)
                modelTrim(want, offset + i);
            if (!isOn) {
                model.result = DIF_RESULT_NOT_T10;
                if ((flags & DIF_CHECK_ZERO_DATA) != 0 && allZero())
                    model.result |= DIF_RESULT_ALL_ZERO;
            } else if (form == kReturning && (!isKnown || count == 0)) {
                model.code = DIF_ERR_SGL;
                model.result = model.index = Check::kUntouched;
            } else if (isTrimmed) {
                model.result = model.index = Check::kUntouched;
            } else {
                model.run(want, offset, 0, count);
            }
            difVerifyStatisticClean();
            const auto list = [&](const Sgl *sgl) {
                const auto check = form == kList ? checkDifInSgl : checkDifInSglWithErrorReturn;
                return check(sgl, start(), sectors, &call.param, "caller", 42);
            };
            const auto buffer = [&](uint8_t *buf) { return checkDif(buf, sectors, &call.param, "caller", 42); };
            EXPECT_EQ(form == kBuffer ? onBuffer(want, buffer) : onList(want, list), model.code);

            EXPECT_EQ(memcmp(&before, &call.param, sizeof before), 0);
            EXPECT_EQ(call.result, before.checkResult != nullptr ? model.result : Check::kUntouched);
            EXPECT_EQ(call.index, before.errBlockIndex != nullptr ? model.index : Check::kUntouched);
            EXPECT_EQ(call.bitmap, before.errBlockBitmap != nullptr ? model.bitmap : Check(0, 0).bitmap);
            const uint32_t point = static_cast<uint8_t>(asked.subPid - 1);
            std::array<uint64_t, DIF_STAT_BUTT> counters{};
            difVerifyStatisticGet(DIF_MID_CACHE, point, counters.data());
            EXPECT_EQ(counters, point < DIF_VERIFY_POINT_MAX ? model.counted() : counters);
            const Lines events = host.take();
            const auto warnings = std::count_if(events.begin(), events.end(), [](const std::string &event) {
                return event.find("DIF_WARNING_CHECK_DIF:") != event.npos && event.find("HAVE BST") == event.npos;
            });
            EXPECT_EQ(warnings, model.code == DIF_ERR_CHECK ? 1 : 0);
            failures += model.code == DIF_ERR_CHECK ? 1 : 0;
        }
    });
    EXPECT_GT(failures, 300u); // the mix has both outcomes
}

TEST_F(Forms, Questions) {
    repeat([&] {
        for (uint32_t i = 0; i < (random.oneIn(2) ? count : 0); ++i)
            blocks.zeroData(offset + i);
        Check call(type, random.of({DIF_CHECK_LBA, DIF_CHECK_CRC, DIF_CHECK_LBA | DIF_CHECK_CRC}), lba);
        const Blocks same = blocks;
        EXPECT_EQ(onBuffer(same, [&](uint8_t *buf) { return noDifZeroDataCheck(buf, sectors, &call.param); }),
                  allZero());
        EXPECT_EQ(
            onList(same, [&](const Sgl *sgl) { return noDifZeroDataCheckInSgl(sgl, start(), sectors, &call.param); }),
            allZero());
        if (type == DIF_DATA_520) {
            EXPECT_EQ(onBuffer(same, [&](uint8_t *buf) { return isDifEvictable(buf, count); }),
                      !isOn || isEvictable(offset, count));
            EXPECT_EQ(onList(same, [&](const Sgl *sgl) { return isDifEvictableInSgl(sgl, start(), count); }),
                      !isOn || isEvictableByEntries());
        }
        uint32_t result = 0;
        for (uint32_t i = 0; isOn && i < count && result == 0; ++i)
            result = stdT10Fault(call.param, i);
        const uint32_t code = result != 0 ? DIF_ERR_CHECK : isOn && count == 0 ? DIF_ERR_SGL : DIF_OK;
        EXPECT_EQ(
            onList(same, [&](const Sgl *sgl) { return checkDifInSglWithStdT10(sgl, start(), sectors, &call.param); }),
            code);
        EXPECT_EQ(call.result, isOn && count != 0 ? result : Check::kUntouched);
    });
}

} // namespace
