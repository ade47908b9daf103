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

template <typename Param>
uint32_t write(void (*op)(const Sgl *, uint32_t, uint32_t, Param *), uint32_t flags, const Range &range) {
    Param param{};
    param.ctrlFlag = flags;
    param.lba = kLba;
    op(range.sgl, range.offset, range.sectors, &param);
    EXPECT_EQ(param.lba, kLba);
    EXPECT_EQ(param.ctrlFlag, flags);
    return 0;
}

uint32_t check(decltype(checkDifInSgl) *op, uint32_t flags, const Range &range) {
    Check call(DIF_DATA_520, flags, kLba);
    call.param.checkResult = nullptr;
    const DifCheckParam before = call.param;
    const uint32_t ret = op(range.sgl, range.offset, range.sectors, &call.param, "caller", 42);
    EXPECT_EQ(memcmp(&before, &call.param, sizeof before), 0);
    return ret;
}

struct Operation {
    const char *name; /* the function that its messages name */
    bool returnsErrors;
    uint32_t whole, cut; /* its answers about all-ones tuples behind zero data, and if the chain ends too early */
    Tuple (*after)(uint32_t lba); /* what becomes of such a tuple */
    uint32_t (*call)(const Range &);
};

constexpr uint32_t kTrimmed = DIF_CHECK_TRIM_ZERO | DIF_CHECK_CRC;
const Check zeroCheck(DIF_DATA_520, DIF_CHECK_TRIM_ZERO);

Tuple untouched(uint32_t) {
    return kOnes;
}
Tuple trimmed(uint32_t) {
    return {};
}
Tuple inserted(uint32_t lba) {
    return {0, 0, 2, lba};
}
Tuple replaced(uint32_t lba) {
    return {0xFFFF, 0xFF, 0xFF, lba};
}

const Operation kOperations[] = {
    {"insertDifInSgl", false, 0, 0, inserted, [](auto &range) { return write(insertDifInSgl, DIF_INSERT_LBA, range); }},
    {"replaceDifInSgl", false, 0, 0, replaced,
     [](auto &range) { return write(replaceDifInSgl, DIF_REPLACE_LBA, range); }},
    {"injectDifInSgl", false, 0, 0, replaced, [](auto &range) { return write(injectDifInSgl, DIF_INJECT_LBA, range); }},
    {"checkDifInSgl", false, 0, 0, trimmed, [](auto &range) { return check(checkDifInSgl, kTrimmed, range); }},
    {"trimDataInSgl", false, 0, 0, trimmed,
     [](auto &range) { return check(checkDifInSgl, DIF_CHECK_TRIM_ZERO, range); }},
    {"noDifZeroDataCheckInSgl", false, 1, 0, untouched,
     [](auto &range) -> uint32_t {
         return noDifZeroDataCheckInSgl(range.sgl, range.offset, range.sectors, &zeroCheck.param);
     }},
    {"isDifEvictableInSgl", false, 1, 0, untouched,
     [](auto &range) -> uint32_t { return isDifEvictableInSgl(range.sgl, range.offset, range.sectors); }},
    {"checkDifInSglWithErrorReturn", true, 0, 0, trimmed,
     [](auto &range) { return check(checkDifInSglWithErrorReturn, kTrimmed, range); }},
    {"checkDifInSglWithStdT10", true, 0, 0, untouched,
     [](auto &range) { return checkDifInSglWithStdT10(range.sgl, range.offset, range.sectors, &zeroCheck.param); }},
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
    Lines events = {plain(3, function, texts[fault.kind])};
    if (!op.returnsErrors)
        events.insert(events.end(), {asserted(function, "0")[0], asserted(function, "0")[1]});
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
        {{{520}, {520}}, 100, 1, {{kStart, true, 0, 0, 420, 100}}, {520}, 0, false}, // no block behind the start
        {{{520}, {520}}, 519, 1, {{kStart, true, 0, 0, 1, 519}}, {520}, 0, false},   // an entry's last byte
        {{{520}, {520}}, 520, 2, {{kChainEnd, false}}, {520}, 1, true},
        {{{1040}, {}, {520}}, 520, 2, {{kEmptyNode, false, 1}}, {520}, 1, true},
        {{{520}, {520, 1559, 520}}, 0, 5, {{kEntryLength, false, 1, 1, 1559}}, {0, 520, 1040, 1560, 2599}, 2, false},
        {{{520, 0, 520}}, 0, 2, {{kEntryLength, false, 0, 1, 0}}, {0, 520}, 1, false},
        {{{1040, 520}, {}}, 1040, 1, {}, {1040}, 1, false}, // what lies behind the range does not matter
        {{{520, 1040, 7}}, 520, 2, {}, {520, 1040}, 2, false},
    };
    host.filtered = 1u << 4 | 1u << 6; // no dumps, no notes
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
            for (uint32_t k = 0; k < (isRefused ? row.beforeFault : row.visited.size()); ++k)
                putTuple(&bytes[row.visited[k] + 512], op.after(5 + k));
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
    }
}

/* All at one tick: the assertion sites of a walk are the operation's own, those of positioning belong to all. */
TEST_F(Lists, AssertionSites) {
    host.filtered = 1u << 4 | 1u << 6;
    Chain chain(Lengths{{520}});
    for (const Operation &op : kOperations) {
        const Range range{chain.at(0), 0, 2};
        Lines events = eventsOf({Fault::kChainEnd, false}, op, chain, range);
        op.call(range);
        EXPECT_EQ(host.take(), events);
        op.call(range);
        EXPECT_EQ(host.take(), Lines{events[0]});
    }
    Lines events = eventsOf({Fault::kChainEnd, true}, kOperations[0], chain, {chain.at(0), 520, 1});
    for (const Operation &op : kOperations) {
        op.call({chain.at(0), 520, 1});
        EXPECT_EQ(host.take().size(), &op == kOperations ? events.size() : 1);
    }
    const Lines beyond = asserted("getStartSglByOffset", "residBytesPara > 0");
    const Lines returned = {
        limited(3, "getStartSglByOffsetWithReturn", "DIF_SGL_ERROR: invalid offsetByte:0xffffffff")};
    for (const Operation &op : kOperations) { // the last offset is no place
        EXPECT_EQ(op.call({chain.at(0), 0xFFFFFFFF, 1}), op.returnsErrors ? DIF_ERR_SGL : op.cut) << op.name;
        EXPECT_EQ(host.take(), op.returnsErrors ? returned : &op == kOperations ? beyond : Lines{}) << op.name;
    }
    for (const Lines &lines : {returned, Lines{}}) {
        kOperations[7].call({chain.at(0), 0xFFFFFFFF, 1});
        EXPECT_EQ(host.take(), lines);
    }
}

TEST_F(Lists, Dump) {
    Chain chain(Lengths{{1040, 520}, {520, 1000}, {520}});
    *chain.at(0) = {chain.at(1), 9, 2, 0xAB, 0x123456789ABC};
    *chain.at(1) = {chain.at(2), 0, 2, 0, 0};
    *chain.at(2) = {nullptr, 0, 1, 0xFFFFFFFF, ~0ull};
    const auto line = [](const std::string &text) { return plain(5, "difPrintSglDetail", text); };
    const void *const root = chain.at(0);
    const auto dump = [&](uint32_t sectors, uint32_t nodes, uint32_t total) {
        Lines lines = {line(format("DIF_SGL_INFO_BEGIN: srcSgl(%p), offsetByte(100), sectorNum(%u), blockSize(520), "
                                   "totalEntryNum(9), flag(0xab), serialNum(0x123456789abc).",
                                   root, sectors))};
        for (uint32_t n = 0; n < nodes; ++n) {
            const Sgl &sgl = *chain.at(n);
            const auto *const at = static_cast<const void *>(&sgl), *const next = static_cast<void *>(sgl.nextSgl);
            lines.push_back(
                line(format("DIF_SGL_INFO: sglIndex(%u), sgl(%p), entrySum(%u), nextSgl(%p), flag(0x%x), "
                            "serialNum(0x%llx).",
                            n, at, sgl.entrySum, next, sgl.flag, static_cast<unsigned long long>(sgl.serialNum))));
            for (uint32_t i = 0; i < sgl.entrySum; ++i)
                lines.push_back(line(format("DIF_SGL_INFO_ENTRY: sglIndex(%u), sgl(%p), entryIndex(%u), bytes(%u), "
                                            "buf(%p).",
                                            n, at, i, sgl.entries[i].bytes, static_cast<void *>(sgl.entries[i].buf))));
        }
        lines.push_back(line(format("DIF_SGL_INFO_END: srcSgl(%p), actualTotalEntrySum(%u).", root, total)));
        return lines;
    };
    const auto dumped = [&](uint32_t sectors) {
        Check call(DIF_DATA_520, 0);
        EXPECT_EQ(checkDifInSglWithErrorReturn(chain.at(0), 100, sectors, &call.param, "caller", 42), DIF_ERR_SGL);
        Lines lines = host.take();
        lines.erase(lines.begin()); // the fault
        return lines;
    };
    dumped(0); // reports what earlier tests left
    host.later();
    host.wantsReports = true;
    EXPECT_EQ(dumped(3), dump(3, 1, 2)); // counts from the chain's start
    EXPECT_EQ(dumped(4), dump(4, 2, 4)); // 1000 bytes count one sector
    EXPECT_EQ(dumped(0), dump(0, 0, 0));
    EXPECT_EQ(dumped(4), Lines{});
    host.later();
    host.filtered = 1u << 4;
    EXPECT_EQ(dumped(5), Lines{});
    host.filtered = 0;
    const Lines lines = dumped(~0u);
    Lines reported = dump(~0u, 3, 5);
    reported.insert(reported.begin(), format("level 4, dif_util, difPrintSglDetail, 0: print: 1 messages suppressed."
                                             "difPrintSglDetail,line=%d.",
                                             host.lines[1]));
    EXPECT_EQ(lines, reported);
}

TEST_F(Lists, ChecksEndWithTheirLastQuestion) {
    Chain chain(Lengths{{520, 7}});
    chain.buffer(0)[0] = 1;
    for (auto *const op : {checkDifInSgl, checkDifInSglWithErrorReturn}) {
        EXPECT_EQ(check(op, DIF_CHECK_CRC, {chain.at(0), 0, 2}), DIF_ERR_CHECK);
        EXPECT_EQ(host.take().size(), 2u); // of the failed block, nothing of the second entry
    }
}

TEST_F(Lists, ErrorReturnDiscardsTheCallButNotWhatItFound) {
    Chain chain(Lengths{{520, 520}});
    chain.buffer(0)[0] = 1;
    constexpr uint32_t kFlags = DIF_CHECK_CRC | DIF_CHECK_ALL_BLOCKS;
    Check call(DIF_DATA_520, kFlags, kLba), untouched(DIF_DATA_520, kFlags, kLba);
    EXPECT_EQ(checkDifInSglWithErrorReturn(chain.at(0), 0, 3, &call.param, "caller", 42), DIF_ERR_SGL);
    EXPECT_EQ(call.result, DIF_RESULT_CRC_ERROR);
    EXPECT_EQ(call.index, 0u);
    EXPECT_EQ(call.bitmap[0], 1u);
    EXPECT_EQ(call.param.lba, kLba);
    EXPECT_EQ(call.param.ctrlFlag, kFlags);
    std::array<uint64_t, DIF_STAT_BUTT> counters;
    difVerifyStatisticGet(DIF_MID_CACHE, 0, counters.data());
    EXPECT_EQ(counters, (std::array<uint64_t, DIF_STAT_BUTT>{})); // nothing is counted
    EXPECT_EQ(checkDifInSglWithErrorReturn(chain.at(0), 1, 1, &untouched.param, "caller", 42), DIF_ERR_SGL);
    EXPECT_EQ(checkDifInSglWithStdT10(chain.at(0), 1, 1, &untouched.param), DIF_ERR_SGL);
    EXPECT_EQ(untouched.result, Check::kUntouched); // positioning fails before anything changes
    EXPECT_EQ(untouched.index, Check::kUntouched);
}

} // namespace
