#include "chain.h"
#include "fake_host.h"
#include "model.h"

namespace {

using Lists = StartedDif;
constexpr uint64_t kLba = 0x100000005;

struct Range {
    const Sgl *sgl;
    uint32_t offset, sectors;
};

template <typename Param, auto operation, uint32_t flags>
uint32_t call(const Range &range) {
    Param param{};
    param.ctrlFlag = flags;
    param.lba = kLba;
    if constexpr (std::is_same_v<Param, DifCheckParam>)
        param = {0, flags, 1, 1, DIF_MID_CACHE, 1, kLba, nullptr, nullptr, nullptr};
    const Param before = param;
    uint32_t answer = 0;
    if constexpr (std::is_void_v<decltype(operation(range.sgl, range.offset, range.sectors, &param))>)
        operation(range.sgl, range.offset, range.sectors, &param);
    else
        answer = operation(range.sgl, range.offset, range.sectors, &param);
    EXPECT_EQ(memcmp(&before, &param, sizeof before), 0); /* is put back */
    return answer;
}

template <auto operation, uint32_t flags>
constexpr auto check = call<DifCheckParam, operation, flags>;

struct Operation {
    const char *name; /* the function that its messages name */
    bool returnsErrors;
    uint32_t whole, cut; /* its answers about all-ones tuples behind zero data, and if the chain ends too early */
    Tuple after;         /* what becomes of such a tuple; with the LBA 0 that of the block */
    uint32_t (*call)(const Range &);
};

constexpr uint32_t kTrimmed = DIF_CHECK_TRIM_ZERO | DIF_CHECK_CRC;
constexpr Tuple kZeros{}, kInserted{0, 0, 2, 0}, kReplaced{0xFFFF, 0xFF, 0xFF, 0};
const Operation kOperations[] = {
    {"insertDifInSgl", false, 0, 0, kInserted, call<DifOpParam, insertDifInSgl, DIF_INSERT_LBA>},
    {"replaceDifInSgl", false, 0, 0, kReplaced, call<DifOpParam, replaceDifInSgl, DIF_REPLACE_LBA>},
    {"injectDifInSgl", false, 0, 0, kReplaced, call<DifInjectParam, injectDifInSgl, DIF_INJECT_LBA>},
    {"checkDifInSgl", false, 0, 0, kZeros, check<checkList, kTrimmed>},
    {"trimDataInSgl", false, 0, 0, kZeros, check<checkList, DIF_CHECK_TRIM_ZERO>},
    {"noDifZeroDataCheckInSgl", false, 1, 0, kOnes, check<noDifZeroDataCheckInSgl, 0>},
    {"isDifEvictableInSgl", false, 1, 0, kOnes,
     [](const Range &range) -> uint32_t { return isDifEvictableInSgl(range.sgl, range.offset, range.sectors); }},
    {"checkDifInSglWithErrorReturn", true, 0, 0, kZeros, check<checkListReturning, kTrimmed>},
    {"checkDifInSglWithStdT10", true, 0, 0, kOnes, check<checkDifInSglWithStdT10, 0>},
};

/* A fault of a chain, found by positioning in it or by the walk over the range. */
struct Fault {
    enum Kind { kEmptyNode, kEntryLength, kStart, kChainEnd } kind;
    bool byPositioning;
    uint32_t node = 0, entry = 0, length = 0, start = 0;
};

/* The events of a fault, without the dump. */
Lines eventsOf(const Fault &fault, const Operation &op, Chain &chain, const Range &range) {
    const std::string function = !fault.byPositioning ? op.name
                                 : op.returnsErrors   ? "getStartSglByOffsetWithReturn"
                                                      : "getStartSglByOffset";
    const void *const root = range.sgl, *const node = chain.at(fault.node);
    const std::string texts[] = {
        format("DIF_ERROR_SGL: sgl(%p),entrySumInSgl(0),entryIndex(0).", node),
        format("DIF_ERROR_SGL_ENTRY: sgl(%p),entryIndex(%u),entryLen(%u),blockSize(520).", node, fault.entry,
               fault.length),
        format("DIF_ERROR_SGL_ENTRY_PART: sgl(%p),entryIndex(%u),entryLen(%u),startIndex(%u),blockSize(520).", node,
               fault.entry, fault.length, fault.start),
        format("DIF_ERROR_SGL_PTR: sgl is NULL, blockSize(520),rootSgl(%p),offsetByte(%u),sectorNum(%u).", root,
               range.offset, range.sectors)};
    Lines events = op.returnsErrors ? Lines{} : asserted(function, "0");
    events.insert(events.begin(), plain(3, function, texts[fault.kind]));
    return events;
}

TEST_F(Lists, FaultsOfEveryOperation) {
    using enum Fault::Kind;
    const struct {
        Lengths lengths;
        uint32_t offset, blocks;
        std::vector<Fault> faults;
        std::vector<size_t> visited; /* where the visited blocks start in the chain's bytes */
        size_t beforeFault;          /* how many of them before the first fault */
        bool isCut;                  /* the chain ends before the range does */
    } rows[] = {
        {{{}}, 0, 1, {{kEmptyNode, true}}, {}, 0, true},
        {{{1000}}, 0, 1, {{kEntryLength, true, 0, 0, 1000}, {kStart, true, 0, 0, 1000, 0}}, {0}, 0, false},
        {{{0, 0, 1040}}, 520, 1, {{kEntryLength, true, 0, 0, 0}, {kEntryLength, true, 0, 1, 0}}, {520}, 0, false},
        {{{520}, {}}, 520, 1, {{kEmptyNode, true, 1}}, {}, 0, true},
        {{{1040, 520}}, 1560, 1, {{kChainEnd, true}}, {}, 0, true},
        {{{520, 1040}}, 620, 2, {{kStart, true, 0, 1, 940, 100}, {kChainEnd, false}}, {620}, 0, true},
        {{{520}, {520}}, 519, 1, {{kStart, true, 0, 0, 1, 519}}, {520}, 0, false}, /* no block behind the start */
        {{{520}, {520}}, 520, 2, {{kChainEnd, false}}, {520}, 1, true},
        {{{1040}, {}, {520}}, 520, 2, {{kEmptyNode, false, 1}}, {520}, 1, true},
        {{{520}, {520, 1559, 520}}, 0, 5, {{kEntryLength, false, 1, 1, 1559}}, {0, 520, 1040, 1560, 2599}, 2, false},
        {{{1040, 520}, {}}, 1040, 1, {}, {1040}, 1, false}, /* what lies behind the range does not matter */
    };
    const std::string beyond =
        limited(3, "getStartSglByOffsetWithReturn", "DIF_SGL_ERROR: invalid offsetByte:0xffffffff");
    host.filtered = 1u << 4 | 1u << 6; /* no dumps, no notes */
    for (const Operation &op : kOperations) {
        for (const auto &row : rows) {
            SCOPED_TRACE(format("%s, row %td", op.name, &row - rows));
            host.later();
            Chain chain(row.lengths);
            const Range range{chain.at(0), row.offset, row.blocks};
            std::vector<uint8_t> bytes = chain.bytes();
            for (const size_t block : row.visited)
                putTuple(&bytes[block + 512], kOnes);
            chain.fill(bytes);
            const bool isRefused = op.returnsErrors && !row.faults.empty();
            for (uint32_t k = 0; k < (isRefused ? row.beforeFault : row.visited.size()); ++k) {
                Tuple after = op.after;
                after.lba += after.app != 0 && after.lba == 0 ? 5 + k : 0;
                putTuple(&bytes[row.visited[k] + 512], after);
            }
            Lines expected;
            for (const Fault &fault : row.faults) {
                const Lines events = eventsOf(fault, op, chain, range);
                if (expected.empty() || !op.returnsErrors)
                    expected.insert(expected.end(), events.begin(), events.end());
            }
            EXPECT_EQ(op.call(range), isRefused ? DIF_ERR_SGL : row.isCut ? op.cut : op.whole);
            EXPECT_EQ(host.take(), expected);
            EXPECT_TRUE(chain.bytes() == bytes);
        }
        host.later();
        EXPECT_EQ(op.call({Chain(Lengths{{520}}).at(0), ~0u, 1}), op.returnsErrors ? DIF_ERR_SGL : op.cut);
        EXPECT_EQ(host.take(),
                  op.returnsErrors ? Lines{beyond} : asserted("getStartSglByOffset", "residBytesPara > 0"));
    }
}

TEST_F(Lists, Dump) {
    Chain chain(Lengths{{1040, 520}, {520, 1000}, {520}});
    const auto line = [](const std::string &text) { return plain(5, "difPrintSglDetail", "DIF_SGL_INFO" + text); };
    const void *const root = chain.at(0);
    Lines all = {line(format("_BEGIN: srcSgl(%p), offsetByte(100), sectorNum(6), blockSize(520), totalEntryNum(9), "
                             "flag(0xabcdef00), serialNum(0xfedcba9876543210).",
                             root))};
    for (uint16_t n = 0; n < 3; ++n) {
        Sgl &sgl = *chain.at(n);
        sgl.totalEntryNum = static_cast<uint16_t>(9 + n);
        sgl.flag = 0xABCDEF00 + n;
        sgl.serialNum = 0xFEDCBA9876543210 + n;
        const void *const at = &sgl, *const next = sgl.nextSgl;
        all.push_back(line(format(": sglIndex(%u), sgl(%p), entrySum(%u), nextSgl(%p), flag(0xabcdef0%u), "
                                  "serialNum(0xfedcba987654321%u).",
                                  n, at, sgl.entrySum, next, n, n)));
        for (uint32_t i = 0; i < sgl.entrySum; ++i)
            all.push_back(line(format("_ENTRY: sglIndex(%u), sgl(%p), entryIndex(%u), bytes(%u), buf(%p).", n, at, i,
                                      sgl.entries[i].bytes, static_cast<void *>(sgl.entries[i].buf))));
    }
    all.push_back(line(format("_END: srcSgl(%p), actualTotalEntrySum(5).", root)));
    const auto dump = [&](uint32_t sectors) {
        EXPECT_EQ((check<checkListReturning, 0>({chain.at(0), 100, sectors})), DIF_ERR_SGL);
        Lines lines = host.take();
        lines.erase(lines.begin()); /* the fault */
        return lines;
    };
    EXPECT_EQ(dump(6), all);       /* counts from the chain's start, */
    EXPECT_EQ(dump(4).size(), 8u); /* 1000 bytes as one sector */
    EXPECT_EQ(dump(3).size(), 5u); /* no node behind the last sector */
    EXPECT_EQ(dump(3), Lines{});   /* suppressed */
    host.tick += 1250;
    EXPECT_NE(dump(3), Lines{});
}

TEST_F(Lists, ChecksEndWithTheirLastQuestionOrFault) {
    Chain chain(Lengths{{520, 7}}), cut(Lengths{{520, 520}});
    chain.buffer(0)[0] = cut.buffer(0)[0] = 1;
    for (const auto ask : {check<checkList, DIF_CHECK_CRC>, check<checkListReturning, DIF_CHECK_CRC>}) {
        EXPECT_EQ(ask({chain.at(0), 0, 2}), DIF_ERR_CHECK);
        EXPECT_EQ(host.take().size(), 2u); /* of the failed block, nothing of the second entry */
    }
    difVerifyStatisticClean();
    Check found(DIF_DATA_520, DIF_CHECK_CRC | DIF_CHECK_ALL_BLOCKS), untouched(DIF_DATA_520, DIF_CHECK_CRC);
    EXPECT_EQ(checkListReturning(cut.at(0), 0, 3, &found.param), DIF_ERR_SGL);
    std::array<uint64_t, DIF_STAT_BUTT> counters;
    difVerifyStatisticGet(DIF_MID_CACHE, 0, counters.data());
    EXPECT_EQ(counters, (std::array<uint64_t, DIF_STAT_BUTT>{})); /* nothing is counted */
    EXPECT_EQ(checkListReturning(cut.at(0), 1, 1, &untouched.param), DIF_ERR_SGL);
    EXPECT_EQ(checkDifInSglWithStdT10(cut.at(0), 1, 1, &untouched.param), DIF_ERR_SGL);
    Chain odd(Lengths{{4680}}); /* no large block's multiple */
    Check large(DIF_DATA_4160, DIF_CHECK_CRC);
    host.take();
    EXPECT_EQ(checkListReturning(odd.at(0), 0, 8, &large.param), DIF_ERR_SGL);
    EXPECT_NE(host.take()[0].find("entryLen(4680),blockSize(4160)"), std::string::npos);
    EXPECT_EQ(untouched.result, Check::kUntouched); /* positioning fails before anything changes */
}

} /* namespace */
