#include "chain.h"
#include "fake_host.h"
#include "model.h"

namespace {

using Arguments = StartedDif;

Lines operator+(Lines lines, const Lines &more) {
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

/* An operation over a list, from its start on. */
template <typename Operation>
auto fromStart(Operation operation) {
    return [=](const Sgl *sgl, uint32_t sectors, auto *param) { return operation(sgl, 0, sectors, param); };
}

TEST_F(Arguments, OfWriting) {
    Blocks blocks(DIF_DATA_4160, 1);
    Chain chain(Lengths{{4160}}, blocks.bytes);
    DifOpParam op{DIF_DATA_4160_ZERO, 0x2FF, 9, nullptr};
    DifInjectParam inject{DIF_DATA_4160_ZERO, 0x4000000F, 9, 1, 1};
    const auto expect = [](const std::string &name, const char *first, const char *second, auto *place, auto &record,
                           auto operation) {
        const decltype(place) noPlace = nullptr;
        decltype(&record) noRecord = nullptr;
        operation(noPlace, 8, noRecord); /* which of the two is asserted first */
        operation(noPlace, 8, &record);
        operation(place, 8, noRecord);
        record.type = DIF_DATA_BUTT;
        operation(place, 8, &record);
        record.type = DIF_DATA_4160_ZERO;
        operation(place, 7, &record);
        const Lines noBlocks = {plain(3, name, "DIF_ERROR_BLOCK_NUM: sectorNum(7),type(3),blockSize(4160).")};
        EXPECT_EQ(host.take(), notNull(name, first) + notNull(name, second) +
                                   asserted(name, "(param->type) < DIF_DATA_BUTT") + noBlocks + asserted(name, "0"));
    };
    expect("insertDif", "buf", "param", blocks.data(0), op, insertDif);
    expect("replaceDif", "param", "buf", blocks.data(0), op, replaceDif);
    expect("injectDif", "buf", "param", blocks.data(0), inject, injectDif);
    EXPECT_EQ(inject.ctrlFlag, 0xFu); /* only the call without blocks got that far */
    expect("insertDifInSgl", "sgl", "param", chain.at(0), op, fromStart(insertDifInSgl));
    expect("replaceDifInSgl", "param", "sgl", chain.at(0), op, fromStart(replaceDifInSgl));
    expect("injectDifInSgl", "param", "sgl", chain.at(0), inject, fromStart(injectDifInSgl));
    EXPECT_TRUE(blocks.bytes == Blocks(DIF_DATA_4160, 1).bytes && chain.bytes() == blocks.bytes);
}

/* All four checks refuse the same, in words of their own. */
TEST_F(Arguments, OfChecks) {
    Blocks blocks(DIF_DATA_4160, 1);
    Chain chain(Lengths{{4160}}, blocks.bytes), empty(Lengths{{}});
    const Sgl *const sgl = chain.at(0);
    const auto buffer = [&](const Sgl *list, uint32_t sectors, DifCheckParam *param) {
        return checkBuffer(list != nullptr ? blocks.data(0) : nullptr, sectors, param);
    };
    const std::string input = limited(3, "checkDifInSglInputCheck", ""), own = limited(3, "checkDif", "");
    const std::string returned = plain(3, "checkDifInSglWithErrRetInputCheck", "DIF_ARG_ERROR: ");
    const std::string stdT10 = limited(3, "checkDifInSglWithStdT10", "");
    const std::string noBlock = "DIF_ERROR_BLOCK_NUM: sectorNum(7),type(2),blockSize(4160).";
    const struct {
        std::function<uint32_t(const Sgl *, uint32_t, DifCheckParam *)> check;
        std::string nulls, type; /* what is written about null pointers and about a type of 3 */
        Lines noBlocks;
    } rows[] = {{buffer, own + "Input error, buf is %p, param is %p.",
                 own + "Dif data type error, cur dif data type is 3.",
                 Lines{plain(3, "checkDif", noBlock)} + asserted("checkDif", "0")},
                {fromStart(checkList), input + "Input err, sgl:%p, param:%p, func: caller.",
                 input + "Dif type err, data type: 3, func: caller.",
                 Lines{plain(3, "checkDifInSgl", noBlock)} + asserted("checkDifInSgl", "0")},
                {fromStart(checkListReturning), returned + "sgl(%p), param(%p), func(caller).",
                 returned + "type(3), func(caller).", Lines{plain(3, "checkDifInSglWithErrorReturn", noBlock)}},
                {fromStart(checkDifInSglWithStdT10), stdT10 + "DIF_ARG_ERROR: sgl(%p), param(%p).",
                 stdT10 + "DIF_ARG_ERROR: invalid type(3).", Lines{stdT10 + noBlock}}};
    const Lines point = {plain(3, "checkDifParamCheck",
                               "DIF_ERROR_MID_OR_VERIFY_POINT: mid(4), verify_point(3), verify_point_num(2), "
                               "funcName(caller), line(42).")};
    host.filtered = 1u << 4; /* no dumps, no warnings */
    for (const auto &row : rows) {
        const bool asserts = row.noBlocks.size() > 1; /* and goes on */
        const uint32_t code = asserts ? DIF_ERR_CHECK : DIF_ERR_SGL;
        Check check(DIF_DATA_4160, DIF_CHECK_CRC);
        DifCheckParam *const param = &check.param;
        const void *const place = row.nulls.starts_with(own) ? blocks.data(0) : static_cast<const void *>(sgl);
        const auto expect = [&](uint32_t answer, uint32_t want, const Lines &events) {
            EXPECT_EQ(answer, want);
            EXPECT_EQ(host.take(), events);
            host.later();
        };
        expect(row.check(nullptr, 8, param), code, {format(row.nulls.c_str(), nullptr, static_cast<void *>(param))});
        expect(row.check(sgl, 8, nullptr), code, {format(row.nulls.c_str(), place, nullptr)});
        param->type = DIF_DATA_4160_ZERO;
        expect(row.check(sgl, 8, param), code, {row.type});
        EXPECT_EQ(check.result, Check::kUntouched);
        param->type = DIF_DATA_4160;
        expect(row.check(sgl, 7, param), asserts ? DIF_OK : DIF_ERR_SGL, row.noBlocks);
        param->subPid = 3;
        if (!row.nulls.starts_with(stdT10)) /* which has no points */
            expect(row.check(sgl, 8, param), code,
                   asserts ? point + Lines(row.noBlocks.begin() + 1, row.noBlocks.end()) : point);
    }
    Check check(DIF_DATA_4160, 0);
    host.filtered = 0;
    EXPECT_EQ(checkList(empty.at(0), 0, 7, &check.param), DIF_OK); /* without blocks, too, it positions itself */
    EXPECT_EQ(checkDifInSglWithStdT10(sgl, 0, 7, &check.param), DIF_ERR_SGL);
    EXPECT_EQ(host.take().size(), 6u + 3u + 1u + 4u); /* each with a dump of its chain */
    check.param.ctrlFlag = DIF_CHECK_LBA | DIF_CHECK_BST;
    check.param.mid = 16; /* beyond every table */
    EXPECT_EQ(checkBuffer(blocks.data(0), 8, &check.param), DIF_OK);
    EXPECT_NE(host.take()[0].find("verify_point_num(0)"), std::string::npos);
    EXPECT_EQ(checkDifParamCheck(&check.param, "caller", 42), DIF_FAIL);
}

TEST_F(Arguments, OfZeroTestsTrimAndTupleTools) {
    const std::string type = "param->type == DIF_DATA_520 || param->type == DIF_DATA_4160";
    const std::string noSectors = "DIF_ERROR_BLOCK_NUM: sectorNum(0),blockSize(520).";
    std::string name = "noDifZeroDataCheck";
    uint8_t buf[4160] = {};
    Chain chain(Lengths{{4160}});
    const Sgl *const sgl = chain.at(0);
    Check check(DIF_DATA_4160, DIF_CHECK_TRIM_ZERO), other(DIF_DATA_4160_ZERO, DIF_CHECK_TRIM_ZERO), strange(99, 0);
    const DifCheckParam &good = check.param, &zero = other.param;
    EXPECT_FALSE(noDifZeroDataCheck(nullptr, 8, &good));
    EXPECT_TRUE(noDifZeroDataCheck(buf, 8, &zero)); /* goes on with the geometry that this type has */
    EXPECT_TRUE(noDifZeroDataCheck(buf, 7, &good));
    EXPECT_FALSE(noDifZeroDataCheck(buf, 8, &strange.param));
    EXPECT_EQ(host.take(), notNull(name, "buf") + asserted(name, type) + asserted(name, "blockNum != 0"));
    name = "noDifZeroDataCheckInSgl";
    EXPECT_FALSE(noDifZeroDataCheckInSgl(nullptr, 0, 8, &good));
    EXPECT_FALSE(noDifZeroDataCheckInSgl(sgl, 0, 8, &zero));
    EXPECT_TRUE(noDifZeroDataCheckInSgl(sgl, 0, 7, &good));
    EXPECT_EQ(host.take(), notNull(name, "sgl") + asserted(name, type) + asserted(name, "blockNum != 0"));
    name = "trimDataInSgl";
    noDifSetCheckResultInSgl(nullptr, 0, 8, &good);
    noDifSetCheckResultInSgl(sgl, 0, 8, &zero);
    noDifSetCheckResultInSgl(sgl, 0, 7, &good);
    EXPECT_EQ(host.take(), notNull(name, "sgl") + asserted(name, type) + asserted(name, "blockNum != 0"));
    name = "isDifEvictable";
    EXPECT_TRUE(isDifEvictable(nullptr, 1));
    EXPECT_TRUE(isDifEvictable(buf, 0));
    EXPECT_EQ(host.take(), notNull(name, "buf") + Lines{plain(3, name, noSectors)} + asserted(name, "0"));
    name = "isDifEvictableInSgl";
    EXPECT_FALSE(isDifEvictableInSgl(nullptr, 0, 1));
    EXPECT_TRUE(isDifEvictableInSgl(sgl, 0, 0));
    EXPECT_EQ(host.take(), notNull(name, "sgl") + Lines{plain(3, name, noSectors)} + asserted(name, "0"));
    EXPECT_FALSE(isDifDataAllZero(nullptr));
    clearDifVersion(nullptr);
    EXPECT_EQ(host.take(), asserted("isDifDataAllZero", "difBuf != ((void *)0)") +
                               asserted("clearDifVersion", "difBuf != ((void *)0)"));
    name = "trans2LSectorDif";
    DifTuple tuple{1, 2, 3, 4};
    trans2LSectorDif(nullptr, 1, &tuple);
    trans2LSectorDif(buf, 0, nullptr);
    EXPECT_EQ(host.take(), notNull(name, "buf") + asserted(name, "sectorNum != 0") + notNull(name, "dif"));
    EXPECT_EQ(tuple.version, 2);
    setDifOn(0); /* which is asked before anything else */
    host.later();
    host.take();
    insertDif(nullptr, 0, nullptr);
    replaceDif(nullptr, 0, nullptr);
    trans2LSectorDif(nullptr, 0, nullptr);
    EXPECT_TRUE(isDifEvictable(nullptr, 0));
    EXPECT_TRUE(isDifEvictableInSgl(nullptr, 0, 0));
    EXPECT_EQ(checkDifInSglWithStdT10(nullptr, 0, 0, nullptr), DIF_OK);
    EXPECT_EVENTS();
    EXPECT_EQ(checkBuffer(nullptr, 0, nullptr), DIF_OK);
    EXPECT_EQ(checkList(nullptr, 0, 0, nullptr), DIF_OK);
    EXPECT_EQ(host.take(), notNull("noDifSetCheckResult", "param") + notNull("noDifSetCheckResultInSgl", "param"));
}

} /* namespace */
