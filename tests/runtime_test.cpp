#include "fake_host.h"
#include "model.h"

namespace {

/* The event without the source line at its end, where that is the library's own. */
std::string withoutLine(const std::string &event) {
    return event.substr(0, event.rfind(", line("));
}

/* What only a process that has not started the library yet can see; run in one of its own. */
void expectNothingBeforeStart() {
    EXPECT_EQ(getDifOn() + getSysDifCrcVersion() + getDifRepairType() + getDifVerifyLevelByMid(DIF_MID_CACHE), 0);
    Blocks blocks(DIF_DATA_520, 2), before = blocks;
    DifOpParam op{DIF_DATA_520, DIF_INSERT_CRC | DIF_INSERT_LBA | DIF_REPLACE_CRC, 9, nullptr};
    insertDif(blocks.data(0), 2, &op);
    replaceDif(blocks.data(0), 2, &op);
    Check check(DIF_DATA_520, DIF_CHECK_CRC | DIF_CHECK_LBA);
    EXPECT_EQ(checkDif(blocks.data(0), 2, &check.param, "caller", 42), DIF_OK);
    EXPECT_EQ(check.result, DIF_RESULT_NOT_T10);
    EXPECT_EQ(blocks.bytes, before.bytes);
    EXPECT_EQ(host.take(), Lines{});
    const VerifyPointDesc point{1, "early"}; // the registry does not look empty yet
    EXPECT_EQ(difRegistVerifyPoint(DIF_MID_FC, &point, 1, "caller", 42), DIF_FAIL);
    EXPECT_EQ(host.take(), Lines{plain(3, "difRegistVerifyPoint",
                                       "dif regist mid(1-fc)'s 0th verify point(1,early) failed, has registed as(0,), "
                                       "num(1), funcName(caller), line(42)")});
    for (const size_t written : {1u, 1u, 1u, 0u}) { // limiters are open at tick 0, too
        EXPECT_EQ(getDifLba(nullptr, 0, nullptr), DIF_FAIL);
        EXPECT_EQ(host.take().size(), written);
    }
    difModuleInit();
    std::vector<uint8_t> data;
    host.onCrc = [&](const uint8_t *bytes, uint64_t size) { return data.assign(bytes, bytes + size), uint16_t{0}; };
    testCRCPerf(1, 8);
    EXPECT_EQ(data, (std::vector<uint8_t>{0x04, 0x19, 0xA4, 0x2C, 0x54, 0x02, 0xA1, 0xD4}));
}

TEST(LifecycleDeathTest, BeforeStart) {
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // the child is a process that has run nothing else
    EXPECT_EXIT((expectNothingBeforeStart(), exit(::testing::Test::HasFailure() ? 1 : 0)), ::testing::ExitedWithCode(0),
                "");
}

TEST(Lifecycle, StartSetsDefaultsAndStopKeepsEverything) {
    const auto state = [] {
        uint64_t counters[DIF_STAT_BUTT];
        difVerifyStatisticGet(DIF_MID_DEBUG, 0, counters);
        return std::array<uint64_t, 6>{getDifOn(),  getSysDifCrcVersion(),     getDifRepairType(),
                                       counters[2], getDifVerifyLevelByMid(7), g_verifyPointMsg[4].verifyPointNum};
    };
    const auto diagnose = [](uint32_t level, const char *text) {
        return format("level %u, dif_diagnose, initDifDiagnoseModule, 4660: Dif register PID to %s.", level, text);
    };
    const VerifyPointDesc point{1, "point"};
    host.reset();
    for (const bool registers : {true, false}) { // a second start starts over, and one without commands is one, too
        host.diagnose.result = registers ? 0 : -1;
        host.cli.result = registers ? 0 : 9;
        EXPECT_EQ(difModuleInit(), 0u);
        Lines events = host.take();
        ASSERT_EQ(events.size(), 8u);
        events[2] = withoutLine(events[2]);
        const char *const engine = _cpu_has_sse3_clmul() != 0 ? "Intel CPU hardware" : "software";
        EXPECT_EQ(events, (Lines{"name 250 DIF",
                                 format("level 5, crc16_t10dif, initCrc16T10Func, 0: Use %s for crc16T10", engine),
                                 plain(5, "difRegistVerifyPoint",
                                       "dif regist mid(0-debug)'s verify point success, num(1), "
                                       "funcName(initAllModVerifyPointMsg)"),
                                 "register diagnose dif: diagnose function of dif",
                                 registers ? diagnose(5, "diagnose success") : diagnose(3, "diagnose fail"),
                                 "register cli dif: cli function of dif",
                                 registers ? diagnose(5, "cli success") : diagnose(3, "cli fail"),
                                 plain(5, "difModuleInit", "Init DIF Module.")}));
        EXPECT_EQ(state(), (std::array<uint64_t, 6>{1, 0x13, 0, 0, 2, 0}));
        EXPECT_STREQ(g_verifyPointMsg[0].verifyPoints[0].pointName, "DEBUG_MOD_COMMON_VERIFY_POINT");
        setDifOn(0);
        setSysDifCrcVersion(0x29);
        setDifRepairType(2, "caller", 42);
        setSysDifVerifyLevel(4);
        difVerifyStatisticAdd(DIF_MID_DEBUG, 0, DIF_STAT_LBA_ERROR);
        difRegistVerifyPoint(DIF_MID_CACHE, &point, 1, "caller", 42);
        host.take();
        difModuleExit();
        EXPECT_EQ(host.take(), (Lines{"unregister diagnose dif", "unregister cli dif",
                                      plain(5, "difModuleExit", "Exit DIF Module.")}));
        EXPECT_EQ(state(), (std::array<uint64_t, 6>{0, 0x29, 2, 1, 4, 1}));
    }
    EXPECT_EQ(exitDifDiagnoseModule(), 9);
    host.reset();
}

using Settings = StartedDif;

TEST_F(Settings, SwitchAndVersion) {
    Lines seen; // with the switch at the time of the message
    host.onEvent = [&](const std::string &event) { seen.push_back(event + format(" at %u", getDifOn())); };
    for (const uint8_t on : Bytes{0, 0, 1, 1}) {
        setDifOn(on);
        EXPECT_EQ(getDifOn(), on);
        EXPECT_EQ(isDifDisable(), 0u);
        EXPECT_EQ(noDifUnreference(), on == 0 ? 1u : 0u);
    }
    const std::string text = "Dif change dif switch";
    EXPECT_EQ(seen,
              (Lines{plain(5, "setDifOn", text + "(ON->OFF). at 1"), plain(5, "setDifOn", text + "(OFF->OFF). at 0"),
                     plain(5, "setDifOn", text + "(OFF->ON). at 0"), plain(5, "setDifOn", text + "(ON->ON). at 1")}));
    setDifOn(200); // whatever it is called
    EXPECT_EQ(getDifOn(), 200);
    for (const uint8_t version : Bytes{0x29, 0x2A, 0x00, 0x34, 0xFF}) { // unknown versions change nothing
        setSysDifCrcVersion(version);
        EXPECT_EQ(getSysDifCrcVersion(), 0x29);
    }
    noDifUnreference1();
}

TEST_F(Settings, RepairTypeAndConfiguration) {
    const DifConfig good{1}, bad{255};
    const std::string name = "setDifRepairType", type = "dif set repair type", config = "set dif config ";
    EXPECT_EQ(setDifRepairType(2, "caller", 42), DIF_OK);
    EXPECT_EQ(setDifRepairType(3, "caller", 43), DIF_FAIL);
    EXPECT_EQ(getDifRepairType(), 2);
    EXPECT_EQ(host.take(),
              (Lines{plain(5, name, type + "(2) succeeded,funcName(caller), line(42)."),
                     plain(3, name, type + " failed, repairType(3) is not less than 3, funcName(caller), line(43).")}));
    EXPECT_EQ(setDifAllConfig(&good, "caller", 44), DIF_OK);
    EXPECT_EQ(setDifAllConfig(&bad, "caller", 45), DIF_FAIL);
    EXPECT_EQ(setDifAllConfig(nullptr, "caller", 46), DIF_FAIL);
    EXPECT_EQ(getDifRepairType(), 1);
    Lines events = host.take();
    ASSERT_EQ(events.size(), 5u);
    for (const size_t own : {0u, 2u})
        events[own] = withoutLine(events[own]);
    EXPECT_EQ(events,
              (Lines{plain(5, name, type + "(1) succeeded,funcName(setDifAllConfig)"),
                     plain(5, "setDifAllConfig", config + "succeeded, repairType(1), funcName(caller), line(44)."),
                     plain(3, name, type + " failed, repairType(255) is not less than 3, funcName(setDifAllConfig)"),
                     plain(3, "setDifAllConfig", config + "failed, repairType(255), funcName(caller), line(45)."),
                     plain(3, "setDifAllConfig", config + "failed, configPtr is null, funcName(caller), line(46).")}));
}

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

TEST_F(VerifyPoints, LevelsDecideWhichChecksAreMade) {
    for (const uint8_t stored : Bytes{0, 1, 2, 3, 4, 5, 255}) {
        setDifVerifyLevelByMid(5, stored);
        EXPECT_EQ(host.take(), Lines{plain(5, "setDifVerifyLevelByMid",
                                           format("SET_DIF_VERIFY_LEVEL: mid(5), level(%u),", stored))});
        for (const uint8_t level : Bytes{1, 2, 3, 4}) {
            EXPECT_EQ(isOn(level, 5, 63), level <= stored);
            EXPECT_EQ(isOn(level, 6, 0), level <= 2); // the default
        }
    }
    for (const uint8_t stored : Bytes{0, 3}) {
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
    setSysDifVerifyLevel(255);
    const struct {
        uint8_t level;
        uint32_t mid;
        uint8_t subPid;
        std::string error;
    } rows[] = {{0, 16, 200, "mid is invalid(16)"}, /* mid comes first, the level last */
                {0, 15, 64, "subPid is invalid(64)"},
                {0, 15, 63, "level is invalid(0)"}};
    for (const auto &row : rows) { // at one tick: the three sites are different
        EXPECT_FALSE(isOn(row.level, row.mid, row.subPid));
        EXPECT_EQ(host.take(), asserted("isVerifyPointOn", "Dif error: " + row.error + ".", "null"));
    }
    EXPECT_FALSE(isOn(5, 0, 1));
    EXPECT_EQ(host.take(), Lines{});
}

TEST_F(VerifyPoints, Registration) {
    const std::string name45 = "123456789012345678901234567890123456789012345", name39 = name45.substr(0, 39);
    const std::string caller = ", funcName(caller), line(42)", function = "difRegistVerifyPoint";
    const std::string pool = "dif regist mid(5-pool)'s ";
    const VerifyPointMsg &record = *difVerifyMsgGetByMid(5);
    const auto regist = [](uint32_t mid, const std::vector<VerifyPointDesc> &points) {
        return difRegistVerifyPoint(mid, points.data(), static_cast<uint32_t>(points.size()), "caller", 42);
    };
    const std::vector<VerifyPointDesc> points = {{2, name45.c_str()}, {1, name39.c_str()}};
    memset(g_verifyPointMsg[5].verifyPoints[1].pointName, 'x', DIF_VERIFY_POINT_NAME_SIZE);
    EXPECT_EQ(regist(5, points), DIF_OK);
    EXPECT_EQ(host.take(), Lines{plain(5, function, pool + "verify point success, num(2)" + caller)});
    EXPECT_EQ(record.verifyPoints[0].pointId, 1);
    EXPECT_EQ(record.verifyPoints[0].pointName, name39);
    EXPECT_EQ(record.verifyPoints[1].pointName, name39);
    EXPECT_EQ(record.verifyPoints[2].pointId, DIF_VERIFY_POINT_FREE);

    std::vector<VerifyPointDesc> many;
    for (uint8_t id = 1; id <= 65; ++id)
        many.push_back({id, "point"});
    EXPECT_EQ(regist(16, points), DIF_FAIL); // these leave the record as it is
    EXPECT_EQ(regist(5, many), DIF_FAIL);
    EXPECT_EQ(difRegistVerifyPoint(5, nullptr, 0, "caller", 42), DIF_FAIL);
    EXPECT_EQ(host.take(),
              (Lines{plain(3, function, "mid(16) is invalid."),
                     plain(3, function, pool + "verify point failed, num(65) exceed limit(64)" + caller + "."),
                     plain(3, function, "verifyPointPtr is NULL.")}));
    EXPECT_EQ(record.verifyPointNum, 2);
    EXPECT_EQ(difRegistVerifyPoint(5, points.data(), 0, "caller", 42), DIF_OK); // the slots stay
    EXPECT_EQ(host.take(), Lines{plain(5, function, pool + "verify point success, num(0)" + caller)});
    EXPECT_EQ(record.verifyPointNum, 0);

    const struct {
        std::vector<VerifyPointDesc> points;
        std::string message;
    } rows[] = {
        {{{2, "B"}, {1, "A"}}, "0th verify point(2,B) failed, has registed as(2," + name39 + "), num(2)" + caller},
        {{{1, "A"}, {3, "C"}}, "1th verify point(3,C) failed, pointId exceed num(2)" + caller + "."},
        {{{0, "Z"}}, "0th verify point(0,Z) failed, pointId exceed num(1)" + caller + "."},
        {{{1, "A"}, {1, "B"}}, "1th verify point(1,B) failed, has registed as(1,A), num(2)" + caller},
    };
    for (const auto &row : rows) { // these empty it, of what the same call has stored too
        EXPECT_EQ(regist(5, row.points), DIF_FAIL);
        EXPECT_EQ(host.take(), Lines{plain(3, function, pool + row.message)});
        EXPECT_EQ(record.verifyPointNum, 0);
        for (const VerifyPointSlot &slot : record.verifyPoints)
            EXPECT_EQ(slot.pointId, DIF_VERIFY_POINT_FREE);
    }
    many.pop_back();
    EXPECT_EQ(regist(5, many), DIF_OK);
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
    for (const int32_t kind : {3, 3, 0, 4, -1})
        difVerifyStatisticAdd(15, 63, kind);
    difVerifyStatisticAdd(16, 0, 0); // these, like kinds 4 and -1, have no counter
    difVerifyStatisticAdd(15, 64, 0);
    difVerifyStatisticAdd(15, 255, 0);
    difStatisticExit();
    expectCounters(15, 63, {1, 0, 0, 2});
    for (const auto clear : {difVerifyStatisticClean, difVerifyStatisticInit, difStatisticInit}) {
        difVerifyStatisticAdd(0, 0, 2);
        clear();
        expectCounters(0, 0, {});
    }
}

} // namespace
