/*
 * Lives the life of a storage process for as long as asked: threads that work for several modules write, move, spoil,
 * discard, trim and check blocks in random lists, while an operator changes the CRC version at any moment, levels and
 * switch between their steps, and looks in through the control socket. Exits with 0 only if every byte, answer and
 * counter is as the model of the operations foresees.
 */
#include "chain.h"
#include "dif/dif.h"
#include "dif_host.h"
#include "model.h"

#include <CLI/CLI.hpp>

#include <atomic>
#include <chrono>
#include <deque>
#include <filesystem>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <unistd.h>

namespace {

constexpr uint32_t kPoints = 3, kVolumes = 6;

struct Module {
    explicit Module(uint8_t id) : mid(id) {}
    const uint8_t mid;
    std::shared_mutex settings;        /* held by its workers during a step, exclusively to change the next two */
    std::atomic<bool> isWanted{false}; /* exclusively: no new steps then, which would starve the writer */
    bool isOn = true;
    uint8_t level = DIF_VERIFY_LEVEL_MAJOR;
    std::atomic<uint64_t> counters[kPoints][DIF_STAT_BUTT] = {}; /* as the library's must read */
};

Module modules[] = {Module(DIF_MID_FC), Module(DIF_MID_LUN), Module(DIF_MID_CACHE), Module(DIF_MID_POOL)};
std::string socketPath;
std::atomic<bool> stop{false}, failed{false};
std::atomic<uint64_t> steps{0}, changes{0}, passedChecks{0}, failedChecks{0};

/* Ends the run if the library did what it must not. */
void require(bool holds, const char *what) {
    if (!holds)
        throw std::runtime_error(what);
}

/* Blocks in a random list, and what they must read. */
struct Volume {
    Volume(uint32_t type, uint32_t count, Random &random)
        : blocks(type, count, random.bits()), lba(random.bits()),
          chain(randomLengths(random, count, blocks.info.blockSize), blocks.bytes, random.from(0, 15)) {}
    Blocks blocks;
    uint64_t lba; /* of block 0 */
    Chain chain;
};

class Worker {
public:
    Worker(Module &module, uint64_t seed) : module_(module), random_(seed) {
        while (volumes_.size() < kVolumes) {
            const uint32_t type = random_.of({DIF_DATA_520, DIF_DATA_520, DIF_DATA_4160});
            volumes_.emplace_back(type, random_.from(1, type == DIF_DATA_520 ? 64 : 8), random_);
        }
    }

    /* One random piece of work over a random range of a volume. */
    void step() {
        constexpr void (Worker::*kWork[])() = {&Worker::write,   &Worker::move,  &Worker::spoil,
                                               &Worker::discard, &Worker::check, &Worker::check};
        volume_ = &volumes_[random_.from(0, kVolumes - 1)];
        first_ = random_.from(0, volume_->blocks.count - 1);
        count_ = random_.from(1, volume_->blocks.count - first_);
        while (module_.isWanted)
            std::this_thread::yield();
        const std::shared_lock lock(module_.settings);
        (this->*kWork[random_.from(0, std::size(kWork) - 1)])();
        require(volume_->chain.bytes() == volume_->blocks.bytes, "the blocks are not as they must be");
        ++steps;
    }

private:
    Blocks &blocks() { return volume_->blocks; }
    uint32_t offset() { return first_ * blocks().info.blockSize; }
    uint32_t sectors() { return count_ << blocks().info.sectorShift; }
    uint64_t lba() { return volume_->lba + first_; }

    /* What insertion or replacement must have made of the range, whichever version each block got. */
    template <typename Model>
    void expectWritten(Model model, const DifOpParam &op) {
        const std::vector<uint8_t> written = volume_->chain.bytes();
        require(op.lba == lba(), "the LBA is not as it was");
        for (uint32_t i = 0; module_.isOn && i < count_; ++i) {
            const size_t at = size_t{first_ + i} * blocks().info.blockSize + blocks().info.difOffset;
            const bool isCrc32c = tupleAt(&written[at]).version == DIF_VERSION_CRC32C;
            model(blocks(), first_ + i, i, op, isCrc32c ? DIF_VERSION_CRC32C : DIF_VERSION_T10);
        }
    }

    void write() {
        const bool isZero = random_.oneIn(8);
        for (uint32_t k = first_; k < first_ + count_; ++k) {
            blocks().zeroData(k);
            if (!isZero)
                random_.fill(blocks().data(k), blocks().info.dataSize);
        }
        volume_->chain.fill(blocks().bytes);
        DifOpParam op{blocks().type + (isZero ? 1 : 0), DIF_INSERT_CRC | DIF_INSERT_LBA, lba(), nullptr};
        insertDifInSgl(volume_->chain.at(0), offset(), sectors(), &op);
        expectWritten(modelInsert, op);
    }

    void move() {
        uint32_t bitmap[] = {static_cast<uint32_t>(random_.bits()), static_cast<uint32_t>(random_.bits())};
        const uint32_t flags = random_.of({DIF_REPLACE_LBA, DIF_REPLACE_CRC, DIF_REPLACE_LBA | DIF_REPLACE_CRC});
        DifOpParam op{blocks().type, flags, lba(), random_.oneIn(2) ? bitmap : nullptr};
        replaceDifInSgl(volume_->chain.at(0), offset(), sectors(), &op);
        expectWritten(modelReplace, op);
    }

    void spoil() {
        count_ = random_.from(1, std::min(count_, 3u));
        DifInjectParam inject{blocks().type, random_.from(0, 15), lba() + random_.from(0, 1),
                              static_cast<uint16_t>(random_.bits()), random_.of<uint8_t>({0x1F, 0x01, 0x34, 0xFF})};
        injectDifInSgl(volume_->chain.at(0), offset(), sectors(), &inject);
        for (uint32_t i = 0; i < count_; ++i)
            modelInject(blocks(), first_ + i, i, inject);
    }

    /* Discarded blocks are zeros behind an all-ones tuple, until they are trimmed. */
    void discard() {
        for (uint32_t k = first_; k < first_ + count_; ++k) {
            if (random_.oneIn(2)) {
                blocks().zeroData(k);
                blocks().set(k, kOnes);
            }
        }
        volume_->chain.fill(blocks().bytes);
        Check trim(blocks().type, DIF_CHECK_TRIM_ZERO);
        require(checkDifInSgl(volume_->chain.at(0), offset(), sectors(), &trim.param, __func__, 1) == DIF_OK,
                "no trim");
        for (uint32_t i = 0; i < count_; ++i)
            modelTrim(blocks(), first_ + i);
    }

    void check() {
        uint32_t flags = random_.of({DIF_CHECK_CRC, DIF_CHECK_LBA, DIF_CHECK_CRC | DIF_CHECK_LBA});
        for (const uint32_t flag : {DIF_CHECK_ALL_BLOCKS, DIF_CHECK_CONVERT_T10, DIF_CHECK_BST, DIF_CHECK_NOT_T10})
            flags |= random_.oneIn(3) ? flag : 0;
        Check check(blocks().type, flags, lba());
        check.param.crcLevel = static_cast<uint8_t>(random_.from(1, 4));
        check.param.lbaLevel = static_cast<uint8_t>(random_.from(1, 4));
        check.param.mid = module_.mid;
        check.param.subPid = static_cast<uint8_t>(random_.from(1, kPoints));
        const DifCheckParam before = check.param;
        CheckModel model(check.param, module_.level);
        if (module_.isOn)
            model.run(blocks(), first_, 0, count_);
        else
            model.result = DIF_RESULT_NOT_T10;
        const auto form = random_.oneIn(2) ? checkDifInSgl : checkDifInSglWithErrorReturn;
        const uint32_t code = form(volume_->chain.at(0), offset(), sectors(), &check.param, __func__, 1);
        require(code == model.code && check.result == model.result, "a check missed a fault, or reported one too many");
        require(check.index == model.index && check.bitmap == model.bitmap, "a check blames the wrong blocks");
        require(memcmp(&before, &check.param, sizeof before) == 0, "a check did not restore its record");
        for (uint32_t kind = 0; kind < DIF_STAT_BUTT; ++kind)
            module_.counters[before.subPid - 1][kind] += model.counted()[kind];
        ++(code == DIF_OK ? passedChecks : failedChecks);
    }

    Module &module_;
    Random random_;
    std::deque<Volume> volumes_;
    Volume *volume_ = nullptr;
    uint32_t first_ = 0, count_ = 0; /* the range, in blocks */
};

std::unique_lock<std::shared_mutex> holdExclusively(Module &module) {
    module.isWanted = true;
    std::unique_lock lock(module.settings);
    module.isWanted = false;
    return lock;
}

void command(const char *line) {
    const auto ignore = [](void *, const char *, size_t) {};
    int status = -1;
    require(difHostAttach(socketPath.c_str(), DIF_HOST_DIAGNOSE, line, ignore, nullptr, &status) == 0 && status == 0,
            line);
}

void operate(Random &random) {
    const auto level = static_cast<uint8_t>(random.from(DIF_VERIFY_LEVEL_INVALID, DIF_VERIFY_LEVEL_DEBUG));
    const uint32_t what = random.from(0, 7);
    if (what == 0) {
        Module &module = modules[random.from(0, std::size(modules) - 1)];
        const auto lock = holdExclusively(module);
        setDifVerifyLevelByMid(module.mid, module.level = level);
    } else if (what == 1) {
        std::vector<std::unique_lock<std::shared_mutex>> locks;
        const bool isOn = !random.oneIn(8);
        for (Module &module : modules) {
            locks.push_back(holdExclusively(module));
            module.isOn = isOn;
            module.level = level;
        }
        setDifOn(isOn ? 1 : 0);
        setSysDifVerifyLevel(level);
    } else if (what == 2) {
        for (const char *line : {"dif showverifyresult", "dif showverifylevel", "dif showdifswitch", "metrics"})
            command(line);
    } else if (what == 3) { /* the workers' faults make for warnings */
        difHostSetLogLevel(random.oneIn(2) ? DIF_HOST_LOG_WARNING : DIF_HOST_LOG_ERROR);
    } else {
        setSysDifCrcVersion(random.oneIn(2) ? DIF_VERSION_T10 : DIF_VERSION_CRC32C);
    }
    ++changes;
    std::this_thread::sleep_for(std::chrono::microseconds(random.from(1, 500)));
}

void verifyCounters() {
    for (const Module &module : modules) {
        for (uint32_t point = 0; point < DIF_VERIFY_POINT_MAX; ++point) {
            uint64_t counters[DIF_STAT_BUTT];
            difVerifyStatisticGet(module.mid, point, counters);
            for (uint32_t kind = 0; kind < DIF_STAT_BUTT; ++kind)
                require(counters[kind] == (point < kPoints ? module.counters[point][kind].load() : 0), "a lost count");
        }
    }
}

/* Runs `work` over and over until the run ends, which a failure ends. */
template <typename Work>
void repeat(const char *who, Work work) {
    try {
        while (!stop)
            work();
    } catch (const std::exception &error) {
        std::fprintf(stderr, "dif_soak: %s: %s\n", who, error.what());
        failed = stop = true;
    }
}

void live(uint32_t seconds, uint32_t threadNum, uint64_t seed) {
    const VerifyPointDesc points[kPoints] = {{1, "RECEIVE"}, {2, "SEND"}, {3, "SCRUB"}};
    for (const Module &module : modules)
        require(difRegistVerifyPoint(module.mid, points, kPoints, __func__, 1) == DIF_OK, "no verify points");
    require(difHostOpenControlSocket(socketPath.c_str()) == 0, "cannot open the control socket");
    Random random(seed);
    std::deque<Worker> workers;
    while (workers.size() < threadNum)
        workers.emplace_back(modules[workers.size() % std::size(modules)], random.bits());
    std::vector<std::thread> threads;
    for (Worker &worker : workers)
        threads.emplace_back([&] { repeat("a worker", [&] { worker.step(); }); });
    threads.emplace_back([&] { repeat("the operator", [&] { operate(random); }); });
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!stop && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    stop = true;
    for (std::thread &thread : threads)
        thread.join();
    verifyCounters();
    require(passedChecks > 0 && failedChecks > 0, "not every kind of check was made");
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
    std::printf("seed %ju, %u threads, %u s\n", uintmax_t{seed}, threadNum, seconds);
    std::fflush(stdout);
    socketPath = std::filesystem::temp_directory_path() / ("dif_soak." + std::to_string(getpid()));
    difHostSetLogLevel(DIF_HOST_LOG_ERROR);
    difModuleInit();
    repeat("the run", [&] { live(seconds, threadNum, seed); });
    difHostCloseControlSocket();
    difModuleExit();
    std::printf("%ju changes, %ju steps, %ju passed and %ju failed checks: %s\n", uintmax_t{changes}, uintmax_t{steps},
                uintmax_t{passedChecks}, uintmax_t{failedChecks}, failed ? "FAILED" : "all adds up");
    return failed ? 1 : 0;
}
