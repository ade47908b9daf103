#include "fake_host.h"
#include "model.h"

namespace {

std::array<uint64_t, DIF_STAT_BUTT> countersOf(uint8_t mid, uint32_t point) {
    std::array<uint64_t, DIF_STAT_BUTT> counters{9, 9, 9, 9};
    difVerifyStatisticGet(mid, point, counters.data());
    return counters;
}

/* What only a process that has not started the library yet can see; run in one of its own. */
void expectNothingBeforeStart() {
    EXPECT_EQ(getDifOn() + getSysDifCrcVersion() + getDifRepairType() + getDifVerifyLevelByMid(DIF_MID_CACHE), 0);
    const DifInjectParam inject{DIF_DATA_520, DIF_INJECT_BST, 0, 0, 0};
    DifTuple tuple{};
    for (const size_t written : {2u, 2u, 2u, 0u}) { /* limiters of both kinds are free at tick 0, too */
        getDifLba(nullptr, 0, nullptr);
        injectDifInOneBlock(&tuple, &inject, 0);
        EXPECT_EQ(host.take().size(), written);
    }
    difModuleInit();
    std::vector<uint8_t> data;
    host.onCrc = [&](const uint8_t *bytes, uint64_t size) { return data.assign(bytes, bytes + size), uint16_t{0}; };
    for (const auto &want : {Bytes{0x04, 0x19, 0xA4, 0x2C}, Bytes{0x54, 0x02, 0xA1, 0xD4}}) { /* goes on from there */
        testCRCPerf(1, 4);
        EXPECT_EQ(data, std::vector<uint8_t>(want));
    }
}

TEST(LifecycleDeathTest, BeforeStart) {
    GTEST_FLAG_SET(death_test_style, "threadsafe"); /* the child is a process that has run nothing else */
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
    const std::string own = "dif regist mid(0-debug)'s verify point success, num(1), funcName(initAllMod";
    const VerifyPointDesc point{1, "point"};
    for (const bool works : {true, false}) { /* a second start starts over, and one without commands is one, too */
        host.diagnoseResult = works ? 0 : -1;
        host.cliResult = works ? 0 : 9;
        const std::string level = works ? "level 5, " : "level 3, ", outcome = works ? "success." : "fail.";
        EXPECT_EQ(difModuleInit(), 0u);
        Lines events = host.take();
        EXPECT_TRUE(events.at(2).starts_with(plain(5, "difRegistVerifyPoint", own)));
        events.erase(events.begin() + 2);
        EXPECT_EQ(events,
                  (Lines{"name 250 DIF", "level 5, crc16_t10dif, initCrc16T10Func, 0: Use " + engine + " for crc16T10",
                         "register diagnose dif: diagnose function of dif",
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

TEST_F(Settings, AreValidatedAndReported) {
    Lines seen; /* with the switch at the time of the message */
    host.onEvent = [&](const std::string &event) { seen.push_back(event + format(" at %u", getDifOn())); };
    for (const uint8_t on : Bytes{0, 0, 1, 200}) { /* the last one is stored, whatever it is called */
        setDifOn(on);
        EXPECT_EQ(getDifOn(), on);
        EXPECT_EQ(isDifDisable(), 0u);
        EXPECT_EQ(noDifUnreference(), on ^ 1u);
    }
    const std::string text = plain(5, "setDifOn", "Dif change dif switch(");
    EXPECT_EQ(seen, (Lines{text + "ON->OFF). at 1", text + "OFF->OFF). at 0", text + "OFF->ON). at 0",
                           text + "ON->ON). at 1"}));
    for (const uint8_t version : Bytes{0x29, 0x2A, 0x00, 0x34, 0xFF}) { /* unknown versions change nothing */
        setSysDifCrcVersion(version);
        EXPECT_EQ(getSysDifCrcVersion(), 0x29);
    }
    const auto expect = [](uint32_t answer, uint32_t want, const char *function, const std::string &what) {
        EXPECT_EQ(answer, want);
        const Lines events = host.take();
        EXPECT_EQ(events.back(), plain(want == DIF_OK ? 5 : 3, function, what + "funcName(caller), line(42)."));
        return events[0];
    };
    const DifConfig good{1}, bad{255};
    const std::string failed = "set dif config failed, ";
    expect(setDifRepairType(2, "caller", 42), DIF_OK, "setDifRepairType", "dif set repair type(2) succeeded,");
    EXPECT_EQ(getDifRepairType(), 2);
    expect(setDifRepairType(3, "caller", 42), DIF_FAIL, "setDifRepairType",
           "dif set repair type failed, repairType(3) is not less than 3, ");
    const std::string first = expect(setDifAllConfig(&good, "caller", 42), DIF_OK, "setDifAllConfig",
                                     "set dif config succeeded, repairType(1), ");
    EXPECT_TRUE(first.starts_with(
        plain(5, "setDifRepairType", "dif set repair type(1) succeeded,funcName(setDifAllConfig), line(")));
    expect(setDifAllConfig(&bad, "caller", 42), DIF_FAIL, "setDifAllConfig", failed + "repairType(255), ");
    expect(setDifAllConfig(nullptr, "caller", 42), DIF_FAIL, "setDifAllConfig", failed + "configPtr is null, ");
    EXPECT_EQ(getDifRepairType(), 1);
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
    setDifVerifyLevelByMid(5, 3);
    EXPECT_EVENTS(plain(5, "setDifVerifyLevelByMid", "SET_DIF_VERIFY_LEVEL: mid(5), level(3),"));
    EXPECT_TRUE(isOn(3, 5, 63));
    EXPECT_FALSE(isOn(4, 5, 63));
    EXPECT_FALSE(isOn(3, 6, 0));
    setDifVerifyLevelByMid(16, 1); /* beyond the table */
    EXPECT_EVENTS(plain(3, "setDifVerifyLevelByMid", "mid(16) is invalid."));
    EXPECT_EQ(getDifVerifyLevelByMid(16), 0);
    EXPECT_EQ(difVerifyMsgGetByMid(16), nullptr);
    EXPECT_EQ(difVerifyMsgGetByMid(15), &g_verifyPointMsg[15]);
    setSysDifVerifyLevel(255);
    host.take();
    const auto expectRefused = [](uint8_t level, uint32_t mid, uint8_t subPid, const char *text) {
        EXPECT_FALSE(isOn(level, mid, subPid));
        EXPECT_EQ(host.take(), asserted("isVerifyPointOn", format("Dif error: %s.", text), "null"));
    };
    expectRefused(0, 16, 200, "mid is invalid(16)"); /* mid comes first, the level last; at one tick: three sites */
    expectRefused(0, 15, 64, "subPid is invalid(64)");
    expectRefused(0, 15, 63, "level is invalid(0)");
    EXPECT_FALSE(isOn(5, 0, 1));
    EXPECT_EVENTS();
}

TEST_F(VerifyPoints, Registration) {
    const std::string name(45, 'n'), caller = ", funcName(caller), line(42)";
    const std::string pool = "dif regist mid(5-pool)'s ", good = pool + "verify point success, num(";
    const VerifyPointMsg &record = *difVerifyMsgGetByMid(5);
    std::vector<VerifyPointDesc> tooMany(65), many;
    for (uint8_t id = 1; id <= 64; ++id)
        many.push_back({id, "point"});
    const struct {
        uint32_t mid;
        std::vector<VerifyPointDesc> points;
        std::string text;
        uint32_t number; /* of points registered then */
    } rows[] = {
        {5, {{2, name.c_str()}, {1, "A"}}, good + "2)" + caller, 2},
        {16, many, "mid(16) is invalid.", 2}, /* these leave the record as it is */
        {5, tooMany, pool + "verify point failed, num(65) exceed limit(64)" + caller + ".", 2},
        {5, {}, "verifyPointPtr is NULL.", 2}, /* the others empty it, of what the same call has stored, too */
        {5, {{2, "B"}}, pool + "0th verify point(2,B) failed, pointId exceed num(1)" + caller + ".", 0},
        {5, {{1, "A"}, {0, "Z"}}, pool + "1th verify point(0,Z) failed, pointId exceed num(2)" + caller + ".", 0},
        {5, {{1, "A"}, {1, "B"}}, pool + "1th verify point(1,B) failed, has registed as(1,A), num(2)" + caller, 0},
        {5, many, good + "64)" + caller, 64},
    };
    memset(&g_verifyPointMsg[5].verifyPoints[1].pointName, 'x', DIF_VERIFY_POINT_NAME_SIZE);
    for (const auto &[mid, points, text, number] : rows) {
        const bool isGood = text.starts_with(good);
        EXPECT_EQ(difRegistVerifyPoint(mid, points.data(), static_cast<uint32_t>(points.size()), "caller", 42),
                  isGood ? DIF_OK : DIF_FAIL);
        EXPECT_EVENTS(plain(isGood ? 5 : 3, "difRegistVerifyPoint", text));
        EXPECT_EQ(record.verifyPointNum, number);
        for (uint32_t slot = 0; slot < DIF_VERIFY_POINT_MAX; ++slot)
            EXPECT_EQ(record.verifyPoints[slot].pointId, slot < number ? slot + 1 : DIF_VERIFY_POINT_FREE);
        EXPECT_TRUE(number != 2 || record.verifyPoints[1].pointName == name.substr(0, 39));
    }
}

TEST_F(VerifyPoints, CountersCountOnlyTheirOwn) {
    using Counters = std::array<uint64_t, DIF_STAT_BUTT>;
    for (const int32_t kind : {3, 3, 0, 4, -1})
        difVerifyStatisticAdd(15, 63, kind);
    difVerifyStatisticAdd(16, 0, 0); /* these, like kinds 4 and -1, have no counter */
    difVerifyStatisticAdd(15, 64, 0);
    for (uint8_t mid = 0; mid <= DIF_MID_BUTT; ++mid)
        for (uint32_t point = 0; point <= DIF_VERIFY_POINT_MAX; ++point)
            EXPECT_EQ(countersOf(mid, point), (mid == 15 && point == 63 ? Counters{1, 0, 0, 2} : Counters{}));
}

} /* namespace */
