#include "fake_host.h"
#include "model.h"

namespace {

/* The events, without the line of a caller that is the library itself; other callers are in line 42. */
Lines withoutOwnLines() {
    Lines events = host.take();
    for (std::string &event : events)
        event.resize(event.find("line(42)") == event.npos ? std::min(event.rfind(", line("), event.size())
                                                          : event.size());
    return events;
}

std::array<uint64_t, DIF_STAT_BUTT> countersOf(uint8_t mid, uint32_t point) {
    std::array<uint64_t, DIF_STAT_BUTT> counters{9, 9, 9, 9};
    difVerifyStatisticGet(mid, point, counters.data());
    return counters;
}

/* What only a process that has not started the library yet can see; run in one of its own. */
void expectNothingBeforeStart() {
    EXPECT_EQ(getDifOn() + getSysDifCrcVersion() + getDifRepairType() + getDifVerifyLevelByMid(DIF_MID_CACHE), 0);
    const VerifyPointDesc point{1, "early"}; // the registry does not look empty yet
    EXPECT_EQ(difRegistVerifyPoint(DIF_MID_FC, &point, 1, "caller", 42), DIF_FAIL);
    EXPECT_EVENTS(plain(3, "difRegistVerifyPoint",
                        "dif regist mid(1-fc)'s 0th verify point(1,early) failed, has registed as(0,), "
                        "num(1), funcName(caller), line(42)"));
    const DifInjectParam inject{DIF_DATA_520, DIF_INJECT_BST, 0, 0, 0};
    DifTuple tuple{};
    for (const size_t written : {2u, 2u, 2u, 0u}) { // limiters of both kinds are free at tick 0, too
        getDifLba(nullptr, 0, nullptr);
        injectDifInOneBlock(&tuple, &inject, 0);
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
    using State = std::array<uint64_t, 6>;
    const auto state = [] {
        return State{getDifOn(),          getSysDifCrcVersion(),     getDifRepairType(),
                     countersOf(0, 0)[2], getDifVerifyLevelByMid(7), g_verifyPointMsg[4].verifyPointNum};
    };
    const std::string registration = "dif_diagnose, initDifDiagnoseModule, 4660: Dif register PID to ";
    const std::string engine = _cpu_has_sse3_clmul() != 0 ? "Intel CPU hardware" : "software";
    const std::string own =
        "dif regist mid(0-debug)'s verify point success, num(1), funcName(initAllModVerifyPointMsg)";
    const VerifyPointDesc point{1, "point"};
    host.reset();
    for (const bool works : {true, false}) { // a second start starts over, and one without commands is one, too
        host.diagnoseResult = works ? 0 : -1;
        host.cliResult = works ? 0 : 9;
        const std::string level = works ? "level 5, " : "level 3, ", outcome = works ? "success." : "fail.";
        EXPECT_EQ(difModuleInit(), 0u);
        EXPECT_EQ(withoutOwnLines(),
                  (Lines{"name 250 DIF", "level 5, crc16_t10dif, initCrc16T10Func, 0: Use " + engine + " for crc16T10",
                         plain(5, "difRegistVerifyPoint", own), "register diagnose dif: diagnose function of dif",
                         level + registration + "diagnose " + outcome, "register cli dif: cli function of dif",
                         level + registration + "cli " + outcome, plain(5, "difModuleInit", "Init DIF Module.")}));
        EXPECT_EQ(state(), (State{1, 0x13, 0, 0, 2, 0}));
        setDifOn(0);
        setSysDifCrcVersion(0x29);
        setDifRepairType(2, "caller", 42);
        setSysDifVerifyLevel(4);
        difVerifyStatisticAdd(DIF_MID_DEBUG, 0, DIF_STAT_LBA_ERROR);
        difRegistVerifyPoint(DIF_MID_CACHE, &point, 1, "caller", 42);
        host.take();
        difModuleExit();
        EXPECT_EVENTS("unregister diagnose dif", "unregister cli dif", plain(5, "difModuleExit", "Exit DIF Module."));
        EXPECT_EQ(state(), (State{0, 0x29, 2, 1, 4, 1}));
    }
    EXPECT_EQ(exitDifDiagnoseModule(), 9);
    host.reset();
}

using Settings = StartedDif;

TEST_F(Settings, SwitchAndVersion) {
    Lines seen; // with the switch at the time of the message
    host.onEvent = [&](const std::string &event) { seen.push_back(event + format(" at %u", getDifOn())); };
    for (const uint8_t on : Bytes{0, 0, 1, 1, 200}) { // the last one is stored, whatever it is called
        setDifOn(on);
        EXPECT_EQ(getDifOn(), on);
        EXPECT_EQ(isDifDisable(), 0u);
        EXPECT_EQ(noDifUnreference(), on ^ 1u);
    }
    seen.pop_back();
    const std::string text = plain(5, "setDifOn", "Dif change dif switch(");
    EXPECT_EQ(seen, (Lines{text + "ON->OFF). at 1", text + "OFF->OFF). at 0", text + "OFF->ON). at 0",
                           text + "ON->ON). at 1"}));
    for (const uint8_t version : Bytes{0x29, 0x2A, 0x00, 0x34, 0xFF}) { // unknown versions change nothing
        setSysDifCrcVersion(version);
        EXPECT_EQ(getSysDifCrcVersion(), 0x29);
    }
    noDifUnreference1();
}

TEST_F(Settings, RepairTypeAndConfiguration) {
    const DifConfig good{1}, bad{255};
    EXPECT_EQ(setDifRepairType(2, "caller", 42), DIF_OK);
    EXPECT_EQ(setDifRepairType(3, "caller", 42), DIF_FAIL);
    EXPECT_EQ(getDifRepairType(), 2);
    EXPECT_EQ(setDifAllConfig(&good, "caller", 42), DIF_OK);
    EXPECT_EQ(setDifAllConfig(&bad, "caller", 42), DIF_FAIL);
    EXPECT_EQ(setDifAllConfig(nullptr, "caller", 42), DIF_FAIL);
    EXPECT_EQ(getDifRepairType(), 1);
    const std::string error = plain(3, "setDifRepairType", "dif set repair type failed, repairType(");
    const std::string success = plain(5, "setDifRepairType", "dif set repair type("), own = "funcName(setDifAllConfig)";
    const std::string failed = plain(3, "setDifAllConfig", "set dif config failed, ");
    const std::string succeeded = plain(5, "setDifAllConfig", "set dif config succeeded, ");
    const std::string caller = "funcName(caller), line(42).";
    EXPECT_EQ(withoutOwnLines(),
              (Lines{success + "2) succeeded," + caller, error + "3) is not less than 3, " + caller,
                     success + "1) succeeded," + own, succeeded + "repairType(1), " + caller,
                     error + "255) is not less than 3, " + own, failed + "repairType(255), " + caller,
                     failed + "configPtr is null, " + caller}));
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
        EXPECT_EVENTS(plain(5, "setDifVerifyLevelByMid", format("SET_DIF_VERIFY_LEVEL: mid(5), level(%u),", stored)));
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
    EXPECT_EVENTS(plain(3, "setDifVerifyLevelByMid", "mid(16) is invalid."));
    EXPECT_EQ(getDifVerifyLevelByMid(16), 0);
    EXPECT_EQ(difVerifyMsgGetByMid(16), nullptr);
    EXPECT_EQ(difVerifyMsgGetByMid(15), &g_verifyPointMsg[15]);
    initVerifyPoint();
    EXPECT_EQ(getDifVerifyLevelByMid(15), 2);

    setSysDifVerifyLevel(255);
    host.take();
    const auto refused = [](const char *text) {
        return asserted("isVerifyPointOn", format("Dif error: %s.", text), "null");
    };
    EXPECT_FALSE(isOn(0, 16, 200)); // mid comes first, the level last; at one tick: the three sites are different
    EXPECT_EQ(host.take(), refused("mid is invalid(16)"));
    EXPECT_FALSE(isOn(0, 15, 64));
    EXPECT_EQ(host.take(), refused("subPid is invalid(64)"));
    EXPECT_FALSE(isOn(0, 15, 63));
    EXPECT_EQ(host.take(), refused("level is invalid(0)"));
    EXPECT_FALSE(isOn(5, 0, 1));
    EXPECT_EVENTS();
}

TEST_F(VerifyPoints, Registration) {
    const std::string name39(39, 'n'), name45(45, 'n'), caller = ", funcName(caller), line(42)";
    const VerifyPointMsg &record = *difVerifyMsgGetByMid(5);
    std::vector<VerifyPointDesc> many;
    for (uint8_t id = 1; id <= 65; ++id)
        many.push_back({id, "point"});
    struct Row {
        uint32_t mid;
        std::vector<VerifyPointDesc> points;
        uint32_t level; /* 5: registered; 3: refused */
        std::string text;
        uint32_t number; /* of points registered then */
    };
    const std::string pool = "dif regist mid(5-pool)'s ", good = pool + "verify point success, num(";
    const std::vector<Row> rows = {
        {5, {{2, name45.c_str()}, {1, name39.c_str()}}, 5, good + "2)" + caller, 2},
        {16, many, 3, "mid(16) is invalid.", 2}, // these leave the record as it is
        {5, many, 3, pool + "verify point failed, num(65) exceed limit(64)" + caller + ".", 2},
        {5, {}, 3, "verifyPointPtr is NULL.", 2},
        {5,
         {{2, "B"}, {1, "A"}},
         3, // the others empty it, of what the same call has stored, too
         pool + "0th verify point(2,B) failed, has registed as(2," + name39 + "), num(2)" + caller,
         0},
        {5, {{1, "A"}, {3, "C"}}, 3, pool + "1th verify point(3,C) failed, pointId exceed num(2)" + caller + ".", 0},
        {5, {{0, "Z"}}, 3, pool + "0th verify point(0,Z) failed, pointId exceed num(1)" + caller + ".", 0},
        {5, {{1, "A"}, {1, "B"}}, 3, pool + "1th verify point(1,B) failed, has registed as(1,A), num(2)" + caller, 0},
        {5, std::vector(many.begin(), many.end() - 1), 5, good + "64)" + caller, 64},
    };
    memset(&g_verifyPointMsg[5].verifyPoints[1].pointName, 'x', DIF_VERIFY_POINT_NAME_SIZE);
    for (const Row &row : rows) {
        EXPECT_EQ(
            difRegistVerifyPoint(row.mid, row.points.data(), static_cast<uint32_t>(row.points.size()), "caller", 42),
            row.level == 5 ? DIF_OK : DIF_FAIL);
        EXPECT_EVENTS(plain(row.level, "difRegistVerifyPoint", row.text));
        EXPECT_EQ(record.verifyPointNum, row.number);
        for (uint32_t slot = 0; slot < DIF_VERIFY_POINT_MAX; ++slot)
            EXPECT_EQ(record.verifyPoints[slot].pointId, slot < row.number ? slot + 1 : DIF_VERIFY_POINT_FREE);
        if (row.number == 2) {
            EXPECT_EQ(record.verifyPoints[0].pointName, name39);
            EXPECT_EQ(record.verifyPoints[1].pointName, name39);
        }
    }
    EXPECT_EQ(difRegistVerifyPoint(5, many.data(), 0, "caller", 42), DIF_OK);
    EXPECT_EVENTS(plain(5, "difRegistVerifyPoint", good + "0)" + caller));
    EXPECT_EQ(record.verifyPointNum, 0);
    EXPECT_EQ(record.verifyPoints[63].pointId, 64); // the slots stay
}

TEST_F(VerifyPoints, CountersCountOnlyTheirOwn) {
    using Counters = std::array<uint64_t, DIF_STAT_BUTT>;
    for (const int32_t kind : {3, 3, 0, 4, -1})
        difVerifyStatisticAdd(15, 63, kind);
    difVerifyStatisticAdd(16, 0, 0); // these, like kinds 4 and -1, have no counter
    difVerifyStatisticAdd(15, 64, 0);
    difVerifyStatisticAdd(15, 255, 0);
    difStatisticExit();
    for (uint8_t mid = 0; mid <= DIF_MID_BUTT; ++mid)
        for (uint32_t point = 0; point <= DIF_VERIFY_POINT_MAX; ++point)
            EXPECT_EQ(countersOf(mid, point), (mid == 15 && point == 63 ? Counters{1, 0, 0, 2} : Counters{}));
    for (const auto clear : {difVerifyStatisticClean, difVerifyStatisticInit, difStatisticInit}) {
        difVerifyStatisticAdd(15, 63, 2);
        clear();
        EXPECT_EQ(countersOf(15, 63), Counters{});
    }
}

} // namespace
