/* Every form of an operation against the model, over a range of random blocks. */
#ifndef DIF_TESTS_TRIAL_H
#define DIF_TESTS_TRIAL_H

#include "chain.h"
#include "model.h"

#include <stdexcept>

inline void require(bool holds, const char *what) {
    if (!holds)
        throw std::runtime_error(what);
}

/* The calls find the range in one buffer or in a random chain. What is not as foreseen is an exception. */
struct Trial {
    enum Form { kBuffer, kList, kReturning };

    explicit Trial(Random &source) : random(source) {
        blocks = Blocks(random.of({0u, 0u, 0u, 2u}), random.from(1, random.oneIn(4) ? 40 : 8), random.engine());
        offset = random.from(0, blocks.count - 1);
        count = random.from(0, blocks.count - offset);
        sectors = (count << blocks.info.sectorShift) + random.from(0, (1u << blocks.info.sectorShift) - 1);
        lba = random.of<uint64_t>({0, 7, 0xFFFFFFFE, 0x100000005});
        lengths = randomLengths(random, blocks.count, blocks.info.blockSize);
        const bool mostlyZero = random.oneIn(3), allRight = random.oneIn(3);
        for (uint32_t k = 0; k < blocks.count; ++k)
            fillBlock(k, mostlyZero, allRight);
    }

    /* Insertion, replacement and injection, whichever version each block gets. While that may change, a version that is
     * written on its own need not be the guard's. */
    void write(bool isOn, uint32_t exceptFlags = 0) {
        uint32_t bitmap[] = {static_cast<uint32_t>(random.engine()), static_cast<uint32_t>(random.engine())};
        const uint32_t flags = random.from(0, random.oneIn(2) ? 0x3FF : ~0u - 1) & ~exceptFlags;
        const uint32_t type = blocks.type + random.from(0, 1);
        const DifOpParam op{type, flags, lba, random.oneIn(2) ? bitmap : nullptr};
        const DifInjectParam inject{type, flags, lba, 0x1234, 0x1F};
        expectWritten(insertDif, insertDifInSgl, op, isOn, modelInsert);
        expectWritten(replaceDif, replaceDifInSgl, op, isOn, modelReplace);
        expectWritten(injectDif, injectDifInSgl, inject, true, modelInject);
    }

    /* A random check on behalf of a module that has points 1 and 2. Returns the answer. */
    CheckModel check(Form form, bool isOn, uint8_t mid, uint8_t level) {
        uint32_t flags = random.of({DIF_CHECK_CRC, DIF_CHECK_LBA, DIF_CHECK_CRC | DIF_CHECK_LBA, 0u, 0x2000000u});
        for (uint32_t bit = 18; bit < 28; ++bit)
            flags |= random.oneIn(4) ? 1u << bit : 0;
        Check call(blocks.type, random.oneIn(10) ? DIF_CHECK_TRIM_ZERO : flags, lba);
        call.param.crcLevel = random.of<uint8_t>({0, 1, 2, 2, 3, 4, 5});
        call.param.lbaLevel = random.of<uint8_t>({0, 1, 2, 2, 3, 4, 5});
        call.param.mid = mid;
        call.param.subPid = random.of<uint8_t>({1, 1, 1, 1, 2, 2, 2, 2, 0, 3, 63, 64});
        call.param.checkResult = random.oneIn(4) ? nullptr : &call.result;
        call.param.errBlockIndex = random.oneIn(4) ? nullptr : &call.index;
        call.param.errBlockBitmap = random.oneIn(4) ? nullptr : call.bitmap.data();
        const DifCheckParam asked = call.param;
        Blocks want = blocks;
        const CheckModel model = answer(form, isOn, level, asked, want);
        Chain chain = newChain(form != kBuffer);
        const uint32_t code = form == kBuffer ? checkBuffer(chain.buffer(0) + start(), sectors, &call.param)
                              : form == kList ? checkList(chain.at(0), start(), sectors, &call.param)
                                              : checkListReturning(chain.at(0), start(), sectors, &call.param);
        require(code == model.code, "a check has the wrong answer");
        require(memcmp(&asked, &call.param, sizeof asked) == 0, "a check has not put its record back");
        require(asked.checkResult == nullptr || call.result == model.result, "a check has the wrong result");
        require(asked.errBlockIndex == nullptr || call.index == model.index, "a check has the wrong index");
        require(asked.errBlockBitmap == nullptr || call.bitmap == model.bitmap, "a check has the wrong bitmap");
        require(chain.bytes() == want.bytes, "a check leaves the wrong blocks");
        return model;
    }

    /* The questions that change nothing. */
    void ask(bool isOn) {
        for (uint32_t i = 0; i < (random.oneIn(2) ? count : 0); ++i)
            blocks.zeroData(offset + i);
        Chain buffer = newChain(false), chain = newChain(true);
        Check call(blocks.type, random.of({DIF_CHECK_LBA, DIF_CHECK_CRC, DIF_CHECK_LBA | DIF_CHECK_CRC}), lba);
        const DifCheckParam &param = call.param;
        require(noDifZeroDataCheck(buffer.buffer(0) + start(), sectors, &param) == isZero(), "not so many zeros");
        require(noDifZeroDataCheckInSgl(chain.at(0), start(), sectors, &param) == isZero(),
                "not so many zeros in a list");
        const uint32_t code = checkDifInSglWithStdT10(chain.at(0), start(), sectors, &param);
        const uint32_t fault = stdT10Fault(param.ctrlFlag);
        require(code == (!isOn        ? DIF_OK
                         : count == 0 ? DIF_ERR_SGL
                         : fault != 0 ? DIF_ERR_CHECK
                                      : DIF_OK) &&
                    call.result == (isOn && count != 0 ? fault : Check::kUntouched),
                "a check of plain T10 tuples has the wrong answer");
        require(buffer.bytes() == blocks.bytes && chain.bytes() == blocks.bytes, "a question changes blocks");
    }

    Random &random;
    Blocks blocks{0, 0};
    uint32_t offset, count, sectors; /* offset and count in blocks */
    uint64_t lba;
    Lengths lengths;

private:
    uint32_t start() const { return offset * blocks.info.blockSize; }

    Chain newChain(bool isList) {
        const Lengths one{{static_cast<uint32_t>(blocks.bytes.size())}};
        return Chain(isList ? lengths : one, blocks.bytes, random.from(0, 8));
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

    template <typename Buffer, typename List, typename Param, typename Model>
    void expectWritten(Buffer buffer, List list, Param param, bool isDone, Model model) {
        const Param before = param;
        for (const bool isList : {false, true}) {
            Chain chain = newChain(isList);
            if (isList)
                list(chain.at(0), start(), sectors, &param);
            else
                buffer(chain.buffer(0) + start(), sectors, &param);
            require(param.lba == lba, "an operation has not put the LBA back");
            const std::vector<uint8_t> bytes = chain.bytes();
            Blocks want = blocks;
            for (uint32_t i = 0; isDone && i < count; ++i) {
                const uint32_t k = offset + i;
                const uint8_t *const written = &bytes[size_t{k} * want.info.blockSize + want.info.difOffset];
                for (const uint8_t version : Bytes{DIF_VERSION_T10, DIF_VERSION_CRC32C}) {
                    want.set(k, blocks.tuple(k));
                    model(want, k, i, before, version);
                    if (want.tuple(k) == tupleAt(written))
                        break;
                }
            }
            require(bytes == want.bytes, "an operation has written the wrong blocks");
        }
    }

    CheckModel answer(Form form, bool isOn, uint8_t level, const DifCheckParam &asked, Blocks &want) {
        const auto has = [&](uint32_t flag) { return (asked.ctrlFlag & flag) != 0; };
        const bool isKnown = !has(DIF_CHECK_CRC | DIF_CHECK_LBA) || asked.subPid == 1 || asked.subPid == 2;
        const bool trimsOnly = isOn && form == kList && asked.ctrlFlag == DIF_CHECK_TRIM_ZERO;
        const bool isRefused = isOn && form == kReturning && (!isKnown || count == 0);
        CheckModel model(asked, level);
        if (isOn && !trimsOnly && !isRefused)
            model.run(want, offset, count);
        for (uint32_t i = 0; (trimsOnly || (!isOn && form != kBuffer && has(DIF_CHECK_TRIM_ZERO))) && i < count; ++i)
            modelTrim(want, offset + i);
        if (!isOn)
            model.result = DIF_RESULT_NOT_T10 | (has(DIF_CHECK_ZERO_DATA) && isZero() ? DIF_RESULT_ALL_ZERO : 0);
        if (isRefused)
            model.code = DIF_ERR_SGL;
        if (trimsOnly || isRefused)
            model.result = model.index = Check::kUntouched;
        return model;
    }

    bool isZero() {
        bool answer = true;
        for (uint32_t i = 0; i < count; ++i)
            answer = answer && blocks.isZero(offset + i);
        return answer;
    }

    uint32_t stdT10Fault(uint32_t flags) {
        for (uint32_t i = 0; i < count; ++i) {
            const Tuple tuple = blocks.tuple(offset + i);
            if (tuple.isExempt())
                continue;
            if ((flags & DIF_CHECK_LBA) != 0 && tuple.lba != static_cast<uint32_t>(lba + i))
                return DIF_RESULT_LBA_ERROR;
            if ((flags & DIF_CHECK_CRC) != 0 && tuple.guard != blocks.guard(offset + i))
                return DIF_RESULT_CRC_ERROR;
        }
        return 0;
    }
};

#endif
