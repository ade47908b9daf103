#include "chain.h"
#include "fake_host.h"
#include "model.h"

namespace {

using Arguments = StartedDif;

Lines operator+(Lines lines, const Lines &more) {
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

/* Arguments with something that the operation refuses, its answer if it gives one, and what the host sees. */
template <typename Place, typename Param>
struct Refusal {
    Place *place;
    uint32_t sectors;
    Param *param;
    uint32_t answer;
    Lines events;
};

using BufferRows = std::vector<Refusal<uint8_t, DifCheckParam>>;
using ListRows = std::vector<Refusal<const Sgl, DifCheckParam>>;

template <typename Place, typename Param, typename Operation>
void expectRefused(Operation operation, const std::vector<Refusal<Place, Param>> &rows) {
    for (const auto &row : rows) {
        SCOPED_TRACE(format("row %td", &row - rows.data()));
        host.later();
        if constexpr (std::is_void_v<decltype(operation(row.place, row.sectors, row.param))>)
            operation(row.place, row.sectors, row.param);
        else
            EXPECT_EQ(uint32_t{operation(row.place, row.sectors, row.param)}, row.answer);
        EXPECT_EQ(host.take(), row.events);
    }
}

/* An operation over a list, from its start on. */
template <typename Operation>
auto fromStart(Operation operation) {
    return [=](const Sgl *sgl, uint32_t sectors, auto *param) { return operation(sgl, 0, sectors, param); };
}

/* Of 7 sectors of 4160-byte blocks. */
Lines noBlocks(const std::string &function, uint32_t type) {
    return {plain(3, function, format("DIF_ERROR_BLOCK_NUM: sectorNum(7),type(%u),blockSize(4160).", type))};
}

TEST_F(Arguments, OfWriting) {
    Blocks blocks(DIF_DATA_4160, 1);
    Chain chain(Lengths{{4160}}, blocks.bytes);
    DifOpParam op{DIF_DATA_4160_ZERO, 0x2FF, 9, nullptr}, badOp{DIF_DATA_BUTT, 0x2FF, 9, nullptr};
    DifInjectParam inject{DIF_DATA_4160_ZERO, 0x4000000F, 9, 1, 1}, badInject{DIF_DATA_BUTT, 0x4000000F, 9, 1, 1};
    const auto expect = [](const std::string &name, const char *placeName, const char *lookedAtFirst, auto *place,
                           auto &good, auto &bad, auto operation) {
        using Row = Refusal<std::remove_pointer_t<decltype(place)>, std::remove_reference_t<decltype(good)>>;
        const std::vector<Row> rows = {
            {nullptr, 8, nullptr, 0, notNull(name, lookedAtFirst)},
            {nullptr, 8, &good, 0, notNull(name, placeName)},
            {place, 8, nullptr, 0, notNull(name, "param")},
            {place, 8, &bad, 0, asserted(name, "(param->type) < DIF_DATA_BUTT")},
            {place, 7, &good, 0, noBlocks(name, 3) + asserted(name, "0")},
        };
        expectRefused(operation, rows);
        EXPECT_EQ(good.lba, 9u);
    };
    expect("insertDif", "buf", "buf", blocks.data(0), op, badOp, insertDif);
    expect("replaceDif", "buf", "param", blocks.data(0), op, badOp, replaceDif);
    expect("insertDifInSgl", "sgl", "sgl", chain.at(0), op, badOp, fromStart(insertDifInSgl));
    expect("replaceDifInSgl", "sgl", "param", chain.at(0), op, badOp, fromStart(replaceDifInSgl));
    expect("injectDif", "buf", "buf", blocks.data(0), inject, badInject, injectDif);
    EXPECT_EQ(inject.ctrlFlag, 0xFu); // the call without blocks has cleared the bit that it sets
    inject.ctrlFlag = badInject.ctrlFlag;
    expect("injectDifInSgl", "sgl", "param", chain.at(0), inject, badInject, fromStart(injectDifInSgl));
    EXPECT_EQ(inject.ctrlFlag, 0xFu);
    EXPECT_EQ(badInject.ctrlFlag, 0x4000000Fu);
    EXPECT_TRUE(blocks.bytes == Blocks(DIF_DATA_4160, 1).bytes && chain.bytes() == blocks.bytes);
}

TEST_F(Arguments, OfChecks) {
    constexpr uint32_t kTrim = DIF_CHECK_TRIM_ZERO, kFail = DIF_ERR_CHECK, kSgl = DIF_ERR_SGL;
    Blocks blocks(DIF_DATA_4160, 1);
    Chain chain(Lengths{{4160}}, blocks.bytes), emptyChain(Lengths{{}});
    uint8_t *const buf = blocks.data(0);
    const Sgl *const sgl = chain.at(0), *const empty = emptyChain.at(0);
    Check check(DIF_DATA_4160, kTrim | DIF_CHECK_ZERO_DATA), declared(DIF_DATA_4160_ZERO, kTrim), strange(99, 0);
    Check unknown(DIF_DATA_4160, DIF_CHECK_CRC);
    unknown.param.subPid = 3;
    DifCheckParam *const good = &check.param, *const zero = &declared.param, *const bad = &strange.param;
    DifCheckParam *const stranger = &unknown.param;
    const auto text = [](const void *pointer) { return format("%p", pointer); };
    const std::string p = text(good), s = text(sgl), b = text(buf);
    const auto error = [](const std::string &message) { return Lines{limited(3, "checkDif", message)}; };
    const auto inputError = [](const std::string &message) {
        return Lines{limited(3, "checkDifInSglInputCheck", message)};
    };
    const auto returned = [](const std::string &message) {
        return Lines{plain(3, "checkDifInSglWithErrRetInputCheck", "DIF_ARG_ERROR: " + message)};
    };
    const auto t10Error = [](const std::string &message) {
        return Lines{limited(3, "checkDifInSglWithStdT10", message)};
    };
    const Lines point = {plain(3, "checkDifParamCheck",
                               "DIF_ERROR_MID_OR_VERIFY_POINT: mid(4), verify_point(3), verify_point_num(2), "
                               "funcName(caller), line(42).")};
    const Lines noEntry = {
        plain(3, "getStartSglByOffset", "DIF_ERROR_SGL: sgl(" + text(empty) + "),entrySumInSgl(0),entryIndex(0).")};
    const std::string list = "checkDifInSgl";
    const Lines asserts = asserted(list, "0"), positioning = noEntry + asserted("getStartSglByOffset", "0");

    host.filtered = 1u << 4; // no dumps, no warnings
    const BufferRows ofBuffers = {
        {nullptr, 8, good, kFail, error("Input error, buf is (nil), param is " + p + ".")},
        {buf, 8, nullptr, kFail, error("Input error, buf is " + b + ", param is (nil).")},
        {buf, 8, zero, kFail, error("Dif data type error, cur dif data type is 3.")},
        {buf, 8, bad, kFail, error("Dif data type error, cur dif data type is 99.")},
        {buf, 7, good, DIF_OK, noBlocks("checkDif", 2) + asserted("checkDif", "0")},
        {buf, 8, stranger, kFail, point + asserted("checkDif", "0")},
    };
    const ListRows ofLists = {
        {nullptr, 8, good, kFail, inputError("Input err, sgl:(nil), param:" + p + ", func: caller.")},
        {sgl, 8, nullptr, kFail, inputError("Input err, sgl:" + s + ", param:(nil), func: caller.")},
        {sgl, 8, zero, kFail, inputError("Dif type err, data type: 3, func: caller.")},
        {sgl, 8, stranger, kFail, point + asserts},
        {empty, 7, stranger, DIF_OK, point + asserts + noBlocks(list, 2) + asserts + positioning}, // goes on each time
    };
    const ListRows ofReturning = {
        {nullptr, 8, good, kSgl, returned("sgl((nil)), param(" + p + "), func(caller).")},
        {sgl, 8, nullptr, kSgl, returned("sgl(" + s + "), param((nil)), func(caller).")},
        {sgl, 8, zero, kSgl, returned("type(3), func(caller).")},
        {sgl, 8, stranger, kSgl, point},
        {sgl, 7, good, kSgl, noBlocks("checkDifInSglWithErrorReturn", 2)},
    };
    const ListRows ofStdT10 = {
        {nullptr, 8, good, kSgl, t10Error("DIF_ARG_ERROR: sgl((nil)), param(" + p + ").")},
        {sgl, 8, nullptr, kSgl, t10Error("DIF_ARG_ERROR: sgl(" + s + "), param((nil)).")},
        {sgl, 8, zero, kSgl, t10Error("DIF_ARG_ERROR: invalid type(3).")},
        {sgl, 7, good, kSgl, t10Error("DIF_ERROR_BLOCK_NUM: sectorNum(7),type(2),blockSize(4160).")},
    };
    expectRefused(checkBuffer, ofBuffers);
    expectRefused(fromStart(checkList), ofLists);
    expectRefused(fromStart(checkListReturning), ofReturning);
    expectRefused(fromStart(checkDifInSglWithStdT10), ofStdT10);
    EXPECT_EQ(strange.result, Check::kUntouched);
    host.filtered = 1u << 3; // the dump does not depend on the message
    host.later();
    EXPECT_EQ(checkDifInSglWithStdT10(sgl, 0, 7, good), DIF_ERR_SGL);
    EXPECT_EQ(host.take().size(), 4u);
    unknown.param.mid = 200; // beyond every table
    unknown.param.ctrlFlag = DIF_CHECK_LBA | DIF_CHECK_BST;
    EXPECT_EQ(checkBuffer(buf, 8, stranger), DIF_OK);
    EXPECT_EQ(checkDifParamCheck(stranger, "caller", 42), DIF_FAIL);
    unknown.param.ctrlFlag = DIF_CHECK_BST; // needs no identity
    EXPECT_EQ(checkDifParamCheck(stranger, "caller", 42), DIF_OK);
}

TEST_F(Arguments, OfZeroTestsAndTrim) {
    const std::string type = "param->type == DIF_DATA_520 || param->type == DIF_DATA_4160";
    const std::string buffer = "noDifZeroDataCheck", list = "noDifZeroDataCheckInSgl", trim = "trimDataInSgl";
    Blocks blocks(DIF_DATA_4160, 1);
    Chain chain(Lengths{{4160}}, blocks.bytes);
    uint8_t *const buf = blocks.data(0);
    const Sgl *const sgl = chain.at(0);
    Check check(DIF_DATA_4160, DIF_CHECK_TRIM_ZERO), declared(DIF_DATA_4160_ZERO, DIF_CHECK_TRIM_ZERO), strange(99, 0);
    DifCheckParam *const good = &check.param, *const zero = &declared.param, *const bad = &strange.param;
    const BufferRows ofBuffers = {
        {nullptr, 8, good, 0, notNull(buffer, "buf")},
        {buf, 8, zero, 0, asserted(buffer, type)},
        {buf, 8, bad, 0, asserted(buffer, type)},
        {buf, 7, good, 1, asserted(buffer, "blockNum != 0")},
    };
    const ListRows ofLists = {
        {nullptr, 8, good, 0, notNull(list, "sgl")},
        {sgl, 8, zero, 0, asserted(list, type)},
        {sgl, 7, good, 1, asserted(list, "blockNum != 0")},
    };
    const ListRows ofAnswers = {
        {nullptr, 8, nullptr, 0, notNull("noDifSetCheckResultInSgl", "param")},
        {nullptr, 8, zero, 0, notNull(trim, "sgl")},
        {sgl, 8, zero, 0, asserted(trim, type)},
        {sgl, 7, good, 0, asserted(trim, "blockNum != 0")},
    };
    expectRefused(noDifZeroDataCheck, ofBuffers);
    expectRefused(noDifSetCheckResult, BufferRows{{buf, 8, nullptr, 0, notNull("noDifSetCheckResult", "param")}});
    expectRefused(fromStart(noDifZeroDataCheckInSgl), ofLists);
    expectRefused(fromStart(noDifSetCheckResultInSgl), ofAnswers);
}

TEST_F(Arguments, OfTupleTools) {
    uint8_t buf[520] = {};
    Chain chain(Lengths{{520}});
    const std::string noSectors = "DIF_ERROR_BLOCK_NUM: sectorNum(0),blockSize(520).";
    const std::string list = "isDifEvictableInSgl", transform = "trans2LSectorDif";
    EXPECT_TRUE(isDifEvictable(nullptr, 1));
    EXPECT_TRUE(isDifEvictable(buf, 0));
    EXPECT_EQ(host.take(), notNull("isDifEvictable", "buf") + Lines{plain(3, "isDifEvictable", noSectors)} +
                               asserted("isDifEvictable", "0"));
    EXPECT_FALSE(isDifEvictableInSgl(nullptr, 0, 1));
    EXPECT_TRUE(isDifEvictableInSgl(chain.at(0), 0, 0));
    EXPECT_EQ(host.take(), notNull(list, "sgl") + Lines{plain(3, list, noSectors)} + asserted(list, "0"));
    EXPECT_FALSE(isDifDataAllZero(nullptr));
    clearDifVersion(nullptr);
    EXPECT_EQ(host.take(), asserted("isDifDataAllZero", "difBuf != ((void *)0)") +
                               asserted("clearDifVersion", "difBuf != ((void *)0)"));
    DifTuple tuple{1, 2, 3, 4};
    trans2LSectorDif(nullptr, 1, &tuple);
    trans2LSectorDif(buf, 0, nullptr);
    EXPECT_EQ(host.take(),
              notNull(transform, "buf") + asserted(transform, "sectorNum != 0") + notNull(transform, "dif"));
    EXPECT_EQ(tuple.version, 2);
}

/* Operations that ask for the switch look at nothing else while it is off. */
TEST_F(Arguments, WhileDifIsOff) {
    uint8_t buf[520] = {};
    DifTuple tuple{1, 2, 3, 4};
    setDifOn(0);
    host.take();
    insertDif(nullptr, 0, nullptr);
    replaceDif(nullptr, 0, nullptr);
    insertDifInSgl(nullptr, 0, 0, nullptr);
    replaceDifInSgl(nullptr, 0, 0, nullptr);
    trans2LSectorDif(buf, 1, &tuple);
    EXPECT_EQ(tuple.version, 2);
    EXPECT_TRUE(isDifEvictable(nullptr, 0));
    EXPECT_TRUE(isDifEvictableInSgl(nullptr, 0, 0));
    EXPECT_EQ(checkDifInSglWithStdT10(nullptr, 0, 0, nullptr), DIF_OK);
    Check check(DIF_DATA_520_ZERO, DIF_CHECK_CRC);
    check.param.mid = 200;
    EXPECT_EQ(checkBuffer(nullptr, 1, &check.param), DIF_OK);
    EXPECT_EQ(check.result, DIF_RESULT_NOT_T10);
    EXPECT_EQ(host.take(), Lines{});
    EXPECT_EQ(checkBuffer(nullptr, 0, nullptr), DIF_OK);
    EXPECT_EQ(checkList(nullptr, 0, 0, nullptr), DIF_OK);
    EXPECT_EQ(host.take(), notNull("noDifSetCheckResult", "param") + notNull("noDifSetCheckResultInSgl", "param"));
}

} // namespace
