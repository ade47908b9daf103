#include "blocks.h"

namespace {

using CheckDif = StartedDif;
using NoDif = StartedDif;

std::string dump(Blocks &blocks, uint32_t k) {
    const uint32_t size = blocks.info.dataSize;
    std::string text = format("DIF_WARNING_CHECK_DIF_FAIL_BLOCK: data(size=%u): 0x", size);
    for (const auto &[bytes, end] :
         {std::pair(blocks.data(k), "..."), {blocks.data(k) + size - 8, "; dif: 0x"}, {blocks.tuple(k), "."}}) {
        for (int i = 0; i < 8; ++i)
            text += format("%02x%s", bytes[i], i < 7 ? " " : end);
    }
    return text;
}

std::array<uint64_t, DIF_STAT_BUTT> counters() { // of the cache module's second point
    std::array<uint64_t, DIF_STAT_BUTT> result;
    difVerifyStatisticGet(DIF_MID_CACHE, 1, result.data());
    return result;
}

/* Block 1 of 3 fails in every way, block 2 too if the check goes on. '~' stands for what most warnings have in common. */
TEST_F(CheckDif, FailuresAreLoggedAndAccounted) {
    constexpr uint32_t kCrc = DIF_CHECK_CRC, kBoth = DIF_CHECK_CRC | DIF_CHECK_LBA, kAll = DIF_CHECK_ALL_BLOCKS;
    const struct {
        const char *tuple;
        uint32_t flags, kind;
        const char *function, *warning;
    } rows[] = {
        {"gggg 1f 02 00000008", kBoth, 1, "tryCheckDifIntegrity",
         "VERSION error: version(0x1f), block(1),~, subPid(2), lbaLevel(2)."},
        {"gggg ff 02 00000008", kCrc, 1, "tryCheckDifIntegrity",
         "VERSION error: version(0xff), block(1),~, subPid(2), crcLevel(1)."},
        {"0bad 13 02 fffffff9", kBoth | kAll, 2, "isDifLbaCorrect",
         "LBA error: expected(8), actual(4294967289), block(1), ~, lbaLevel(2)."},
        {"abcd 13 02 00000008", kBoth, 3, "isDifCrcCorrect",
         "CRC error:expected(0x#), actual(0xcdab), ver(T10),block(1), ~, subPid(2), crcLevel(1)."},
        {"0a00 00 00 00000005", kBoth | kAll, 3, "isDifCrcCorrect",
         "CRC error:expected(0x#), actual(0xa), ver(T10),block(1), ~, subPid(2), crcLevel(1)."},
        {"abcd 29 02 00000008", kCrc | kAll, 3, "isDifCrcCorrect",
         "CRC error: expected(0x#), actual(0xcdab), ver(CRC32C),block(1), ~, subPid(2), crcLevel(1)."},
    };
    for (uint32_t i = 0; i < 2 * std::size(rows); ++i) {
        const auto &row = rows[i / 2];
        SCOPED_TRACE(row.warning);
        host.tick += 1250; // credit for one message
        Blocks blocks(i % 2 == 0 ? DIF_DATA_520 : DIF_DATA_4160, 3);
        blocks.set(0, "gggg 13 02 00000007");
        blocks.set(1, row.tuple);
        blocks.set(2, "0bad 13 02 00000009");
        Check check(blocks.type, row.flags, 0x100000007);
        check.param.crcLevel = 1;
        check.param.subPid = 2;
        auto counted = counters();
        EXPECT_EQ(check.run(blocks), DIF_ERR_CHECK);

        const std::string site = std::string("L4 - ") + row.function + " #0: ";
        std::string warning = site + "DIF_WARNING_CHECK_DIF: " + row.warning;
        warning.replace(warning.find('~'), 1,
                        format("difPtr(%p), type(%u), ctrlFlag(0x%x), mid(4)", static_cast<void *>(blocks.tuple(1)),
                               blocks.type, row.flags));
        if (const size_t at = warning.find("0x#"); at != std::string::npos)
            warning.replace(at + 2, 1,
                            format("%x", slowGuard(blocks.tuple(1)[2], blocks.data(1), blocks.info.dataSize)));
        EXPECT_EQ(host.take(), (Lines{warning, site + dump(blocks, 1)}));

        const bool goesOn = (row.flags & kAll) != 0;
        const uint32_t others = goesOn && row.kind != DIF_STAT_CRC_ERROR ? 1 : 0; // block 2's
        EXPECT_EQ(check.result, (8u >> row.kind) | others);
        EXPECT_EQ(check.index, 1u << blocks.info.sectorShift);
        EXPECT_EQ(check.bitmap[0], goesOn ? 6u : 2u);
        ++counted[row.kind]; // once a call, not once a block
        counted[DIF_STAT_CRC_ERROR] += others;
        EXPECT_EQ(counters(), counted);
        EXPECT_EQ(check.param.lba, 0x100000007u);
        EXPECT_EQ(check.param.ctrlFlag, row.flags);
    }
}

TEST_F(CheckDif, OnlyTheFirstFailureMayBeLoggedInDetail) {
    Blocks blocks(DIF_DATA_520, 2);
    blocks.set(0, "gggg 13 02 00000009");
    blocks.set(1, "0bad 13 02 00000001");
    Check check(DIF_DATA_520, DIF_CHECK_LBA | DIF_CHECK_CRC | DIF_CHECK_ALL_BLOCKS);
    for (uint32_t written : {2, 2, 2, 0}) { // the LBA site runs out of credit; the CRC site does not step in
        EXPECT_EQ(check.run(blocks), DIF_ERR_CHECK);
        EXPECT_EQ(check.result, DIF_RESULT_CRC_ERROR | DIF_RESULT_LBA_ERROR | DIF_RESULT_NONE_PASSED);
        EXPECT_EQ(host.take().size(), written);
    }
    host.filtered = 1u << 4; // the bit is cleared even if the level is filtered
    check.param.ctrlFlag = DIF_CHECK_CRC | DIF_CHECK_ALL_BLOCKS | DIF_CHECK_LOG_FIRST;
    uint8_t settled, done;
    initDifCheckResults(&check.param, &settled, &done);
    for (uint32_t k : {0, 1, 1}) {
        const uint32_t ret = checkDifInBlocks(blocks.data(k), 1, &blocks.info, &check.param, 64 + k, &settled, &done);
        EXPECT_EQ(ret, k == 0 ? DIF_OK : DIF_ERR_CHECK); // of this run, not of those before
        EXPECT_EQ((check.param.ctrlFlag & DIF_CHECK_LOG_FIRST) != 0, k == 0);
        host.filtered = k == 0 ? 1u << 4 : 0;
    }
    EXPECT_EQ(checkDifInBlocks(nullptr, 0, &blocks.info, &check.param, 66, &settled, &done), DIF_OK);
    EXPECT_EQ(host.take(), Lines{});
    EXPECT_EQ(check.bitmap, (std::array<uint32_t, 4>{3, 0, 2, 0}));
    EXPECT_EQ(check.index, 65u);
}

TEST_F(CheckDif, ReportNotes) {
    Blocks blocks(DIF_DATA_4160, 1);
    void *const difPtr = blocks.tuple(0);
    const auto result = [&](uint32_t flags) {
        Check check(DIF_DATA_4160, flags);
        EXPECT_EQ(check.run(blocks), DIF_OK);
        return check.result;
    };
    blocks.set(0, "0102 1f 01 04050607");
    const std::string site = "L4 - tryCheckDifAppAndSetResult #0: ";
    const Lines bst = {site + format("DIF_WARNING_CHECK_DIF: HAVE BST error: version(0x1f),difPtr(%p), type(2), "
                                     "ctrlFlag(0x40100000), mid(4), subPid(1).",
                                     difPtr),
                       site + dump(blocks, 0)};
    for (const Lines &lines : {bst, bst, bst, Lines{}}) { // the bit does not depend on the limiter
        EXPECT_EQ(result(DIF_CHECK_BST), DIF_RESULT_HAVE_BST);
        EXPECT_EQ(host.take(), lines);
    }
    host.tick = 100000;
    setSysDifVerifyLevel(0);
    EXPECT_EQ(result(DIF_CHECK_BST), 0u);
    blocks.set(0, "0102 ff ff 04050607");
    EXPECT_EQ(result(DIF_CHECK_ALL_LBA_VALID | DIF_CHECK_VERSION_ZERO), DIF_RESULT_VERSION_ZERO);
    EXPECT_EQ(host.take(),
              (Lines{format("L6 - tryCheckDifAppAndSetResult #0: DIF_APP_CHECK_INFO: version(0xFF), app(0xFF),"
                            "difPtr(%p), type(2), ctrlFlag(0x44200000), mid(4).",
                            difPtr)}));
}

TEST_F(CheckDif, UnusableInput) {
    Blocks blocks(DIF_DATA_520, 8);
    void *const buf = blocks.data(0);
    blocks.set(0, "0bad 13 02 00000000");
    Check check(DIF_DATA_520, DIF_CHECK_CRC);
    EXPECT_EQ(checkDif(nullptr, 1, &check.param, "caller", 42), DIF_ERR_CHECK);
    EXPECT_EQ(checkDif(blocks.data(0), 1, nullptr, "caller", 42), DIF_ERR_CHECK);
    for (uint32_t type : {1u, 0x80000000u}) {
        check.param.type = type;
        EXPECT_EQ(check.run(blocks), DIF_ERR_CHECK);
    }
    const std::string site = "L3 - checkDif #0: ";
    EXPECT_EQ(host.take(),
              (Lines{site + format("Input error, buf is (nil), param is %p.", static_cast<void *>(&check.param)),
                     site + format("Input error, buf is %p, param is (nil).", buf),
                     site + "Dif data type error, cur dif data type is 1.",
                     site + "Dif data type error, cur dif data type is 2147483648."}));
    EXPECT_EQ(check.result, 0x5A5A5A5Au);

    check.param.type = DIF_DATA_4160; // a range without a block goes on as an empty one
    check.param.ctrlFlag = DIF_CHECK_ALL_LBA_VALID | DIF_CHECK_CRC | DIF_CHECK_ALL_BLOCKS;
    EXPECT_EQ(check.run(blocks, 7), DIF_OK);
    EXPECT_EQ(check.result, DIF_RESULT_ALL_LBA_VALID | DIF_RESULT_NONE_PASSED);
    const Lines zero = asserted("checkDif", "0");
    EXPECT_EQ(host.take(),
              (Lines{"L3 dif_util checkDif #4660: DIF_ERROR_BLOCK_NUM: sectorNum(7),type(2),blockSize(4160).", zero[0],
                     zero[1]}));

    for (auto [mid, subPid] : {std::pair<uint8_t, uint8_t>{4, 3}, {4, 0}, {5, 1}}) { // so does one for an unknown point
        host.tick += 150000;
        Check stranger(DIF_DATA_520, DIF_CHECK_CRC);
        stranger.param.mid = mid;
        stranger.param.subPid = subPid;
        stranger.param.checkResult = nullptr; // the call uses a word of its own
        EXPECT_EQ(stranger.run(blocks), DIF_ERR_CHECK);
        EXPECT_EQ(stranger.param.checkResult, nullptr);
        Lines events = host.take();
        ASSERT_EQ(events.size(), 5u); // the last two are the failure's
        events.resize(3);
        EXPECT_EQ(
            events,
            (Lines{
                format(
                    "L3 dif_util checkDifParamCheck #4660: DIF_ERROR_MID_OR_VERIFY_POINT: mid(%u), verify_point(%u), "
                    "verify_point_num(%u), funcName(caller), line(42).",
                    mid, subPid, mid == 4 ? 2 : 0),
                zero[0], zero[1]}));
        stranger.param.ctrlFlag = DIF_CHECK_BST; // needs no identity
        EXPECT_EQ(checkDifParamCheck(&stranger.param, "caller", 42), DIF_OK);
    }
    Check outside(DIF_DATA_520, DIF_CHECK_LBA | DIF_CHECK_BST);
    outside.param.mid = 200; // beyond every table
    EXPECT_EQ(outside.run(blocks), DIF_OK);
}

/* What a check over runs of blocks must answer, worked out block by block from the rules. */
struct Model {
    DifCheckParam param;
    uint8_t moduleLevel;
    uint32_t result = 0, index = 0xFFFFFFFF;
    std::array<uint32_t, 4> bitmap{};
    bool settled = false, done = false;

    bool has(uint32_t flag) const { return (param.ctrlFlag & flag) != 0; }
    bool made(uint32_t flag, uint8_t level) const {
        return has(flag) && level >= 1 && level <= 4 && level <= moduleLevel;
    }
    bool lbaMade() const { return made(DIF_CHECK_LBA, param.lbaLevel); }
    bool crcMade() const { return made(DIF_CHECK_CRC, param.crcLevel); }
    static uint32_t when(bool condition, uint32_t bits) { return condition ? bits : 0; }
    uint32_t askedOfSome() const {
        return when(has(0x100000), 0x100) | when(has(0x800000), 0x800) | when(has(0x1000000), 0x80) |
               when(has(0x4000000), 0x1000);
    }
    uint32_t askedOfAll() const { return when(has(0x200000), 0x200) | when(has(0x400000), 0x400); }

    void start() {
        settled = (askedOfSome() | askedOfAll()) == 0;
        done = !lbaMade() && !crcMade() && !has(DIF_CHECK_CONVERT_T10);
        result = askedOfAll() | when(!done && has(DIF_CHECK_ALL_BLOCKS), DIF_RESULT_NONE_PASSED);
    }

    uint32_t run(Blocks &blocks, uint32_t first, uint32_t count) {
        uint32_t ret = DIF_OK;
        const std::vector<uint8_t> zeros(blocks.info.dataSize);
        for (uint32_t i = first; i < first + count; ++i, ++param.lba) {
            const bool zeroData = std::equal(zeros.begin(), zeros.end(), blocks.data(i));
            if (has(DIF_CHECK_TRIM_ZERO) && zeroData && blocks.get(i) == blocks.expand(i, "ffff ff ff ffffffff"))
                blocks.set(i, "0000 00 00 00000000");
            const auto t = blocks.get(i);
            const uint8_t version = t[2], app = t[3];
            const bool exempt = version == 0xFF && app == 0xFF;
            const bool known = version == 0 || version == 0x13 || version == 0x29 || version == 0x34;
            const int guard = t[0] | t[1] << 8;
            if (!settled) {
                uint32_t some = when(version == 0 || version == 0xFF, 0x1000), all = 0;
                if (!exempt) {
                    const bool plain = version != 0x13 && version != 0x29; // its guard does not matter for zero data
                    some |= when(version != 0 && version != 0x13, 0x800) | when(!known, 0x80) |
                            when((app & 1) != 0 && moduleLevel != 0, 0x100);
                    all = when((app & 2) != 0, 0x200) |
                          when(zeroData && (plain || guard == slowGuard(version, zeros.data(), zeros.size())), 0x400);
                }
                result = (result | (some & askedOfSome())) & (all | ~0x600u);
                settled = !exempt && (askedOfSome() & ~result) == 0 && (askedOfAll() & result) == 0;
            }
            if (done && settled)
                return ret;
            if (done)
                continue;
            uint32_t fault = 0;
            if (!exempt || has(DIF_CHECK_TRIM_ZERO)) {
                const auto low = static_cast<uint32_t>(param.lba);
                const bool lbaRight = blocks.get(i) == blocks.expand(i, format(".... .. .. %08x", low));
                if ((lbaMade() || crcMade()) && !known)
                    fault = DIF_RESULT_VERSION_ERROR;
                else if (lbaMade() && (app & 2) != 0 && !lbaRight)
                    fault = DIF_RESULT_LBA_ERROR;
                else if (crcMade() && version != 0x34 && guard != slowGuard(version, blocks.data(i), zeros.size()))
                    fault = DIF_RESULT_CRC_ERROR;
            }
            if (fault == 0) {
                if (has(DIF_CHECK_CONVERT_T10) && version == 0x29)
                    blocks.set(i, "gggg 13 .. ........");
                result &= ~when(has(DIF_CHECK_ALL_BLOCKS), DIF_RESULT_NONE_PASSED);
                continue;
            }
            ret = DIF_ERR_CHECK;
            result |= fault;
            index = std::min(index, i << blocks.info.sectorShift);
            bitmap[i / 32] |= 1u << (i % 32);
            done = !has(DIF_CHECK_ALL_BLOCKS);
            if (done && settled)
                return ret;
        }
        return ret;
    }
};

TEST_F(CheckDif, AgreesWithTheModelOnRandomCalls) {
    Random random;
    uint32_t failures = 0;
    for (int round = 0; round < 3000 && !HasFailure(); ++round) {
        const uint32_t count = 1 + random.below(random.oneIn(8) ? 40 : 6), type = random.of({0, 0, 0, 0, 2});
        const uint32_t lba = random.of({0, 5, 0xFFFFFFFE});
        Blocks blocks(type, count, random.below(1000));
        const bool allZero = random.oneIn(3), allRight = random.oneIn(3);
        for (uint32_t k = 0; k < count; ++k) {
            if (allZero || random.oneIn(3))
                blocks.zeroData(k);
            if (random.oneIn(allZero ? 20 : 5))
                blocks.data(k)[random.below(blocks.info.dataSize)] = 1;
            if (allRight)
                blocks.set(k, format("gggg %02x 02 %08x", random.of({0x13, 0x29}), lba + k));
            else
                blocks.set(k, format("%s %02x %02x %08x",
                                     random.oneIn(4)   ? "0000"
                                     : random.oneIn(8) ? "0bad"
                                                       : "gggg",
                                     random.of({0x00, 0x13, 0x13, 0x29, 0x29, 0x34, 0x1F, 0xFF}),
                                     random.of({0, 1, 2, 2, 2, 3, 0xFF}), lba + k + random.of({0, 0, 0, 0, 1})));
            if (random.oneIn(8))
                blocks.set(k, random.oneIn(3) ? "0000 00 00 00000000" : "ffff ff ff ffffffff");
        }
        uint32_t flags = DIF_CHECK_LOG_FIRST;
        for (uint32_t bit = 16; bit < 28; ++bit)
            flags |= random.oneIn(bit < 20 ? 2 : 4) ? 1u << bit : 0;
        Check check(type, flags, 0x700000000 + lba);
        check.param.crcLevel = static_cast<uint8_t>(random.of({0, 1, 2, 2, 3, 4, 5}));
        check.param.lbaLevel = static_cast<uint8_t>(random.of({0, 1, 2, 2, 3, 4, 5}));
        Model model{check.param, static_cast<uint8_t>(random.of({0, 1, 2, 3, 4, 255}))};
        SCOPED_TRACE(format("round %d: flags %x, levels %u %u of %u, %u blocks of type %u", round, flags,
                            check.param.lbaLevel, check.param.crcLevel, model.moduleLevel, count, type));
        setDifVerifyLevelByMid(DIF_MID_CACHE, model.moduleLevel);
        host.take();
        host.tick += 1000000; // every limiter is open again

        Blocks expected = blocks;
        uint8_t settled = 9, done = 9;
        model.start();
        initDifCheckResults(&check.param, &settled, &done);
        EXPECT_EQ(check.result, model.result);
        bool failed = false;
        for (uint32_t first = 0, length = 0; first < count && (settled & done) == 0; first += length) {
            length = 1 + random.below(count - first);
            const uint32_t want = model.run(expected, first, length);
            EXPECT_EQ(checkDifInBlocks(blocks.data(first), length, &blocks.info, &check.param, first, &settled, &done),
                      want);
            failed = failed || want != DIF_OK;
        }
        EXPECT_EQ(check.result, model.result);
        EXPECT_EQ(settled, model.settled);
        EXPECT_EQ(done, model.done);
        EXPECT_EQ(check.index, model.index);
        EXPECT_EQ(check.bitmap, model.bitmap);
        EXPECT_EQ(check.param.lba, model.param.lba);
        EXPECT_EQ(check.param.ctrlFlag, failed ? flags & ~DIF_CHECK_LOG_FIRST : flags);
        EXPECT_TRUE(blocks.bytes == expected.bytes);
        const Lines events = host.take();
        const auto details = std::count_if(events.begin(), events.end(), [](const std::string &event) {
            return event.find("DIF_WARNING_CHECK_DIF:") != std::string::npos && event.find("BST") == std::string::npos;
        });
        EXPECT_EQ(details, failed ? 1 : 0);
        failures += failed ? 1 : 0;
    }
    EXPECT_GT(failures, 300u); // the mix has both outcomes
    EXPECT_LT(failures, 2700u);
}

TEST_F(NoDif, SwitchedOffAnswers) {
    setDifOn(0);
    host.take();
    for (uint32_t type : {DIF_DATA_520, DIF_DATA_4160}) {
        Blocks blocks(type, 4);
        const auto answer = [&](uint32_t flags) {
            Check check(type, flags);
            check.param.mid = 200; // nobody asks
            const std::vector<uint8_t> before = blocks.bytes;
            EXPECT_EQ(check.run(blocks), DIF_OK);
            EXPECT_EQ(check.index, 0xFFFFFFFF);
            EXPECT_EQ(check.bitmap[0], 0u);
            EXPECT_EQ(blocks.bytes, before);
            check.param.checkResult = nullptr;
            EXPECT_EQ(check.run(blocks), DIF_OK);
            return check.result;
        };
        EXPECT_EQ(answer(0xFFF0000), 0x800u);
        for (uint32_t k = 0; k < 4; ++k)
            blocks.zeroData(k); // the DIF areas are not zero, and are not looked at
        EXPECT_EQ(answer(0xFBF0000), 0x800u);
        EXPECT_EQ(answer(0xFFF0000), 0xC00u);
        blocks.data(3)[blocks.info.dataSize - 1] = 1;
        EXPECT_EQ(answer(0xFFF0000), 0x800u);
        for (uint32_t count : {0u, 3u, 4u})
            EXPECT_EQ(noDifZeroDataCheckInBlocks(blocks.data(0), count, &blocks.info), count < 4);
    }
    EXPECT_EQ(host.take(), Lines{});
    alignas(8) uint8_t bytes[40] = {};
    for (uint32_t size = 0; size <= 32; ++size) {
        bytes[size] = 1;
        EXPECT_TRUE(noDifBlockAllZero(bytes, size)) << size;
        EXPECT_FALSE(noDifBlockAllZero(bytes, size + 1)) << size;
        bytes[size] = 0;
    }
}

TEST_F(NoDif, RefusedArgumentsAssert) {
    Blocks blocks(DIF_DATA_520, 1);
    Check check(DIF_DATA_4160, DIF_CHECK_ZERO_DATA);
    EXPECT_TRUE(noDifZeroDataCheck(blocks.data(0), 7, &check.param));
    EXPECT_EQ(host.take(), asserted("noDifZeroDataCheck", "blockNum != 0"));
    EXPECT_FALSE(noDifZeroDataCheck(nullptr, 8, &check.param));
    EXPECT_EQ(host.take(), asserted("noDifZeroDataCheck", "buf != NULL", "buf != ((void *)0)"));
    for (uint32_t type : {1u, 77u}) { // the first goes on with its geometry, the second has none
        host.tick += 150000;
        check.param.type = type;
        EXPECT_FALSE(noDifZeroDataCheck(blocks.data(0), 1, &check.param));
        EXPECT_EQ(host.take(),
                  asserted("noDifZeroDataCheck", "param->type == DIF_DATA_520 || param->type == DIF_DATA_4160"));
    }
    noDifSetCheckResult(blocks.data(0), 1, nullptr);
    EXPECT_EQ(host.take(), asserted("noDifSetCheckResult", "param != NULL", "param != ((void *)0)"));
}

} // namespace
