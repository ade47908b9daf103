/*
 * Sequences of calls of every operation over lists and buffers, malformed lists and refused arguments included, under a
 * host that says go on after every assertion. Every node, buffer and output is a heap block of exactly its size. After
 * each call the caller's record must be as it was, and no byte outside the range's DIF areas may have changed.
 */
#include "chain.h"
#include "fake_host.h"

#include <cstring>
#include <fuzzer/FuzzedDataProvider.h>
#include <random>

/* The hardware engine, in code that the sanitizers see through. */
extern "C" uint16_t crc16_t10dif(uint16_t seed, const uint8_t *buf, uint64_t len) {
    return calcT10DifCrcByTable(seed, buf, len);
}

namespace {

#define REQUIRE(condition) ((condition) ? void() : (fprintf(stderr, "not so: %s\n", #condition), __builtin_trap()))

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
        blockSize_ = (type_ & 2) != 0 ? 4160 : 520;
        isList_ = data_.ConsumeBool();
        lengths_ = {{}};
        if (isList_) {
            shapeList();
        } else {
            sectors_ = number<uint32_t>(0, 40);
            offset_ = 0;
            lengths_[0].push_back((sectors_ >> (blockSize_ == 520 ? 0 : 3)) * blockSize_);
        }
        Chain chain(lengths_, number<uint32_t>(0, 7));
        std::vector<uint8_t> before = chain.bytes();
        fill(before);
        chain.fill(before);
        operate(data_.ConsumeIntegralInRange(0, 31) == 0 ? nullptr : chain.at(0));
        requireDataKept(before, chain.bytes());
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
            uint32_t length = number<uint32_t>(1, 3) * blockSize_;
            if (number(0, 5) == 0)
                length = number<uint32_t>(0, 3 * blockSize_);
            lengths_.back().push_back(length);
            total += length;
        }
        const uint32_t blocks = number<uint32_t>(0, total / blockSize_ + 1);
        offset_ = blocks * blockSize_;
        sectors_ = number<uint32_t>(0, total / 512 + 9);
        if (number(0, 5) == 0)
            offset_ = data_.ConsumeBool() ? number<uint32_t>(0, total) : ~number<uint32_t>(0, 9);
        if (number(0, 9) == 0)
            sectors_ = data_.ConsumeIntegral<uint32_t>();
    }

    /* Zeros or noise, and tuples of all kinds where right ones of the range belong. */
    void fill(std::vector<uint8_t> &bytes) {
        if (data_.ConsumeBool())
            std::generate(bytes.begin(), bytes.end(), std::minstd_rand(data_.ConsumeIntegral<uint8_t>()));
        DifOpParam op{type_ % 4, DIF_INSERT_CRC | DIF_INSERT_LBA, 0, nullptr};
        const DifTypeInfo info{blockSize_, dataSize(), 0, dataSize()};
        for (size_t at = offset_ % blockSize_; at + blockSize_ <= bytes.size(); at += blockSize_) {
            insertDifInBlocks(&bytes[at], 1, &info, &op);
            uint8_t *const tuple = &bytes[at + info.difOffset];
            if (number(0, 3) == 0)
                memset(tuple, data_.ConsumeBool() ? 0xFF : 0, 8);
            if (number(0, 3) == 0)
                tuple[number(0, 7)] ^= data_.ConsumeIntegral<uint8_t>();
        }
    }

    void operate(const Sgl *sgl) {
        uint8_t *const buf = sgl == nullptr || lengths_[0].empty() ? nullptr : sgl->entries[0].buf;
        const bool noRecord = number(0, 31) == 0;
        const uint32_t blocks = capacity();
        std::vector<uint32_t> bitmap((blocks + 31) / 32, 0x5A5A5A5A), result(1), index(1);
        const uint32_t flags = data_.ConsumeIntegral<uint32_t>();
        const uint64_t lba = data_.ConsumeIntegral<uint64_t>() >> (data_.ConsumeBool() ? 56 : 0);

        DifOpParam op{type_, flags, lba, data_.ConsumeBool() ? bitmap.data() : nullptr};
        DifInjectParam inject{type_, flags, lba, static_cast<uint16_t>(flags >> 8), static_cast<uint8_t>(lba)};
        DifCheckParam check{type_,
                            flags,
                            number<uint8_t>(0, 5),
                            number<uint8_t>(0, 5),
                            number<uint8_t>(0, 17),
                            number<uint8_t>(0, 3),
                            number(0, 3) == 0 ? 0 : lba,
                            data_.ConsumeBool() ? result.data() : nullptr,
                            data_.ConsumeBool() ? bitmap.data() : nullptr,
                            data_.ConsumeBool() ? index.data() : nullptr};
        if (number(0, 7) == 0)
            check.ctrlFlag = DIF_CHECK_TRIM_ZERO;
        const DifOpParam opBefore = op;
        const DifInjectParam injectBefore = inject;
        const DifCheckParam checkBefore = check;
        DifOpParam *const opOrNull = noRecord ? nullptr : &op;
        DifInjectParam *const injectOrNull = noRecord ? nullptr : &inject;
        DifCheckParam *const checkOrNull = noRecord ? nullptr : &check;
        DifTuple tuple;
        uint64_t found = 0;
        const std::function<void()> onLists[] = {
            [&] { insertDifInSgl(sgl, offset_, sectors_, opOrNull); },
            [&] { replaceDifInSgl(sgl, offset_, sectors_, opOrNull); },
            [&] { injectDifInSgl(sgl, offset_, sectors_, injectOrNull); },
            [&] { checkDifInSgl(sgl, offset_, sectors_, checkOrNull, "fuzz", 1); },
            [&] { noDifZeroDataCheckInSgl(sgl, offset_, sectors_, &check); },
            [&] { noDifSetCheckResultInSgl(sgl, offset_, sectors_, checkOrNull); },
            [&] { isDifEvictableInSgl(sgl, offset_, sectors_); },
            [&] { checkDifInSglWithErrorReturn(sgl, offset_, sectors_, checkOrNull, "fuzz", 1); },
            [&] { checkDifInSglWithStdT10(sgl, offset_, sectors_, checkOrNull); },
        };
        const uint32_t smallSectors = isSmall() ? sectors_ : 0; // for operations that know 520-byte blocks only
        const std::function<void()> onBuffers[] = {
            [&] { insertDif(buf, sectors_, opOrNull); },
            [&] { replaceDif(buf, sectors_, opOrNull); },
            [&] { injectDif(buf, sectors_, injectOrNull); },
            [&] { checkDif(buf, sectors_, checkOrNull, "fuzz", 1); },
            [&] { noDifZeroDataCheck(buf, sectors_, &check); },
            [&] { noDifSetCheckResult(buf, sectors_, checkOrNull); },
            [&] { isDifEvictable(buf, smallSectors); },
            [&] { getDifLba(buf, smallSectors != 0 ? 520 : 0, noRecord ? nullptr : &found); },
            [&] { trans2LSectorDif(buf, smallSectors, noRecord ? nullptr : &tuple); },
        };
        (isList_ ? onLists : onBuffers)[number(0, 8)]();
        requireRestored(opBefore, op);
        requireRestored(injectBefore, inject);
        requireRestored(checkBefore, check);
        REQUIRE(check.checkResult == checkBefore.checkResult);
    }

    bool isSmall() const { return blockSize_ == 520; }
    uint32_t dataSize() const { return isSmall() ? 512 : 4096; }

    /* How many blocks a call can reach, which is what its bitmaps must cover. */
    uint32_t capacity() const {
        uint32_t blocks = 0;
        for (const auto &node : lengths_) {
            for (const uint32_t length : node)
                blocks += length / blockSize_;
        }
        return std::min(blocks, sectors_ >> (isSmall() ? 0 : 3));
    }

    template <typename Param>
    static void requireRestored(const Param &before, const Param &after) {
        REQUIRE(after.type == before.type);
        REQUIRE(after.lba == before.lba);
        REQUIRE(after.ctrlFlag == before.ctrlFlag || after.ctrlFlag == (before.ctrlFlag & ~DIF_CHECK_LOG_FIRST));
    }

    /* Blocks lie behind one another from the offset, or from the start of a later entry. */
    void requireDataKept(const std::vector<uint8_t> &before, const std::vector<uint8_t> &after) const {
        size_t at = 0;
        uint64_t skip = offset_;
        for (const auto &node : lengths_) {
            for (const uint32_t length : node) {
                const uint64_t first = std::min<uint64_t>(skip, length);
                skip -= first;
                for (uint64_t i = 0; i < length; ++i, ++at)
                    REQUIRE(after[at] == before[at] || (i >= first && (i - first) % blockSize_ >= dataSize()));
            }
        }
    }

    FuzzedDataProvider &data_;
    uint32_t type_ = 0, blockSize_ = 0, offset_ = 0, sectors_ = 0;
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
