/*
 * Sequences of calls of every operation over lists and buffers, malformed lists and refused arguments included, under a
 * host that says go on after every assertion. Every node, buffer and output is a heap block of exactly its size.
 */
#include "chain.h"
#include "fake_host.h"
#include "model.h"

#include <fuzzer/FuzzedDataProvider.h>

namespace {

class Caller {
public:
    explicit Caller(FuzzedDataProvider &data) : data_(data) {
        difModuleInit();
        const VerifyPointDesc points[] = {{1, "front"}, {2, "back"}};
        difRegistVerifyPoint(number<uint32_t>(0, 17), points, number<uint32_t>(0, 2), "fuzz", 1);
        setDifOn(number<uint8_t>(0, 3) != 0);
        setSysDifCrcVersion(data_.ConsumeBool() ? DIF_VERSION_T10 : DIF_VERSION_CRC32C);
        setSysDifVerifyLevel(number<uint8_t>(0, 5));
        host.filtered = number<uint32_t>(0, 127);
    }

    void call() {
        host.tick += number<uint32_t>(0, 200000);
        type_ = data_.PickValueInArray<uint32_t>({0, 2, 1, 3, 4, 0x80000000});
        info_ = infoOf(type_);
        isList_ = data_.ConsumeBool();
        lengths_ = {{}};
        if (isList_) {
            shapeList();
        } else {
            sectors_ = number<uint32_t>(0, 40);
            offset_ = 0;
            lengths_[0].push_back((sectors_ >> info_.sectorShift) * info_.blockSize);
        }
        const auto misalignment = number<uint32_t>(0, 7);
        std::vector<uint8_t> bytes = Chain(lengths_).bytes();
        fill(bytes);
        Chain chain(lengths_, bytes, misalignment);
        operate(number(0, 31) == 0 ? nullptr : chain.at(0));
        host.take();
    }

private:
    template <typename T>
    T number(T least, T most) {
        return data_.ConsumeIntegralInRange<T>(least, most);
    }

    void shapeList() {
        uint32_t total = 0;
        for (uint32_t left = number<uint32_t>(0, 8); left > 0; --left) {
            if (number(0, 2) == 0)
                lengths_.emplace_back();
            uint32_t length = number<uint32_t>(1, 3) * info_.blockSize;
            if (number(0, 5) == 0)
                length = number<uint32_t>(0, 3 * info_.blockSize);
            lengths_.back().push_back(length);
            total += length;
        }
        offset_ = number<uint32_t>(0, total / info_.blockSize + 1) * info_.blockSize;
        sectors_ = number<uint32_t>(0, total / 512 + 9);
        if (number(0, 5) == 0)
            offset_ = data_.ConsumeBool() ? number<uint32_t>(0, total) : ~number<uint32_t>(0, 9);
        if (number(0, 9) == 0)
            sectors_ = data_.ConsumeIntegral<uint32_t>();
    }

    /* Zeros or noise, and tuples of all kinds where right ones of the range belong. */
    void fill(std::vector<uint8_t> &bytes) {
        if (data_.ConsumeBool())
            Random(data_.ConsumeIntegral<uint8_t>()).fill(bytes.data(), bytes.size());
        DifOpParam op{type_ % 4, DIF_INSERT_CRC | DIF_INSERT_LBA, 0, nullptr};
        for (size_t at = offset_ % info_.blockSize; at + info_.blockSize <= bytes.size(); at += info_.blockSize) {
            insertDifInBlocks(&bytes[at], 1, &info_, &op);
            uint8_t *const tuple = &bytes[at + info_.difOffset];
            if (number(0, 3) == 0)
                memset(tuple, data_.ConsumeBool() ? 0xFF : 0, 8);
            if (number(0, 3) == 0)
                tuple[number(0, 7)] ^= data_.ConsumeIntegral<uint8_t>();
        }
    }

    void operate(const Sgl *sgl) {
        uint8_t *const buf = sgl == nullptr || lengths_[0].empty() ? nullptr : sgl->entries[0].buf;
        const bool noRecord = number(0, 31) == 0;
        uint32_t blocks = 0; /* that a call can reach, which is what its bitmap must cover */
        for (const auto &node : lengths_)
            for (const uint32_t length : node)
                blocks += length / info_.blockSize;
        std::vector<uint32_t> bitmap((std::min(blocks, sectors_ >> info_.sectorShift) + 31) / 32, 0x5A5A5A5A), word(1),
            index(1);
        const uint32_t flags = data_.ConsumeIntegral<uint32_t>();
        const uint64_t lba = data_.ConsumeIntegral<uint64_t>() >> (data_.ConsumeBool() ? 56 : 0);
        DifOpParam op{type_, flags, lba, data_.ConsumeBool() ? bitmap.data() : nullptr};
        DifInjectParam inject{type_, flags, lba, static_cast<uint16_t>(flags >> 8), static_cast<uint8_t>(lba)};
        DifCheckParam check{.type = type_,
                            .ctrlFlag = flags,
                            .crcLevel = number<uint8_t>(0, 5),
                            .lbaLevel = number<uint8_t>(0, 5),
                            .mid = number<uint8_t>(0, 17),
                            .subPid = number<uint8_t>(0, 3),
                            .lba = number(0, 3) == 0 ? 0 : lba,
                            .checkResult = data_.ConsumeBool() ? word.data() : nullptr,
                            .errBlockBitmap = data_.ConsumeBool() ? bitmap.data() : nullptr,
                            .errBlockIndex = data_.ConsumeBool() ? index.data() : nullptr};
        if (number(0, 7) == 0)
            check.ctrlFlag = DIF_CHECK_TRIM_ZERO;
        DifOpParam *const writing = noRecord ? nullptr : &op;
        DifInjectParam *const injecting = noRecord ? nullptr : &inject;
        DifCheckParam *const checking = noRecord ? nullptr : &check;
        const uint32_t small =
            info_.blockSize == 520 ? sectors_ : 0; /* for operations that know 520-byte blocks only */
        DifTuple tuple;
        uint64_t found = 0;
        const std::function<void()> calls[] = {
            [&] { insertDif(buf, sectors_, writing); },
            [&] { replaceDif(buf, sectors_, writing); },
            [&] { injectDif(buf, sectors_, injecting); },
            [&] { checkBuffer(buf, sectors_, checking); },
            [&] { noDifZeroDataCheck(buf, sectors_, &check); },
            [&] { noDifSetCheckResult(buf, sectors_, checking); },
            [&] { isDifEvictable(buf, small); },
            [&] { getDifLba(buf, small != 0 ? 520 : 0, noRecord ? nullptr : &found); },
            [&] { trans2LSectorDif(buf, small, noRecord ? nullptr : &tuple); },
            [&] { insertDifInSgl(sgl, offset_, sectors_, writing); },
            [&] { replaceDifInSgl(sgl, offset_, sectors_, writing); },
            [&] { injectDifInSgl(sgl, offset_, sectors_, injecting); },
            [&] { checkList(sgl, offset_, sectors_, checking); },
            [&] { noDifZeroDataCheckInSgl(sgl, offset_, sectors_, &check); },
            [&] { noDifSetCheckResultInSgl(sgl, offset_, sectors_, checking); },
            [&] { isDifEvictableInSgl(sgl, offset_, sectors_); },
            [&] { checkListReturning(sgl, offset_, sectors_, checking); },
            [&] { checkDifInSglWithStdT10(sgl, offset_, sectors_, checking); },
        };
        calls[number(0, 8) + (isList_ ? 9 : 0)]();
    }

    FuzzedDataProvider &data_;
    DifTypeInfo info_{};
    uint32_t type_ = 0, offset_ = 0, sectors_ = 0;
    bool isList_ = false;
    Lengths lengths_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    FuzzedDataProvider data(bytes, size);
    Caller caller(data);
    for (int i = 0; i < 8 && data.remaining_bytes() > 0; ++i)
        caller.call();
    return 0;
}
