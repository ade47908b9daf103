#include "fake_host.h"
#include "trial.h"

namespace {

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

} // namespace
