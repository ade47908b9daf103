/* The host with the library in it: commands, metrics, log, services and the control socket. */
#include "dif/dif.h"
#include "dif_host.h"
#include "platform/dbg_cmd.h"
#include "platform/hostlog.h"
#include "platform/intf_lookup.h"
#include "platform/osal.h"
#include "platform/secure_string.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace std::string_literals;
using namespace std::chrono_literals;
using Result = std::pair<int, std::string>; /* status and output */
using ::testing::internal::CaptureStderr, ::testing::internal::GetCapturedStderr;

void collect(void *output, const char *text, size_t size) {
    static_cast<std::string *>(output)->append(text, size);
}

Result run(const std::string &line, int registry = DIF_HOST_DIAGNOSE) {
    Result result;
    result.first = difHostRunCommand(registry, line.c_str(), collect, &result.second);
    return result;
}

bool matches(const std::string &text, const std::string &pattern) {
    return ::testing::Matcher<std::string>(::testing::MatchesRegex(pattern)).Matches(text);
}

int32_t echo(int32_t argc, char **argv) {
    for (int32_t i = 1; i < argc; ++i)
        DBG_Print("[%s]", argv[i]);
    return argv[argc] == nullptr ? argc : -1;
}

int32_t spill(int32_t, char **) { /* three times what an answer holds */
    for (int i = 0; i < 3 << 10; ++i)
        DBG_Print("%1024d", i);
    return 0;
}

int32_t refuse(int32_t argc, char **) {
    for (int32_t i = 2; i < argc; ++i)
        DBG_ShowUsageAndErrMsg(nullptr);
    return DBG_ShowUsageAndErrMsg(argc > 1 ? "Error: no." : nullptr);
}

int32_t reopen(int32_t, char **argv) {
    usleep(100'000);
    return difHostCloseControlSocket(), difHostOpenControlSocket(argv[1]);
}

int32_t help(const char *name, uint32_t detail) { /* asks for the usage, which must not end up here again */
    DBG_Print("(%s %u)\n", name, detail);
    return DBG_ShowUsageAndErrMsg(nullptr);
}

constexpr DbgCmdReg kWords[] = {{"echo", "shows its words", echo, help},
                                {"spill", "", spill, help},
                                {"refuse", "", refuse, help},
                                {"reopen", "", reopen, help}};

void log(uint32_t count) {
    for (uint32_t i = 0; i < count; ++i)
        hostlog(9, DIF_HOST_LOG_ERROR, "file", 42, "func", 4660, "line %u", i);
}

/* Makes standard error a pipe that nobody reads, and returns the end to read it from. */
int stickStandardError() {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_NONBLOCK), 0);
    while (write(ends[1], "\n", 1) == 1)
        ;
    for (const int end : ends)
        fcntl(end, F_SETFL, 0);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    return ends[0];
}

class Host : public ::testing::Test {
protected:
    void SetUp() override {
        alarm(60); /* for whatever waits */
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        ASSERT_NE(mkdtemp(directory.data()), nullptr);
        path = directory + "/file";
        difHostSetLogLevel(DIF_HOST_LOG_ERROR);
        difHostSetControlPatience(5000);
        difModuleInit();
        for (const DbgCmdReg &word : kWords)
            ASSERT_EQ(DBG_RegCmd(&word), 0);
    }
    void TearDown() override {
        difHostCloseControlSocket();
        EXPECT_EQ(difHostSetLogFile(nullptr, 0, 0), 0);
        difModuleExit();
        for (const DbgCmdReg &word : kWords)
            EXPECT_EQ(DBG_UnRegCmd(word.name), 0);
        std::filesystem::remove_all(directory);
    }
    Result attach(const std::string &line, int wanted = 0, int registry = DIF_HOST_DIAGNOSE) {
        Result result;
        EXPECT_EQ(difHostAttach(path.c_str(), registry, line.c_str(), collect, &result.second, &result.first), wanted);
        return result;
    }
    int plainSocket(decltype(connect) *bindOrConnect) {
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address = {AF_UNIX, {}};
        strcpy(address.sun_path, path.c_str());
        EXPECT_EQ(bindOrConnect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        return fd;
    }
    int client(const std::string &request) {
        const int fd = plainSocket(connect);
        send(fd, request.data(), request.size(), MSG_NOSIGNAL);
        return fd;
    }
    int server() {
        const int fd = plainSocket(bind);
        EXPECT_EQ(listen(fd, 0), 0);
        return fd;
    }
    static std::string readAll(int fd, useconds_t pause = 0) { /* to the end, which closes it */
        std::string text;
        char piece[4096];
        for (ssize_t size; (size = read(fd, piece, sizeof piece)) > 0; usleep(pause))
            text.append(piece, static_cast<size_t>(size));
        close(fd);
        return text;
    }
    static std::string content(const std::string &file) { return readAll(open(file.c_str(), O_RDONLY)); }
    std::string path, directory = "/tmp/host_test.XXXXXX";
};

TEST_F(Host, SplitsLinesAsTheShellDoes) {
    EXPECT_EQ(run(R"(echo  a\ b"c d"'e f' '' "" \'\"\\)").second, R"([a bc de f][][]['"\])");
    EXPECT_EQ(run(R"(echo "\a\$\`\"\\'" '\$\' \$\a)").second, R"([\a$`"\'][\$\][$a])");
    EXPECT_EQ(run("echo\ta\\\nb \"c\\\nd\" \"e\nf\"\ng \\\n h").second, "[ab][cd][e\nf][g][h]");
    EXPECT_EQ(run("echo 'a b' \"c"), Result(EINVAL, "Error: the quote \" at column 12 is not closed.\n"));
    EXPECT_EQ(run(" \t"), Result(0, ""));
}

TEST_F(Host, Registries) {
    DbgCmdReg word = {"1234567890123456789", "", echo, help};
    memset(word.description, 'd', sizeof word.description); /* needs no NUL */
    DbgCmdReg unnamed = word, unterminated = word, idle = word, mute = word, builtIn = {"help", "", echo, help};
    unnamed.name[0] = '\0';
    unterminated.name[19] = 'x';
    idle.doCmd = nullptr;
    mute.doHelp = nullptr;
    for (const auto regist : {DBG_RegCmd, DBG_RegCmdToCLI}) {
        for (const DbgCmdReg *const bad : {&unnamed, &unterminated, &idle, &mute, (DbgCmdReg *)nullptr})
            EXPECT_EQ(regist(bad), EINVAL);
        EXPECT_EQ(regist(&word), 0);
        EXPECT_EQ(regist(&word), EEXIST);
        EXPECT_EQ(regist(&builtIn), EEXIST);
    }
    std::string words;
    const auto add = [](void *to, const char *name, const char *text) {
        *static_cast<std::string *>(to) += name + ":"s + text + " ";
    };
    EXPECT_EQ(difHostForEachCommand(DIF_HOST_CLI, add, &words), 0);
    EXPECT_PRED2(matches, words,
                 "1234567890123456789:d{64} dif:cli function of dif help:list the commands, show their help "
                 "metrics:counters and settings for Prometheus set:change a verify level, the switch, the counters ");
    EXPECT_PRED2(matches, run("help").second, "1234567890123456789   d{64}\n\\(1234567890123456789 0\\)\n.*");
    EXPECT_EQ(difHostForEachCommand(DIF_HOST_CLI, nullptr, nullptr), EINVAL);
    EXPECT_EQ(difHostRunCommand(DIF_HOST_CLI, nullptr, collect, &words), EINVAL);
    word.doCmd = refuse; /* the registry has its own copy */
    EXPECT_EQ(run("1234567890123456789 a b"), Result(3, "[a][b]"));
    for (const auto unregist : {DBG_UnRegCmd, DBG_UnRegCmdToCLI}) {
        EXPECT_EQ(unregist(word.name), 0);
        EXPECT_EQ(unregist(word.name), ENOENT);
        EXPECT_EQ(unregist("metrics"), EPERM);
        EXPECT_EQ(unregist(nullptr), EINVAL);
    }
    EXPECT_EQ(run("echo", DIF_HOST_CLI).first, ENOENT);
    EXPECT_EQ(run("echo", 2).first, EINVAL);
}

TEST_F(Host, CommandsHelpAndUsage) {
    EXPECT_EQ(run("refuse"), Result(EINVAL, "Usage:\n(refuse 0)\n"));
    EXPECT_EQ(run("refuse it twice"), Result(EINVAL, "Usage:\n(refuse 0)\nError: no.\nUsage:\n(refuse 0)\n"));
    EXPECT_EQ(run("refuse it"), Result(EINVAL, "Error: no.\nUsage:\n(refuse 0)\n"));
    EXPECT_EQ(run("a\x1B"), Result(ENOENT, "Error: unknown command 'a\\x1b', 'help' lists the commands.\n"));
    EXPECT_EQ(run("help a\x1B"), run("a\x1B"));
    EXPECT_PRED2(matches, run("help a b").second, "Error: help takes one word at most.\nUsage:\n        help .WORD.\n");
    EXPECT_EQ(run("help echo"), Result(0, "(echo 1)\nUsage:\n        help [WORD]\n"));
    EXPECT_PRED2(matches, run("help help").second + run("help metrics").second,
                 "SYNOPSIS\n        help  +: list the commands.\n        help WORD  +: show .*\n"
                 "SYNOPSIS\n        metrics  +: show DIF switch, CRC version, verify levels and counters\n +in the "
                 "Prometheus text format.\n");
    EXPECT_PRED2(matches, run("help").second,
                 "dif                   diagnose function of dif\n\n        dif showverifylevel\n.*"
                 "echo                  shows its words\n\\(echo 0\\)\n.*        help .WORD.\n.*        metrics\n.*");
    for (const int registry : {DIF_HOST_DIAGNOSE, DIF_HOST_CLI}) {
        EXPECT_PRED2(matches, run("dif showverifylevel", registry).second, "\n  module id .* reserved {22}2\n");
        EXPECT_PRED2(matches, run("dif x", registry).second, "Error: invalid input!\nUsage:\n\n        dif showv.*");
    }
    EXPECT_EQ(run("dif showdifswitch", DIF_HOST_CLI).first, EINVAL);
    ::testing::internal::CaptureStdout();
    difHostRunCommand(DIF_HOST_DIAGNOSE, "echo out", nullptr, nullptr);
    DBG_Print("%d", DBG_ShowUsageAndErrMsg("alone"));
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "[out]alone\n22");
}

TEST_F(Host, Metrics) {
    const VerifyPointDesc points[] = {
        {2, "PLAIN"},
        {1, "a\"b\\c\n\xE2\x82\xAC\xC0\x80\xED\xA0\x80\xF4\x90\x80\x80\xFF-9012345678901\xF0\x9F\x98\x80\xE2"}};
    ASSERT_EQ(difRegistVerifyPoint(15, points, 2, "test", 1), DIF_OK);
    const std::string bad = "\xEF\xBF\xBD"; /* for each malformed sequence */
    const std::string name =
        "a\\\"b\\\\c\\n\xE2\x82\xAC" + bad + bad + bad + bad + "-9012345678901\xF0\x9F\x98\x80" + bad;
    difVerifyStatisticAdd(15, 1, DIF_STAT_LBA_ERROR);
    setDifVerifyLevelByMid(3, 4);
    std::string text = "# HELP dif_switch Whether DIF is on (1) or off (0).\n# TYPE dif_switch gauge\ndif_switch 1\n"
                       "# HELP dif_crc_version_info System CRC version, which insertion and replacement write.\n"
                       "# TYPE dif_crc_version_info gauge\ndif_crc_version_info{version=\"0x13\"} 1\n"
                       "# HELP dif_verify_level Verify level of a module.\n# TYPE dif_verify_level gauge\n";
    for (int mid = 0; mid < DIF_MID_BUTT; ++mid)
        text += "dif_verify_level{mid=\"" + std::to_string(mid) + "\",module=\"" + g_difModuleName[mid] + "\"} " +
                (mid == 3 ? "4\n" : "2\n");
    text += "# HELP dif_verify_events_total Check calls by what they found at a verify point.\n"
            "# TYPE dif_verify_events_total counter\n";
    for (const std::string &point :
         {"0\",module=\"debug\",point=\"1\",name=\"DEBUG_MOD_COMMON_VERIFY_POINT"s,
          "15\",module=\"reserved\",point=\"1\",name=\"" + name, "15\",module=\"reserved\",point=\"2\",name=\"PLAIN"s})
        for (const std::string &kind : {"verify_ok"s, "version_error"s, "lba_error"s, "crc_error"s})
            text += "dif_verify_events_total{mid=\"" + point + "\",kind=\"" + kind +
                    (point.ends_with("PLAIN") && kind[0] == 'l' ? "\"} 1\n" : "\"} 0\n");
    text += "# HELP dif_host_log_dropped_total Log lines that did not reach a destination.\n"
            "# TYPE dif_host_log_dropped_total counter\ndif_host_log_dropped_total " +
            std::to_string(difHostLogDropped());
    EXPECT_EQ(run("metrics"), Result(0, text + "\n"));
    for (const uint8_t on : std::initializer_list<uint8_t>{0, 200}) {
        setDifOn(on);
        const std::string line = on != 0 ? "\ndif_switch 1\n" : "\ndif_switch 0\n";
        EXPECT_NE(run("metrics", DIF_HOST_CLI).second.find(line), std::string::npos);
    }
    difVerifyMsgGetByMid(15)->verifyPoints[1].pointId = DIF_VERIFY_POINT_FREE; /* as while it is being registered */
    EXPECT_EQ(run("metrics").second.find("PLAIN"), std::string::npos);
    EXPECT_PRED2(matches, run("metrics x").second, "Error: metrics takes no words.\nUsage:\n        metrics\n");
}

TEST_F(Host, OperatorsChangeSettings) {
    difHostSetLogLevel(DIF_HOST_LOG_NOTICE);
    ASSERT_EQ(difHostSetLogFile(path.c_str(), 1 << 20, 1), 0);
    ASSERT_EQ(difHostOpenControlSocket((directory + "/socket").c_str()), 0);
    difVerifyStatisticAdd(0, 0, DIF_STAT_LBA_ERROR);
    for (const char *const line : {"set level Lun 3", "set level 15 0", "set switch off", "set counters 0"})
        EXPECT_EQ(run(line, DIF_HOST_CLI), Result(0, ""));
    uint64_t counters[DIF_STAT_BUTT];
    difVerifyStatisticGet(0, 0, counters);
    EXPECT_EQ(counters[DIF_STAT_LBA_ERROR], 0u);
    EXPECT_EQ(std::make_tuple(getDifVerifyLevelByMid(2), getDifVerifyLevelByMid(15), getDifOn()),
              std::make_tuple(3, 0, 0));
    int status = -1;
    EXPECT_EQ(difHostAttach((directory + "/socket").c_str(), 0, "set switch on", nullptr, nullptr, &status), 0);
    EXPECT_EQ(std::make_pair(status, int{getDifOn()}), std::make_pair(0, 1));
    const std::string usage = "\nUsage:\n        set level MODULE LEVEL | switch on|off | counters 0\n";
    for (const auto &[line, error] : {std::pair{"set level reserved 1", "'reserved' is no module."},
                                      {"set level 16 1", "'16' is no module."},
                                      {"set level lun 5", "'5' is no verify level (0 to 4)."},
                                      {"set level lun 1x", "'1x' is no verify level (0 to 4)."},
                                      {"set switch ON", "'ON' is no state of the switch (on or off)."},
                                      {"set counters 1", "'1' is no count that counters can be set to (0)."},
                                      {"set switch", "set takes one of these, with its words."}})
        EXPECT_EQ(run(line), Result(EINVAL, "Error: "s + error + usage));
    EXPECT_TRUE(difHostFlushLog());
    const std::string by =
        "set switch on: by user " + std::to_string(getuid()) + ", process " + std::to_string(getpid());
    EXPECT_PRED2(matches, content(path),
                 ".*set level Lun 3: by this process.*set level 15 0: .*set switch off: .*"
                 "set counters 0: .*" +
                     by + ".*");
    EXPECT_STREQ(difHostOperator(), "this process");
}

TEST_F(Host, ProgramsAddMetricsAndTestTheirEngines) {
    EXPECT_EQ(difHostRegisterMetrics(nullptr, nullptr), EINVAL);
    static bool isOver = false; /* metrics stay for the process's life */
    const auto render = [](void *context, DifHostPrint print, void *to) {
        if (!isOver)
            print(to, static_cast<const char *>(context), 5);
    };
    char own[] = "own 1";
    ASSERT_EQ(difHostRegisterMetrics(render, own), 0);
    EXPECT_PRED2(matches, run("metrics").second, ".*\ndif_host_log_dropped_total [0-9]+\nown 1");
    isOver = true;
    char why[8] = "nothing";
    EXPECT_EQ(difHostTestEngines(why, sizeof why), 0);
    EXPECT_STREQ(why, "nothing");
}

TEST_F(Host, ServicesNamesClockAndCopies) {
    int method, another;
    const auto find = [](const char *interface, const char *name) { return lookupIntfMethod(interface, name, 0, 0); };
    for (int *const address : {&another, &method})
        EXPECT_EQ(difHostRegisterService("interface", "method", address), 0);
    EXPECT_EQ(find("interface", "method"), &method);
    EXPECT_EQ(find("method", "interface"), nullptr);
    EXPECT_EQ(difHostRegisterService("interface", "method", nullptr), 0);
    EXPECT_EQ(find("interface", "method"), nullptr);
    EXPECT_EQ(difHostRegisterService("a", nullptr, &method), EINVAL);
    char text[8];
    for (const char *const name : {"first", "seven", (const char *)nullptr})
        osal_pid_set_name(7, name);
    EXPECT_TRUE(difHostModuleName(7, text, 5));
    EXPECT_STREQ(text, "seve");
    EXPECT_FALSE(difHostModuleName(8, text, 5));
    const uint64_t ticks = osal_get_jiffies(), start = osal_time_getnanosec();
    usleep(100'000);
    const double ticked = static_cast<double>(osal_get_jiffies() - ticks);
    const double passed = static_cast<double>(osal_time_getnanosec() - start);
    EXPECT_TRUE(passed >= 1e8 && passed < 1e10) << passed;
    const std::chrono::nanoseconds now = std::chrono::steady_clock::now().time_since_epoch();
    EXPECT_NEAR(static_cast<double>(now.count()), static_cast<double>(start), 1e10);
    EXPECT_NEAR(ticked, passed / 1e9 * 250, 1.5);
    const auto copy = [&text](size_t destMax, const char *from, size_t count) {
        strcpy(text, "?");
        const int error = strncpy_s(text, destMax, from, count);
        return Result(error, text);
    };
    EXPECT_EQ(copy(4, "abc", 9), Result(0, "abc"));
    EXPECT_EQ(copy(4, "abcdef", 3), Result(0, "abc"));
    EXPECT_EQ(copy(4, "abcd", 4), Result(ERANGE, ""));
    EXPECT_EQ(copy(4, "abcdef", 9), Result(ERANGE, ""));
    EXPECT_EQ(copy(4, "abc", SIZE_MAX), Result(ERANGE, ""));
    EXPECT_EQ(copy(4, nullptr, 1), Result(EINVAL, ""));
    EXPECT_EQ(copy(0, "abc", 1), Result(ERANGE, "?"));
    EXPECT_EQ(copy(SIZE_MAX, "abc", 1), Result(ERANGE, "?"));
    strcpy(text, "abcdef");
    EXPECT_EQ(strncpy_s(text, 4, text + 3, 3), EINVAL);
    EXPECT_EQ(strncpy_s(nullptr, 4, "abc", 3), EINVAL);
}

TEST_F(Host, LogLines) {
    umask(022);
    ASSERT_EQ(difHostSetLogFile(path.c_str(), 100'000, 1), 0);
    struct stat found;
    EXPECT_EQ(stat(path.c_str(), &found) == 0 ? found.st_mode : 0, S_IFREG | 0644u);
    CaptureStderr();
    osal_pid_set_name(9, "ni\nne");
    const std::string stamp =
        "\\[[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\\.[0-9]{3}\\] \\[" + std::to_string(gettid()) + "\\] ";
    std::string pattern;
    difHostSetLogLevel(9);
    uint32_t level = 0;
    for (const std::string &severity :
         {"ASSERT"s, "ALERT"s, "CRITICAL"s, "ERROR"s, "WARNING"s, "NOTICE"s, "INFO"s, "DEBUG"s, "DEBUG"s}) {
        hostlog(9, level++, "file", 42, "func", 4660, "\n\t\x1F\x7F \xC3\xA9 %s", severity.c_str());
        pattern +=
            stamp + severity + R"( ni\\nne file/func:42 \[4660\] \\n\\x09\\x1f\\x7f )" + "\xC3\xA9 " + severity + "\n";
    }
    difHostSetLogLevel(DIF_HOST_LOG_WARNING);
    EXPECT_EQ(difHostGetLogLevel(), 4u);
    EXPECT_TRUE(hostlog_level_check(9, 4) == 0 && hostlog_level_check(9, 5) != 0);
    hostlog_standard(10, 4, nullptr, -1, 0, "%s", "bare");
    hostlog_standard(10, 5, nullptr, -1, 0, "filtered");
    pattern += stamp + R"(WARNING 10 \?:-1 \[0\] bare)" + "\n";
    std::thread([&] {
        hostlog_standard(10, 3, "elsewhere", 1, 0, "by %d", gettid());
        pattern += "[^\n]*\\[" + std::to_string(gettid()) + "\\] ERROR 10 elsewhere:1 [^\n]*\n";
    }).join();
    difHostSetLogStderr(false);
    EXPECT_TRUE(difHostFlushLog());
    const std::string both = content(path);
    EXPECT_PRED2(matches, both, pattern);
    log(1);
    EXPECT_TRUE(difHostFlushLog());
    difHostSetLogStderr(true);
    EXPECT_GT(content(path).size(), both.size());
    EXPECT_EQ(GetCapturedStderr(), both);
}

TEST_F(Host, LogFilesAreRotatedRefusedAndGivenUp) {
    CaptureStderr();
    log(1);
    EXPECT_EQ(difHostSetLogFile((path + "/no").c_str(), 1, 1), ENOENT);
    EXPECT_EQ(difHostSetLogFile(path.c_str(), 0, 1), EINVAL);
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(difHostSetLogFile(path.c_str(), 1, 200'001), EINVAL);
    ASSERT_EQ(difHostSetLogFile(path.c_str(), 150, 2), 0);
    log(9); /* two a file */
    EXPECT_TRUE(difHostFlushLog());
    EXPECT_EQ(difHostSetLogFile("/dev/full", 100, 1), 0);
    EXPECT_PRED2(matches, content(path), "[^\n]*line 8\n");
    EXPECT_PRED2(matches, content(path + ".1"), "[^\n]*line 6\n[^\n]*line 7\n");
    EXPECT_TRUE(std::filesystem::exists(path + ".2") && !std::filesystem::exists(path + ".3"));
    const uint64_t dropped = difHostLogDropped();
    for (int i = 0; i < 2; ++i) {
        log(1);
        EXPECT_TRUE(difHostFlushLog());
        EXPECT_EQ(difHostLogDropped() - dropped, 1u);
    }
    difHostSetLogStderr(false); /* nor does it hear of this one */
    EXPECT_EQ(difHostSetLogFile("/dev/full", 100, 1), 0);
    log(1);
    EXPECT_TRUE(difHostFlushLog());
    difHostSetLogStderr(true);
    EXPECT_PRED2(matches, GetCapturedStderr(),
                 "[^\n]*line 0\n.*line 8\n[^\n]*line 0\n[^\n]*ERROR dif_host log \\[0\\] log file /dev/full given up: "
                 ".*No space left on device\n[^\n]*line 0\n");
}

TEST_F(Host, LogHoldsNobodyUp) {
    const int console = dup(STDERR_FILENO), other = stickStandardError();
    ASSERT_EQ(difHostSetLogFile(path.c_str(), 10'000'000, 1), 0);
    const uint64_t before = difHostLogDropped();
    log(4000);
    EXPECT_FALSE(difHostFlushLog());
    EXPECT_PRED2(matches, content(path), ".*line 3999\n"); /* which is not held up either */
    const auto start = std::chrono::steady_clock::now();
    log(4001);
    EXPECT_FALSE(difHostFlushLog()); /* known by now */
    const uint64_t dropped = difHostLogDropped() - before;
    EXPECT_EQ(dropped, 8001u - 4096u - 1u); /* what the queue does not hold, nor who waits to write */
    EXPECT_LT(std::chrono::steady_clock::now() - start, 900ms);
    auto reading = std::async(std::launch::async, [other] { return readAll(other, 20'000); });
    usleep(500'000);
    EXPECT_TRUE(difHostFlushLog()); /* it takes over a second, but lines are written all the time */
    dup2(console, STDERR_FILENO);
    const std::string text = reading.get();
    const std::string missing = "WARNING dif_host log [0] " + std::to_string(dropped) + " log lines are missing here\n";
    EXPECT_LT(text.find("line 0\n"), text.find(missing));
    EXPECT_LT(text.find(missing), text.find("line 3905\n"));
    EXPECT_EQ(text.find("missing"), text.rfind("missing")); /* that is said once, */
    EXPECT_EQ(difHostLogDropped() - before, dropped);
}

TEST_F(Host, NothingIsLostAtTheEnd) {
    uint8_t block[520];
    DifOpParam op{DIF_DATA_520, DIF_INSERT_CRC, 0, nullptr};
    EXPECT_EXIT(insertDif(block, 0, &op), ::testing::KilledBySignal(SIGILL),
                "dif_host/insertDif:[0-9]+ \\[0\\] this must not happen \\(see the lines before\\)\\. The process");
    EXPECT_EXIT((log(1000), exit(3 + (difHostLogDropped() != 0))), ::testing::ExitedWithCode(3),
                "line 0\n(.*\n){998}.*line 999\n$");
    EXPECT_EXIT(insertDif(block, 1, nullptr), ::testing::KilledBySignal(SIGILL),
                "ASSERT DIF dif_host/insertDif:[0-9]+ \\[0\\] this does not hold: .*The process stops \\(SIGILL.*"
                "difHostSetAssertPolicy\\(DIF_HOST_ASSERT_GO_ON\\).*\n.*ASSERT DIF insertDif.*Assert fail: \\(0\\)\n$");
    EXPECT_EXIT((difHostSetAssertPolicy(DIF_HOST_ASSERT_GO_ON), insertDif(block, 1, nullptr), exit(4)),
                ::testing::ExitedWithCode(4), "ASSERT DIF dif_util/insertDif:[0-9]+ .*\n$");
    EXPECT_EXIT((stickStandardError(), log(1), exit(5)), ::testing::ExitedWithCode(5), "");
    EXPECT_EXIT((stickStandardError(), insertDif(block, 1, nullptr)), ::testing::KilledBySignal(SIGILL), "");
}

TEST(HostAlone, NoticesOnceThatTheLibraryWasNotStarted) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const VerifyPointDesc point = {1, "POINT"};
    const auto registerPoint = [&] { difRegistVerifyPoint(DIF_MID_LUN, &point, 1, "test", 1); };
    EXPECT_EXIT(
        (registerPoint(), registerPoint(), exit(0)), ::testing::ExitedWithCode(0),
        "^[^\n]*ERROR dif_host .*difModuleInit has not been called[^\n]*\n[^\n]*regist[^\n]*\n[^\n]*regist[^\n]*\n$");
    EXPECT_EXIT((difHostSetLogLevel(0), registerPoint(), exit(0)), ::testing::ExitedWithCode(0), "^$");
    EXPECT_EXIT(exit(static_cast<int>(difHostGetLogLevel())), ::testing::ExitedWithCode(DIF_HOST_LOG_NOTICE), "");
}

TEST_F(Host, ControlSocketAnswersWithOutputAndStatus) {
    ASSERT_EQ(difHostOpenControlSocket(path.c_str()), 0);
    EXPECT_EQ(attach("echo 'a b' c"), Result(3, "[a b][c]"));
    EXPECT_EQ(attach("echo", 0, DIF_HOST_CLI).first, ENOENT);
    EXPECT_EQ(readAll(client("diagnose echo x\nignored")), "[x]\0002\n"s);
    EXPECT_EQ(readAll(client("\a\n")), "Error: unknown shell '\\x07', expected 'diagnose' or 'cli'.\n\00022\n"s);
    const Result cut = attach("spill");
    EXPECT_EQ(cut.first, EFBIG);
    EXPECT_EQ(cut.second.substr(1 << 20), "\nError: the output is cut after 1048576 bytes.\n");
    EXPECT_EQ(attach("reopen " + path).first, EADDRINUSE); /* a command of the service cannot end it */
    attach("echo\necho", EINVAL);
    attach("echo", EINVAL, 2);
    EXPECT_EQ(attach("echo " + std::string(4082, 'x')).first, 2); /* the longest */
    attach(std::string(4088, 'x'), EMSGSIZE);
    EXPECT_EQ(difHostAttach(path.c_str(), 0, "echo", collect, nullptr, nullptr), EINVAL);
    const int waiting = client("diagnose reopen x\n");
    usleep(50'000);
    difHostCloseControlSocket(); /* nor does it wait for who ends it */
    EXPECT_EQ(readAll(waiting), "\00098\n"s);
    attach("echo", ENOENT);
}

TEST_F(Host, ThreadsAndDescriptorsKeepToThemselves) {
    const auto inheritable = [] {
        int num = 0;
        for (int fd = 0; fd < 256; ++fd)
            num += fcntl(fd, F_GETFD) == 0;
        return num;
    };
    const auto before = inheritable();
    ASSERT_EQ(difHostOpenControlSocket(path.c_str()), 0);
    ASSERT_EQ(difHostSetLogFile((path + ".log").c_str(), 1000, 1), 0);
    const int silent = client("diagnose");
    EXPECT_EQ(attach("echo").first, 1); /* and so the silent one is accepted by now */
    EXPECT_EQ(inheritable(), before + 1) << "but for the client's end, none";
    log(1); /* standard error has a thread, too */
    std::string names;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        const std::string status = content(task.path() / "status");
        const uint64_t blocked = std::stoull(status.substr(status.find("SigBlk:") + 7), nullptr, 16);
        EXPECT_EQ(blocked >> (SIGTERM - 1) & 1, task.path().filename() == std::to_string(gettid()) ? 0u : 1u) << status;
        names += status.substr(0, status.find('\n')) + " ";
    }
    EXPECT_NE(names.find("dif-control "), std::string::npos) << names;
    close(silent);
}

TEST_F(Host, ControlSocketHasANameOfItsOwn) {
    const auto open = [](const std::string &at) { return difHostOpenControlSocket(at.c_str()); };
    const int alive = server();
    EXPECT_EQ(open(path), EADDRINUSE);
    close(alive); /* leaves a stale name */
    attach("echo", ECONNREFUSED);
    const mode_t before = umask(0377);
    ASSERT_EQ(open(path), 0);
    umask(before);
    EXPECT_EQ(open(path + "2"), EADDRINUSE);
    struct stat found;
    ASSERT_EQ(stat(path.c_str(), &found), 0);
    EXPECT_EQ(found.st_mode, S_IFSOCK | 0600u);
    std::filesystem::remove(path);
    const int other = server();
    difHostCloseControlSocket(); /* must not remove what is another's by now */
    EXPECT_EQ(open(path), EADDRINUSE);
    close(other);
    std::filesystem::remove(path);
    std::ofstream{path};
    EXPECT_EQ(open(path), ENOTSOCK);
    EXPECT_EQ(open(directory + "/"), EISDIR);
    EXPECT_EQ(open(""), ENOENT);
    const std::string longest = directory + "/" + std::string(106 - directory.size(), 'x');
    EXPECT_EQ(open(longest + "x"), ENAMETOOLONG);
    EXPECT_EQ(difHostOpenControlSocket(nullptr), EINVAL);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory), {}), 1); /* nothing else stays */
    EXPECT_EQ(open(longest), 0);
    difHostCloseControlSocket();
    const std::filesystem::path home = std::filesystem::current_path();
    std::filesystem::current_path(directory);
    EXPECT_EQ(open("here"), 0);
    std::filesystem::current_path(home);
}

TEST_F(Host, ControlSocketBelongsToItsProcess) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "ThreadSanitizer starts no threads in a child of fork";
#endif
    ASSERT_EQ(difHostOpenControlSocket(path.c_str()), 0);
    ASSERT_EQ(difHostSetLogFile((path + ".log").c_str(), 1'000'000, 1), 0);
    const int silent = client("diagnose");
    EXPECT_EQ(attach("echo").first, 1);
    log(1000);
    int hold[2]; /* keeps a grandchild until this process closes its end */
    ASSERT_EQ(pipe(hold), 0);
    const pid_t child = fork();
    if (child == 0) {
        difHostCloseControlSocket();
        path += "2";
        const bool works = content(directory + "/file.log").ends_with("line 999\n") &&
                           difHostOpenControlSocket(path.c_str()) == 0 && attach("echo 1") == Result(2, "[1]");
        log(1);
        if (fork() == 0) {
            close(hold[1]);
            _exit(static_cast<int>(readAll(hold[0]).size()));
        }
        _exit(works && difHostFlushLog() ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    std::filesystem::permissions(directory, std::filesystem::perms::all);
    std::filesystem::permissions(path, std::filesystem::perms::all);
    const std::string notTheOwner = "Error: this control socket is its owner's alone.\n\00013\n"s;
    if (geteuid() == 0 && fork() == 0)
        _exit(setuid(1) == 0 && readAll(client("")) == notTheOwner ? 0 : 1);
    EXPECT_TRUE(geteuid() != 0 || (wait(&status) > 0 && status == 0));
    EXPECT_EQ(attach("echo 1"), Result(2, "[1]"));
    difHostCloseControlSocket();
    EXPECT_EQ(readAll(silent), "");                             /* though the grandchild has the other end, too */
    while (difHostOpenControlSocket((path + "2").c_str()) != 0) /* the grandchild does not keep it, once it runs */
        usleep(1000);
    close(hold[1]);
}

TEST_F(Host, HostileClientsHurtNobody) {
    ASSERT_EQ(difHostOpenControlSocket(path.c_str()), 0);
    for (int i = 0; i < 10; ++i) {
        close(client(i % 2 == 0 ? "diagnose spill\n" : "diagnose ech"));
        EXPECT_EQ(readAll(client(std::string(100000, '\xEE'))),
                  "Error: the request line exceeds 4096 bytes.\n\00090\n"s);
        EXPECT_EQ(readAll(client("diagnose e\0c\n"s)), "Error: the request line holds a NUL byte.\n\00022\n"s);
        EXPECT_EQ(attach("echo 1"), Result(2, "[1]"));
    }
    std::vector<int> silent;
    while (silent.size() < 7)
        silent.push_back(client("diagnose"));
    EXPECT_EQ(attach("echo 1"), Result(2, "[1]")); /* and so they are heard by now */
    send(silent[0], " ", 1, 0);
    silent.push_back(client("diagnose"));
    std::swap(silent[0], silent[1]);
    EXPECT_EQ(attach("echo 1"), Result(2, "[1]")); /* in the place of the one that was idle the longest */
    EXPECT_EQ(readAll(silent[0]), "Error: too many clients, this one was idle the longest.\n\00016\n"s);
    std::for_each(silent.begin() + 1, silent.end(), close);
    difHostSetControlPatience(300);
    const auto start = std::chrono::steady_clock::now();
    const int slow = client("diagnose spill\n"); /* reads nothing */
    EXPECT_EQ(readAll(client("diagnose")), "");  /* once it is dropped */
    EXPECT_TRUE(std::chrono::steady_clock::now() - start >= 300ms && std::chrono::steady_clock::now() - start < 4s);
    EXPECT_EQ(attach("echo 1"), Result(2, "[1]"));
    EXPECT_PRED2(matches, readAll(slow), "[0-9 ]+");
}

TEST_F(Host, ClientsGiveUpOnBadServers) {
    const int listener = server();
    const std::string endless(2 << 20, 'x');
    for (const std::string &answer : {"half\0001x\n"s, "half\00012"s, endless + "\0001\n"s}) {
        auto attached = std::async(std::launch::async, [&] { return attach("echo", EPROTO).second; });
        const int fd = accept(listener, nullptr, nullptr);
        char first;
        EXPECT_EQ(recv(fd, &first, 1, MSG_PEEK), 1); /* the request, which is never read */
        send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
        close(fd);
        const std::string output = attached.get();
        EXPECT_TRUE(output == answer || (answer.size() > 9 && output.size() < 3 << 19)) << output.size();
    }
    difHostSetControlPatience(300);
    auto attached = std::async(std::launch::async, [&] { attach("echo", ETIMEDOUT); });
    const int slow = accept(listener, nullptr, nullptr);
    while (attached.wait_for(100ms) != std::future_status::ready && send(slow, "x", 1, MSG_NOSIGNAL) == 1)
        ;
    close(slow);
    attach("echo", ETIMEDOUT); /* nobody accepts */
    attach("echo", ETIMEDOUT); /* nor is there room for one more to wait */
    EXPECT_EQ(difHostOpenControlSocket(path.c_str()), EADDRINUSE);
    close(listener);
}

} /* namespace */
