/*
 * Lives the life of a storage process for as long as asked: threads that work for several modules write and check random
 * blocks, while an operator changes the CRC version and looks at the results; from stretch to stretch, switch and levels
 * change. Exits with 0 only if every byte, answer and counter is as foreseen.
 */
#include "dif_host.h"
#include "trial.h"

#include <CLI/CLI.hpp>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

struct Module {
    uint8_t mid, level = 0;
    std::atomic<uint64_t> counters[DIF_VERIFY_POINT_MAX][DIF_STAT_BUTT] = {}; /* as the library's must read */
};

Module modules[] = {{DIF_MID_FC}, {DIF_MID_LUN}, {DIF_MID_CACHE}, {DIF_MID_POOL}};
std::atomic<bool> stop{false}, failed{false};
std::atomic<uint64_t> failures{0};

/* Runs `step` over and over until the stretch ends, which a failure ends. */
template <typename Step>
void repeat(Step step) {
    try {
        while (!stop)
            step();
    } catch (const std::exception &error) {
        std::fprintf(stderr, "dif_soak: %s\n", error.what());
        failed = stop = true;
    }
}

void work(Module &module, bool isOn, Random &random) {
    Trial trial(random);
    trial.write(isOn, {DIF_VERSION_T10, DIF_VERSION_CRC32C});
    trial.ask(isOn);
    const auto form = random.of({Trial::kBuffer, Trial::kList, Trial::kReturning});
    const CheckModel model = trial.check(form, isOn, module.mid, module.level);
    for (uint32_t kind = 0; model.asked.subPid != 0 && kind < DIF_STAT_BUTT; ++kind)
        module.counters[model.asked.subPid - 1][kind] += model.counted()[kind];
    failures += model.code == DIF_ERR_CHECK ? 1 : 0;
}

void operate(Random &random) {
    difHostSetLogLevel(random.oneIn(8) ? DIF_HOST_LOG_WARNING : DIF_HOST_LOG_ASSERT); /* there is a lot to warn of */
    setSysDifCrcVersion(random.oneIn(2) ? DIF_VERSION_T10 : DIF_VERSION_CRC32C);
    const auto drop = [](auto...) {};
    for (const char *line : {"dif showverifyresult", "dif showverifylevel", "dif showdifswitch", "metrics"})
        require(!random.oneIn(8) || difHostRunCommand(DIF_HOST_DIAGNOSE, line, drop, nullptr) == 0, line);
    std::this_thread::sleep_for(std::chrono::microseconds(random.from(1, 500)));
}

void liveAStretch(Random &random) {
    const bool isOn = !random.oneIn(8);
    const auto level = static_cast<uint8_t>(random.from(DIF_VERIFY_LEVEL_INVALID, DIF_VERIFY_LEVEL_DEBUG));
    setDifOn(isOn);
    setSysDifVerifyLevel(level);
    for (Module &module : modules)
        module.level = level;
    Module &other = modules[random.from(0, std::size(modules) - 1)];
    setDifVerifyLevelByMid(other.mid, other.level = DIF_VERIFY_LEVEL_TRACE);
    std::vector<std::thread> threads;
    stop = false;
    for (uint32_t i = 0; i < 6; ++i) /* two modules have two threads each */
        threads.emplace_back([&, i, own = Random(std::mt19937_64(random.engine()))]() mutable {
            repeat([&] { work(modules[i % std::size(modules)], isOn, own); });
        });
    repeat([&, left = 100]() mutable {
        operate(random);
        if (--left == 0)
            stop = true;
    });
    for (std::thread &thread : threads)
        thread.join();
}

} /* namespace */

int main(int argc, char **argv) {
    CLI::App app("Runs libdif as a storage process does, and proves that everything adds up.", "dif_soak");
    uint32_t seconds = 10;
    app.add_option("--seconds", seconds, "How long to run")->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    Random random;
    std::fflush(stdout);
    difHostSetAssertPolicy(DIF_HOST_ASSERT_GO_ON); /* unknown points and impossible levels are part of it */
    difModuleInit();
    const VerifyPointDesc points[] = {{1, "RECEIVE"}, {2, "SEND"}};
    for (const Module &module : modules)
        difRegistVerifyPoint(module.mid, points, 2, __func__, __LINE__);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!failed && std::chrono::steady_clock::now() < end)
        liveAStretch(random);
    for (const Module &module : modules) {
        for (uint32_t point = 0; point < DIF_VERIFY_POINT_MAX; ++point) {
            uint64_t counters[DIF_STAT_BUTT];
            difVerifyStatisticGet(module.mid, point, counters);
            failed = failed || !std::equal(counters, std::end(counters), module.counters[point]);
        }
    }
    difModuleExit();
    std::printf("%ju checks failed as foreseen%s\n", uintmax_t{failures}, failed ? "; but not all is" : "");
    return failed || failures == 0 ? 1 : 0;
}
