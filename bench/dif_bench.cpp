/* How close insertion, replacement and checking of contiguous buffers come to the bare CRC engines; and the program. */
#include "bench/blocks.h"
#include "bench/list_bench.h"
#include "bench/paired_run.h"
#include "bench/ratio_reporter.h"

#include "dif_host.h"

#include <cstddef>
#include <cstdio>
#include <span>
#include <string>

namespace {

using bench::Blocks;
using bench::Content;

constexpr uint8_t kMid = DIF_MID_CACHE;
constexpr uint8_t kVerifyPoint = 1;

struct CheckAnswer {
    uint32_t code;
    uint32_t resultWord;
    bool operator==(const CheckAnswer &) const = default;
};

/* ---- Calls under measurement -------------------------------------------------------------------------------------- */

uint32_t insertAs(const Blocks &blocks, uint32_t type) {
    DifOpParam param{type, DIF_INSERT_CRC | DIF_INSERT_LBA, bench::kFirstLba, nullptr};
    insertDif(blocks.buf, blocks.sectors(), &param);
    return DIF_OK;
}

uint32_t insert(const Blocks &blocks) {
    return insertAs(blocks, blocks.type);
}

uint32_t insertZeroData(const Blocks &blocks) {
    return insertAs(blocks, blocks.type == DIF_DATA_520 ? DIF_DATA_520_ZERO : DIF_DATA_4160_ZERO);
}

uint32_t replace(const Blocks &blocks) {
    DifOpParam param{blocks.type, DIF_REPLACE_CRC | DIF_REPLACE_LBA, bench::kFirstLba, nullptr};
    replaceDif(blocks.buf, blocks.sectors(), &param);
    return DIF_OK;
}

CheckAnswer checkFor(const Blocks &blocks, uint32_t ctrlFlag) {
    CheckAnswer answer{DIF_FAIL, 0};
    DifCheckParam param{blocks.type, ctrlFlag,     DIF_VERIFY_LEVEL_MAJOR, DIF_VERIFY_LEVEL_MAJOR,
                        kMid,        kVerifyPoint, bench::kFirstLba,       &answer.resultWord,
                        nullptr,     nullptr};
    answer.code = checkDif(blocks.buf, blocks.sectors(), &param, __func__, __LINE__);
    return answer;
}

template <uint32_t kCtrlFlag>
uint32_t check(const Blocks &blocks) {
    return checkFor(blocks, kCtrlFlag).code;
}

constexpr uint32_t kIntegrity = DIF_CHECK_CRC | DIF_CHECK_LBA;
constexpr uint32_t kTupleReport = DIF_CHECK_BST | DIF_CHECK_UNKNOWN_VERSION;
constexpr uint32_t kZeroReport = DIF_CHECK_ZERO_DATA;

/* ---- Proofs that they do their work ------------------------------------------------------------------------------- */

bool protects(const Blocks &blocks) {
    return blocks.areProtected();
}

bool leavesAlone(const Blocks &blocks) {
    return !blocks.areProtected();
}

/*
 * Whether a check answers `before` now and `after` once bit 0 of `spoiled`, a byte of the last block, is flipped: it
 * then has reached that block and really looked.
 */
bool checkAnswers(const Blocks &blocks, uint32_t ctrlFlag, CheckAnswer before, uint32_t spoiled, CheckAnswer after) {
    uint8_t &byte = blocks.block(blocks.count() - 1)[spoiled];
    const bool asExpected = checkFor(blocks, ctrlFlag) == before;
    byte ^= 1;
    const bool noticed = checkFor(blocks, ctrlFlag) == after;
    byte ^= 1;
    return asExpected && noticed;
}

bool findsWrongGuardAndLba(const Blocks &blocks) {
    const uint32_t lbaByte = blocks.shape.difOffset + offsetof(DifTuple, lba);
    return checkAnswers(blocks, kIntegrity, {DIF_OK, 0}, 0, {DIF_ERR_CHECK, DIF_RESULT_CRC_ERROR}) &&
           checkAnswers(blocks, kIntegrity, {DIF_OK, 0}, lbaByte, {DIF_ERR_CHECK, DIF_RESULT_LBA_ERROR});
}

bool findsBst(const Blocks &blocks) {
    return checkAnswers(blocks, kTupleReport, {DIF_OK, 0}, blocks.shape.difOffset + offsetof(DifTuple, app),
                        {DIF_OK, DIF_RESULT_HAVE_BST});
}

bool findsNonZero(const Blocks &blocks) {
    const uint32_t always = getDifOn() != 0 ? 0 : DIF_RESULT_NOT_T10;
    return checkAnswers(blocks, kZeroReport, {DIF_OK, always | DIF_RESULT_ALL_ZERO}, blocks.shape.dataSize - 1,
                        {DIF_OK, always});
}

bool findsNothing(const Blocks &blocks) {
    constexpr CheckAnswer kAnswer{DIF_OK, DIF_RESULT_NOT_T10};
    return checkAnswers(blocks, kIntegrity, kAnswer, 0, kAnswer);
}

/* ---- Benchmarks --------------------------------------------------------------------------------------------------- */

struct Operation {
    const char *name;
    Content content;
    bool isProtected; /* the blocks have their tuples already */
    uint8_t difOn;
    uint32_t (*call)(const Blocks &);
    bool (*works)(const Blocks &);
};

constexpr Operation kAgainstEngine[] = {
    {"insert", Content::kRandom, false, 1, insert, protects},
    {"replace", Content::kRandom, false, 1, replace, protects},
    {"check", Content::kRandom, true, 1, check<kIntegrity>, findsWrongGuardAndLba},
    {"insert-zero-data", Content::kZero, false, 1, insertZeroData, protects},
    {"report-tuples", Content::kRandom, true, 1, check<kTupleReport>, findsBst},
    {"report-zero-data", Content::kZero, true, 1, check<kZeroReport>, findsNonZero},
    {"off-report-zero-data", Content::kZero, true, 0, check<kZeroReport>, findsNonZero},
};

/* With DIF off these touch no data: the cost of the call is all there is to measure. */
constexpr Operation kCallCost[] = {
    {"off-insert", Content::kRandom, false, 0, insert, leavesAlone},
    {"off-replace", Content::kRandom, false, 0, replace, leavesAlone},
    {"off-check", Content::kRandom, true, 0, check<kIntegrity>, findsNothing},
};

/* Makes the blocks ready for `operation` and proves, outside all timing, that it does its work on them. */
bool prepare(benchmark::State &state, const Operation &operation, const Blocks &blocks) {
    setSysDifCrcVersion(blocks.version);
    setDifOn(1);
    blocks.fill(operation.content);
    if (operation.isProtected) {
        insert(blocks);
    }
    setDifOn(operation.difOn);
    if (operation.call(blocks) == DIF_OK && operation.works(blocks)) {
        return true;
    }
    state.SkipWithError("the operation's result is wrong");
    return false;
}

constexpr uint32_t kTypes[] = {DIF_DATA_520, DIF_DATA_4160};
constexpr uint8_t kVersions[] = {DIF_VERSION_T10, DIF_VERSION_CRC32C};

struct NamedSize {
    const char *name;
    size_t dataBytes;
};
constexpr NamedSize kSizes[] = {
    {"4KiB", size_t{4} << 10}, {"64KiB", size_t{64} << 10}, {"1MiB", size_t{1} << 20}, {"64MiB", bench::kMaxDataBytes}};

std::string nameOf(const Operation &operation, uint32_t type, uint8_t version, const NamedSize &size) {
    return std::string(operation.name) + (type == DIF_DATA_520 ? "/520" : "/4160") +
           (version == DIF_VERSION_T10 ? "/t10/" : "/crc32c/") + size.name;
}

constexpr const char *kBesideEngine =
    "Throughput as a share of the bare checksum engine's over the same blocks, by the data of a call (1.00: as fast);\n"
    "operation/block bytes/guard";
constexpr const char *kBesideStream = "Throughput as a share of that of a loop which runs the engine and stores eight "
                                      "bytes behind each block, and does no\n"
                                      "more; operation/block bytes/guard";
constexpr const char *kTimes = "Nanoseconds of a call while DIF is off; operation/block bytes/guard";

void registerAgainstEngine(const Operation &operation) {
    for (const uint32_t type : kTypes) {
        for (const uint8_t version : kVersions) {
            for (const NamedSize &size : kSizes) {
                const Blocks blocks(type, version, size.dataBytes);
                const auto run = [&operation, blocks](benchmark::State &state) {
                    if (prepare(state, operation, blocks)) {
                        bench::runPaired(
                            state, kBesideEngine, blocks.dataBytes, [&] { return blocks.runEngine(); },
                            [&] { return operation.call(blocks); });
                    }
                };
                benchmark::RegisterBenchmark(nameOf(operation, type, version, size).c_str(), run)->UseManualTime();
            }
        }
    }
}

/* Over more than the caches hold. The loop writes what is there already, so that checks still pass. */
void registerAgainstStream(const Operation &operation) {
    for (const uint32_t type : kTypes) {
        for (const uint8_t version : kVersions) {
            const NamedSize &size = kSizes[3];
            const Blocks blocks(type, version, size.dataBytes);
            const auto run = [&operation, blocks](benchmark::State &state) {
                if (prepare(state, operation, blocks)) {
                    bench::runPaired(
                        state, kBesideStream, blocks.dataBytes, [&] { return blocks.runStream(); },
                        [&] { return operation.call(blocks); });
                }
            };
            benchmark::RegisterBenchmark(("stream-" + nameOf(operation, type, version, size)).c_str(), run)
                ->UseManualTime();
        }
    }
}

void registerCallCost(const Operation &operation) {
    const NamedSize &size = kSizes[1];
    const Blocks blocks(DIF_DATA_520, DIF_VERSION_T10, size.dataBytes);
    const auto run = [&operation, blocks](benchmark::State &state) {
        if (prepare(state, operation, blocks)) {
            for (auto _ : state) {
                benchmark::DoNotOptimize(operation.call(blocks));
            }
            state.SetLabel(kTimes);
        }
    };
    benchmark::RegisterBenchmark(nameOf(operation, DIF_DATA_520, DIF_VERSION_T10, size).c_str(), run);
}

} /* namespace */

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    difHostSetLogLevel(DIF_HOST_LOG_ERROR); /* the proofs provoke check warnings */
    difModuleInit();
    const VerifyPointDesc point{kVerifyPoint, "BENCH"};
    if (difRegistVerifyPoint(kMid, &point, 1, __func__, __LINE__) != DIF_OK) {
        std::fprintf(stderr, "dif_bench: cannot register verify point %u of module %u\n", kVerifyPoint, kMid);
        return 2;
    }
    for (const Operation &operation : kAgainstEngine) {
        registerAgainstEngine(operation);
    }
    for (const Operation &operation : std::span(kAgainstEngine).first(3)) {
        registerAgainstStream(operation);
    }
    for (const Operation &operation : kCallCost) {
        registerCallCost(operation);
    }
    bench::registerListBenchmarks(kMid, kVerifyPoint);
    bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    difModuleExit();
    return reporter.failed() ? 1 : 0;
}
