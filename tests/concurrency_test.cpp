#include "fake_host.h"
#include "model.h"

#include <latch>
#include <thread>

namespace {

using Concurrency = StartedDif;

/* The data path and the setters at once: data races are for the thread sanitizer, lost counts for this test. */
TEST_F(Concurrency, ChecksInsertionsAndSettingsAtOnce) {
    constexpr uint32_t kCheckers = 4, kBlocks = 8, kRounds = 1500;
    std::vector<uint32_t> bitmap(kRounds); // a word a round, marked by all checkers
    std::atomic<uint64_t> expected[DIF_STAT_BUTT] = {};
    std::atomic<uint32_t> working{kCheckers + 1};
    std::latch checkedOnce(kCheckers);
    std::vector<std::thread> threads;
    for (uint32_t id = 0; id < kCheckers; ++id) {
        threads.emplace_back([&, id] {
            Blocks blocks(DIF_DATA_520, kBlocks);
            const Tuple faults[] = {{0xBAD, 0x13, 2, 0}, {0xBAD, 0x29, 2, ~0u}, {0xBAD, 0x1F, 1, 0}};
            for (uint32_t k = 0; k < kBlocks; ++k)
                blocks.set(k, faults[k % 3]);
            for (uint32_t round = 0; round < kRounds; ++round) {
                host.tick += 100;
                Check check(DIF_DATA_520, DIF_CHECK_CRC | DIF_CHECK_LBA | DIF_CHECK_ALL_BLOCKS | DIF_CHECK_BST);
                checkDif(blocks.data(0), kBlocks, &check.param, "checker", 1);
                for (uint32_t kind = 1; kind < DIF_STAT_BUTT; ++kind)
                    expected[kind] += (check.result >> (3 - kind)) & 1;

                uint8_t settled = 9, done = 9; // as one run of a longer call
                check.param.errBlockBitmap = bitmap.data();
                check.param.crcLevel = check.param.lbaLevel = 1;
                initDifCheckResults(&check.param, &settled, &done);
                checkDifInBlocks(blocks.data(0), kBlocks, &blocks.info, &check.param, round * 32 + id * kBlocks,
                                 &settled, &done);
                insertDif(nullptr, 1, nullptr);
                if (round == 0)
                    checkedOnce.count_down();
            }
            --working;
        });
    }
    threads.emplace_back([&] { // every tuple written agrees with itself, whichever version it got
        Blocks blocks(DIF_DATA_520, kBlocks);
        for (uint32_t round = 0; round < kRounds; ++round) {
            DifOpParam op{DIF_DATA_520, DIF_INSERT_CRC | DIF_INSERT_LBA, round, nullptr};
            insertDifInBlocks(blocks.data(0), kBlocks, &blocks.info, &op);
            for (uint32_t k = 0; k < kBlocks; ++k)
                EXPECT_EQ(blocks.tuple(k), blocks.right(k, round + k, blocks.tuple(k).version));
        }
        --working;
    });
    checkedOnce.wait();
    uint64_t counters[DIF_STAT_BUTT];
    for (uint8_t turn = 0; working != 0; ++turn) {
        setSysDifCrcVersion((turn & 1) != 0 ? DIF_VERSION_CRC32C : DIF_VERSION_T10);
        setDifVerifyLevelByMid(DIF_MID_CACHE, (turn & 7) == 0 ? 1 : 3); // the first check's level comes and goes
        setSysDifVerifyLevel(2);
        setDifOn((turn & 16) != 0 ? 0 : 1);
        setDifRepairType(turn % 3, "setter", 1);
        host.filtered = (turn & 32) != 0 ? 1u << 4 : 0;
        difVerifyStatisticGet(DIF_MID_CACHE, 0, counters);
        host.take();
    }
    for (std::thread &thread : threads)
        thread.join();
    difVerifyStatisticGet(DIF_MID_CACHE, 0, counters);
    for (uint32_t kind = 0; kind < DIF_STAT_BUTT; ++kind)
        EXPECT_EQ(counters[kind], expected[kind]) << "kind " << kind;
    EXPECT_EQ(bitmap, std::vector<uint32_t>(kRounds, 0xFFFFFFFF));
}

} // namespace
