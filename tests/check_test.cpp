#include "fake_host.h"
#include "trial.h"

#include <sys/mman.h>
#include <thread>
#include <unistd.h>

namespace {

using CheckDif = StartedDif;
using Concurrency = StartedDif;
using Trials = StartedDif;

TEST_F(Trials, EveryForm) {
    Random random;
    uint32_t failures = 0;
    for (int i = 0; i < 1500; ++i) {
        SCOPED_TRACE(i);
        Trial trial(random);
        const bool isOn = !random.oneIn(8);
        const auto level = random.of<uint8_t>({0, 1, 2, 3, 4, 255}), version = random.of<uint8_t>({0x13, 0x29});
        setDifOn(isOn);
        setSysDifCrcVersion(version);
        setSysDifVerifyLevel(level);
        trial.write(isOn, {version});
        trial.ask(isOn);
        for (const auto form : {Trial::kBuffer, Trial::kList, Trial::kReturning}) {
            difVerifyStatisticClean();
            host.take();
            host.later();
            const CheckModel model = trial.check(form, isOn, DIF_MID_CACHE, level);
            std::array<uint64_t, DIF_STAT_BUTT> counters;
            difVerifyStatisticGet(DIF_MID_CACHE, static_cast<uint8_t>(model.asked.subPid - 1), counters.data());
            EXPECT_TRUE(counters == model.counted() || model.asked.subPid == 0);
            uint32_t warnings = 0;
            for (const std::string &event : host.take())
                warnings += event.find("DIF_WARNING_CHECK_DIF:") != event.npos && event.find("BST") == event.npos;
            ASSERT_EQ(warnings, model.code == DIF_ERR_CHECK ? 1u : 0u);
            failures += warnings;
        }
    }
    EXPECT_GT(failures, 150u); /* the mix has both outcomes */
}

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
    EXPECT_EQ(checkDifInBlocks(nullptr, 0, nullptr, nullptr, 0, nullptr, nullptr), DIF_OK); /* looks at nothing */
}

/* A level may change while a check runs. */
TEST_F(CheckDif, EveryBlockAsksForTheLevel) {
    Blocks blocks(DIF_DATA_520, 2);
    blocks.set(0, blocks.right(0, 0));
    blocks.set(1, {0xBAD, 0x13, 2, 1});
    /* With the engine at work on block 0: */
    host.onCrc = [](auto...) { return setDifVerifyLevelByMid(DIF_MID_CACHE, 1), uint16_t{0}; };
    Check check(DIF_DATA_520, DIF_CHECK_CRC);
    EXPECT_EQ(checkBuffer(blocks.data(0), 2, &check.param), DIF_OK);
}

/* The scan reads word by word: it must answer when the next page cannot be read, but the word before it is not zero. */
TEST_F(CheckDif, ZeroScanStopsAtTheFirstNonZeroWord) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    auto *const pages =
        static_cast<uint8_t *>(mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    uint8_t *const end = pages + page, *const behind = end + page;
    ASSERT_EQ(mprotect(end, page, PROT_NONE), 0);
    Chain chain(Lengths{{8 * 4160}});
    for (uint32_t readable = 8; readable < 8 + 200; ++readable) {
        uint8_t *const data = end - readable, *const word = data + (readable / 8 - 1) * 8;
        *word = 1; /* in the last word that can be read */
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
        data[readable - 1] = 0x80;
        EXPECT_TRUE(noDifBlockAllZero(data, readable - 1)) << readable;
        EXPECT_FALSE(noDifBlockAllZero(data, readable)) << readable;
        data[readable - 1] = 0;
    }
    munmap(pages, 3 * page);
}

/* Checks of one verify point that share a bitmap, while assertions fail and settings change, lose nothing. */
TEST_F(Concurrency, NothingIsLost) {
    constexpr uint32_t kThreads = 4, kRounds = 20000;
    host.filtered = ~0u; /* no events */
    std::vector<uint32_t> bitmap(kRounds);
    std::vector<std::thread> threads;
    for (uint32_t id = 0; id < kThreads; ++id)
        threads.emplace_back([&bitmap, id] {
            Blocks blocks(DIF_DATA_520, 8);
            for (uint32_t k = 0; k < 8; ++k)
                blocks.set(k, {0xBAD, DIF_VERSION_INVALID, 0, 0});
            for (uint32_t round = 0; round < kRounds; ++round) {
                Check call(DIF_DATA_520, DIF_CHECK_CRC | DIF_CHECK_ALL_BLOCKS | DIF_CHECK_NOT_T10);
                call.param.errBlockBitmap = &bitmap[round];
                uint8_t settled = 9, done = 9;
                initDifCheckResults(&call.param, &settled, &done);
                checkDifInBlocks(blocks.data(0), 8, &blocks.info, &call.param, id * 8, &settled, &done);
                difVerifyStatisticAdd(DIF_MID_CACHE, 0, DIF_STAT_VERSION_ERROR);
                setDifVerifyLevelByMid(DIF_MID_CACHE, round % 2 == 0 ? 2 : 3);
                setSysDifCrcVersion(round % 2 == 0 ? DIF_VERSION_T10 : DIF_VERSION_CRC32C);
                insertDif(nullptr, 1, nullptr);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    uint64_t counters[DIF_STAT_BUTT];
    difVerifyStatisticGet(DIF_MID_CACHE, 0, counters);
    EXPECT_EQ(counters[DIF_STAT_VERSION_ERROR], kThreads * kRounds);
    EXPECT_EQ(bitmap, std::vector<uint32_t>(kRounds, 0xFFFFFFFF));
}

} /* namespace */
