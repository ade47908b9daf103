#include "blocks.h"
#include "chain.h"

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
    const uint32_t ret = op(range.sgl, range.offset, range.sectors, &call.param, "caller", 42);
    EXPECT_EQ(call.param.lba, kLba);
    EXPECT_EQ(call.param.ctrlFlag, flags);
    EXPECT_EQ(call.param.checkResult, nullptr);
    return ret;
}

struct Operation {
    const char *name;    // the function that its messages name
    const char *tuple;   // what it makes of an all-ones tuple behind zero data; L: low digit of the LBA
    uint32_t whole, cut; // its answers about such blocks, and if the chain ends before the range does
    bool returnsErrors;
    uint32_t (*call)(const Range &);
};

const Check zeroCheck(DIF_DATA_520, DIF_CHECK_TRIM_ZERO);
constexpr uint32_t kTrimmed = DIF_CHECK_TRIM_ZERO | DIF_CHECK_CRC;
const Operation kOperations[] = {
    {"insertDifInSgl", "0000 00 02 0000000L", 0, 0, false,
     [](const Range &range) { return write(insertDifInSgl, DIF_INSERT_LBA, range); }},
    {"replaceDifInSgl", "ffff ff ff 0000000L", 0, 0, false,
     [](const Range &range) { return write(replaceDifInSgl, DIF_REPLACE_LBA, range); }},
    {"injectDifInSgl", "ffff ff ff 0000000L", 0, 0, false,
     [](const Range &range) { return write(injectDifInSgl, DIF_INJECT_LBA, range); }},
    {"checkDifInSgl", "0000 00 00 00000000", 0, 0, false,
     [](const Range &range) { return check(checkDifInSgl, kTrimmed, range); }},
    {"trimDataInSgl", "0000 00 00 00000000", 0, 0, false,
     [](const Range &range) { return check(checkDifInSgl, DIF_CHECK_TRIM_ZERO, range); }},
    {"noDifZeroDataCheckInSgl", "ffff ff ff ffffffff", 1, 0, false,
     [](const Range &range) -> uint32_t {
         return noDifZeroDataCheckInSgl(range.sgl, range.offset, range.sectors, &zeroCheck.param);
     }},
    {"isDifEvictableInSgl", "ffff ff ff ffffffff", 1, 0, false,
     [](const Range &range) -> uint32_t { return isDifEvictableInSgl(range.sgl, range.offset, range.sectors); }},
    {"checkDifInSglWithErrorReturn", "0000 00 00 00000000", 0, 0, true,
     [](const Range &range) { return check(checkDifInSglWithErrorReturn, kTrimmed, range); }},
    {"checkDifInSglWithStdT10", "ffff ff ff ffffffff", 0, 0, true,
     [](const Range &range) {
         return checkDifInSglWithStdT10(range.sgl, range.offset, range.sectors, &zeroCheck.param);
     }},
};

Lines join(std::initializer_list<Lines> parts) {
    Lines result;
    for (const Lines &part : parts)
        result.insert(result.end(), part.begin(), part.end());
    return result;
}

/* The events since the last take, each dump of a chain as "dump". */
Lines events() {
    Lines result;
    for (const std::string &event : host.take()) {
        if (!event.starts_with("L5 dif_util difPrintSglDetail"))
            result.push_back(event);
        else if (event.find("BEGIN") != std::string::npos)
            result.emplace_back("dump");
    }
    return result;
}

Lines noBlocks(const std::string &function, uint32_t sectors, uint32_t type) {
    return {format("L3 dif_util %s #4660: DIF_ERROR_BLOCK_NUM: sectorNum(%u),type(%u),blockSize(%u).", function.c_str(),
                   sectors, type, type < 2 ? 520 : 4160)};
}

/* "SGL node", "ENTRY node entry length", "PART node entry length start" or "PTR", behind '@' if positioning finds it. */
Lines faulted(const Operation &op, Chain &chain, const std::string &fault, const Range &range,
              uint32_t blockSize = 520) {
    const bool positioning = fault[0] == '@';
    const std::string kind = fault.substr(positioning ? 1 : 0, fault.find(' ') - (positioning ? 1 : 0));
    uint32_t node = 0, entry = 0, bytes = 0, start = 0;
    sscanf(fault.c_str(), "%*s %u %u %u %u", &node, &entry, &bytes, &start);
    std::string text = "DIF_ERROR_SGL" + (kind == "SGL" ? "" : kind == "PART" ? "_ENTRY_PART" : "_" + kind) + ": ";
    if (kind == "PTR")
        text += format("sgl is NULL, blockSize(%u),rootSgl(%p),offsetByte(%u),sectorNum(%u).", blockSize,
                       static_cast<const void *>(range.sgl), range.offset, range.sectors);
    else
        text += format("sgl(%p),", static_cast<void *>(chain.at(node)));
    if (kind == "SGL")
        text += "entrySumInSgl(0),entryIndex(0).";
    else if (kind == "ENTRY")
        text += format("entryIndex(%u),entryLen(%u),blockSize(%u).", entry, bytes, blockSize);
    else if (kind == "PART")
        text += format("entryIndex(%u),entryLen(%u),startIndex(%u),blockSize(%u).", entry, bytes, start, blockSize);
    const std::string function = !positioning       ? op.name
                                 : op.returnsErrors ? "getStartSglByOffsetWithReturn"
                                                    : "getStartSglByOffset";
    return join({{"L3 dif_util " + function + " #4660: " + text, "dump"},
                 op.returnsErrors ? Lines{} : asserted(function, "0")});
}

TEST_F(Lists, FaultsOfEveryOperation) {
    const struct {
        Lengths lengths;
        uint32_t offset, blocks;
        Lines faults;
        std::vector<size_t> visited; // where the visited blocks start in the chain's bytes
        size_t beforeFault;          // how many of them before the first fault
        bool isCut;                  // the chain ends before the range does
    } rows[] = {
        {{{}}, 0, 1, {"@SGL 0"}, {}, 0, true},
        {{{1000}}, 0, 1, {"@ENTRY 0 0 1000", "@PART 0 0 1000 0"}, {0}, 0, false},
        {{{0, 0, 1040}}, 520, 1, {"@ENTRY 0 0 0", "@ENTRY 0 1 0"}, {520}, 0, false},
        {{{520}, {}}, 520, 1, {"@SGL 1"}, {}, 0, true},
        {{{1040, 520}}, 1560, 1, {"@PTR"}, {}, 0, true},
        {{{520, 1040}}, 620, 2, {"@PART 0 1 940 100", "PTR"}, {620}, 0, true},
        {{{520}, {520}}, 100, 1, {"@PART 0 0 420 100"}, {520}, 0, false}, // no block behind the start
        {{{520}, {520}}, 520, 2, {"PTR"}, {520}, 1, true},
        {{{1040}, {}, {520}}, 520, 2, {"SGL 1"}, {520}, 1, true},
        {{{520}, {520, 1559, 520}}, 0, 5, {"ENTRY 1 1 1559"}, {0, 520, 1040, 1560, 2599}, 2, false},
        {{{520, 0, 520}}, 0, 2, {"ENTRY 0 1 0"}, {0, 520}, 1, false},
        {{{1040, 520}, {}}, 1040, 1, {}, {1040}, 1, false}, // what lies behind the range does not matter
        {{{520, 1040, 7}}, 520, 2, {}, {520, 1040}, 2, false},
    };
    host.filtered = 1u << 6;
    for (const Operation &op : kOperations) {
        for (const auto &row : rows) {
            SCOPED_TRACE(format("%s, row %td", op.name, &row - rows));
            host.tick += 150000; // every site may assert and dump
            Chain chain(row.lengths);
            const Range range{chain.at(0), row.offset, row.blocks};
            std::vector<uint8_t> bytes = chain.bytes();
            for (const size_t offset : row.visited)
                memset(&bytes[offset + 512], 0xFF, 8);
            chain.fill(bytes);
            for (size_t k = 0; k < (op.returnsErrors ? row.beforeFault : row.visited.size()); ++k) {
                std::string tuple = op.tuple;
                std::replace(tuple.begin(), tuple.end(), 'L', static_cast<char>('5' + k));
                memcpy(&bytes[row.visited[k] + 512], Blocks(0, 1).expand(0, tuple).data(), 8);
            }
            Lines expected;
            for (size_t i = 0; i < (op.returnsErrors ? std::min<size_t>(1, row.faults.size()) : row.faults.size()); ++i)
                expected = join({expected, faulted(op, chain, row.faults[i], range)});
            const bool refused = op.returnsErrors && !row.faults.empty();
            EXPECT_EQ(op.call(range), refused ? DIF_ERR_SGL : row.isCut ? op.cut : op.whole);
            EXPECT_EQ(events(), expected);
            EXPECT_TRUE(chain.bytes() == bytes);
        }
    }
}

/* All at one tick: the sites of the walk are the operation's own, those of positioning belong to all. */
TEST_F(Lists, AssertionSitesAndTheLastOffset) {
    host.filtered = 1u << 4 | 1u << 6;
    Chain chain(Lengths{{520}});
    for (const Operation &op : kOperations) {
        const Range range{chain.at(0), 0, 2};
        for (const bool first : {true, false}) {
            op.call(range);
            Lines lines = faulted(op, chain, "PTR", range);
            lines.erase(lines.begin() + 1); // no dump: its level is filtered
            lines.resize(first ? lines.size() : 1);
            EXPECT_EQ(events(), lines);
        }
    }
    const Lines offset = asserted("getStartSglByOffset", "residBytesPara > 0");
    const Lines returned = {"L3 - getStartSglByOffsetWithReturn #0: DIF_SGL_ERROR: invalid offsetByte:0xffffffff"};
    const std::vector<uint8_t> bytes = chain.bytes();
    for (const Operation &op : kOperations) {
        EXPECT_EQ(op.call({chain.at(0), 0xFFFFFFFF, 1}), op.returnsErrors ? DIF_ERR_SGL : op.cut) << op.name;
        EXPECT_EQ(events(), op.returnsErrors ? returned : &op == kOperations ? offset : Lines{}) << op.name;
    }
    for (const Lines &lines : {returned, Lines{}}) {
        kOperations[7].call({chain.at(0), 0xFFFFFFFF, 1});
        EXPECT_EQ(events(), lines);
    }
    EXPECT_TRUE(chain.bytes() == bytes);
}

TEST_F(Lists, Dump) {
    Chain chain(Lengths{{1040, 520}, {520, 1000}, {520}});
    *chain.at(0) = {chain.at(1), 9, 2, 0xAB, 0x123456789ABC};
    *chain.at(1) = {chain.at(2), 0, 2, 0, 0};
    *chain.at(2) = {nullptr, 0, 1, 0xFFFFFFFF, ~0ull};
    const auto pointer = [](const void *p) { return format("%p", p); };
    const std::string site = "L5 dif_util difPrintSglDetail #4660: DIF_SGL_INFO", root = pointer(chain.at(0));
    const char *const headers[] = {"flag(0xab), serialNum(0x123456789abc).", "flag(0x0), serialNum(0x0).",
                                   "flag(0xffffffff), serialNum(0xffffffffffffffff)."};
    const auto dump = [&](const char *sectors, uint32_t nodes, const char *total) {
        Lines lines = {site + "_BEGIN: srcSgl(" + root + "), offsetByte(100), sectorNum(" + sectors +
                       "), blockSize(520), totalEntryNum(9), " + headers[0]};
        for (uint32_t n = 0; n < nodes; ++n) {
            const Sgl &sgl = *chain.at(n);
            const std::string node = format("sglIndex(%u), sgl(%s), ", n, pointer(&sgl).c_str());
            lines.push_back(site + ": " + node + format("entrySum(%u), nextSgl(", sgl.entrySum) + pointer(sgl.nextSgl) +
                            "), " + headers[n]);
            for (uint32_t i = 0; i < sgl.entrySum; ++i)
                lines.push_back(site + "_ENTRY: " + node +
                                format("entryIndex(%u), bytes(%u), buf(", i, sgl.entries[i].bytes) +
                                pointer(sgl.entries[i].buf) + ").");
        }
        lines.push_back(site + "_END: srcSgl(" + root + "), actualTotalEntrySum(" + total + ").");
        return lines;
    };
    const auto dumped = [&](uint32_t sectors) {
        Check call(DIF_DATA_520, 0);
        EXPECT_EQ(checkDifInSglWithErrorReturn(chain.at(0), 100, sectors, &call.param, "caller", 42), DIF_ERR_SGL);
        Lines lines = host.take();
        lines.erase(lines.begin()); // the fault
        return lines;
    };
    EXPECT_EQ(dumped(3), dump("3", 1, "2")); // counts from the chain's start
    EXPECT_EQ(dumped(4), dump("4", 2, "4")); // 1000 bytes count one sector
    EXPECT_EQ(dumped(0), dump("0", 0, "0"));
    EXPECT_EQ(dumped(4), Lines{});
    host.tick = 12500;
    host.filtered = 1u << 4;
    EXPECT_EQ(dumped(5), Lines{});
    host.filtered = 0;
    Lines reported = dump("4294967295", 3, "5"), lines = dumped(~0u);
    reported.insert(reported.begin(), "L4 dif_util difPrintSglDetail #0: print: 1 messages suppressed."
                                      "difPrintSglDetail,line=" +
                                          std::to_string(host.lines[1]) + ".");
    EXPECT_EQ(lines, reported);
}

TEST_F(Lists, RefusedArgumentsAssert) {
    Chain chain(Lengths{{520}}), empty(Lengths{{}});
    const Sgl *const sgl = chain.at(0);
    /* `what` is a pointer's name or the text of a condition; a message may come before the assertion. */
    const auto expect = [](const std::string &function, const std::string &what, const auto &call,
                           const Lines &message = {}, const Lines &behind = {}) {
        host.tick += 150000;
        call();
        const bool isName = what == "sgl" || what == "param";
        EXPECT_EQ(events(), join({message,
                                  isName ? asserted(function, what + " != NULL", what + " != ((void *)0)")
                                         : asserted(function, what),
                                  behind}));
    };
    const auto writing = [&](const std::string &name, const char *first, auto op, auto good) {
        auto large = good, bad = good;
        large.type = DIF_DATA_4160_ZERO;
        bad.type = DIF_DATA_BUTT;
        expect(name, first, [&] { op(nullptr, 0, 1, nullptr); });
        expect(name, "sgl", [&] { op(nullptr, 0, 1, &good); });
        expect(name, "param", [&] { op(sgl, 0, 1, nullptr); });
        expect(name, "(param->type) < DIF_DATA_BUTT", [&] { op(sgl, 0, 1, &bad); });
        expect(
            name, "0", [&] { op(sgl, 0, 0, &good); }, noBlocks(name, 0, 0));
        expect(
            name, "0", [&] { op(empty.at(0), 0, 7, &large); }, noBlocks(name, 7, 3), // positions itself all the same
            faulted(kOperations[0], empty, "@SGL 0", {}, 4160));
    };
    writing("insertDifInSgl", "sgl", insertDifInSgl, DifOpParam{});
    writing("replaceDifInSgl", "param", replaceDifInSgl, DifOpParam{});
    writing("injectDifInSgl", "param", injectDifInSgl, DifInjectParam{});

    Check call(DIF_DATA_520, DIF_CHECK_TRIM_ZERO), bad(DIF_DATA_520_ZERO, DIF_CHECK_TRIM_ZERO);
    const std::string zero = "noDifZeroDataCheckInSgl", set = "noDifSetCheckResultInSgl", trim = "trimDataInSgl";
    const std::string evict = "isDifEvictableInSgl",
                      type = "param->type == DIF_DATA_520 || param->type == DIF_DATA_4160";
    expect(zero, "sgl", [&] { EXPECT_FALSE(noDifZeroDataCheckInSgl(nullptr, 0, 1, &bad.param)); });
    expect(zero, type, [&] { EXPECT_FALSE(noDifZeroDataCheckInSgl(sgl, 0, 1, &bad.param)); });
    expect(zero, "blockNum != 0", [&] { EXPECT_TRUE(noDifZeroDataCheckInSgl(sgl, 0, 0, &call.param)); });
    expect(set, "param", [&] { noDifSetCheckResultInSgl(nullptr, 0, 0, nullptr); });
    expect(trim, "sgl", [&] { noDifSetCheckResultInSgl(nullptr, 0, 1, &bad.param); });
    expect(trim, type, [&] { noDifSetCheckResultInSgl(sgl, 0, 1, &bad.param); });
    expect(trim, "blockNum != 0", [&] { noDifSetCheckResultInSgl(sgl, 0, 0, &call.param); });
    expect(evict, "sgl", [] { EXPECT_FALSE(isDifEvictableInSgl(nullptr, 0, 1)); });
    expect(evict, "0", [&] { EXPECT_TRUE(isDifEvictableInSgl(sgl, 0, 0)); },
           {"L3 dif_util " + evict + " #4660: DIF_ERROR_BLOCK_NUM: sectorNum(0),blockSize(520)."});
    EXPECT_EQ(chain.bytes(), std::vector<uint8_t>(520));
}

TEST_F(Lists, RefusedArgumentsOfTheChecks) {
    Chain chain(Lengths{{4160}});
    const Sgl *const sgl = chain.at(0);
    Check call(DIF_DATA_4160, DIF_CHECK_CRC);
    DifCheckParam good = call.param, typed = good, unknown = good;
    typed.type = DIF_DATA_4160_ZERO;
    unknown.subPid = 3;
    const std::string root = format("%p", static_cast<const void *>(sgl));
    const std::string record = format("%p", static_cast<void *>(&good));
    const std::string input = "L3 - checkDifInSglInputCheck #0: ", std10 = "L3 - checkDifInSglWithStdT10 #0: ";
    const std::string returned = "L3 dif_util checkDifInSglWithErrRetInputCheck #4660: DIF_ARG_ERROR: ";
    const std::string blocks = "DIF_ERROR_BLOCK_NUM: sectorNum(7),type(2),blockSize(4160).";
    const std::string point = "L3 dif_util checkDifParamCheck #4660: DIF_ERROR_MID_OR_VERIFY_POINT: mid(4), "
                              "verify_point(3), verify_point_num(2), funcName(caller), line(42).";
    const struct {
        char operation; // asserting, returning or standard T10
        const Sgl *sgl;
        uint32_t sectors;
        DifCheckParam *param;
        bool limited;
        std::string line;
    } rows[] = {
        {'a', nullptr, 8, &good, true, input + "Input err, sgl:(nil), param:" + record + ", func: caller."},
        {'a', sgl, 8, &typed, true, input + "Dif type err, data type: 3, func: caller."},
        {'r', nullptr, 8, &good, false, returned + "sgl((nil)), param(" + record + "), func(caller)."},
        {'r', sgl, 8, nullptr, false, returned + "sgl(" + root + "), param((nil)), func(caller)."},
        {'r', sgl, 8, &typed, false, returned + "type(3), func(caller)."},
        {'r', sgl, 8, &unknown, false, point},
        {'r', sgl, 7, &good, false, "L3 dif_util checkDifInSglWithErrorReturn #4660: " + blocks},
        {'t', sgl, 8, nullptr, true, std10 + "DIF_ARG_ERROR: sgl(" + root + "), param((nil))."},
        {'t', sgl, 8, &typed, true, std10 + "DIF_ARG_ERROR: invalid type(3)."},
        {'t', sgl, 7, &good, true, std10 + blocks},
    };
    host.filtered = 1u << 4; // no dumps
    for (const auto &row : rows) {
        for (int i = 0; i < 4; ++i) {
            SCOPED_TRACE(row.line);
            EXPECT_EQ(row.operation == 't' ? checkDifInSglWithStdT10(row.sgl, 0, row.sectors, row.param)
                                           : (row.operation == 'a' ? checkDifInSgl : checkDifInSglWithErrorReturn)(
                                                 row.sgl, 0, row.sectors, row.param, "caller", 42),
                      row.operation == 'a' ? DIF_ERR_CHECK : DIF_ERR_SGL);
            EXPECT_EQ(events(), row.limited && i == 3 ? Lines{} : Lines{row.line});
        }
    }
    host.filtered = 1u << 3; // the dump does not depend on the message
    EXPECT_EQ(checkDifInSglWithStdT10(sgl, 0, 7, &good), DIF_ERR_SGL);
    EXPECT_EQ(events(), Lines{"dump"});
    host.filtered = 0;
    const std::string name = "checkDifInSgl"; // here both are assertions, after which the check goes on
    EXPECT_EQ(checkDifInSgl(sgl, 0, 7, &unknown, "caller", 42), DIF_OK);
    EXPECT_EQ(events(), join({Lines{point}, asserted(name, "0"), noBlocks(name, 7, 2), asserted(name, "0")}));
    chain.at(0)->entries[0].buf[0] = 1;
    EXPECT_EQ(checkDifInSgl(sgl, 0, 8, &unknown, "caller", 42), DIF_ERR_CHECK);
    EXPECT_EQ(call.result, DIF_RESULT_CRC_ERROR);
}

TEST_F(Lists, ChecksEndWithTheirLastQuestion) {
    Chain chain(Lengths{{520, 7}});
    chain.at(0)->entries[0].buf[0] = 1;
    for (auto *const op : {checkDifInSgl, checkDifInSglWithErrorReturn}) {
        EXPECT_EQ(check(op, DIF_CHECK_CRC, {chain.at(0), 0, 2}), DIF_ERR_CHECK);
        EXPECT_EQ(host.take().size(), 2u); // of the failed block, nothing of the second entry
    }
}

TEST_F(Lists, ErrorReturnDiscardsTheCallButNotWhatItFound) {
    Chain chain(Lengths{{520, 520}});
    chain.at(0)->entries[0].buf[0] = 1;
    Check call(DIF_DATA_520, DIF_CHECK_CRC | DIF_CHECK_ALL_BLOCKS, kLba);
    EXPECT_EQ(checkDifInSglWithErrorReturn(chain.at(0), 0, 3, &call.param, "caller", 42), DIF_ERR_SGL);
    EXPECT_EQ(call.result, DIF_RESULT_CRC_ERROR);
    EXPECT_EQ(call.index, 0u);
    EXPECT_EQ(call.bitmap[0], 1u);
    EXPECT_EQ(call.param.lba, kLba);
    EXPECT_EQ(call.param.ctrlFlag, DIF_CHECK_CRC | DIF_CHECK_ALL_BLOCKS);
    std::array<uint64_t, DIF_STAT_BUTT> counters;
    difVerifyStatisticGet(DIF_MID_CACHE, 0, counters.data());
    EXPECT_EQ(counters, (std::array<uint64_t, DIF_STAT_BUTT>{})); // nothing is counted
    Check untouched(DIF_DATA_520, DIF_CHECK_CRC);
    EXPECT_EQ(checkDifInSglWithErrorReturn(chain.at(0), 1, 1, &untouched.param, "caller", 42), DIF_ERR_SGL);
    EXPECT_EQ(untouched.result, 0x5A5A5A5A); // positioning fails before anything changes
    EXPECT_EQ(untouched.index, 7u);
}

TEST_F(Lists, SwitchedOff) {
    setDifOn(0);
    host.take();
    insertDifInSgl(nullptr, 0, 0, nullptr);
    replaceDifInSgl(nullptr, 0, 0, nullptr);
    EXPECT_TRUE(isDifEvictableInSgl(nullptr, 0, 0));
    EXPECT_EQ(checkDifInSglWithStdT10(nullptr, 0, 0, nullptr), DIF_OK);
    EXPECT_EQ(host.take(), Lines{});
    Chain chain(Lengths{{520}, {520}});
    uint8_t *const second = chain.at(1)->entries[0].buf;
    second[519] = 1;
    for (auto *const op : {checkDifInSgl, checkDifInSglWithErrorReturn}) {
        for (const bool isZero : {true, false}) {
            second[511] = !isZero;
            memset(chain.at(0)->entries[0].buf + 512, 0xFF, 8);
            Check call(DIF_DATA_520, DIF_CHECK_ZERO_DATA | DIF_CHECK_TRIM_ZERO, kLba);
            EXPECT_EQ(op(chain.at(0), 0, 2, &call.param, "caller", 42), DIF_OK);
            EXPECT_EQ(call.result, isZero ? DIF_RESULT_NOT_T10 | DIF_RESULT_ALL_ZERO : DIF_RESULT_NOT_T10);
            EXPECT_EQ(call.index, 0xFFFFFFFF);
            EXPECT_EQ(chain.at(0)->entries[0].buf[512], 0); // trimmed
        }
    }
    const std::vector<uint8_t> bytes = chain.bytes();
    for (const Operation &op : kOperations) {
        op.call({chain.at(0), 0, 2});
        EXPECT_EQ(chain.bytes() != bytes, std::string_view(op.name) == "injectDifInSgl") << op.name;
        chain.fill(bytes);
    }
}

/* Block 2 of four, in two entries, has the tuple; the others are right. LBA 0xFFFFFFFE and on: block 2 expects 0. */
TEST_F(Lists, StandardT10) {
    constexpr uint32_t kBoth = DIF_CHECK_CRC | DIF_CHECK_LBA;
    const std::string exempt =
        "L6 - checkDifIntegrityWithStdT10 #0: DIF_CHECK_WITH_STDT10_INFO: version(0xFF), app(0xFF), "
        "difPtr(@),type(~), mid(99), subPid(1), crcLevel(2), lbaLevel(2).";
    const std::string warning = "L4 - checkDifIntegrityWithStdT10 #0: DIF_WARNING_CHECK_DIF_WITH_STD_T10: ";
    const std::string lba = warning + "LBA error: expected(0), actual(7),block(2), difPtr(@), type(~).";
    const std::string crc = warning + "CRC error: expected(0x$), actual(0xad0b),block(2), difPtr(@), type(~).";
    const struct {
        const char *tuple;
        uint32_t flags, result; // of DIF_RESULT_*, 0 if the block passes
        std::string line;
    } rows[] = {
        {"gggg 13 00 00000000", kBoth, 0, ""},
        {"gggg ab cd 00000000", kBoth, 0, ""},
        {"0bad ff ff 00000007", kBoth, 0, exempt},
        {"0bad ff 02 00000007", kBoth, DIF_RESULT_LBA_ERROR, lba},
        {"0bad 29 ff 00000007", DIF_CHECK_CRC, DIF_RESULT_CRC_ERROR, crc},
        {"0bad 34 00 00000000", kBoth | DIF_CHECK_ALL_BLOCKS, DIF_RESULT_CRC_ERROR, crc},
        {"gggg 13 00 00000007", DIF_CHECK_LBA, DIF_RESULT_LBA_ERROR, lba},
        {"0bad 13 00 00000007", DIF_CHECK_TRIM_ZERO, 0, ""},
    };
    for (uint32_t i = 0; i < 2 * std::size(rows); ++i) {
        const auto &row = rows[i / 2];
        const uint32_t type = i % 2 * 2;
        SCOPED_TRACE(format("%s, type %u", row.tuple, type));
        host.tick += 75000;
        Blocks blocks(type, 5);
        for (uint32_t k = 0; k < 5; ++k) // nothing before the range and behind a failure matters
            blocks.set(k, k == 0 || (k == 4 && row.result != 0) ? "0bad 13 02 0badbad0"
                                                                : format("gggg 00 00 %08x", 0xFFFFFFFD + k));
        blocks.set(3, row.tuple);
        const uint32_t size = blocks.info.blockSize;
        Chain chain(Lengths{{3 * size}, {2 * size}});
        chain.fill(blocks.bytes);
        Check call(type, row.flags, 0x1FFFFFFFE);
        call.param.mid = 99;
        const DifCheckParam before = call.param;
        EXPECT_EQ(checkDifInSglWithStdT10(chain.at(0), size, type < 2 ? 4 : 39, &call.param),
                  row.result != 0 ? DIF_ERR_CHECK : DIF_OK);
        EXPECT_EQ(call.result, row.result);
        EXPECT_EQ(call.index, 7u);
        EXPECT_EQ(memcmp(&before, &call.param, sizeof before), 0);
        EXPECT_TRUE(chain.bytes() == blocks.bytes);

        Lines lines = host.take();
        ASSERT_EQ(lines.size(), row.line.empty() ? 0u : row.result != 0 ? 2u : 1u); // with the dump of a failed block
        std::string line = row.line;
        const auto fill = [&](char mark, const std::string &text) {
            if (const size_t at = line.find(mark); at != std::string::npos)
                line.replace(at, 1, text);
        };
        fill('@', format("%p", static_cast<void *>(chain.at(1)->entries[0].buf + blocks.info.difOffset)));
        fill('~', format("%u), ctrlFlag(0x%x", type, row.flags));
        fill('$', format("%x", slowGuard(DIF_VERSION_T10, blocks.data(3), blocks.info.dataSize)));
        EXPECT_EQ(lines.empty() ? "" : lines[0], line);
    }
}

} // namespace
