#include "bench/list_bench.h"
#include "bench/blocks.h"
#include "bench/chain.h"
#include "bench/paired_run.h"

#include <cstddef>
#include <string>
#include <vector>

namespace bench {
namespace {

uint8_t checkMid;
uint8_t checkPoint;

/* Some of the blocks, in their own memory or through a list over it. */
struct Request {
    const Blocks *blocks;
    const Sgl *list; /* null: the contiguous form */
    uint32_t first;
    uint32_t sectors;

    uint8_t *data() const { return blocks->block(first); }
    uint32_t offsetByte() const { return first * blocks->shape.blockSize; }
    uint64_t lba() const { return kFirstLba + first; }
};

/* ---- Calls under measurement: each answers with its result code in the upper and its result word in the lower half ---- */

uint64_t insert(const Request &request) {
    DifOpParam param{request.blocks->type, DIF_INSERT_CRC | DIF_INSERT_LBA, request.lba(), nullptr};
    if (request.list == nullptr) {
        insertDif(request.data(), request.sectors, &param);
    } else {
        insertDifInSgl(request.list, request.offsetByte(), request.sectors, &param);
    }
    return 0;
}

uint64_t replace(const Request &request) {
    DifOpParam param{request.blocks->type, DIF_REPLACE_CRC | DIF_REPLACE_LBA, request.lba(), nullptr};
    if (request.list == nullptr) {
        replaceDif(request.data(), request.sectors, &param);
    } else {
        replaceDifInSgl(request.list, request.offsetByte(), request.sectors, &param);
    }
    return 0;
}

uint64_t inject(const Request &request) {
    DifInjectParam param{request.blocks->type, DIF_INJECT_CRC | DIF_INJECT_LBA, request.lba(), 0x5AA5, 0};
    if (request.list == nullptr) {
        injectDif(request.data(), request.sectors, &param);
    } else {
        injectDifInSgl(request.list, request.offsetByte(), request.sectors, &param);
    }
    return 0;
}

template <auto kListForm>
uint64_t check(const Request &request) {
    uint32_t result = 0;
    DifCheckParam param{request.blocks->type,
                        DIF_CHECK_CRC | DIF_CHECK_LBA,
                        DIF_VERIFY_LEVEL_MAJOR,
                        DIF_VERIFY_LEVEL_MAJOR,
                        checkMid,
                        checkPoint,
                        request.lba(),
                        &result,
                        nullptr,
                        nullptr};
    const uint64_t code =
        request.list == nullptr
            ? checkDif(request.data(), request.sectors, &param, __func__, __LINE__)
            : kListForm(request.list, request.offsetByte(), request.sectors, &param, __func__, __LINE__);
    return code << 32 | result;
}

uint64_t checkStdT10(const Request &request) {
    uint32_t result = 0;
    DifCheckParam param{};
    param.type = request.blocks->type;
    param.ctrlFlag = DIF_CHECK_CRC | DIF_CHECK_LBA;
    param.lba = request.lba();
    param.checkResult = &result;
    const uint64_t code = checkDifInSglWithStdT10(request.list, request.offsetByte(), request.sectors, &param);
    return code << 32 | result;
}

uint64_t checkZeroData(const Request &request) {
    DifCheckParam param{};
    param.type = request.blocks->type;
    const bool isZero = request.list == nullptr
                            ? noDifZeroDataCheck(request.data(), request.sectors, &param)
                            : noDifZeroDataCheckInSgl(request.list, request.offsetByte(), request.sectors, &param);
    return isZero ? 1 : 0;
}

uint64_t testEvictable(const Request &request) {
    const bool isEvictable = request.list == nullptr
                                 ? isDifEvictable(request.data(), request.sectors)
                                 : isDifEvictableInSgl(request.list, request.offsetByte(), request.sectors);
    return isEvictable ? 1 : 0;
}

struct ListOperation {
    const char *name;
    Content content;
    bool isProtected; /* the blocks have their tuples already */
    bool isForLarge;  /* measured over 4160-byte blocks too */
    bool onlyLists;   /* has no contiguous form; a list of one entry stands in for it */
    uint32_t
        spoiled; /* byte of a 520-byte block that the answer or the tuple depends on, if injection is not the operation */
    uint64_t (*call)(const Request &);
};

constexpr uint32_t kFlagByte = 512 + offsetof(DifTuple, app);
constexpr ListOperation kInsert{"list-insert", Content::kRandom, false, true, false, 0, insert};
constexpr ListOperation kCheck{"list-check", Content::kRandom, true, true, false, 0, check<checkDifInSgl>};
constexpr ListOperation kOperations[] = {
    kInsert,
    {"list-replace", Content::kRandom, false, false, false, 0, replace},
    {"list-inject", Content::kRandom, true, false, false, 0, inject},
    kCheck,
    {"list-check-error-return", Content::kRandom, true, true, false, 0, check<checkDifInSglWithErrorReturn>},
    {"list-check-std-t10", Content::kRandom, true, true, true, 0, checkStdT10},
    {"list-zero-data", Content::kZero, true, false, false, 511, checkZeroData},
    {"list-evictable", Content::kRandom, true, false, false, kFlagByte, testEvictable},
};

/* ---- Proof that both forms do the same work, and all of it -------------------------------------------------------------- */

using DifAreas = std::vector<std::vector<uint8_t>>;

struct Effect {
    uint64_t answer;
    DifAreas difAreas;
    bool operator==(const Effect &) const = default;
};

DifAreas difAreasOf(const Blocks &blocks) {
    DifAreas areas;
    for (size_t i = 0; i < blocks.count(); ++i) {
        areas.emplace_back(blocks.difArea(i), blocks.block(i + 1));
    }
    return areas;
}

size_t lastBlockOf(const Request &request) {
    return request.first + (request.sectors >> request.blocks->shape.sectorShift) - 1;
}

void makeReady(const ListOperation &operation, const Blocks &blocks) {
    setSysDifCrcVersion(blocks.version);
    setDifOn(1);
    blocks.fill(operation.content);
    if (operation.isProtected) {
        insert({&blocks, nullptr, 0, blocks.sectors()});
    }
}

/* The effect on fresh blocks of which the request's last has bit 0 of one byte flipped, or not. */
Effect effectOf(const ListOperation &operation, const Request &request, uint8_t flip) {
    const Blocks &blocks = *request.blocks;
    makeReady(operation, blocks);
    blocks.block(lastBlockOf(request))[operation.spoiled] ^= flip;
    const uint64_t answer = operation.call(request);
    return {answer, difAreasOf(blocks)};
}

/* Whether two requests have the same effect, which depends on the last block or changes its tuple. */
bool worksAlike(const ListOperation &operation, const Request &one, const Request &other) {
    makeReady(operation, *one.blocks);
    const DifAreas before = difAreasOf(*one.blocks);
    const size_t last = lastBlockOf(one);
    const Effect spoiled = effectOf(operation, other, 1);
    const Effect sound = effectOf(operation, other, 0);
    return effectOf(operation, one, 1) == spoiled && effectOf(operation, one, 0) == sound &&
           (sound.answer != spoiled.answer || sound.difAreas[last] != before[last]);
}

/* ---- Benchmarks --------------------------------------------------------------------------------------------------------- */

struct NamedSize {
    const char *name;
    size_t dataBytes;
};
constexpr NamedSize kRequests[] = {{"64KiB", size_t{64} << 10}, {"1MiB", size_t{1} << 20}};
constexpr NamedSize kEntries[] = {{"4KiB", size_t{4} << 10}, {"64KiB", size_t{64} << 10}, {"1MiB", size_t{1} << 20}};

constexpr size_t kLongChain = 10'000; /* entries */

constexpr const char *kBesideContiguous =
    "Throughput over lists as a share of the contiguous form's, by the data in an entry (1.00: as fast),\n"
    "and nanoseconds that a one-block entry adds; operation/block bytes/data of a call";
constexpr const char *kBesideFirst =
    "Speed at the last of 10000 entries as a share of that at the first, and nanoseconds that an entry adds which is\n"
    "passed; operation/block bytes/entry";

void registerOverEntries(const ListOperation &operation, const Blocks &blocks, const char *requestName,
                         const char *entryName, size_t blocksPerEntry) {
    const auto run = [&operation, blocks, blocksPerEntry](benchmark::State &state) {
        const Chain whole(blocks, blocks.count());
        const Chain chain(blocks, blocksPerEntry);
        const Request contiguous{&blocks, operation.onlyLists ? whole.root() : nullptr, 0, blocks.sectors()};
        const Request list{&blocks, chain.root(), 0, blocks.sectors()};
        if (!worksAlike(operation, contiguous, list)) {
            state.SkipWithError("the list form does not do what the contiguous form does");
            return;
        }
        runPaired(
            state, kBesideContiguous, blocks.dataBytes, [&] { return operation.call(contiguous); },
            [&] { return operation.call(list); });
        if (blocksPerEntry == 1) {
            state.counters["entry_ns"] = state.counters["excess_ns"] / static_cast<double>(chain.entryCount() - 1);
        }
    };
    const std::string name = std::string(operation.name) + (blocks.type == DIF_DATA_520 ? "/520/" : "/4160/") +
                             requestName + "/" + entryName;
    benchmark::RegisterBenchmark(name.c_str(), run)->UseManualTime();
}

/* One block at the end of a long chain of one-block entries, beside the block at its start. */
void registerPositioning(const ListOperation &operation) {
    const Blocks blocks(DIF_DATA_520, DIF_VERSION_T10, kLongChain * 512);
    const auto run = [&operation, blocks](benchmark::State &state) {
        const Chain chain(blocks, 1);
        const Request first{&blocks, chain.root(), 0, 1};
        const Request last{&blocks, chain.root(), kLongChain - 1, 1};
        const Request contiguousLast{&blocks, nullptr, kLongChain - 1, 1};
        if (!worksAlike(operation, contiguousLast, last)) {
            state.SkipWithError("the list form does not do what the contiguous form does");
            return;
        }
        runPaired(
            state, kBesideFirst, 512, [&] { return operation.call(first); }, [&] { return operation.call(last); });
        state.counters["entry_ns"] = state.counters["excess_ns"] / (kLongChain - 1);
    };
    benchmark::RegisterBenchmark((std::string(operation.name) + "/520/1-block/10000th").c_str(), run)->UseManualTime();
}

} /* namespace */

void registerListBenchmarks(uint8_t mid, uint8_t subPid) {
    checkMid = mid;
    checkPoint = subPid;
    for (const ListOperation &operation : kOperations) {
        for (const uint32_t type : {DIF_DATA_520, DIF_DATA_4160}) {
            if (type == DIF_DATA_4160 && !operation.isForLarge) {
                continue;
            }
            for (const NamedSize &request : kRequests) {
                const Blocks blocks(type, DIF_VERSION_T10, request.dataBytes);
                registerOverEntries(operation, blocks, request.name, "1-block", 1);
                for (const NamedSize &entry : kEntries) {
                    const size_t blocksPerEntry = entry.dataBytes / blocks.shape.dataSize;
                    if (blocksPerEntry > 1 && blocksPerEntry <= blocks.count()) {
                        registerOverEntries(operation, blocks, request.name, entry.name, blocksPerEntry);
                    }
                }
            }
        }
    }
    registerPositioning(kInsert);
    registerPositioning(kCheck);
}

} /* namespace bench */
