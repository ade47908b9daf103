#include "blocks.h"
#include "fake_host.h"

namespace {

constexpr const char *kModules[] = {"DIF_MID_DEBUG", "DIF_MID_FC",  "DIF_MID_LUN", "DIF_MID_VOLUME",  "DIF_MID_CACHE",
                                    "DIF_MID_POOL",  "DIF_MID_BDM", "DIF_MID_RSS", "DIF_MID_LOGZONE", "DIF_MID_SASINI"};

class Diagnose : public StartedDif {
protected:
    /* What a command prints. */
    template <typename Command, typename... Args>
    static std::string printed(Command command, Args... args) {
        host.printed.clear();
        command(args...);
        return host.printed;
    }
    static std::string run(DbgCmdFunc command, Lines words, int32_t result = 0) {
        std::vector<char *> argv;
        for (std::string &word : words)
            argv.push_back(word == "(null)" ? nullptr : word.data());
        host.printed.clear();
        EXPECT_EQ(command(static_cast<int32_t>(argv.size()), argv.data()), result);
        return host.printed;
    }

    const DbgCmdReg &diagnose = host.diagnose, &cli = host.cli;
    const std::string invalid = "Error: invalid input!\nusage (null)\n";
};

TEST_F(Diagnose, LinesThatCannotBeRun) {
    for (const DbgCmdFunc command : {diagnoseDoDifCmd, cliDoDifCmd}) {
        EXPECT_EQ(printed(command, 2, nullptr), "usage (Error: cmd input is null.)\n");
        EXPECT_EQ(run(command, {"dif"}, FakeHost::kUsageResult), invalid);
        for (const char *word : {"DIF", "di", "diff", "(null)"})
            EXPECT_EQ(run(command, {word, "showverifylevel"}, FakeHost::kUsageResult), invalid);
        for (const char *word : {"showverify", "showverifylevels", "(null)"})
            EXPECT_EQ(run(command, {"dif", word}, FakeHost::kUsageResult), invalid);
        for (const char *word : {"showverifylevel", "showverifyresult", "showdifswitch"})
            EXPECT_EQ(run(command, {"dif", word, "x"}, FakeHost::kUsageResult), invalid);
    }
    EXPECT_EQ(run(cliDoDifCmd, {"dif", "showdifswitch"}, FakeHost::kUsageResult), invalid);
    EXPECT_EQ(g_difArray[0].handler(1, nullptr), FakeHost::kUsageResult);
    EXPECT_EQ(g_difArray[1].handler(3, nullptr), FakeHost::kUsageResult);
    EXPECT_EQ(g_difArrayForCli[1].handler(3, nullptr), FakeHost::kUsageResult);
}

TEST_F(Diagnose, SwitchAndLevels) {
    EXPECT_EQ(run(diagnose.doCmd, {"dif", "showdifswitch"}), "dif switch status: on\n");
    setDifOn(0);
    EXPECT_EQ(run(diagnose.doCmd, {"dif", "showdifswitch"}), "dif switch status: off\n");
    setDifVerifyLevelByMid(0, 4);
    setDifVerifyLevelByMid(12, 255);
    std::string want = "\n  module id   module name        verify level  \n"
                       "  ----------  ----------------  -------------  \n";
    for (uint32_t mid = 0; mid < 16; ++mid)
        want +=
            format("  %-10u  %-16s  %13u\n", mid, mid < 10 ? kModules[mid] : "reserved", getDifVerifyLevelByMid(mid));
    EXPECT_EQ(run(diagnose.doCmd, {"dif", "showverifylevel"}), want);
    EXPECT_EQ(run(cli.doCmd, {"dif", "showverifylevel"}), want);
    for (const char *const *names : {g_midDescription, g_difModuleName})
        EXPECT_EQ(names[16], nullptr);
    std::string names;
    for (uint32_t mid = 0; mid < 16; ++mid)
        names += g_difModuleName[mid] + std::string(" ");
    EXPECT_EQ(names, "debug fc lun volume cache pool bdm rss logzone sasini bdm_lun reserved lam reserved reserved "
                     "reserved ");
}

TEST_F(Diagnose, VerifyResults) {
    const VerifyPointDesc points[] = {{1, "one"}, {2, "two"}, {3, "three"}};
    difRegistVerifyPoint(DIF_MID_SASINI, points, 3, "test", 1);
    difRegistVerifyPoint(10, points, 3, "test", 1); // reserved ids are not shown
    for (const int32_t kind : {0, 1, 1, 2, 2, 2, 3, 3, 3, 3})
        difVerifyStatisticAdd(DIF_MID_SASINI, 1, kind);
    const std::string title = "\n  module_id   module_name       verify_point_id  verify_point_name                    "
                              "                ";
    const std::string rule =
        "  ----------  ----------------  ---------------  ----------------------------------------";
    const std::string errors = "lba_error             crc_error         version_error\n";
    const std::string column = "  --------------------";
    std::string full = title + "verify_ok             " + errors + rule + column + column + column + column + "\n";
    std::string brief = title + errors + rule + column + column + column + "\n";
    const struct {
        const char *mid, *module;
        int id;
        const char *name;
        int ok, lba, crc, version;
    } rows[] = {{"0", "DIF_MID_DEBUG", 1, "DEBUG_MOD_COMMON_VERIFY_POINT", 0, 0, 0, 0},
                {"4", "DIF_MID_CACHE", 1, "front", 0, 0, 0, 0},
                {" ", " ", 2, "back", 0, 0, 0, 0},
                {"9", "DIF_MID_SASINI", 1, "one", 0, 0, 0, 0},
                {" ", " ", 2, "two", 1, 3, 4, 2},
                {" ", " ", 3, "three", 0, 0, 0, 0}};
    for (const auto &row : rows) {
        const std::string point = format("  %-10s  %-16s  %-15d  %-40s", row.mid, row.module, row.id, row.name);
        const std::string counts = format("  %20d  %20d  %20d\n", row.lba, row.crc, row.version);
        full += point + format("  %20d", row.ok) + counts;
        brief += point + counts;
    }
    EXPECT_EQ(run(diagnose.doCmd, {"dif", "showverifyresult"}), full);
    EXPECT_EQ(run(cli.doCmd, {"dif", "showverifyresult"}), brief);
}

TEST_F(Diagnose, Help) {
    std::string tables = "\nmid           :    description\n";
    for (uint32_t mid = 0; mid < 10; ++mid)
        tables += format("%-14u:    %s\n", mid, kModules[mid]);
    tables += "10~15         :    reserved\n\nverify level  :    description\n"
              "0             :    DIF_VERIFY_LEVEL_INVALID\n1             :    DIF_VERIFY_LEVEL_CRITICAL\n"
              "2             :    DIF_VERIFY_LEVEL_MAJOR\n3             :    DIF_VERIFY_LEVEL_TRACE\n"
              "4             :    DIF_VERIFY_LEVEL_DEBUG\n";
    const std::string level = "        dif showverifylevel", state = "        dif showdifswitch";
    const std::string result = "        dif showverifyresult", gap(24, ' ');
    const std::string levels = level + gap + " : show module's verify level for all modules.\n";
    const std::string states = state + gap + "   : show dif is on or off.\n";
    const std::string results = result + gap + ": show verify result for all modules.\n";
    EXPECT_EQ(printed(diagnose.doHelp, "dif", 0u), "\n" + level + "\n" + state + "\n" + result + "\n" + tables);
    EXPECT_EQ(printed(cli.doHelp, "dif", 0u), "\n" + level + "\n" + result + "\n" + tables);
    EXPECT_EQ(printed(diagnose.doHelp, "dif", 2u), "SYNOPSIS\n" + levels + states + results + tables);
    EXPECT_EQ(printed(cli.doHelp, "dif", 1u), "SYNOPSIS\n" + levels + results + tables);
    EXPECT_EQ(printed(diagnose.doHelp, "DIF", 0u), tables);
    EXPECT_EQ(printed(cli.doHelp, "diff", 1u), tables);
    EXPECT_EQ(diagnoseDoDifHelp("dif", 0) | cliDoDifHelp("dif", 0), 0);
}

/* The clock of the fake host moves by 500 ns whenever it is read. */
TEST_F(Diagnose, SelfTest) {
    EXPECT_EQ(printed(testCRCPerf, 3u, 0u), "Test FAIL:len is not a positive number.\n");
    EXPECT_EQ(printed(testCRCPerf, 3u, uint64_t{1} << 32), "Test FAIL:len(4294967296) is not below 2^32.\n");
    EXPECT_EQ(printed(testCRCPerf, 3u, 4096u),
              "Test PASS:\nTime:\nt10_time: 1 us 8192000000 B/s\nasm_t10_time: 1 us 8192000000 B/s\n"
              "table_t10_time: 1 us 8192000000 B/s\n");
    EXPECT_NE(printed(testCRCPerf, 0u, 1u).find("\nt10_time: 0 us 0 B/s\n"), std::string::npos);
    for (const uint32_t wrong : {1u, 2u, 3u, 4u}) { // two calls a round: the library's way in, then the engine itself
        uint32_t calls = 0, crc = 0;
        host.onCrc = [&](const uint8_t *data, uint64_t size) {
            crc = slowCrc16(0, data, size);
            return static_cast<uint16_t>(++calls == wrong ? 0x0101 : 0);
        };
        const std::string text = printed(testCRCPerf, 9u, 100u);
        const uint32_t t10 = (crc >> 8 | (crc & 0xFF) << 8) ^ (wrong % 2 == 1 ? 0x0101 : 0);
        EXPECT_EQ(text, format("t10:%x\nasm_t10:%x\ntable_t10:%x\nTest FAIL:\ncrcT10 result is different, index(%u)\n",
                               t10, crc ^ (wrong % 2 == 0 ? 0x0101 : 0), crc, (wrong - 1) / 2));
    }
}

/* The buffer is free again when the result is printed: the allocator hands it out once more, if it does that at all. */
TEST_F(Diagnose, SelfTestFreesItsBufferFirst) {
    const auto next = [] {
        void *const block = malloc(1000);
        const auto address = reinterpret_cast<uintptr_t>(block);
        free(block);
        return address;
    };
    const bool reuses = next() == next();
    uintptr_t used = 0, found = 1;
    host.onCrc = [&](const uint8_t *data, uint64_t) { return used = reinterpret_cast<uintptr_t>(data), uint16_t{0}; };
    host.onPrint = [&] { found = next(); };
    testCRCPerf(1, 1000);
    EXPECT_TRUE(found == used || !reuses);
}

} // namespace
