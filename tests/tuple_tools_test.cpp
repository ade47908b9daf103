#include "blocks.h"

#include <bit>

namespace {

using TupleTools = StartedDif;

TEST_F(TupleTools, Injection) {
    const struct {
        uint32_t flags;
        const char *tuple; // after "a1a2 34 fc deadbeef"; L: low digit of the LBA
        const char *note;  // ~: low digit of the LBA
    } rows[] = {
        {0xBFFFFFF0, "a1a2 34 fc deadbeef", nullptr},
        {0x1, "a1a2 1e fc deadbeef", "invalid version(0x1e)."},
        {0x2, "3412 34 fc deadbeef", "invalid crc(0x1234)."},
        {0x4, "a1a2 34 fe 0000000L", "invalid lba(429496729~)."},
        {0x8, "a1a2 34 fd deadbeef", "app BST."},
        {0x4000000F, "3412 1e ff 0000000L", nullptr},
    };
    for (uint32_t i = 0; i < DIF_DATA_BUTT * std::size(rows); ++i) {
        const auto &[flags, after, note] = rows[i / DIF_DATA_BUTT];
        const uint32_t type = i % DIF_DATA_BUTT;
        SCOPED_TRACE(format("type %u, flags %x", type, flags));
        setDifOn(i % 2 == 0); // makes no difference
        Blocks blocks(type, 6);
        for (uint32_t k = 0; k < 6; ++k)
            blocks.set(k, "a1a2 34 fc deadbeef");
        Blocks want = blocks;
        for (uint32_t k = 0; k < 5; ++k) {
            std::string tuple = after;
            std::replace(tuple.begin(), tuple.end(), 'L', static_cast<char>('1' + k));
            want.set(k, tuple);
        }
        DifInjectParam param{type, flags, 0x100000001, 0x1234, 0x1E};
        host.take();
        injectDif(blocks.data(0), type < 2 ? 5 : 47, &param);
        EXPECT_TRUE(blocks.bytes == want.bytes);
        EXPECT_EQ(param.lba, 0x100000001u);
        EXPECT_EQ(param.ctrlFlag, flags & ~DIF_CHECK_LOG_FIRST);
        if (note == nullptr || type != 0)
            continue;
        Lines notes(3, std::string("L6 - injectDifInOneBlock #0: DIF_INFO_INJECT_DIF: inject ") + note);
        for (size_t k = 0; k < 3; ++k) // of each kind in a period
            std::replace(notes[k].begin(), notes[k].end(), '~', static_cast<char>('7' + k));
        EXPECT_EQ(host.take(), notes);
    }
}

TEST_F(TupleTools, GetLba) {
    constexpr uint64_t kNone = 0x123456789ABC;
    const struct {
        const char *tuple;
        uint64_t lba;
        const char *complaint;
    } rows[] = {
        {"1234 13 02 00000100", 256, nullptr},
        {"1234 00 03 fffffffe", 0xFFFFFFFE, nullptr},
        {"0000 29 82 00000000", 0, nullptr},
        {"0000 34 ff 01020304", 0x01020304, nullptr},
        {"1234 1f 02 00000001", kNone, "Dif version error,dif:0x12 0x34 0x1f 0x02 0x00 0x00 0x00 0x01"},
        {"ffff ff ff 00000001", kNone, "Dif version error,dif:0xff 0xff 0xff 0xff 0x00 0x00 0x00 0x01"},
        {"abcd 13 fd 00000000", kNone, "Lba valid flag error,dif:0xab 0xcd 0x13 0xfd 0x00 0x00 0x00 0x00"},
    };
    Blocks blocks(DIF_DATA_520, 1);
    uint64_t lba;
    for (const auto &row : rows) {
        blocks.set(0, row.tuple);
        lba = kNone;
        const bool isGood = row.complaint == nullptr;
        EXPECT_EQ(getDifLba(blocks.data(0), 520, &lba), isGood ? DIF_OK : DIF_FAIL);
        EXPECT_EQ(lba, row.lba);
        EXPECT_EQ(host.take(), isGood ? Lines{} : Lines{std::string("L4 - getDifLba #0: ") + row.complaint});
    }
    blocks.set(0, rows[0].tuple);
    for (const auto &[buf, size, out] : {std::tuple(static_cast<uint8_t *>(nullptr), 520u, &lba),
                                         {blocks.data(0), 4160u, &lba},
                                         {blocks.data(0), 520u, nullptr}}) {
        EXPECT_EQ(getDifLba(buf, size, out), DIF_FAIL);
        EXPECT_EQ(host.take(), Lines{format("L3 - getDifLba #0: buffer(%p), lba(%p), bufSize(%u).",
                                            static_cast<void *>(buf), static_cast<void *>(out), size)});
    }
    EXPECT_EQ(lba, kNone);
}

TEST_F(TupleTools, Evictable) {
    const struct {
        const char *first, *third;
        bool isEvictable, isExempt;
    } rows[] = {
        {"0000 13 02 00000000", "0bad 1f fe 00000000", true, false},
        {"0000 13 02 00000000", "0000 13 01 00000000", false, false},
        {"0000 13 02 00000000", "ffff ff ff ffffffff", false, false}, // only the first exempts
        {"0000 ff ff 00000000", "0000 13 01 00000000", true, true},
        {"ffff ff 01 00000000", "0000 13 00 00000000", false, false},
    };
    Blocks blocks(DIF_DATA_520, 4);
    for (const auto &row : rows) {
        for (uint32_t k = 0; k < 4; ++k)
            blocks.set(k, k == 2 ? row.third : k == 0 ? row.first : "0000 13 02 00000000");
        EXPECT_EQ(isDifEvictable(blocks.data(0), 4), row.isEvictable) << row.first;
        EXPECT_EQ(host.take(), !row.isExempt ? Lines{}
                                             : Lines{format("L6 - isDifEvictable #0: DIF_ISDIFEVICTABLE_INFO: "
                                                            "version(0xFF),app(0xFF), difPtr(%p),type(512).",
                                                            static_cast<void *>(blocks.tuple(0)))});
    }
}

TEST_F(TupleTools, SingleTuples) {
    for (size_t i = 0; i < 8; ++i) { // every byte but the version counts
        std::array<uint8_t, 8> bytes{};
        bytes[i] = 0x80;
        auto tuple = std::bit_cast<DifTuple>(bytes);
        EXPECT_EQ(isDifDataAllZero(&tuple), i == 2) << i;
        clearDifVersion(&tuple);
        bytes[2] = 0;
        EXPECT_EQ((std::bit_cast<std::array<uint8_t, 8>>(tuple)), bytes);
    }
}

TEST_F(TupleTools, TransformIsInsertionOverOneLargeSector) {
    for (const bool isZero : {true, false}) {
        for (const uint32_t version : {DIF_VERSION_T10, DIF_VERSION_CRC32C}) {
            setSysDifCrcVersion(static_cast<uint8_t>(version));
            Blocks small(DIF_DATA_520, 8), large(DIF_DATA_4160, 1), one(DIF_DATA_520, 1);
            for (uint32_t k = 0; k < 8; ++k) {
                if (isZero)
                    small.zeroData(k);
                memcpy(large.data(0) + k * 512, small.data(k), 512);
            }
            const std::vector<uint8_t> before = small.bytes;
            DifOpParam op{DIF_DATA_4160, DIF_INSERT_CRC, 0, nullptr};
            insertDif(large.data(0), 8, &op);
            auto *const tuple = reinterpret_cast<DifTuple *>(one.tuple(0));
            trans2LSectorDif(small.data(0), 8, tuple);
            EXPECT_EQ(one.get(0), large.get(0));
            EXPECT_TRUE(small.bytes == before);
            trans2LSectorDif(one.data(0), 1, tuple);
            EXPECT_EQ(one.get(0), one.expand(0, format("gggg %02x 00 00000000", version)));
            trans2LSectorDif(one.data(0), 0, tuple); // asserts
            EXPECT_EQ(one.get(0), one.expand(0, format("0000 %02x 00 00000000", version)));
        }
    }
}

TEST_F(TupleTools, RefusedArgumentsAssert) {
    DifInjectParam param{DIF_DATA_4160, 0x4000000F, 9, 1, 1}, bad{DIF_DATA_BUTT, 0xF, 9, 1, 1};
    uint8_t buf[520] = {};
    DifTuple tuple{};
    /* `what` is a pointer's name or the text of a condition; a message may come before the assertion. */
    const auto expect = [](const std::string &function, const std::string &what, auto call, const char *message = "") {
        call();
        Lines lines = asserted(function, what);
        if (what == "buf" || what == "param" || what == "dif")
            lines = asserted(function, what + " != NULL", what + " != ((void *)0)");
        if (*message != '\0')
            lines.insert(lines.begin(), "L3 dif_util " + function + " #4660: DIF_ERROR_BLOCK_NUM: " + message);
        EXPECT_EQ(host.take(), lines);
    };
    expect("injectDif", "buf", [&] { injectDif(nullptr, 8, &param); });
    expect("injectDif", "param", [&] { injectDif(buf, 8, nullptr); });
    expect("injectDif", "(param->type) < DIF_DATA_BUTT", [&] { injectDif(buf, 8, &bad); });
    EXPECT_EQ(param.ctrlFlag, 0x4000000Fu);
    expect(
        "injectDif", "0", [&] { injectDif(buf, 7, &param); }, "sectorNum(7),type(2),blockSize(4160).");
    EXPECT_EQ(param.ctrlFlag, 0xFu);
    EXPECT_EQ(param.lba, 9u);
    expect("isDifEvictable", "buf", [] { EXPECT_TRUE(isDifEvictable(nullptr, 1)); });
    expect(
        "isDifEvictable", "0", [&] { EXPECT_TRUE(isDifEvictable(buf, 0)); }, "sectorNum(0),blockSize(520).");
    expect("isDifDataAllZero", "difBuf != ((void *)0)", [] { EXPECT_FALSE(isDifDataAllZero(nullptr)); });
    expect("clearDifVersion", "difBuf != ((void *)0)", [] { clearDifVersion(nullptr); });
    expect("trans2LSectorDif", "buf", [&] { trans2LSectorDif(nullptr, 1, &tuple); });
    expect("trans2LSectorDif", "sectorNum != 0", [&] { trans2LSectorDif(buf, 0, &tuple); });
    expect("trans2LSectorDif", "dif", [&] { trans2LSectorDif(buf, 1, nullptr); });
    EXPECT_TRUE(std::all_of(buf, buf + 520, [](uint8_t byte) { return byte == 0; }));
    setDifOn(0);
    host.take();
    tuple.app = 9;
    EXPECT_TRUE(isDifEvictable(nullptr, 0));
    trans2LSectorDif(nullptr, 0, nullptr);
    trans2LSectorDif(buf, 1, &tuple);
    EXPECT_EQ(tuple.app, 9);
    EXPECT_EQ(host.take(), Lines{});
}

} // namespace
