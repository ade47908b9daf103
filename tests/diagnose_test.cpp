#include "fake_host.h"
#include "model.h"

#include <span>

namespace {

const char *const kDescriptions[] = {"DIF_MID_DEBUG", "DIF_MID_FC",  "DIF_MID_LUN", "DIF_MID_VOLUME",  "DIF_MID_CACHE",
                                     "DIF_MID_POOL",  "DIF_MID_BDM", "DIF_MID_RSS", "DIF_MID_LOGZONE", "DIF_MID_SASINI",
                                     "reserved",      "reserved",    "reserved",    "reserved",        "reserved",
                                     "reserved",      nullptr};

class Diagnose : public StartedDif {
protected:
    /* What a command line prints. */
    static std::string run(DbgCmdFunc command, Lines words, int32_t result = 0) {
        std::vector<char *> argv;
        for (std::string &word : words)
            argv.push_back(word == "(null)" ? nullptr : word.data());
        host.printed.clear();
        EXPECT_EQ(command(static_cast<int32_t>(argv.size()), argv.data()), result);
        return host.printed;
    }
    const DbgCmdFunc diagnose = host.diagnoseCommand.doCmd, cli = host.cliCommand.doCmd;
};

TEST_F(Diagnose, LinesThatCannotBeRun) {
    EXPECT_EQ(host.diagnoseCommand.doCmd, diagnoseDoDifCmd);
    for (const DbgCmdFunc command : {diagnoseDoDifCmd, cliDoDifCmd}) {
        host.printed.clear();
        EXPECT_EQ(command(2, nullptr), FakeHost::kUsageResult);
        EXPECT_EQ(host.printed, "<usage: Error: cmd input is null.>\n");
        for (const Lines &words : std::vector<Lines>{{"dif"},
                                                     {"DIF", "showverifylevel"},
                                                     {"di", "showverifylevel"},
                                                     {"diff", "showverifylevel"},
                                                     {"dif", "showverify"},
                                                     {"dif", "showverifylevels"},
                                                     {"dif", ""},
                                                     {"(null)", "showverifylevel"},
                                                     {"dif", "(null)"},
                                                     {"dif", "showverifylevel", "x"},
                                                     {"dif", "showverifyresult", "x"},
                                                     {"dif", "showdifswitch", "x"}})
            EXPECT_EQ(run(command, words, FakeHost::kUsageResult), "Error: invalid input!\n<usage: null>\n");
    }
    EXPECT_EQ(run(cliDoDifCmd, {"dif", "showdifswitch"}, FakeHost::kUsageResult),
              "Error: invalid input!\n<usage: null>\n");
}

TEST_F(Diagnose, SwitchLevelsAndTables) {
    EXPECT_EQ(run(diagnose, {"dif", "showdifswitch"}), "dif switch status: on\n");
    setDifOn(0);
    EXPECT_EQ(run(diagnose, {"dif", "showdifswitch"}), "dif switch status: off\n");
    setDifVerifyLevelByMid(0, 4);
    setDifVerifyLevelByMid(12, 255);
    std::string want =
        "\n  module id   module name        verify level  \n  ----------  ----------------  -------------  \n";
    for (uint32_t mid = 0; mid < 16; ++mid)
        want += format("  %-10u  %-16s  %13u\n", mid, kDescriptions[mid], mid == 0 ? 4u : mid == 12 ? 255u : 2u);
    EXPECT_EQ(run(diagnose, {"dif", "showverifylevel"}), want);
    EXPECT_EQ(run(cli, {"dif", "showverifylevel"}), want);
    for (const auto &table : {std::span<const DifCmdEntry>(g_difArray), std::span<const DifCmdEntry>(g_difArrayForCli)}) {
        char word[] = "dif", *argv[] = {word, word};
        EXPECT_STREQ(table.front().name, "showverifylevel");
        EXPECT_STREQ(table.back().name, "showverifyresult");
        for (const DifCmdEntry &entry : table) {
            EXPECT_EQ(entry.handler(2, argv), 0);
            EXPECT_EQ(entry.handler(1, argv), FakeHost::kUsageResult);
        }
    }
    EXPECT_STREQ(g_difArray[1].name, "showdifswitch");
    const char *const names[] = {"debug", "fc",       "lun",      "volume",  "cache",   "pool",
                                 "bdm",   "rss",      "logzone",  "sasini",  "bdm_lun", "reserved",
                                 "lam",   "reserved", "reserved", "reserved"};
    for (uint32_t mid = 0; mid < 16; ++mid)
        EXPECT_STREQ(g_difModuleName[mid], names[mid]);
    EXPECT_EQ(g_difModuleName[16], nullptr);
    EXPECT_EQ(g_midDescription[16], nullptr);
}

TEST_F(Diagnose, VerifyResults) {
    const VerifyPointDesc points[] = {{1, "one"}, {2, "two"}, {3, "three"}};
    difRegistVerifyPoint(DIF_MID_SASINI, points, 3, "test", 1);
    difRegistVerifyPoint(10, points, 3, "test", 1); // reserved ids are not shown
    for (int32_t kind = 0; kind < DIF_STAT_BUTT; ++kind)
        for (int32_t times = 0; times <= kind; ++times)
            difVerifyStatisticAdd(DIF_MID_SASINI, 1, kind);
    std::string full = "\n  module_id   module_name       verify_point_id  verify_point_name                         "
                       "           verify_ok             lba_error             crc_error         version_error\n"
                       "  ----------  ----------------  ---------------  ----------------------------------------  "
                       "--------------------  --------------------  --------------------  --------------------\n";
    std::string brief = "\n  module_id   module_name       verify_point_id  verify_point_name                         "
                        "           lba_error             crc_error         version_error\n"
                        "  ----------  ----------------  ---------------  ----------------------------------------  "
                        "--------------------  --------------------  --------------------\n";
    const struct {
        const char *mid, *module;
        int id;
        const char *name;
        int ok = 0, lba = 0, crc = 0, version = 0;
    } rows[] = {{"0", "DIF_MID_DEBUG", 1, "DEBUG_MOD_COMMON_VERIFY_POINT"},
                {"4", "DIF_MID_CACHE", 1, "front"},
                {" ", " ", 2, "back"},
                {"9", "DIF_MID_SASINI", 1, "one"},
                {" ", " ", 2, "two", 1, 3, 4, 2},
                {" ", " ", 3, "three"}};
    for (const auto &row : rows) {
        const std::string point = format("  %-10s  %-16s  %-15d  %-40s", row.mid, row.module, row.id, row.name);
        const std::string errors = format("  %20d  %20d  %20d\n", row.lba, row.crc, row.version);
        full += point + format("  %20d", row.ok) + errors;
        brief += point + errors;
    }
    EXPECT_EQ(run(diagnose, {"dif", "showverifyresult"}), full);
    EXPECT_EQ(run(cli, {"dif", "showverifyresult"}), brief);
}

TEST_F(Diagnose, Help) {
    std::string tables = "\nmid           :    description\n";
    for (uint32_t mid = 0; mid < 10; ++mid)
        tables += format("%-14u:    %s\n", mid, kDescriptions[mid]);
    tables += "10~15         :    reserved\n\nverify level  :    description\n"
              "0             :    DIF_VERIFY_LEVEL_INVALID\n1             :    DIF_VERIFY_LEVEL_CRITICAL\n"
              "2             :    DIF_VERIFY_LEVEL_MAJOR\n3             :    DIF_VERIFY_LEVEL_TRACE\n"
              "4             :    DIF_VERIFY_LEVEL_DEBUG\n";
    const auto help = [](const DbgCmdReg &command, const char *name, uint32_t detail) {
        host.printed.clear();
        command.doHelp(name, detail);
        return host.printed;
    };
    const std::string level = "        dif showverifylevel", state = "        dif showdifswitch";
    const std::string result = "        dif showverifyresult";
    const std::string levels = level + "                         : show module's verify level for all modules.\n";
    const std::string states = state + "                           : show dif is on or off.\n";
    const std::string results = result + "                        : show verify result for all modules.\n";
    const DbgCmdReg &shell = host.diagnoseCommand, &other = host.cliCommand;
    EXPECT_EQ(help(shell, "dif", 0), "\n" + level + "\n" + state + "\n" + result + "\n" + tables);
    EXPECT_EQ(help(other, "dif", 0), "\n" + level + "\n" + result + "\n" + tables);
    EXPECT_EQ(help(shell, "dif", 2), "SYNOPSIS\n" + levels + states + results + tables);
    EXPECT_EQ(help(other, "dif", 1), "SYNOPSIS\n" + levels + results + tables);
    EXPECT_EQ(help(shell, "DIF", 0), tables);
    EXPECT_EQ(help(other, "diff", 1), tables);
}

/* The clock of the fake host moves by 500 ns whenever it is read. */
TEST_F(Diagnose, SelfTest) {
    const auto printed = [](uint64_t times, uint64_t length) {
        host.printed.clear();
        testCRCPerf(times, length);
        return host.printed;
    };
    EXPECT_EQ(printed(3, 0), "Test FAIL:len is not a positive number.\n");
    EXPECT_EQ(printed(3, uint64_t{1} << 32), "Test FAIL:len(4294967296) is not below 2^32.\n");
    EXPECT_EQ(printed(3, UINT64_MAX - 4096), format("Test FAIL:len(%llu) is not below 2^32.\n", UINT64_MAX - 4096ull));
    std::string rates;
    for (const char *engine : {"t10", "asm_t10", "table_t10"})
        rates += format("%s_time: 1 us 8192000000 B/s\n", engine);
    EXPECT_EQ(printed(3, 4096), "Test PASS:\nTime:\n" + rates);
    EXPECT_NE(printed(0, 1).find("t10_time: 0 us 0 B/s\n"), std::string::npos);

    uint32_t calls = 0, wrong = 0; // two a round: the library's way in, then the engine itself
    uint16_t crc = 0;
    host.onCrc = [&](const uint8_t *data, uint64_t size) {
        crc = slowCrc16(0, data, size);
        return static_cast<uint16_t>(++calls == wrong || wrong == 0 ? 0x0101 : 0);
    };
    for (const bool isAll : {false, true}) {
        for (wrong = isAll ? 0 : 1; wrong <= (isAll ? 0 : 4); ++wrong) {
            calls = 0;
            const std::string text = printed(9, 100);
            const unsigned t10 = __builtin_bswap16(crc) ^ (isAll || wrong % 2 == 1 ? 0x0101 : 0);
            const unsigned direct = crc ^ (isAll || wrong % 2 == 0 ? 0x0101 : 0);
            EXPECT_EQ(text, format("t10:%x\nasm_t10:%x\ntable_t10:%x\nTest FAIL:\ncrcT10 result is different, "
                                   "index(%u)\n",
                                   t10, direct, crc, isAll ? 0 : (wrong - 1) / 2));
        }
    }
}

/* The buffer is free again when the result is printed: the allocator hands it out once more, if it does that at all. */
TEST_F(Diagnose, SelfTestFreesItsBufferFirst) {
    constexpr size_t kSize = 1000;
    const auto next = [] {
        void *const block = malloc(kSize);
        const auto address = reinterpret_cast<uintptr_t>(block);
        free(block);
        return address;
    };
    const bool reuses = next() == next();
    uintptr_t used = 0, found = 1;
    host.onCrc = [&](const uint8_t *data, uint64_t) {
        used = reinterpret_cast<uintptr_t>(data);
        return uint16_t{0};
    };
    host.onPrint = [&] { found = next(); };
    testCRCPerf(1, kSize);
    EXPECT_TRUE(found == used || !reuses);
}

} // namespace
