#include "blocks.h"

namespace {

using VerifyPoints = StartedDif;

/* Whether a guard check requested at `level` is made. */
bool isOn(uint8_t level, uint32_t mid, uint8_t subPid) {
    Check check(DIF_DATA_520, DIF_CHECK_CRC);
    check.param.crcLevel = level;
    check.param.mid = static_cast<uint8_t>(mid);
    check.param.subPid = subPid;
    uint8_t settled = 9, done = 9;
    initDifCheckResults(&check.param, &settled, &done);
    return done == 0;
}

std::string joined(const char *const *names) { // fails if the null pointer at the end is missing or early
    std::string text;
    while (*names != nullptr)
        text += *names++ + std::string(" ");
    return text;
}

TEST_F(VerifyPoints, NameTables) {
    EXPECT_EQ(joined(g_difModuleName),
              "debug fc lun volume cache pool bdm rss logzone sasini bdm_lun reserved lam reserved "
              "reserved reserved ");
    EXPECT_EQ(joined(g_midDescription),
              "DIF_MID_DEBUG DIF_MID_FC DIF_MID_LUN DIF_MID_VOLUME DIF_MID_CACHE DIF_MID_POOL "
              "DIF_MID_BDM DIF_MID_RSS DIF_MID_LOGZONE DIF_MID_SASINI reserved reserved "
              "reserved reserved reserved reserved ");
    EXPECT_EQ(joined(g_levelDescription), "DIF_VERIFY_LEVEL_INVALID DIF_VERIFY_LEVEL_CRITICAL DIF_VERIFY_LEVEL_MAJOR "
                                          "DIF_VERIFY_LEVEL_TRACE DIF_VERIFY_LEVEL_DEBUG ");
}

TEST_F(VerifyPoints, LevelsDecideWhichChecksAreMade) {
    const std::string message = "L5 dif_util setDifVerifyLevelByMid #4660: SET_DIF_VERIFY_LEVEL: mid(5), level(%u),";
    for (uint8_t stored : Bytes{0, 1, 2, 3, 4, 5, 255}) {
        setDifVerifyLevelByMid(5, stored);
        EXPECT_EQ(host.take(), (Lines{format(message.c_str(), stored)}));
        for (uint8_t level : Bytes{1, 2, 3, 4}) {
            EXPECT_EQ(isOn(level, 5, 63), level <= stored);
            EXPECT_EQ(isOn(level, 6, 1), level <= 2); // the default
        }
    }
    for (uint8_t stored : Bytes{0, 3}) {
        setSysDifVerifyLevel(stored);
        for (uint32_t mid = 0; mid < DIF_MID_BUTT; ++mid)
            EXPECT_EQ(isOn(1, mid, 1), stored != 0);
    }
    setDifVerifyLevelByMid(16, 1); // beyond the table
    EXPECT_EQ(getDifVerifyLevelByMid(16), 0);
    EXPECT_EQ(difVerifyMsgGetByMid(16), nullptr);
    EXPECT_EQ(difVerifyMsgGetByMid(15), &g_verifyPointMsg[15]);
    initVerifyPoint();
    EXPECT_EQ(getDifVerifyLevelByMid(15), 2);
}

TEST_F(VerifyPoints, ImpossibleRequestsAssertAndAreNotMade) {
    const auto error = [](const char *text) {
        return asserted("isVerifyPointOn", format("Dif error: %s.", text), "null");
    };
    EXPECT_FALSE(isOn(0, 16, 200)); // mid comes first, the level last
    EXPECT_EQ(host.take(), error("mid is invalid(16)"));
    EXPECT_FALSE(isOn(0, 0, 200));
    EXPECT_EQ(host.take(), error("subPid is invalid(200)"));
    EXPECT_FALSE(isOn(5, 0, 1));
    EXPECT_EQ(host.take(), error("level is invalid(5)"));
    host.tick += 150000;
    setSysDifVerifyLevel(255);
    EXPECT_FALSE(isOn(0, 0, 1));
    EXPECT_EQ(host.take(), error("level is invalid(0)"));
    EXPECT_FALSE(isOn(6, 0, 1));
    EXPECT_EQ(host.take(), Lines{});
}

uint32_t regist(uint32_t mid, const std::vector<VerifyPointDesc> &points) {
    return difRegistVerifyPoint(mid, points.data(), static_cast<uint32_t>(points.size()), "caller", 42);
}

TEST_F(VerifyPoints, Registration) {
    const std::string name45 = "123456789012345678901234567890123456789012345", caller = ", funcName(caller), line(42)";
    const std::string ok = "L5 dif_util difRegistVerifyPoint #4660: dif regist mid(3-volume)'s ";
    const std::string bad = "L3 dif_util difRegistVerifyPoint #4660: ", volume = bad + "dif regist mid(3-volume)'s ";
    const VerifyPointMsg &record = *difVerifyMsgGetByMid(3);
    const std::vector<VerifyPointDesc> points = {{2, name45.c_str()}, {1, "A"}};
    EXPECT_EQ(regist(3, points), DIF_OK);
    EXPECT_EQ(host.take(), (Lines{ok + "verify point success, num(2)" + caller}));
    EXPECT_EQ(record.verifyPoints[0].pointId, 1);
    EXPECT_STREQ(record.verifyPoints[0].pointName, "A");
    EXPECT_EQ(record.verifyPoints[1].pointName, name45.substr(0, 39));
    EXPECT_EQ(record.verifyPoints[2].pointId, DIF_VERIFY_POINT_FREE);

    std::vector<VerifyPointDesc> many;
    for (uint8_t id = 1; id <= 65; ++id)
        many.push_back({id, "point"});
    EXPECT_EQ(regist(16, points), DIF_FAIL); // these leave the record as it is
    EXPECT_EQ(regist(3, many), DIF_FAIL);
    EXPECT_EQ(difRegistVerifyPoint(3, nullptr, 0, "caller", 42), DIF_FAIL);
    EXPECT_EQ(host.take(), (Lines{bad + "mid(16) is invalid.",
                                  volume + "verify point failed, num(65) exceed limit(64)" + caller + ".",
                                  bad + "verifyPointPtr is NULL."}));
    EXPECT_EQ(record.verifyPointNum, 2);
    EXPECT_EQ(difRegistVerifyPoint(3, points.data(), 0, "caller", 42), DIF_OK); // the slots stay
    EXPECT_EQ(host.take(), (Lines{ok + "verify point success, num(0)" + caller}));
    EXPECT_EQ(record.verifyPointNum, 0);

    const struct {
        std::vector<VerifyPointDesc> points;
        std::string message;
    } rows[] = {
        {{{2, "B"}, {1, "A"}},
         "0th verify point(2,B) failed, has registed as(2," + name45.substr(0, 39) + "), num(2)" + caller},
        {{{1, "A"}, {3, "C"}}, "1th verify point(3,C) failed, pointId exceed num(2)" + caller + "."},
        {{{0, "Z"}}, "0th verify point(0,Z) failed, pointId exceed num(1)" + caller + "."},
        {{{1, "A"}, {1, "B"}}, "1th verify point(1,B) failed, has registed as(1,A), num(2)" + caller},
    };
    for (const auto &row : rows) { // these empty it, of what the same call has stored too
        EXPECT_EQ(regist(3, row.points), DIF_FAIL);
        EXPECT_EQ(host.take(), (Lines{volume + row.message}));
        EXPECT_EQ(record.verifyPointNum, 0);
        for (const VerifyPointSlot &slot : record.verifyPoints)
            EXPECT_EQ(slot.pointId, DIF_VERIFY_POINT_FREE);
    }
    many.pop_back();
    EXPECT_EQ(regist(3, many), DIF_OK);
    EXPECT_EQ(record.verifyPoints[63].pointId, 64);
}

TEST_F(VerifyPoints, CountersCountOnlyTheirOwn) {
    using Counters = std::array<uint64_t, DIF_STAT_BUTT>;
    const auto expectCounters = [](uint8_t mid, uint32_t point, Counters want) { // and zeros everywhere else
        for (uint8_t m = 0; m < DIF_MID_BUTT; ++m) {
            for (uint32_t p = 0; p < DIF_VERIFY_POINT_MAX; ++p) {
                Counters counters{9, 9, 9, 9};
                difVerifyStatisticGet(m, p, counters.data());
                EXPECT_EQ(counters, (m == mid && p == point ? want : Counters{})) << +m << " " << p;
            }
        }
    };
    for (int32_t kind : {3, 3, 0, 4, -1})
        difVerifyStatisticAdd(15, 63, kind);
    difVerifyStatisticAdd(16, 0, 0); // these, like kinds 4 and -1, have no counter
    difVerifyStatisticAdd(15, 64, 0);
    difVerifyStatisticAdd(15, 255, 0);
    difStatisticExit();
    expectCounters(15, 63, {1, 0, 0, 2});
    for (auto clear : {difVerifyStatisticClean, difVerifyStatisticInit, difStatisticInit}) {
        difVerifyStatisticAdd(0, 0, 2);
        clear();
        expectCounters(0, 0, {});
    }
}

} // namespace
