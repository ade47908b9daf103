#include "fake_host.h"
#include "model.h"

#include <bit>

namespace {

using Writing = StartedDif;

TEST_F(Writing, Crc16AgreesWithTheReference) {
    const auto *const digits = reinterpret_cast<const uint8_t *>("123456789");
    EXPECT_EQ(slowCrc16(0, digits, 9), 0xD0DB);
    EXPECT_EQ(~slowCrc32c(~0u, digits, 9), 0xE3069283);
    EXPECT_EQ(calcT10DifCrcByTable(0x1234, digits, 0), 0x1234);
    EXPECT_EQ(crc16T10Dif(0x1234, nullptr, 10), 0x1234);
    EXPECT_EQ(crc16T10Dif(0x1234, digits, 0), 0x1234);
    Random random;
    Blocks noise(DIF_DATA_520, 10, random.engine());
    for (uint32_t round = 0; round < 500; ++round) {
        const auto seed = static_cast<uint16_t>(random.engine());
        const uint32_t length = random.from(1, round % 10 == 0 ? 4200 : 64);
        const uint16_t crc = slowCrc16(seed, &noise.bytes[round], length);
        ASSERT_EQ(calcT10DifCrcByTable(seed, &noise.bytes[round], length), crc) << seed << " length " << length;
        ASSERT_EQ(crc16T10Dif(seed, &noise.bytes[round], length), __builtin_bswap16(crc));
        setCrc16Func(); /* the same engine again */
    }
}

TEST_F(Writing, BlockRoutinesTrustTheirCaller) {
    setDifOn(0);
    Blocks blocks(DIF_DATA_520, 2);
    DifOpParam op{DIF_DATA_520, DIF_INSERT_CRC | DIF_INSERT_LBA, 0xFFFFFFFF, nullptr};
    insertDifInBlocks(blocks.data(0), 2, &blocks.info, &op);
    EXPECT_EQ(op.lba, 0x100000001u); /* their caller puts it back */
    EXPECT_EQ(blocks.tuple(0), blocks.right(0, 0xFFFFFFFF));
    const Tuple old{0xC2C1, 0xC3, 0xFC, 0xC4C5C6C7};
    const Tuple after[] = {{old.guard, 0x34, old.app, old.lba}, /* one block is not cleared first */
                           {blocks.guard(0), 0x13, old.app, old.lba},
                           {old.guard, old.version, 0xFE, 8}};
    for (uint32_t bit = 0; bit < 3; ++bit) {
        op = {DIF_DATA_520, 1u << bit, 8, nullptr};
        blocks.set(0, old);
        insertDifInOneBlock(blocks.data(0), 512, blocks.difTuple(0), &op);
        EXPECT_EQ(blocks.tuple(0), after[bit]);
    }
    setDifLbaFast(blocks.difTuple(0), 0x01020304);
    EXPECT_EQ(blocks.tuple(0), (Tuple{old.guard, old.version, 0xFE, 0x01020304}));
    op = {DIF_DATA_520_ZERO, DIF_INSERT_CRC, 0, nullptr}; /* of other lengths, declared zeros are read, too */
    insertDifInOneBlock(blocks.data(0), 500, blocks.difTuple(0), &op);
    EXPECT_EQ(blocks.tuple(0).guard, slowGuard(DIF_VERSION_T10, blocks.data(0), 500));
}

TEST_F(Writing, GetLba) {
    constexpr uint64_t kNone = 0x123456789ABC;
    Blocks blocks(DIF_DATA_520, 1);
    uint64_t lba = kNone;
    for (const Tuple &tuple : {Tuple{0, 0, 3, 5}, Tuple{0, 0x13, 2, ~1u}, Tuple{0, 0x29, 0x82, 6},
                               Tuple{0, 0x34, 0xFF, 0}, Tuple{0, 0x1F, 2, 7}, Tuple{0, 0x13, 0xFD, 7}}) {
        const bool isGood = tuple.lba != 7;
        blocks.set(0, tuple);
        EXPECT_EQ(getDifLba(blocks.data(0), 520, &lba), isGood ? DIF_OK : DIF_FAIL);
        EXPECT_EQ(std::exchange(lba, kNone), isGood ? tuple.lba : kNone);
    }
    EXPECT_EQ(getDifLba(nullptr, 520, &lba), DIF_FAIL);
    EXPECT_EQ(getDifLba(blocks.data(0), 520, nullptr), DIF_FAIL);
    host.take();
    EXPECT_EQ(getDifLba(blocks.data(0), 4160, &lba), DIF_FAIL);
    EXPECT_EVENTS(limited(
        3, "getDifLba",
        format("buffer(%p), lba(%p), bufSize(4160).", static_cast<void *>(blocks.data(0)), static_cast<void *>(&lba))));
    EXPECT_EQ(lba, kNone);
}

TEST_F(Writing, SingleTuples) {
    for (size_t i = 0; i < 8; ++i) { /* every byte but the version counts */
        std::array<uint8_t, 8> bytes{};
        bytes[i] = 0x80;
        auto tuple = std::bit_cast<DifTuple>(bytes);
        EXPECT_EQ(isDifDataAllZero(&tuple), i == 2) << i;
        clearDifVersion(&tuple);
        bytes[2] = 0;
        EXPECT_EQ((std::bit_cast<std::array<uint8_t, 8>>(tuple)), bytes);
    }
}

TEST_F(Writing, TransformIsInsertionOverOneLargeSector) {
    for (const uint8_t version : Bytes{DIF_VERSION_T10, DIF_VERSION_CRC32C}) {
        setSysDifCrcVersion(version);
        Blocks small(DIF_DATA_520, 8), large(DIF_DATA_4160, 1);
        for (uint32_t k = 0; k < 8; ++k)
            memcpy(large.data(0) + k * 512, small.data(k), 512);
        trans2LSectorDif(small.data(0), 8, large.difTuple(0));
        EXPECT_EQ(large.tuple(0), (Tuple{large.guard(0, version), version, 0, 0}));
        trans2LSectorDif(small.data(0), 0, large.difTuple(0)); /* asserts */
        EXPECT_EQ(large.tuple(0), (Tuple{0, version, 0, 0}));
    }
}

} /* namespace */
