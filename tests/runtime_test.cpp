#include "blocks.h"

namespace {

/* The event without the source line at its end, where that is the library's own. */
std::string withoutLine(const std::string &event) {
    return event.substr(0, event.rfind(", line("));
}

void expectStart() {
    Lines events = host.take();
    ASSERT_EQ(events.size(), 8u);
    const char *engine = _cpu_has_sse3_clmul() != 0 ? "Intel CPU hardware" : "software";
    events[2] = withoutLine(events[2]);
    EXPECT_EQ(events, (Lines{"name 250 DIF", format("L5 crc16_t10dif initCrc16T10Func #0: Use %s for crc16T10", engine),
                             "L5 dif_util difRegistVerifyPoint #4660: dif regist mid(0-debug)'s verify point success, "
                             "num(1), funcName(initAllModVerifyPointMsg)",
                             "register diagnose dif: diagnose function of dif",
                             "L5 dif_diagnose initDifDiagnoseModule #4660: Dif register PID to diagnose success.",
                             "register cli dif: cli function of dif",
                             "L5 dif_diagnose initDifDiagnoseModule #4660: Dif register PID to cli success.",
                             "L5 dif_util difModuleInit #4660: Init DIF Module."}));
}

TEST(BeforeStart, EverythingIsZeroAndTheOperationsAreSafe) {
    EXPECT_EQ(getDifOn() + getSysDifCrcVersion() + getDifRepairType() + getDifVerifyLevelByMid(DIF_MID_CACHE), 0);
    Blocks blocks(DIF_DATA_520, 2), before = blocks;
    DifOpParam op{DIF_DATA_520, DIF_INSERT_CRC | DIF_INSERT_LBA | DIF_REPLACE_CRC, 9, nullptr};
    for (auto operation : {insertDif, replaceDif}) {
        operation(blocks.data(0), 2, &op);
        operation(nullptr, 0, nullptr);
    }
    Check check(DIF_DATA_520, DIF_CHECK_CRC | DIF_CHECK_LBA);
    EXPECT_EQ(check.run(blocks), DIF_OK);
    EXPECT_EQ(check.result, DIF_RESULT_NOT_T10);
    EXPECT_EQ(blocks.bytes, before.bytes);
    EXPECT_EQ(host.take(), Lines{});

    const VerifyPointDesc point{1, "early"}; // the registry does not look empty yet
    EXPECT_EQ(difRegistVerifyPoint(DIF_MID_FC, &point, 1, "caller", 42), DIF_FAIL);
    EXPECT_EQ(host.take(),
              (Lines{"L3 dif_util difRegistVerifyPoint #4660: dif regist mid(1-fc)'s 0th verify point(1,early) "
                     "failed, has registed as(0,), num(1), funcName(caller), line(42)"}));
}

TEST(Lifecycle, StartSetsDefaultsAndStopKeepsEverything) {
    const auto state = [] {
        uint64_t counters[DIF_STAT_BUTT];
        difVerifyStatisticGet(DIF_MID_DEBUG, 0, counters);
        return std::array<uint64_t, 6>{getDifOn(),  getSysDifCrcVersion(),     getDifRepairType(),
                                       counters[2], getDifVerifyLevelByMid(7), g_verifyPointMsg[4].verifyPointNum};
    };
    const VerifyPointDesc point{1, "point"};
    for (int time = 0; time < 2; ++time) { // a second start starts over
        EXPECT_EQ(difModuleInit(), 0u);
        expectStart();
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
                                      "L5 dif_util difModuleExit #4660: Exit DIF Module."}));
        EXPECT_EQ(state(), (std::array<uint64_t, 6>{0, 0x29, 2, 1, 4, 1}));
    }
}

using Settings = StartedDif;

TEST_F(Settings, SwitchIsLoggedBeforeItIsStored) {
    Lines seen;
    host.onEvent = [&](const std::string &event) { seen.push_back(event.substr(11) + std::to_string(getDifOn())); };
    for (uint8_t on : Bytes{0, 0, 1, 1}) {
        setDifOn(on);
        EXPECT_EQ(getDifOn(), on);
        EXPECT_EQ(isDifDisable(), 0u);
        EXPECT_EQ(noDifUnreference(), on == 0 ? 1u : 0u);
    }
    const std::string text = " setDifOn #4660: Dif change dif switch";
    EXPECT_EQ(seen, (Lines{text + "(ON->OFF).1", text + "(OFF->OFF).0", text + "(OFF->ON).0", text + "(ON->ON).1"}));
    setDifOn(200); // whatever it is called
    EXPECT_EQ(getDifOn(), 200);
    for (uint8_t version : Bytes{0x29, 0x2A, 0x00, 0x34, 0xFF}) { // unknown versions change nothing
        setSysDifCrcVersion(version);
        EXPECT_EQ(getSysDifCrcVersion(), 0x29);
    }
}

TEST_F(Settings, RepairTypeAndConfiguration) {
    const DifConfig good{1}, bad{255};
    const std::string type = " dif_util setDifRepairType #4660: dif set repair type";
    const std::string all = " dif_util setDifAllConfig #4660: set dif config ";
    EXPECT_EQ(setDifRepairType(2, "caller", 42), DIF_OK);
    EXPECT_EQ(setDifRepairType(3, "caller", 43), DIF_FAIL);
    EXPECT_EQ(getDifRepairType(), 2);
    EXPECT_EQ(host.take(),
              (Lines{"L5" + type + "(2) succeeded,funcName(caller), line(42).",
                     "L3" + type + " failed, repairType(3) is not less than 3, funcName(caller), line(43)."}));
    EXPECT_EQ(setDifAllConfig(&good, "caller", 44), DIF_OK);
    EXPECT_EQ(setDifAllConfig(&bad, "caller", 45), DIF_FAIL);
    EXPECT_EQ(setDifAllConfig(nullptr, "caller", 46), DIF_FAIL);
    EXPECT_EQ(getDifRepairType(), 1);
    Lines events = host.take();
    ASSERT_EQ(events.size(), 5u);
    for (size_t own : {0, 2})
        events[own] = withoutLine(events[own]);
    EXPECT_EQ(events, (Lines{"L5" + type + "(1) succeeded,funcName(setDifAllConfig)",
                             "L5" + all + "succeeded, repairType(1), funcName(caller), line(44).",
                             "L3" + type + " failed, repairType(255) is not less than 3, funcName(setDifAllConfig)",
                             "L3" + all + "failed, repairType(255), funcName(caller), line(45).",
                             "L3" + all + "failed, configPtr is null, funcName(caller), line(46)."}));
}

} // namespace
