#include "fake_host.h"
#include "model.h"

#include <thread>

namespace {

using Concurrency = StartedDif;

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

} // namespace
