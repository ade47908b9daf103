#include "blocks.h"

namespace {

using Insertion = StartedDif;
using Replacement = StartedDif;
using Operation = void (*)(uint8_t *, uint32_t, DifOpParam *);

struct Row {
    uint32_t flags;
    const char *app;   // of the tuple before: "a1a2 34", app, "deadbeef"
    const char *tuple; // after; g: guard, v: version, both of the current CRC version; L: low digit of the LBA
};

/* Every row for every data type and CRC version, over three blocks; a fourth lacks a sector or is not asked for. */
void expectRows(Operation operation, bool clearsArea, const std::vector<Row> &rows) {
    for (uint32_t i = 0; i < DIF_DATA_BUTT * 2 * rows.size(); ++i) {
        const Row &row = rows[i / 8];
        const uint32_t type = i % 4;
        const uint8_t version = i % 8 < 4 ? 0x13 : 0x29;
        SCOPED_TRACE(format("type %u version %02x flags %x app %s", type, version, row.flags, row.app));
        setSysDifCrcVersion(version);
        Blocks blocks(type, 4);
        for (uint32_t k = 0; k < 4; ++k)
            blocks.set(k, format("a1a2 34 %s deadbeef", row.app));
        Blocks want = blocks;
        DifOpParam op{type, row.flags, 0x100000005, nullptr};
        operation(blocks.data(0), type < 2 ? 3 : 31, &op);
        EXPECT_EQ(op.lba, 0x100000005u);
        for (uint32_t k = 0; k < 3; ++k) {
            const auto fresh = want.expand(k, format("gggg %02x 00 00000000", version));
            if (clearsArea)
                memset(want.tuple(k), 0, want.info.blockSize - want.info.dataSize);
            std::string tuple = row.tuple;
            if (tuple.starts_with("gggg"))
                tuple.replace(0, 4, format("%02x%02x", fresh[0], fresh[1]));
            if (tuple.substr(5, 2) == "vv")
                tuple.replace(5, 2, format("%02x", version));
            std::replace(tuple.begin(), tuple.end(), 'L', static_cast<char>('5' + k));
            want.set(k, tuple);
            EXPECT_EQ(blocks.get(k), want.get(k)) << "block " << k;
        }
        EXPECT_TRUE(blocks.bytes == want.bytes);
    }
    EXPECT_EQ(host.take(), Lines{});
}

TEST_F(Insertion, FlagsChooseTheTuple) {
    expectRows(insertDif, true,
               {{0x0, "fe", "0000 00 00 00000000"},
                {0x1, "fe", "0000 34 00 00000000"},
                {0x7, "fe", "0000 34 00 00000000"},
                {0x2, "fe", "gggg vv 00 00000000"},
                {0x4, "fe", "0000 00 02 0000000L"},
                {0x6, "fe", "gggg vv 02 0000000L"},
                {0xFFFFFFFE, "fe", "gggg vv 02 0000000L"}}); // the other operations' bits mean nothing
}

TEST_F(Replacement, FlagsChooseTheFields) {
    expectRows(replaceDif, false,
               {{0x20, "fe", "gggg vv fe deadbeef"},
                {0x40, "fc", "a1a2 34 fe 0000000L"},
                {0x80, "fe", "a1a2 34 fe 0000000L"},
                {0x80, "fc", "a1a2 34 fc deadbeef"},
                {0xC0, "fc", "a1a2 34 fe 0000000L"},
                {0x10, "fe", "a1a2 34 ff deadbeef"},
                {0x08, "fe", "a1a2 1f fe deadbeef"},
                {0x28, "fe", "gggg 1f fe deadbeef"},
                {0x100, "fe", "a1a2 34 fc deadbeef"},
                {0x140, "fe", "a1a2 34 fc 0000000L"},
                {0x180, "fe", "a1a2 34 fc 0000000L"},
                {0x200, "fe", "a1a2 vv fe deadbeef"},
                {0x208, "fe", "a1a2 vv fe deadbeef"},
                {0xFFFFFC07, "fe", "a1a2 34 fe deadbeef"}});
}

TEST_F(Insertion, BlockRoutinesTrustTheirCaller) {
    setDifOn(0);
    Blocks blocks(DIF_DATA_520, 2);
    DifOpParam op{DIF_DATA_520, DIF_INSERT_CRC | DIF_INSERT_LBA, 0xFFFFFFFF, nullptr};
    insertDifInBlocks(blocks.data(0), 2, &blocks.info, &op);
    EXPECT_EQ(op.lba, 0x100000001u);
    EXPECT_EQ(blocks.get(0), blocks.expand(0, "gggg 13 02 ffffffff"));
    EXPECT_EQ(blocks.get(1), blocks.expand(1, "gggg 13 02 00000000"));

    const char *const tuples[] = {"c1c2 34 fc c4c5c6c7", "gggg 13 fc c4c5c6c7", "c1c2 c3 fe 00000001"};
    for (uint32_t i = 0; i < 3; ++i) { // one block is not cleared first
        op.ctrlFlag = 1u << i;
        blocks.set(0, "c1c2 c3 fc c4c5c6c7");
        insertDifInOneBlock(blocks.data(0), 512, reinterpret_cast<DifTuple *>(blocks.tuple(0)), &op);
        EXPECT_EQ(blocks.get(0), blocks.expand(0, tuples[i]));
    }
    EXPECT_EQ(op.lba, 0x100000001u);
    setDifLbaFast(reinterpret_cast<DifTuple *>(blocks.tuple(0)), 0x01020304);
    EXPECT_EQ(blocks.get(0), blocks.expand(0, "c1c2 c3 fe 01020304"));

    const DifTypeInfo odd{528, 512, 0, 512}; // a DIF area of neither 8 nor 64 bytes is not cleared
    Blocks before = blocks;
    op.ctrlFlag = 0;
    insertDifInBlocks(blocks.data(0), 1, &odd, &op);
    EXPECT_EQ(blocks.bytes, before.bytes);
}

TEST_F(Replacement, BitmapChoosesBlocksAndEveryBlockTakesAnLba) {
    Blocks blocks(DIF_DATA_520, 4), want = blocks;
    uint32_t bitmap[] = {1u << 31 | 1u << 1, 1u << 1};
    DifOpParam op{DIF_DATA_520, DIF_REPLACE_LBA, 7, bitmap};
    replaceDifInBlocks(blocks.data(0), 4, &blocks.info, &op, 31); // blocks 31 to 34
    EXPECT_EQ(op.lba, 11u);
    want.set(0, ".... .. a7 00000007");
    want.set(2, ".... .. a7 00000009");
    EXPECT_EQ(blocks.bytes, want.bytes);
    replaceDif(blocks.data(0), 3, &op);
    want.set(1, ".... .. a7 0000000c");
    EXPECT_EQ(blocks.bytes, want.bytes);
}

TEST_F(Insertion, RefusedArgumentsAssertAndLeaveTheBuffer) {
    for (const bool insertion : {true, false}) {
        const Operation operation = insertion ? insertDif : replaceDif;
        const std::string name = insertion ? "insertDif" : "replaceDif";
        const Lines nullBuf = asserted(name, "buf != NULL", "buf != ((void *)0)");
        const Lines nullParam = asserted(name, "param != NULL", "param != ((void *)0)");
        Blocks blocks(DIF_DATA_4160, 1), before = blocks;
        DifOpParam op{DIF_DATA_BUTT, DIF_INSERT_CRC | DIF_REPLACE_CRC, 7, nullptr};
        operation(nullptr, 8, nullptr); // they look at different arguments first
        EXPECT_EQ(host.take().front(), insertion ? nullBuf.front() : nullParam.front());
        operation(blocks.data(0), 8, &op);
        EXPECT_EQ(host.take(), asserted(name, "(param->type) < DIF_DATA_BUTT"));
        host.tick += 150000;
        operation(blocks.data(0), 8, nullptr);
        EXPECT_EQ(host.take(), nullParam);
        op.type = DIF_DATA_4160_ZERO;
        operation(nullptr, 8, &op);
        EXPECT_EQ(host.take(), nullBuf);
        operation(blocks.data(0), 7, &op);
        const Lines zero = asserted(name, "0");
        const std::string blockNum = ": DIF_ERROR_BLOCK_NUM: sectorNum(7),type(3),blockSize(4160).";
        EXPECT_EQ(host.take(), (Lines{"L3 dif_util " + name + " #4660" + blockNum, zero[0], zero[1]}));

        setDifOn(0);
        host.take();
        host.tick += 150000;
        operation(nullptr, 0, nullptr);
        operation(blocks.data(0), 8, &op);
        EXPECT_EQ(host.take(), Lines{});
        EXPECT_EQ(blocks.bytes, before.bytes);
        EXPECT_EQ(op.lba, 7u);
        setDifOn(1);
        host.take();
    }
}

} // namespace
