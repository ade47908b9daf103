#include "chain.h"
#include "fake_host.h"
#include "model.h"

namespace {

using Arguments = StartedDif;

Lines operator+(Lines lines, const Lines &more) {
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

/* A call with something that the operation refuses, its answer, and what the host sees. */
struct Refusal {
    template <typename Call>
    Refusal(Call refused, uint32_t expected, const Lines &seen) : answer(expected), events(seen) {
        call = [=] {
            if constexpr (std::is_void_v<decltype(refused())>)
                return refused(), 0u;
            else
                return static_cast<uint32_t>(refused());
        };
    }
    std::function<uint32_t()> call;
    uint32_t answer;
    Lines events;
};

void expectRefused(const std::vector<Refusal> &rows) {
    for (const Refusal &row : rows) {
        SCOPED_TRACE(row.events.empty() ? "no events" : row.events[0]);
        host.later();
        EXPECT_EQ(row.call(), row.answer);
        EXPECT_EQ(host.take(), row.events);
    }
}

Lines noBlocks(const std::string &function, uint32_t type, uint32_t blockSize) {
    return {plain(3, function, format("DIF_ERROR_BLOCK_NUM: sectorNum(7),type(%u),blockSize(%u).", type, blockSize))};
}

const std::string kOpType = "(param->type) < DIF_DATA_BUTT";
const std::string kCheckType = "param->type == DIF_DATA_520 || param->type == DIF_DATA_4160";

TEST_F(Arguments, OfWriting) {
    Blocks blocks(DIF_DATA_4160, 1);
    const auto before = blocks.bytes;
    Chain chain(Lengths{{4160}}, before);
    DifOpParam op{DIF_DATA_4160_ZERO, 0x2FF, 9, nullptr}, badOp{DIF_DATA_BUTT, 0x2FF, 9, nullptr};
    DifInjectParam inject{DIF_DATA_4160_ZERO, 0x4000000F, 9, 1, 1}, badInject{DIF_DATA_BUTT, 0x4000000F, 9, 1, 1};
    std::vector<Refusal> rows;
    const auto add = [&](const std::string &name, const char *placeName, const char *lookedAtFirst, auto place,
                         auto *good, auto *bad, auto call) {
        const decltype(place) noPlace = nullptr;
        const decltype(good) noRecord = nullptr;
        rows.emplace_back([=] { call(noPlace, 8, noRecord); }, 0, notNull(name, lookedAtFirst));
        rows.emplace_back([=] { call(noPlace, 8, good); }, 0, notNull(name, placeName));
        rows.emplace_back([=] { call(place, 8, noRecord); }, 0, notNull(name, "param"));
        rows.emplace_back([=] { call(place, 8, bad); }, 0, asserted(name, kOpType));
        rows.emplace_back([=] { call(place, 7, good); }, 0, noBlocks(name, 3, 4160) + asserted(name, "0"));
    };
    const auto atStart = [](auto list) {
        return [=](const Sgl *sgl, uint32_t sectors, auto *param) { list(sgl, 0, sectors, param); };
    };
    const Sgl *const sgl = chain.at(0);
    add("insertDif", "buf", "buf", blocks.data(0), &op, &badOp, insertDif);
    add("replaceDif", "buf", "param", blocks.data(0), &op, &badOp, replaceDif);
    add("injectDif", "buf", "buf", blocks.data(0), &inject, &badInject, injectDif);
    add("insertDifInSgl", "sgl", "sgl", sgl, &op, &badOp, atStart(insertDifInSgl));
    add("replaceDifInSgl", "sgl", "param", sgl, &op, &badOp, atStart(replaceDifInSgl));
    add("injectDifInSgl", "sgl", "param", sgl, &inject, &badInject, atStart(injectDifInSgl));
    expectRefused(rows);
    EXPECT_TRUE(blocks.bytes == before && chain.bytes() == before);
    EXPECT_EQ(op.lba + inject.lba, 18u);
    EXPECT_EQ(inject.ctrlFlag, 0xFu); // the call without blocks has cleared the bit that it sets
    EXPECT_EQ(badInject.ctrlFlag, 0x4000000Fu);
}

TEST_F(Arguments, OfTupleTools) {
    uint8_t buf[520] = {};
    DifTuple tuple{1, 2, 3, 4};
    const std::string noSectors = "DIF_ERROR_BLOCK_NUM: sectorNum(0),blockSize(520).";
    Chain chain(Lengths{{520}});
    const Sgl *const sgl = chain.at(0);
    expectRefused({
        {[] { return isDifEvictable(nullptr, 1); }, 1, notNull("isDifEvictable", "buf")},
        {[&] { return isDifEvictable(buf, 0); }, 1,
         Lines{plain(3, "isDifEvictable", noSectors)} + asserted("isDifEvictable", "0")},
        {[] { return isDifEvictableInSgl(nullptr, 0, 1); }, 0, notNull("isDifEvictableInSgl", "sgl")},
        {[=] { return isDifEvictableInSgl(sgl, 0, 0); }, 1,
         Lines{plain(3, "isDifEvictableInSgl", noSectors)} + asserted("isDifEvictableInSgl", "0")},
        {[] { return isDifDataAllZero(nullptr); }, 0, asserted("isDifDataAllZero", "difBuf != ((void *)0)")},
        {[] { clearDifVersion(nullptr); }, 0, asserted("clearDifVersion", "difBuf != ((void *)0)")},
        {[&] { trans2LSectorDif(nullptr, 1, &tuple); }, 0, notNull("trans2LSectorDif", "buf")},
        {[&] { trans2LSectorDif(buf, 0, nullptr); }, 0,
         asserted("trans2LSectorDif", "sectorNum != 0") + notNull("trans2LSectorDif", "dif")},
    });
    EXPECT_EQ(tuple.version, 2);
}

TEST_F(Arguments, OfChecks) {
    Blocks blocks(DIF_DATA_4160, 1);
    Chain chain(Lengths{{4160}}, blocks.bytes), emptyChain(Lengths{{}});
    uint8_t *const buf = blocks.data(0);
    const Sgl *const sgl = chain.at(0), *const empty = emptyChain.at(0);
    Check check(DIF_DATA_4160, DIF_CHECK_TRIM_ZERO | DIF_CHECK_ZERO_DATA),
        declared(DIF_DATA_4160_ZERO, DIF_CHECK_TRIM_ZERO);
    Check strange(0x80000000, DIF_CHECK_TRIM_ZERO), unknown(DIF_DATA_4160, DIF_CHECK_CRC), first(DIF_DATA_520, 0);
    unknown.param.subPid = 3;
    DifCheckParam *const good = &check.param, *const zero = &declared.param, *const bad = &strange.param;
    DifCheckParam *const stranger = &unknown.param;
    const auto text = [](const void *pointer) { return format("%p", pointer); };
    const auto limit = [](const std::string &function, const std::string &message) {
        return Lines{limited(3, function, message)};
    };
    const auto contiguous = [](uint8_t *at, uint32_t sectors, DifCheckParam *param) {
        return checkDif(at, sectors, param, "caller", 42);
    };
    const auto list = [](const Sgl *at, uint32_t sectors, DifCheckParam *param) {
        return checkDifInSgl(at, 0, sectors, param, "caller", 42);
    };
    const auto returning = [](const Sgl *at, uint32_t sectors, DifCheckParam *param) {
        return checkDifInSglWithErrorReturn(at, 0, sectors, param, "caller", 42);
    };
    const Lines point = {plain(3, "checkDifParamCheck",
                               "DIF_ERROR_MID_OR_VERIFY_POINT: mid(4), verify_point(3), verify_point_num(2), "
                               "funcName(caller), line(42).")};
    const Lines noEntry = {
        plain(3, "getStartSglByOffset", "DIF_ERROR_SGL: sgl(" + text(empty) + "),entrySumInSgl(0),entryIndex(0).")};
    const auto argument = [](const std::string &message) {
        return Lines{plain(3, "checkDifInSglWithErrRetInputCheck", "DIF_ARG_ERROR: " + message)};
    };
    const std::string p = text(good), s = text(sgl);
    host.filtered = 1u << 4; // no dumps, no warnings
    expectRefused({
        {[=] { return contiguous(nullptr, 8, good); }, DIF_ERR_CHECK,
         limit("checkDif", "Input error, buf is (nil), param is " + p + ".")},
        {[=] { return contiguous(buf, 8, nullptr); }, DIF_ERR_CHECK,
         limit("checkDif", "Input error, buf is " + text(buf) + ", param is (nil).")},
        {[=] { return contiguous(buf, 8, zero); }, DIF_ERR_CHECK,
         limit("checkDif", "Dif data type error, cur dif data type is 3.")},
        {[=] { return contiguous(buf, 8, bad); }, DIF_ERR_CHECK,
         limit("checkDif", "Dif data type error, cur dif data type is 2147483648.")},
        {[=] { return contiguous(buf, 7, good); }, DIF_OK, noBlocks("checkDif", 2, 4160) + asserted("checkDif", "0")},
        {[=] { return contiguous(buf, 8, stranger); }, DIF_ERR_CHECK, point + asserted("checkDif", "0")},

        {[=] { return list(nullptr, 8, good); }, DIF_ERR_CHECK,
         limit("checkDifInSglInputCheck", "Input err, sgl:(nil), param:" + p + ", func: caller.")},
        {[=] { return list(sgl, 8, nullptr); }, DIF_ERR_CHECK,
         limit("checkDifInSglInputCheck", "Input err, sgl:" + s + ", param:(nil), func: caller.")},
        {[=] { return list(sgl, 8, zero); }, DIF_ERR_CHECK,
         limit("checkDifInSglInputCheck", "Dif type err, data type: 3, func: caller.")},
        {[=] { return list(sgl, 7, stranger); }, DIF_OK,
         point + asserted("checkDifInSgl", "0") + noBlocks("checkDifInSgl", 2, 4160) + asserted("checkDifInSgl", "0")},
        {[=] { return list(sgl, 8, stranger); }, DIF_ERR_CHECK, point + asserted("checkDifInSgl", "0")},
        {[=] { return list(empty, 7, good); }, DIF_OK, // positions itself all the same
         noBlocks("checkDifInSgl", 2, 4160) + asserted("checkDifInSgl", "0") + noEntry +
             asserted("getStartSglByOffset", "0")},

        {[=] { return returning(nullptr, 8, good); }, DIF_ERR_SGL,
         argument("sgl((nil)), param(" + p + "), func(caller).")},
        {[=] { return returning(sgl, 8, nullptr); }, DIF_ERR_SGL,
         argument("sgl(" + s + "), param((nil)), func(caller).")},
        {[=] { return returning(sgl, 8, zero); }, DIF_ERR_SGL, argument("type(3), func(caller).")},
        {[=] { return returning(sgl, 8, stranger); }, DIF_ERR_SGL, point},
        {[=] { return returning(sgl, 7, good); }, DIF_ERR_SGL, noBlocks("checkDifInSglWithErrorReturn", 2, 4160)},

        {[=] { return checkDifInSglWithStdT10(nullptr, 0, 8, good); }, DIF_ERR_SGL,
         limit("checkDifInSglWithStdT10", "DIF_ARG_ERROR: sgl((nil)), param(" + p + ").")},
        {[=] { return checkDifInSglWithStdT10(sgl, 0, 8, nullptr); }, DIF_ERR_SGL,
         limit("checkDifInSglWithStdT10", "DIF_ARG_ERROR: sgl(" + s + "), param((nil)).")},
        {[=] { return checkDifInSglWithStdT10(sgl, 0, 8, zero); }, DIF_ERR_SGL,
         limit("checkDifInSglWithStdT10", "DIF_ARG_ERROR: invalid type(3).")},
        {[=] { return checkDifInSglWithStdT10(sgl, 0, 7, good); }, DIF_ERR_SGL,
         limit("checkDifInSglWithStdT10", "DIF_ERROR_BLOCK_NUM: sectorNum(7),type(2),blockSize(4160).")},

        {[=] { return noDifZeroDataCheck(nullptr, 8, good); }, 0, notNull("noDifZeroDataCheck", "buf")},
        {[=] { return noDifZeroDataCheck(buf, 8, zero); }, 0, asserted("noDifZeroDataCheck", kCheckType)},
        {[=] { return noDifZeroDataCheck(buf, 8, bad); }, 0, asserted("noDifZeroDataCheck", kCheckType)},
        {[=] { return noDifZeroDataCheck(buf, 7, good); }, 1, asserted("noDifZeroDataCheck", "blockNum != 0")},
        {[=] { noDifSetCheckResult(buf, 8, nullptr); }, 0, notNull("noDifSetCheckResult", "param")},
        {[=] { return noDifZeroDataCheckInSgl(nullptr, 0, 8, good); }, 0, notNull("noDifZeroDataCheckInSgl", "sgl")},
        {[=] { return noDifZeroDataCheckInSgl(sgl, 0, 8, zero); }, 0, asserted("noDifZeroDataCheckInSgl", kCheckType)},
        {[=] { return noDifZeroDataCheckInSgl(sgl, 0, 7, good); }, 1,
         asserted("noDifZeroDataCheckInSgl", "blockNum != 0")},
        {[=] { noDifSetCheckResultInSgl(sgl, 0, 8, nullptr); }, 0, notNull("noDifSetCheckResultInSgl", "param")},
        {[=] { noDifSetCheckResultInSgl(nullptr, 0, 8, zero); }, 0, notNull("trimDataInSgl", "sgl")},
        {[=] { noDifSetCheckResultInSgl(sgl, 0, 8, zero); }, 0, asserted("trimDataInSgl", kCheckType)},
        {[=] { noDifSetCheckResultInSgl(sgl, 0, 7, good); }, 0,
         asserted("noDifZeroDataCheckInSgl", "blockNum != 0") + asserted("trimDataInSgl", "blockNum != 0")},
    });
    EXPECT_TRUE(chain.bytes() == Blocks(DIF_DATA_4160, 1).bytes);
    for (const Check *refused : {&strange, &first})
        EXPECT_EQ(refused->result, Check::kUntouched);

    host.filtered = 1u << 3; // the dump does not depend on the message
    host.later();
    EXPECT_EQ(checkDifInSglWithStdT10(sgl, 0, 7, good), DIF_ERR_SGL);
    EXPECT_EQ(host.take().size(), 4u);
    first.param.mid = 200; // beyond every table
    first.param.ctrlFlag = DIF_CHECK_LBA | DIF_CHECK_BST;
    EXPECT_EQ(checkDif(buf, 1, &first.param, "caller", 42), DIF_OK);
    EXPECT_EQ(checkDifParamCheck(&unknown.param, "caller", 42), DIF_FAIL);
    unknown.param.ctrlFlag = DIF_CHECK_BST; // needs no identity
    EXPECT_EQ(checkDifParamCheck(&unknown.param, "caller", 42), DIF_OK);
}

/* Operations that ask for the switch first look at nothing while it is off; the others do not ask. */
TEST_F(Arguments, WhileDifIsOff) {
    setDifOn(0);
    host.take();
    Blocks blocks(DIF_DATA_520, 1);
    DifTuple tuple{1, 2, 3, 4};
    expectRefused({
        {[] { insertDif(nullptr, 0, nullptr); }, 0, {}},
        {[] { replaceDif(nullptr, 0, nullptr); }, 0, {}},
        {[] { insertDifInSgl(nullptr, 0, 0, nullptr); }, 0, {}},
        {[] { replaceDifInSgl(nullptr, 0, 0, nullptr); }, 0, {}},
        {[] { return isDifEvictable(nullptr, 0); }, 1, {}},
        {[] { return isDifEvictableInSgl(nullptr, 0, 0); }, 1, {}},
        {[] { return checkDifInSglWithStdT10(nullptr, 0, 0, nullptr); }, DIF_OK, {}},
        {[&] { trans2LSectorDif(blocks.data(0), 1, &tuple); }, 0, {}},
        {[] { return checkDif(nullptr, 0, nullptr, "caller", 42); }, DIF_OK, notNull("noDifSetCheckResult", "param")},
        {[] { return checkDifInSgl(nullptr, 0, 0, nullptr, "caller", 42); }, DIF_OK,
         notNull("noDifSetCheckResultInSgl", "param")},
    });
    EXPECT_EQ(tuple.version, 2);
    Check check(DIF_DATA_520_ZERO, DIF_CHECK_CRC, 7); // no identity, no type that only a zero test needs
    check.param.mid = 200;
    EXPECT_EQ(checkDif(nullptr, 1, &check.param, "caller", 42), DIF_OK);
    EXPECT_EQ(check.result, DIF_RESULT_NOT_T10);
    EXPECT_EQ(host.take(), Lines{});
}

} // namespace
