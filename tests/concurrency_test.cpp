#include "blocks.h"

#include <latch>
#include <thread>

namespace {

/* The data path and the setters at once: data races are for the thread sanitizer, lost counts for this test. */
TEST(Concurrency, ChecksInsertionsAndSettingsAtOnce) {
    constexpr uint32_t kCheckers = 4, kBlocks = 8, kRounds = 1500;
    difModuleInit();
    const VerifyPointDesc point{1, "shared"};
    ASSERT_EQ(difRegistVerifyPoint(DIF_MID_CACHE, &point, 1, "test", 1), DIF_OK);
    std::vector<uint32_t> bitmap(kRounds); // a word a round, marked by all checkers
    std::atomic<uint64_t> expected[DIF_STAT_BUTT] = {};
    std::atomic<uint32_t> working{kCheckers + 1};
    std::latch checkedOnce(kCheckers);
    std::vector<std::thread> threads;

    for (uint32_t id = 0; id < kCheckers; ++id) {
        threads.emplace_back([&, id] {
            Blocks blocks(DIF_DATA_520, kBlocks);
            const char *const faults[] = {"0bad 13 02 00000000", "gggg 29 02 ffffffff", "gggg 1f 01 00000000"};
            for (uint32_t k = 0; k < kBlocks; ++k)
                blocks.set(k, faults[k % 3]);
            for (uint32_t round = 0; round < kRounds; ++round) {
                host.tick += 100;
                Check check(DIF_DATA_520, DIF_CHECK_CRC | DIF_CHECK_LBA | DIF_CHECK_ALL_BLOCKS | DIF_CHECK_BST);
                check.run(blocks);
                for (uint32_t kind = 1; kind < DIF_STAT_BUTT; ++kind)
                    expected[kind] += (check.result >> (3 - kind)) & 1;

                uint8_t settled, done; // as one run of a longer call
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
            for (uint32_t k = 0; k < kBlocks; ++k) {
                const std::string want = format("gggg %02x 02 %08x", blocks.tuple(k)[2], round + k);
                EXPECT_EQ(blocks.get(k), blocks.expand(k, want));
            }
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
    EXPECT_GT(expected[DIF_STAT_CRC_ERROR], 0u);
    EXPECT_EQ(bitmap, std::vector<uint32_t>(kRounds, 0xFFFFFFFF));
}

} // namespace
