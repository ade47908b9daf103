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
    for (const size_t written : {2u, 2u, 2u, 0u}) { /* the LBA site runs out of credit; the CRC site stays silent */
        EXPECT_EQ(checkBuffer(blocks.data(0), 2, &check.param), DIF_ERR_CHECK);
        EXPECT_EQ(host.take().size(), written);
    }
    host.later();
    check.param.ctrlFlag = DIF_CHECK_CRC | DIF_CHECK_ALL_BLOCKS | DIF_CHECK_LOG_FIRST;
    uint8_t settled = 9, done = 9;
    initDifCheckResults(&check.param, &settled, &done);
    for (const uint32_t k : {0u, 1u, 1u}) { /* the claim is used up even if the level is filtered */
        host.filtered = (check.param.ctrlFlag & DIF_CHECK_LOG_FIRST) != 0 ? 1u << 4 : 0;
        EXPECT_EQ(checkDifInBlocks(blocks.data(k), 1, &blocks.info, &check.param, 64 + k, &settled, &done),
                  k == 0 ? DIF_OK : DIF_ERR_CHECK); /* of this run, not of those before */
    }
    EXPECT_EVENTS();
    EXPECT_EQ(check.bitmap[2], 2u);
    EXPECT_EQ(check.index, 65u);
    EXPECT_EQ(check.param.lba, 3u);
    EXPECT_EQ(checkDifInBlocks(nullptr, 0, nullptr, nullptr, 0, nullptr, nullptr), DIF_OK); /* looks at nothing */
}

/* A level may change while a check runs. */
TEST_F(CheckDif, EveryBlockAsksForTheLevel) {
    Blocks blocks(DIF_DATA_520, 3);
    blocks.set(0, blocks.right(0, 0));
    for (const uint32_t k : {1u, 2u})
        blocks.set(k, {0xBAD, 0x13, 2, k});
    host.onCrc = [](const uint8_t *, uint64_t) { /* the engine at work on block 0 */
                                                 setDifVerifyLevelByMid(DIF_MID_CACHE, 1);
                                                 return uint16_t{0};
    };
    Check check(DIF_DATA_520, DIF_CHECK_CRC | DIF_CHECK_LBA);
    check.param.lbaLevel = 1;
    EXPECT_EQ(checkBuffer(blocks.data(0), 3, &check.param), DIF_OK);
}

/* The scan reads word by word: it must answer when the next page cannot be read, but the word before it is not zero. */
TEST_F(NoDif, ZeroScanStopsAtTheFirstNonZeroWord) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    auto *const pages =
        static_cast<uint8_t *>(mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    uint8_t *const end = pages + page, *const behind = end + page;
    ASSERT_EQ(mprotect(end, page, PROT_NONE), 0);
    for (uint32_t readable = 8; readable < 8 + 200; ++readable) {
        uint8_t *const data = end - readable, *const word = data + (readable / 8 - 1) * 8;
        *word = 1; /* in the last word that can be read */
        EXPECT_FALSE(noDifBlockAllZero(data, 512)) << readable;
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
    for (size_t start = 0; start < 16; ++start) {
        for (uint32_t size = 0; size < 280; ++size) {
            bytes[start + size] = 0x80;
            EXPECT_TRUE(noDifBlockAllZero(bytes + start, size)) << start << " " << size;
            EXPECT_FALSE(noDifBlockAllZero(bytes + start, size + 1)) << start << " " << size;
            bytes[start + size] = 0;
        }
    }
}

} // namespace
