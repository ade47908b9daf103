#include "blocks.h"
#include "fake_host.h"

namespace {

using Diagnose = StartedDif;

template <typename Command, typename... Args>
std::string printed(Command command, Args... args) {
    host.printed.clear();
    command(args...);
    return host.printed;
}

TEST_F(Diagnose, LinesThatCannotBeRun) {
    using Words = std::vector<const char *>;
    const char *const level = "showverifylevel";
    const Words rows[] = {{"DIF", level},        {"di", level},   {"diff", level},  {nullptr, level},
                          {"dif", "showverify"}, {"dif", "swit"}, {"dif", nullptr}, {"dif", "showdifswitch", "x"}};
    for (const DbgCmdFunc command : {diagnoseDoDifCmd, cliDoDifCmd}) {
        EXPECT_EQ(printed(command, 2, nullptr), "usage (Error: cmd input is null.)\n");
        for (Words words : rows) {
            host.printed.clear();
            EXPECT_EQ(command(static_cast<int32_t>(words.size()), const_cast<char **>(words.data())),
                      FakeHost::kUsageResult);
            EXPECT_EQ(host.printed, "Error: invalid input!\nusage (null)\n");
        }
    }
    EXPECT_EQ(g_difArray[0].handler(1, nullptr), FakeHost::kUsageResult);
}

TEST_F(Diagnose, NamesAndHelp) {
    std::string names, tables = "\nmid           :    description\n";
    for (const char *const *name = g_difModuleName; *name != nullptr; ++name)
        names += *name + std::string(" ");
    EXPECT_EQ(names, "debug fc lun volume cache pool bdm rss logzone sasini bdm_lun reserved lam reserved reserved "
                     "reserved ");
    EXPECT_EQ(g_midDescription[16], nullptr);
    uint32_t mid = 0;
    for (const char *module : {"DEBUG", "FC", "LUN", "VOLUME", "CACHE", "POOL", "BDM", "RSS", "LOGZONE", "SASINI"})
        tables += format("%u             :    DIF_MID_%s\n", mid++, module);
    tables += "10~15         :    reserved\n\nverify level  :    description\n"
              "0             :    DIF_VERIFY_LEVEL_INVALID\n1             :    DIF_VERIFY_LEVEL_CRITICAL\n"
              "2             :    DIF_VERIFY_LEVEL_MAJOR\n3             :    DIF_VERIFY_LEVEL_TRACE\n"
              "4             :    DIF_VERIFY_LEVEL_DEBUG\n";
    const std::string level = "        dif showverifylevel", result = "        dif showverifyresult", gap(24, ' ');
    const std::string levels = level + gap + " : show module's verify level for all modules.\n";
    const std::string states = "        dif showdifswitch" + gap + "   : show dif is on or off.\n";
    const std::string results = result + gap + ": show verify result for all modules.\n";
    EXPECT_EQ(printed(host.cli.doHelp, "dif", 0u), "\n" + level + "\n" + result + "\n" + tables);
    EXPECT_EQ(printed(host.diagnose.doHelp, "dif", 2u), "SYNOPSIS\n" + levels + states + results + tables);
    EXPECT_EQ(printed(host.cli.doHelp, "diff", 1u), tables);
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
        uint32_t calls = 0;
        host.onCrc = [&](const uint8_t *, uint64_t) { return static_cast<uint16_t>(++calls == wrong ? 1 : 0); };
        const std::string end = format("\nTest FAIL:\ncrcT10 result is different, index(%u)\n", (wrong - 1) / 2);
        EXPECT_TRUE(printed(testCRCPerf, 9u, 100u).ends_with(end));
    }
}

} // namespace
