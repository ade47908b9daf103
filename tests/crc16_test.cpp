#include "blocks.h"

#include "platform/crc16_t10dif.h"

namespace {

TEST(Crc16, EnginesAndTheReferenceAgree) {
    const auto *const digits = reinterpret_cast<const uint8_t *>("123456789");
    EXPECT_EQ(calcT10DifCrcByTable(0, digits, 9), 0xD0DB); // needs no start
    EXPECT_EQ(calcT10DifCrcByTable(0x1234, digits, 0), 0x1234);
    EXPECT_EQ(crc16T10Dif(0x1234, nullptr, 10), 0x1234);
    EXPECT_EQ(crc16T10Dif(0x1234, digits, 0), 0x1234);
    initCrc16T10Func();
    EXPECT_EQ(crc16T10Dif(0, digits, 9), 0xDBD0);
    Random random;
    std::vector<uint8_t> bytes(5000);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random.below(256)); });
    for (int round = 0; round < 2000; ++round) {
        const auto seed = static_cast<uint16_t>(random.below(0x10000));
        const uint32_t length = 1 + random.below(round % 10 == 0 ? 4200 : 64);
        const uint8_t *start = bytes.data() + random.below(700);
        const uint16_t crc = slowCrc16(seed, start, length);
        ASSERT_EQ(calcT10DifCrcByTable(seed, start, length), crc) << "seed " << seed << " length " << length;
        ASSERT_EQ(crc16_t10dif(seed, start, length), crc) << "seed " << seed << " length " << length;
        ASSERT_EQ(crc16T10Dif(seed, start, length), static_cast<uint16_t>((crc >> 8) | (crc << 8)));
        setCrc16Func();
    }
}

using Guards = StartedDif;

/* Zero data, declared and not read or found by reading, has the known guards; other lengths are always read. */
TEST_F(Guards, OfZeroData) {
    for (uint8_t version : Bytes{0x13, 0x29}) {
        setSysDifCrcVersion(version);
        for (uint32_t type = 0; type < DIF_DATA_BUTT; ++type) {
            Blocks blocks(type, 1);
            DifOpParam op{type | 1, DIF_INSERT_CRC, 0, nullptr};
            DifTuple tuple{};
            insertDifInOneBlock(blocks.data(0), 520, &tuple, &op);
            EXPECT_EQ(tuple.crc, slowGuard(version, blocks.data(0), 520));
            if ((type & 1) == 0)
                blocks.zeroData(0);
            op.type = type;
            insertDifInBlocks(blocks.data(0), 1, &blocks.info, &op);
            const char *const guard = version == 0x13 ? "0000" : type < 2 ? "c0ed" : "8941";
            EXPECT_EQ(blocks.get(0), blocks.expand(0, format("%s %02x 00 00000000", guard, version))) << type;
        }
    }
}

} // namespace
