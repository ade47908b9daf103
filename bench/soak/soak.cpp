/*
 * Lives the life of a storage process for as long as asked: threads that work for several modules write, move, spoil,
 * check and trim blocks in random lists, while an operator changes the CRC version at any moment, levels and switch
 * between their steps, and looks in through the control socket. Exits with 0 only if every tuple, answer and counter is
 * as foreseen: each injected fault found by the first check that must find it, and nothing else reported.
 */
#include "dif_host.h"
#include "worker.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <cinttypes>
#include <deque>
#include <filesystem>
#include <mutex>
#include <thread>
#include <unistd.h>

namespace {

constexpr const char *kPointNames[kPoints] = {"RECEIVE", "SEND", "SCRUB"};
Module modules[] = {Module(DIF_MID_FC), Module(DIF_MID_LUN), Module(DIF_MID_CACHE), Module(DIF_MID_POOL)};
std::string socketPath;
std::atomic<bool> stop{false};
std::atomic<bool> failed{false};

void fail(const std::string &who, const std::exception &error) {
    std::fprintf(stderr, "dif_soak: %s: %s\n", who.c_str(), error.what());
    failed = stop = true;
}

/* Runs `work` over and over until the run ends, which a failure ends. */
template <typename Work>
void repeat(const std::string &who, Work work) {
    try {
        while (!stop)
            work();
    } catch (const std::exception &error) {
        fail(who, error);
    }
}

/* The switch, and one level for all modules. */
void setAll(bool isOn, uint8_t level) {
    std::vector<std::unique_lock<std::shared_mutex>> locks;
    for (Module &module : modules) {
        locks.push_back(holdExclusively(module));
        module.isOn = isOn;
        module.level = level;
    }
    setDifOn(isOn ? 1 : 0);
    setSysDifVerifyLevel(level);
}

/* What the diagnose shell answers to a command line. */
std::string command(const char *line) {
    std::string answer;
    const auto print = [](void *to, const char *text, size_t size) {
        static_cast<std::string *>(to)->append(text, size);
    };
    int status = -1;
    const int error = difHostAttach(socketPath.c_str(), DIF_HOST_DIAGNOSE, line, print, &answer, &status);
    require(error == 0 && status == 0 && !answer.empty(), line);
    return answer;
}

void operate(Random &random) {
    const auto level = static_cast<uint8_t>(random.from(DIF_VERIFY_LEVEL_INVALID, DIF_VERIFY_LEVEL_DEBUG));
    Module &module = modules[random.from(0, std::size(modules) - 1)];
    switch (random.from(0, 7)) {
    case 0: {
        const auto lock = holdExclusively(module);
        setDifVerifyLevelByMid(module.mid, level);
        module.level = level;
        break;
    }
    case 1:
        setAll(!random.oneIn(8), level);
        break;
    case 2:
        for (const char *line : {"dif showverifyresult", "dif showverifylevel", "dif showdifswitch", "metrics"})
            command(line);
        break;
    case 3: /* the workers' faults make for warnings */
        difHostSetLogLevel(random.oneIn(2) ? DIF_HOST_LOG_WARNING : DIF_HOST_LOG_ERROR);
        break;
    default:
        setSysDifCrcVersion(random.oneIn(2) ? DIF_VERSION_T10 : DIF_VERSION_CRC32C);
    }
    ++tally.changes;
    std::this_thread::sleep_for(std::chrono::microseconds(random.from(1, 500)));
}

/* Every counter of the library, and what an operator is shown of them. */
void verifyCounters() {
    uint64_t expected[DIF_MID_BUTT][DIF_VERIFY_POINT_MAX][DIF_STAT_BUTT] = {};
    constexpr const char *kKinds[] = {"verify_ok", "version_error", "lba_error", "crc_error"};
    const std::string metrics = command("metrics");
    for (const Module &module : modules) {
        for (uint32_t point = 0; point < kPoints; ++point) {
            std::printf("%-6s %-8s", g_difModuleName[module.mid], kPointNames[point]);
            for (uint32_t kind = 0; kind < DIF_STAT_BUTT; ++kind) {
                expected[module.mid][point][kind] = module.counters[point][kind];
                char sample[200];
                std::snprintf(sample, sizeof sample, "{mid=\"%u\",module=\"%s\",point=\"%u\",name=\"%s\",kind=\"%s\"} ",
                              module.mid, g_difModuleName[module.mid], point + 1, kPointNames[point], kKinds[kind]);
                const std::string value = std::to_string(module.counters[point][kind]);
                require(metrics.find(sample + value + "\n") != std::string::npos, "the metrics do not add up");
                std::printf("  %s %10s", kKinds[kind], value.c_str());
            }
            std::printf("\n");
        }
    }
    for (uint8_t mid = 0; mid < DIF_MID_BUTT; ++mid) {
        for (uint32_t point = 0; point < DIF_VERIFY_POINT_MAX; ++point) {
            uint64_t counters[DIF_STAT_BUTT];
            difVerifyStatisticGet(mid, point, counters);
            require(std::equal(counters, std::end(counters), expected[mid][point]), "the counters do not add up");
        }
    }
}

void live(uint32_t seconds, uint32_t threadNum, uint64_t seed) {
    VerifyPointDesc points[kPoints];
    for (uint32_t i = 0; i < kPoints; ++i)
        points[i] = {static_cast<uint8_t>(i + 1), kPointNames[i]};
    for (const Module &module : modules)
        require(difRegistVerifyPoint(module.mid, points, kPoints, __func__, __LINE__) == DIF_OK, "no verify points");
    require(difHostOpenControlSocket(socketPath.c_str()) == 0, "cannot open the control socket");

    Random random(seed);
    std::deque<Worker> workers;
    while (workers.size() < threadNum)
        workers.emplace_back(modules[workers.size() % std::size(modules)], random.bits());
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < threadNum; ++i)
        threads.emplace_back([&, i] { repeat("worker " + std::to_string(i), [&] { workers[i].step(); }); });
    threads.emplace_back([&] { repeat("operator", [&] { operate(random); }); });
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!stop && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    stop = true;
    for (std::thread &thread : threads)
        thread.join();

    if (!failed) {
        setAll(true, DIF_VERIFY_LEVEL_DEBUG);
        for (Worker &worker : workers)
            worker.audit();
        verifyCounters();
        require(tally.injected > 0 && tally.injected == tally.found, "the faults do not add up");
    }
    std::printf("%" PRIu64 " changes; %" PRIu64 " steps over %" PRIu64 " blocks; %" PRIu64 " faults injected, %" PRIu64
                " found in %" PRIu64 " failed checks\n",
                tally.changes.load(), tally.steps.load(), tally.blocks.load(), tally.injected.load(),
                tally.found.load(), tally.failedChecks.load());
}

} // namespace

int main(int argc, char **argv) {
    CLI::App app("Runs libdif as a storage process does, and proves that everything adds up.", "dif_soak");
    uint32_t seconds = 10, threadNum = 6; /* two modules have two threads each */
    uint64_t seed = std::random_device()();
    app.add_option("--seconds", seconds, "How long to run")->capture_default_str();
    app.add_option("--threads", threadNum, "Working threads")->check(CLI::Range(1, 256))->capture_default_str();
    app.add_option("--seed", seed, "Seed of every random choice");
    CLI11_PARSE(app, argc, argv);
    std::printf("seed %" PRIu64 ", %u threads, %u s\n", seed, threadNum, seconds);
    std::fflush(stdout);

    const std::string name = "dif_soak." + std::to_string(getpid());
    socketPath = (std::filesystem::temp_directory_path() / name).string();
    difHostSetLogLevel(DIF_HOST_LOG_ERROR);
    difModuleInit();
    try {
        live(seconds, threadNum, seed);
    } catch (const std::exception &error) {
        fail("run", error);
    }
    difHostCloseControlSocket();
    difModuleExit();
    std::printf("%s\n", failed ? "FAILED" : "all adds up");
    return failed ? 1 : 0;
}
