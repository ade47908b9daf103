#include "chain.h"
#include "fake_host.h"
#include "model.h"

#include <sys/mman.h>
#include <unistd.h>

namespace {

using CheckDif = StartedDif;
using NoDif = StartedDif;

uint32_t run(Check &check, Blocks &blocks) {
    return checkDif(blocks.bytes.data(), blocks.sectors(), &check.param, "caller", 42);
}

/* What the dump of a failed block shows. */
std::string dump(Blocks &blocks, uint32_t k) {
    const auto hex = [](const uint8_t *b) {
        return format("%02x %02x %02x %02x %02x %02x %02x %02x", b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7]);
    };
    return format("DIF_WARNING_CHECK_DIF_FAIL_BLOCK: data(size=%u): 0x", blocks.info.dataSize) + hex(blocks.data(k)) +
           "..." + hex(blocks.dif(k) - 8) + "; dif: 0x" + hex(blocks.dif(k)) + ".";
}

/* Block 1 of 3 fails in every way. Block 2, which fails too, is reached only by a check of all blocks. */
TEST_F(CheckDif, FailuresAreLoggedOnceACall) {
    constexpr uint32_t kCrc = DIF_CHECK_CRC, kBoth = DIF_CHECK_CRC | DIF_CHECK_LBA, kAll = DIF_CHECK_ALL_BLOCKS;
    for (const uint32_t type : {DIF_DATA_520, DIF_DATA_4160}) {
        Blocks blocks(type, 3);
        const uint16_t t10 = blocks.guard(1), crc32c = blocks.guard(1, DIF_VERSION_CRC32C);
        const struct {
            Tuple tuple;
            uint32_t flags;
            const char *function;
            std::string start, end; /* of the warning; all have the same middle */
        } rows[] = {
            {{t10, 0x1F, 2, 8},
             kBoth,
             "tryCheckDifIntegrity",
             "VERSION error: version(0x1f), block(1),",
             "mid(4), subPid(2), lbaLevel(2)."},
            {{t10, 0xFF, 2, 8},
             kCrc,
             "tryCheckDifIntegrity",
             "VERSION error: version(0xff), block(1),",
             "mid(4), subPid(2), crcLevel(1)."},
            {{0xBAD, 0x13, 2, ~6u},
             kBoth | kAll,
             "isDifLbaCorrect",
             "LBA error: expected(8), actual(4294967289), block(1), ",
             "mid(4), lbaLevel(2)."},
            {{0xCDAB, 0x13, 2, 8},
             kBoth,
             "isDifCrcCorrect",
             format("CRC error:expected(0x%x), actual(0xcdab), ver(T10),block(1), ", t10),
             "mid(4), subPid(2), crcLevel(1)."},
            {{0xA, 0, 0, 5},
             kBoth | kAll,
             "isDifCrcCorrect",
             format("CRC error:expected(0x%x), actual(0xa), ver(T10),block(1), ", t10),
             "mid(4), subPid(2), crcLevel(1)."},
            {{0xCDAB, 0x29, 2, 8},
             kCrc | kAll,
             "isDifCrcCorrect",
             format("CRC error: expected(0x%x), actual(0xcdab), ver(CRC32C),block(1), ", crc32c),
             "mid(4), subPid(2), crcLevel(1)."},
        };
        for (const auto &row : rows) {
            SCOPED_TRACE(row.start);
            host.later();
            blocks.set(0, blocks.right(0, 7));
            blocks.set(1, row.tuple);
            blocks.set(2, {0xBAD, 0x13, 2, 9});
            Check check(type, row.flags, 0x100000007);
            check.param.crcLevel = 1;
            check.param.subPid = 2;
            EXPECT_EQ(run(check, blocks), DIF_ERR_CHECK);
            const std::string middle =
                format("difPtr(%p), type(%u), ctrlFlag(0x%x), ", static_cast<void *>(blocks.dif(1)), type, row.flags);
            EXPECT_EQ(host.take(),
                      (Lines{limited(4, row.function, "DIF_WARNING_CHECK_DIF: " + row.start + middle + row.end),
                             limited(4, row.function, dump(blocks, 1))}));
            EXPECT_EQ(check.index, 1u << blocks.info.sectorShift);
            EXPECT_EQ(check.bitmap[0], (row.flags & kAll) != 0 ? 6u : 2u);
        }
    }
}

TEST_F(CheckDif, OnlyTheFirstFailureMayBeLogged) {
    Blocks blocks(DIF_DATA_520, 2);
    blocks.set(0, blocks.right(0, 9));
    blocks.set(1, {0xBAD, 0x13, 2, 1});
    Check check(DIF_DATA_520, DIF_CHECK_LBA | DIF_CHECK_CRC | DIF_CHECK_ALL_BLOCKS);
    for (const size_t written : {2, 2, 2, 0}) { // the LBA site runs out of credit; the CRC site does not step in
        EXPECT_EQ(run(check, blocks), DIF_ERR_CHECK);
        EXPECT_EQ(check.result, DIF_RESULT_CRC_ERROR | DIF_RESULT_LBA_ERROR | DIF_RESULT_NONE_PASSED);
        EXPECT_EQ(host.take().size(), written);
    }
    host.later();
    check.param.ctrlFlag = DIF_CHECK_CRC | DIF_CHECK_ALL_BLOCKS | DIF_CHECK_LOG_FIRST;
    uint8_t settled = 9, done = 9;
    initDifCheckResults(&check.param, &settled, &done);
    for (const uint32_t k : {0, 1, 1}) { // the claim is used up even if the level is filtered
        host.filtered = (check.param.ctrlFlag & DIF_CHECK_LOG_FIRST) != 0 ? 1u << 4 : 0;
        EXPECT_EQ(checkDifInBlocks(blocks.data(k), 1, &blocks.info, &check.param, 64 + k, &settled, &done),
                  k == 0 ? DIF_OK : DIF_ERR_CHECK); // of this run, not of those before
        EXPECT_EQ((check.param.ctrlFlag & DIF_CHECK_LOG_FIRST) != 0, k == 0);
    }
    EXPECT_EQ(host.take(), Lines{});
    EXPECT_EQ(check.bitmap[2], 2u);
    EXPECT_EQ(check.index, 65u);
    EXPECT_EQ(check.param.lba, 3u);
    EXPECT_EQ(checkDifInBlocks(nullptr, 0, nullptr, nullptr, 0, nullptr, nullptr), DIF_OK); // looks at nothing
}

TEST_F(CheckDif, NotesAboutTuples) {
    Blocks blocks(DIF_DATA_4160, 1);
    void *const difPtr = blocks.dif(0);
    const auto result = [&](uint32_t flags) {
        Check check(DIF_DATA_4160, flags);
        EXPECT_EQ(run(check, blocks), DIF_OK);
        return check.result;
    };
    blocks.set(0, {0x201, 0x1F, DIF_APP_BST, 7});
    const Lines bst = {
        limited(
            4, "tryCheckDifAppAndSetResult",
            format("DIF_WARNING_CHECK_DIF: HAVE BST error: version(0x1f),difPtr(%p), type(2), ctrlFlag(0x40100000), "
                   "mid(4), subPid(1).",
                   difPtr)),
        limited(4, "tryCheckDifAppAndSetResult", dump(blocks, 0))};
    for (const Lines &lines : {bst, bst, bst, Lines{}}) { // the bit does not depend on the limiter
        EXPECT_EQ(result(DIF_CHECK_BST), DIF_RESULT_HAVE_BST);
        EXPECT_EQ(host.take(), lines);
    }
    blocks.set(0, {0x201, 0xFF, 0xFF, 7});
    EXPECT_EQ(result(DIF_CHECK_ALL_LBA_VALID | DIF_CHECK_VERSION_ZERO), DIF_RESULT_VERSION_ZERO);
    EXPECT_EQ(host.take(), Lines{limited(6, "tryCheckDifAppAndSetResult",
                                         format("DIF_APP_CHECK_INFO: version(0xFF), app(0xFF),difPtr(%p), type(2), "
                                                "ctrlFlag(0x44200000), mid(4).",
                                                difPtr))});
    uint32_t word = 0; // of the exported question itself
    for (const auto &[version, flags, want] : {std::tuple<uint8_t, uint32_t, uint32_t>{0x00, 0xFBFFFFFF, 0},
                                               {0x13, ~0u, 0},
                                               {0x00, DIF_CHECK_VERSION_ZERO, DIF_RESULT_VERSION_ZERO}}) {
        const DifTuple tuple{0, version, 0, 0};
        checkDifVerZero(flags, &tuple, &word);
        EXPECT_EQ(word, want);
    }
}

TEST_F(CheckDif, ResultWordIsWrittenBeforeTheLevelsAreAsked) {
    Check check(DIF_DATA_520, DIF_CHECK_CRC | DIF_CHECK_CONVERT_T10 | DIF_CHECK_ALL_BLOCKS | DIF_CHECK_ZERO_DATA);
    check.param.crcLevel = 0; // which asserts
    Lines seen;
    host.onEvent = [&](const std::string &event) { seen.push_back(event + format(" %x", check.result)); };
    uint8_t settled = 9, done = 9;
    initDifCheckResults(&check.param, &settled, &done);
    Lines want = asserted("isVerifyPointOn", "Dif error: level is invalid(0).", "null");
    for (std::string &event : want)
        event += " 400";
    EXPECT_EQ(seen, want);
    EXPECT_EQ(check.result, DIF_RESULT_ALL_ZERO | DIF_RESULT_NONE_PASSED);
}

/* A level may change while a check runs. */
TEST_F(CheckDif, EveryBlockAsksForTheLevel) {
    Blocks blocks(DIF_DATA_520, 3);
    blocks.set(0, blocks.right(0, 0));
    for (const uint32_t k : {1, 2})
        blocks.set(k, {0xBAD, 0x13, 2, k});
    host.onCrc = [](const uint8_t *, uint64_t) { // the engine at work on block 0
        setDifVerifyLevelByMid(DIF_MID_CACHE, 1);
        return uint16_t{0};
    };
    Check check(DIF_DATA_520, DIF_CHECK_CRC | DIF_CHECK_LBA);
    check.param.lbaLevel = 1;
    EXPECT_EQ(run(check, blocks), DIF_OK);
}

/* Readable bytes that end where a page without access begins. */
class PageEnd {
public:
    PageEnd() : size_(static_cast<size_t>(sysconf(_SC_PAGESIZE))) {
        void *const pages = mmap(nullptr, 3 * size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        EXPECT_NE(pages, MAP_FAILED);
        end_ = static_cast<uint8_t *>(pages) + size_;
        EXPECT_EQ(mprotect(end_, size_, PROT_NONE), 0);
    }
    ~PageEnd() { munmap(end_ - size_, 3 * size_); }
    PageEnd(const PageEnd &) = delete;
    PageEnd &operator=(const PageEnd &) = delete;

    uint8_t *last(size_t bytes) const { return end_ - bytes; }
    uint8_t *nextReadable() const { return end_ + size_; }

private:
    size_t size_;
    uint8_t *end_;
};

TEST_F(NoDif, ZeroScanStopsAtTheFirstNonZeroWord) {
    const PageEnd page;
    putTuple(page.nextReadable(), kOnes);
    for (uint32_t readable = 8; readable < 8 + 200; ++readable) {
        uint8_t *const data = page.last(readable), *const word = data + (readable / 8 - 1) * 8;
        *word = 1; // in the last word that can be read
        EXPECT_FALSE(noDifBlockAllZero(data, 512)) << readable;
        for (const uint32_t type : {DIF_DATA_520, DIF_DATA_4160}) {
            const DifTypeInfo info = infoOf(type);
            Check check(type, DIF_CHECK_ZERO_DATA);
            EXPECT_FALSE(noDifZeroDataCheckInBlocks(data, 1, &info));
            EXPECT_FALSE(noDifZeroDataCheck(data, 8, &check.param));
            noDifSetCheckResult(data, 8, &check.param);
            EXPECT_EQ(check.result, DIF_RESULT_NOT_T10);
            Chain chain(Lengths{{8 * 4160}});
            chain.at(0)->entries[0].buf = data;
            EXPECT_FALSE(noDifZeroDataCheckInSgl(chain.at(0), 0, 8, &check.param));
            noDifSetCheckResultInSgl(chain.at(0), 0, 8, &check.param);
            EXPECT_EQ(check.result, DIF_RESULT_NOT_T10);
        }
        /* The check with its report and its trim, over a block whose tuple lies behind the page. */
        const auto offset = static_cast<uint32_t>(page.nextReadable() - data);
        const DifTypeInfo info{.blockSize = 8320, .dataSize = 512, .sectorShift = 0, .difOffset = offset};
        Check check(DIF_DATA_520, DIF_CHECK_ZERO_DATA | DIF_CHECK_TRIM_ZERO);
        for (const Tuple &tuple : {kOnes, Tuple{}}) {
            uint8_t settled = 9, done = 9;
            putTuple(page.nextReadable(), tuple);
            initDifCheckResults(&check.param, &settled, &done);
            EXPECT_EQ(checkDifInBlocks(data, 1, &info, &check.param, 0, &settled, &done), DIF_OK);
            EXPECT_EQ(check.result, 0u);
            EXPECT_EQ(tupleAt(page.nextReadable()), tuple);
        }
        *word = 0;
    }
}

TEST_F(NoDif, OnlyDataIsLookedAt) {
    for (const uint32_t type : {DIF_DATA_520, DIF_DATA_4160}) {
        Blocks blocks(type, 2); // the DIF areas are not zero
        for (const uint32_t k : {0, 1})
            blocks.zeroData(k);
        EXPECT_TRUE(noDifZeroDataCheckInBlocks(blocks.data(0), 2, &blocks.info));
        for (uint32_t at = 0; at < blocks.info.dataSize; ++at) {
            blocks.data(1)[at] = 0x80;
            EXPECT_FALSE(noDifZeroDataCheckInBlocks(blocks.data(0), 2, &blocks.info)) << at;
            blocks.data(1)[at] = 0;
        }
    }
    uint8_t bytes[200] = {};
    for (size_t start = 0; start < 16; ++start) { // the byte behind the end does not count, the last one does
        for (uint32_t size = 0; size < 150; ++size) {
            bytes[start + size] = 1;
            EXPECT_TRUE(noDifBlockAllZero(bytes + start, size)) << start << " " << size;
            EXPECT_FALSE(noDifBlockAllZero(bytes + start, size + 1)) << start << " " << size;
            bytes[start + size] = 0;
        }
    }
}

} // namespace
