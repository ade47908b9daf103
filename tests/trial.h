/* Every form of an operation against the model, over a range of random blocks. */
#pragma once

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

    /* Insertion, replacement and injection, while the system's version may be any of these. If there are more, one that
     * is written on its own need not be the guard's. */
    void write(bool isOn, Bytes versions) {
        uint32_t bitmap[] = {random.from(0, ~0u - 1), random.from(0, ~0u - 1)};
        const uint32_t flags =
            random.from(0, random.oneIn(2) ? 0x3FF : ~0u - 1) & ~(versions.size() > 1 ? DIF_REPLACE_VERSION : 0);
        const uint32_t type = blocks.type + random.from(0, 1);
        const DifOpParam op{type, flags, lba, random.oneIn(2) ? bitmap : nullptr};
        const DifInjectParam inject{type, flags, lba, 0x1234, 0x1F};
        expectWritten(insertDif, insertDifInSgl, op, isOn ? versions : Bytes{}, modelInsert);
        expectWritten(replaceDif, replaceDifInSgl, op, isOn ? versions : Bytes{}, modelReplace);
        expectWritten(injectDif, injectDifInSgl, inject, versions, modelInject);
    }

    /* Makes a check any check of a module. */
    void vary(DifCheckParam &param, uint32_t mid) {
        param.mid = static_cast<uint8_t>(mid);
        param.subPid = random.of<uint8_t>({1, 1, 1, 1, 2, 2, 2, 2, 0, 3, 63, 64});
        param.ctrlFlag = random.of({DIF_CHECK_CRC, DIF_CHECK_LBA, DIF_CHECK_CRC | DIF_CHECK_LBA, 0u, 0x2000000u});
        for (uint32_t bit = 18; bit < 28; ++bit)
            param.ctrlFlag |= random.oneIn(4) ? 1u << bit : 0;
        param.ctrlFlag = random.oneIn(10) ? DIF_CHECK_TRIM_ZERO : param.ctrlFlag;
        for (uint8_t *level : {&param.crcLevel, &param.lbaLevel})
            *level = random.of<uint8_t>({0, 1, 2, 2, 3, 4, 5});
        for (uint32_t **output : {&param.checkResult, &param.errBlockIndex, &param.errBlockBitmap})
            *output = random.oneIn(4) ? nullptr : *output;
    }

    /* Any check on behalf of a module that has points 1 and 2. Returns the answer. */
    CheckModel check(Form form, bool isOn, uint8_t mid, uint8_t level) {
        Check call(blocks.type, 0, lba);
        vary(call.param, mid);
        const DifCheckParam asked = call.param;
        Blocks want = blocks;
        const auto has = [&](uint32_t flag) { return (asked.ctrlFlag & flag) != 0; };
        const bool isKnown = !has(DIF_CHECK_CRC | DIF_CHECK_LBA) || asked.subPid == 1 || asked.subPid == 2;
        const bool trimsOnly = isOn && form == kList && asked.ctrlFlag == DIF_CHECK_TRIM_ZERO;
        const bool isRefused = isOn && form == kReturning && (!isKnown || count == 0);
        const bool isZero = allOf([&](uint32_t k) { return blocks.isZero(k); });
        CheckModel model(asked, level);
        if (isOn && !trimsOnly && !isRefused)
            model.run(want, offset, count);
        else if (!isOn)
            model.result = DIF_RESULT_NOT_T10 | (has(DIF_CHECK_ZERO_DATA) && isZero ? DIF_RESULT_ALL_ZERO : 0);
        else
            model.result = model.index = Check::kUntouched;
        for (uint32_t i = 0; (trimsOnly || (!isOn && form != kBuffer && has(DIF_CHECK_TRIM_ZERO))) && i < count; ++i)
            modelTrim(want, offset + i);
        if (isRefused)
            model.code = DIF_ERR_SGL;
        Chain chain = newChain(form != kBuffer);
        const uint32_t code = form == kBuffer ? checkBuffer(chain.buffer(0) + start(), sectors, &call.param)
                              : form == kList ? checkList(chain.at(0), start(), sectors, &call.param)
                                              : checkListReturning(chain.at(0), start(), sectors, &call.param);
        require(code == model.code, "a check has the wrong answer");
        require(memcmp(&asked, &call.param, sizeof asked) == 0, "a check has not put its record back");
        require((asked.checkResult == nullptr || call.result == model.result) &&
                    (asked.errBlockIndex == nullptr || call.index == model.index) &&
                    (asked.errBlockBitmap == nullptr || call.bitmap == model.bitmap),
                "a check has the wrong outputs");
        require(chain.bytes() == want.bytes, "a check leaves the wrong blocks");
        return model;
    }

    /* The questions that change nothing. */
    void ask(bool isOn) {
        const bool isZero = allOf([&](uint32_t k) { return blocks.isZero(k); });
        const bool isFree = !isOn || allOf([&](uint32_t k) { return (blocks.tuple(k).app & DIF_APP_BST) == 0; });
        const bool isExemptFree = allOf([&](uint32_t k) { return !blocks.tuple(k).isExempt(); });
        Chain buffer = newChain(false), chain = newChain(true);
        Check call(blocks.type, random.of({DIF_CHECK_LBA, DIF_CHECK_CRC, DIF_CHECK_LBA | DIF_CHECK_CRC}), lba);
        require(noDifZeroDataCheck(buffer.buffer(0) + start(), sectors, &call.param) == isZero &&
                    noDifZeroDataCheckInSgl(chain.at(0), start(), sectors, &call.param) == isZero,
                "not so many zeros");
        const uint32_t code = checkDifInSglWithStdT10(chain.at(0), start(), sectors, &call.param);
        CheckModel model(call.param, 4);
        Blocks plain = blocks;
        for (uint32_t k = offset; k < offset + count; ++k)
            if (!plain.tuple(k).isExempt())
                plain.set(k, {plain.tuple(k).guard, DIF_VERSION_T10, DIF_APP_LBA_VALID, plain.tuple(k).lba});
        model.run(plain, offset, isOn ? count : 0);
        require(code == (isOn && count == 0 ? DIF_ERR_SGL : model.code) &&
                    call.result == (isOn && count != 0 ? model.result : Check::kUntouched),
                "a check of plain T10 tuples has the wrong answer");
        if (blocks.type == DIF_DATA_520 && count != 0) { /* an exempt tuple speaks for those behind it */
            require(isDifEvictable(buffer.buffer(0) + start(), count) == (isFree || blocks.tuple(offset).isExempt()) &&
                        (!isExemptFree || isDifEvictableInSgl(chain.at(0), start(), count) == isFree),
                    "the wrong blocks are evictable");
        }
        require(buffer.bytes() == blocks.bytes && chain.bytes() == blocks.bytes, "a question changes blocks");
    }

    uint32_t start() const { return offset * blocks.info.blockSize; }

    Random &random;
    Blocks blocks{0, 0};
    uint32_t offset, count, sectors; /* offset and count in blocks */
    uint64_t lba;
    Lengths lengths;

private:
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
    void expectWritten(Buffer buffer, List list, Param param, Bytes versions, Model model) {
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
            for (uint32_t k = offset; k < offset + count; ++k) {
                const Tuple written = tupleAt(&bytes[size_t{k} * want.info.blockSize + want.info.difOffset]);
                for (const uint8_t version : versions) {
                    want.set(k, blocks.tuple(k));
                    model(want, k, k - offset, before, version);
                    if (want.tuple(k) == written)
                        break;
                }
            }
            require(bytes == want.bytes, "an operation has written the wrong blocks");
        }
    }

    template <typename Property>
    bool allOf(Property property) {
        uint32_t number = 0;
        for (uint32_t k = offset; k < offset + count; ++k)
            number += property(k) ? 1 : 0;
        return number == count;
    }
};
