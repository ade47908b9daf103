#include "chain.h"
#include "fake_host.h"
#include "model.h"

#include <sys/mman.h>
#include <unistd.h>

namespace {

using CheckDif = StartedDif;
using NoDif = StartedDif;

TEST_F(CheckDif, OnlyTheFirstFailureMayBeLogged) {
    Blocks blocks(DIF_DATA_520, 2);
    blocks.set(0, blocks.right(0, 9));
    blocks.set(1, {0xBAD, 0x13, 2, 1});
    Check check(DIF_DATA_520, DIF_CHECK_LBA | DIF_CHECK_CRC | DIF_CHECK_ALL_BLOCKS);
    for (const size_t written : {2u, 2u, 2u, 0u}) { // the LBA site runs out of credit; the CRC site does not step in
        EXPECT_EQ(checkBuffer(blocks.data(0), blocks.sectors(), &check.param), DIF_ERR_CHECK);
        EXPECT_EQ(check.result, DIF_RESULT_CRC_ERROR | DIF_RESULT_LBA_ERROR | DIF_RESULT_NONE_PASSED);
        EXPECT_EQ(host.take().size(), written);
    }
    host.later();
    check.param.ctrlFlag = DIF_CHECK_CRC | DIF_CHECK_ALL_BLOCKS | DIF_CHECK_LOG_FIRST;
    uint8_t settled = 9, done = 9;
    initDifCheckResults(&check.param, &settled, &done);
    for (const uint32_t k : {0u, 1u, 1u}) { // the claim is used up even if the level is filtered
        host.filtered = (check.param.ctrlFlag & DIF_CHECK_LOG_FIRST) != 0 ? 1u << 4 : 0;
        EXPECT_EQ(checkDifInBlocks(blocks.data(k), 1, &blocks.info, &check.param, 64 + k, &settled, &done),
                  k == 0 ? DIF_OK : DIF_ERR_CHECK); // of this run, not of those before
        EXPECT_EQ((check.param.ctrlFlag & DIF_CHECK_LOG_FIRST) != 0, k == 0);
    }
    EXPECT_EVENTS();
    EXPECT_EQ(check.bitmap[2], 2u);
    EXPECT_EQ(check.index, 65u);
    EXPECT_EQ(check.param.lba, 3u);
    EXPECT_EQ(checkDifInBlocks(nullptr, 0, nullptr, nullptr, 0, nullptr, nullptr), DIF_OK); // looks at nothing
}

TEST_F(CheckDif, ResultWordIsWrittenBeforeTheLevelsAreAsked) {
    Check check(DIF_DATA_520, DIF_CHECK_CRC | DIF_CHECK_CONVERT_T10 | DIF_CHECK_ALL_BLOCKS | DIF_CHECK_ZERO_DATA);
    check.param.crcLevel = 0; // which asserts
    uint32_t seen = 0;
    host.onEvent = [&](const std::string &) { seen = check.result; };
    uint8_t settled = 9, done = 9;
    initDifCheckResults(&check.param, &settled, &done);
    EXPECT_EQ(seen, DIF_RESULT_ALL_ZERO);
    EXPECT_EQ(check.result, DIF_RESULT_ALL_ZERO | DIF_RESULT_NONE_PASSED);
}

/* A level may change while a check runs. */
TEST_F(CheckDif, EveryBlockAsksForTheLevel) {
    Blocks blocks(DIF_DATA_520, 3);
    blocks.set(0, blocks.right(0, 0));
    for (const uint32_t k : {1u, 2u})
        blocks.set(k, {0xBAD, 0x13, 2, k});
    host.onCrc = [](const uint8_t *, uint64_t) { // the engine at work on block 0
        setDifVerifyLevelByMid(DIF_MID_CACHE, 1);
        return uint16_t{0};
    };
    Check check(DIF_DATA_520, DIF_CHECK_CRC | DIF_CHECK_LBA);
    check.param.lbaLevel = 1;
    EXPECT_EQ(checkBuffer(blocks.data(0), blocks.sectors(), &check.param), DIF_OK);
}

/* The scan reads word by word: it must answer when the next page cannot be read, but the word before it is not zero. */
TEST_F(NoDif, ZeroScanStopsAtTheFirstNonZeroWord) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    auto *const pages =
        static_cast<uint8_t *>(mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    uint8_t *const end = pages + page, *const behind = end + page;
    ASSERT_EQ(mprotect(end, page, PROT_NONE), 0);
    Chain chain(Lengths{{8 * 4160}});
    for (uint32_t readable = 8; readable < 8 + 200; ++readable) {
        uint8_t *const data = end - readable, *const word = data + (readable / 8 - 1) * 8;
        *word = 1; // in the last word that can be read
        chain.at(0)->entries[0].buf = data;
        EXPECT_FALSE(noDifBlockAllZero(data, 512)) << readable;
        for (const uint32_t type : {DIF_DATA_520, DIF_DATA_4160}) {
            const DifTypeInfo info = infoOf(type);
            Check buffer(type, DIF_CHECK_ZERO_DATA), list(type, DIF_CHECK_ZERO_DATA);
            EXPECT_FALSE(noDifZeroDataCheckInBlocks(data, 1, &info));
            EXPECT_FALSE(noDifZeroDataCheck(data, 8, &buffer.param));
            EXPECT_FALSE(noDifZeroDataCheckInSgl(chain.at(0), 0, 8, &list.param));
            noDifSetCheckResult(data, 8, &buffer.param);
            noDifSetCheckResultInSgl(chain.at(0), 0, 8, &list.param);
            EXPECT_EQ(buffer.result, DIF_RESULT_NOT_T10);
            EXPECT_EQ(list.result, DIF_RESULT_NOT_T10);
        }
        /* The report and the trim of the check, over a block whose tuple lies behind that page. */
        const DifTypeInfo info{8320, 512, 0, static_cast<uint32_t>(behind - data)};
        Check check(DIF_DATA_520, DIF_CHECK_ZERO_DATA | DIF_CHECK_TRIM_ZERO);
        for (const Tuple &tuple : {kOnes, Tuple{}}) {
            uint8_t settled = 9, done = 9;
            putTuple(behind, tuple);
            initDifCheckResults(&check.param, &settled, &done);
            EXPECT_EQ(checkDifInBlocks(data, 1, &info, &check.param, 0, &settled, &done), DIF_OK);
            EXPECT_EQ(check.result, 0u);
            EXPECT_EQ(tupleAt(behind), tuple);
        }
        *word = 0;
    }
    munmap(pages, 3 * page);
}

TEST_F(NoDif, EveryByteOfTheDataCounts) {
    uint8_t bytes[300] = {};
    for (size_t start = 0; start < 16; ++start) { // the byte behind the end does not count, the last one does
        for (uint32_t size = 0; size < 280; ++size) {
            bytes[start + size] = 0x80;
            EXPECT_TRUE(noDifBlockAllZero(bytes + start, size)) << start << " " << size;
            EXPECT_FALSE(noDifBlockAllZero(bytes + start, size + 1)) << start << " " << size;
            EXPECT_EQ(noDifBlockAllZero(bytes, 280), start + size >= 280);
            bytes[start + size] = 0;
        }
    }
}

} // namespace
