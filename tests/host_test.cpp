/* Commands, metrics and the control socket of the host, with the library in it. */
#include "dif/dif.h"
#include "dif_host.h"
#include "platform/dbg_cmd.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <future>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using namespace std::string_literals;
using Result = std::pair<int, std::string>; // status and output

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

int32_t spill(int32_t /*argc*/, char ** /*argv*/) { // three times what an answer holds
    for (int i = 0; i < 3 << 10; ++i)
        DBG_Print("%1024d", i);
    return 0;
}

int32_t refuse(int32_t argc, char ** /*argv*/) {
    return DBG_ShowUsageAndErrMsg(argc > 1 ? "Error: no." : nullptr);
}

int32_t help(const char *name, uint32_t detail) { // asks for the usage, which must not end up here again
    DBG_Print("(%s %u)\n", name, detail);
    return DBG_ShowUsageAndErrMsg(nullptr);
}

int32_t breed(int32_t /*argc*/, char **argv) { // registers a word and runs it
    const DbgCmdReg word = {"bred", "", echo, help};
    EXPECT_EQ(DBG_RegCmd(&word), 0);
    DBG_Print("<");
    const Result inner = run("bred "s + argv[1]);
    DBG_Print(">%s", inner.second.c_str());
    return DBG_UnRegCmd("bred");
}

constexpr DbgCmdReg kWords[] = {{"echo", "shows its words", echo, help},
                                {"spill", "", spill, help},
                                {"refuse", "", refuse, help},
                                {"breed", "", breed, help}};

class Host : public ::testing::Test {
protected:
    void SetUp() override {
        difHostSetLogLevel(DIF_HOST_LOG_ERROR);
        difModuleInit();
        for (const DbgCmdReg &word : kWords)
            ASSERT_EQ(DBG_RegCmd(&word), 0);
    }
    void TearDown() override {
        difModuleExit();
        for (const DbgCmdReg &word : kWords)
            EXPECT_EQ(DBG_UnRegCmd(word.name), 0);
    }
};

TEST_F(Host, SplitsLinesAsTheShellDoes) {
    const auto shell = [](const std::string &line) {
        std::string output(1000, '\0');
        setenv("LINE", line.c_str(), 1);
        FILE *const pipe = popen("eval \"printf '[%s]' $LINE\" 2>/dev/null", "r");
        output.resize(fread(output.data(), 1, output.size(), pipe));
        return pclose(pipe) == 0 ? output : "open quote";
    };
    std::vector<std::string> lines = {"a\\\nb", "\"a\\\nb\" c", R"("\a\$\`\"\\" '\a"')", "\"a\nb\"\tc"};
    std::mt19937 random(1);
    for (int i = 0; i < 150; ++i)
        for (lines.emplace_back("x"); random() % 16 != 0;)
            lines.back() += "ab \t\t'\"\\"[random() % 8];
    for (const std::string &line : lines) {
        const Result result = run("echo " + line);
        EXPECT_EQ(result.first == EINVAL ? "open quote" : result.second, shell(line)) << line;
    }
    EXPECT_EQ(run("echo 'a b' \"c"), Result(EINVAL, "Error: the quote \" at column 12 is not closed.\n"));
    EXPECT_EQ(run(" \t"), Result(0, ""));
}

TEST_F(Host, Registries) {
    DbgCmdReg word = {"1234567890123456789", "", echo, help};
    memset(word.description, 'd', sizeof word.description); // needs no NUL
    DbgCmdReg unnamed = word, unterminated = word, idle = word, mute = word, builtIn = {"help", "", echo, help};
    unnamed.name[0] = '\0';
    unterminated.name[19] = 'x';
    idle.doCmd = nullptr;
    mute.doHelp = nullptr;
    for (const auto regist : {DBG_RegCmd, DBG_RegCmdToCLI}) {
        for (const DbgCmdReg *const bad :
             std::initializer_list<DbgCmdReg *>{&unnamed, &unterminated, &idle, &mute, &builtIn, nullptr})
            EXPECT_NE(regist(bad), 0);
        EXPECT_EQ(regist(&word), 0);
        EXPECT_NE(regist(&word), 0);
    }
    std::string words;
    const auto add = [](void *to, const char *name, const char *text) {
        *static_cast<std::string *>(to) += name + ":"s + text + " ";
    };
    EXPECT_EQ(difHostForEachCommand(DIF_HOST_CLI, add, &words), 0);
    EXPECT_PRED2(matches, words, "1234567890123456789:d{64} dif:cli function of dif help:.* metrics:.*");
    word.doCmd = refuse; // the registry has its own copy
    EXPECT_EQ(DBG_UnRegCmdToCLI(word.name), 0);
    EXPECT_EQ(run("1234567890123456789", DIF_HOST_CLI).first, ENOENT);
    EXPECT_EQ(run("1234567890123456789 a b"), Result(3, "[a][b]"));
    EXPECT_EQ(DBG_UnRegCmd(word.name), 0);
    for (const auto unregist : {DBG_UnRegCmd, DBG_UnRegCmdToCLI})
        for (const char *const bad : std::initializer_list<const char *>{"help", "metrics", "missing", nullptr})
            EXPECT_NE(unregist(bad), 0);
    EXPECT_EQ(run("echo", 2), Result(EINVAL, ""));
    EXPECT_EQ(difHostRunCommand(DIF_HOST_CLI, nullptr, collect, nullptr), EINVAL);
}

TEST_F(Host, CommandsHelpAndUsage) {
    EXPECT_EQ(run("refuse"), Result(EINVAL, "Usage:\n(refuse 0)\n"));
    EXPECT_EQ(run("refuse it"), Result(EINVAL, "Error: no.\nUsage:\n(refuse 0)\n"));
    EXPECT_EQ(run("missing"), Result(ENOENT, "Error: unknown command 'missing', 'help' lists the commands.\n"));
    EXPECT_EQ(run("help missing"), run("missing"));
    EXPECT_EQ(run("help a b").first, EINVAL);
    EXPECT_EQ(run("breed young"), Result(0, "<>[young]")); // the inner output went elsewhere
    EXPECT_PRED2(matches, run("help echo").second, "\\(echo 1\\)\nUsage:\n        help \\[WORD\\]\n");
    EXPECT_PRED2(matches, run("help").second,
                 ".*dif  +diagnose function of dif\n\n        dif showverifylevel\n.*"
                 "echo  +shows its words\n\\(echo 0\\)\n.*        metrics\n.*");
    EXPECT_EQ(run("dif showdifswitch"), Result(0, "dif switch status: on\n"));
    EXPECT_PRED2(matches, run("help dif").second, "SYNOPSIS\n        dif showverifylevel  .*");
    EXPECT_PRED2(matches, run("dif showdifswitch", DIF_HOST_CLI).second,
                 "Error: invalid input!\nUsage:\n\n        dif showv.*");
    ::testing::internal::CaptureStdout();
    difHostRunCommand(DIF_HOST_DIAGNOSE, "echo out", nullptr, nullptr);
    DBG_Print("%d", DBG_ShowUsageAndErrMsg("alone"));
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "[out]alone\n22");
}

/* Registers points with the name in every module but the library's own. */
void registerAll(const std::string &name, uint8_t count) {
    std::vector<VerifyPointDesc> points;
    for (uint8_t id = 1; id <= count; ++id)
        points.push_back({id, name.c_str()});
    for (uint32_t mid = 1; mid < DIF_MID_BUTT; ++mid)
        ASSERT_EQ(difRegistVerifyPoint(mid, points.data(), count, "test", 1), DIF_OK);
}

TEST_F(Host, MetricsKeepTheRulesOfTheFormat) {
    registerAll("a\"b\\c\nd\xC3\xA9\xE2\x82\xAC\xC0\x80\xED\xA0\x80\xF4\x90\x80\x80\xFF-9012345\xF0\x9F\x98\x80", 2);
    difVerifyStatisticAdd(15, 1, DIF_STAT_LBA_ERROR);
    setDifVerifyLevelByMid(3, 4);
    std::string name = "a\\\"b\\\\c\\nd\xC3\xA9\xE2\x82\xAC";
    for (int malformed = 0; malformed < 10; ++malformed)
        name += "\xEF\xBF\xBD";
    name += "-9012345\xF0\x9F\x98\x80";

    const std::string label = R"([a-z]+="([^"\]|\\["\n])*")";
    std::istringstream text(run("metrics").second);
    std::map<std::string, std::string> samples; // value by series
    std::set<std::string> families;
    for (std::string line, family; std::getline(text, line);) {
        if (line.starts_with("# HELP ")) {
            family = line.substr(7, line.find(' ', 7) - 7);
            EXPECT_TRUE(families.insert(family).second) << line;
            std::getline(text, line);
            EXPECT_EQ(line, "# TYPE " + family + (family.ends_with("_total") ? " counter" : " gauge"));
            continue;
        }
        EXPECT_PRED2(matches, line, family + "(\\{" + label + "(," + label + ")*\\})? [0-9]+");
        EXPECT_TRUE(samples.emplace(line.substr(0, line.rfind(' ')), line.substr(line.rfind(' ') + 1)).second) << line;
    }
    EXPECT_EQ(samples.size(), 2u + 16u + 4u * (1u + 15u * 2u));
    const std::string point =
        R"(dif_verify_events_total{mid="15",module="reserved",point="2",name=")" + name + R"(",kind=")";
    EXPECT_EQ(samples["dif_switch"] + samples[R"(dif_crc_version_info{version="0x13"})"], "11");
    EXPECT_EQ(samples[R"(dif_verify_level{mid="3",module="volume"})"], "4");
    EXPECT_EQ(samples[point + "lba_error\"}"] + samples[point + "crc_error\"}"], "10");
    EXPECT_EQ(run("metrics x", DIF_HOST_CLI).first, EINVAL);
}

class ControlSocket : public Host {
protected:
    void SetUp() override {
        Host::SetUp();
        umask(0);
        ASSERT_NE(mkdtemp(directory_.data()), nullptr);
        path = directory_ + "/control";
    }
    void TearDown() override {
        difHostCloseControlSocket();
        EXPECT_EQ(system(("rm -r " + directory_).c_str()), 0);
        Host::TearDown();
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
    static std::string readAll(int fd) { // to the end, which closes it
        std::string text;
        char piece[4096];
        for (ssize_t size; (size = recv(fd, piece, sizeof piece, 0)) > 0;)
            text.append(piece, static_cast<size_t>(size));
        close(fd);
        return text;
    }

    std::string path;

private:
    std::string directory_ = "/tmp/host_test.XXXXXX";
};

TEST_F(ControlSocket, AnswersWithOutputAndStatus) {
    ASSERT_EQ(difHostOpenControlSocket(path.c_str()), 0);
    EXPECT_EQ(attach("echo 'a b' c"), Result(3, "[a b][c]"));
    EXPECT_EQ(attach("echo", 0, DIF_HOST_CLI).first, ENOENT);
    EXPECT_EQ(readAll(client("diagnose echo x\nignored")), "[x]\0002\n"s);
    EXPECT_EQ(readAll(client("shell x\n")), "Error: unknown shell 'shell', expected 'diagnose' or 'cli'.\n\00022\n"s);
    EXPECT_EQ(attach("spill").first, EFBIG);
    registerAll(std::string(39, '\xFF'), 64); // the most that there can be
    EXPECT_EQ(attach("metrics"), run("metrics"));
    attach("echo\necho", EINVAL);
    attach("echo", EINVAL, 2);
    attach(std::string(4096, 'x'), EMSGSIZE);
    difHostCloseControlSocket();
    attach("echo", ENOENT);
}

TEST_F(ControlSocket, NameIsSafeAndItsOwn) {
    const auto open = [](const std::string &at) { return difHostOpenControlSocket(at.c_str()); };
    const int other = server();
    EXPECT_EQ(open(path), EADDRINUSE);
    close(other); // leaves a stale name
    attach("echo", ECONNREFUSED);
    ASSERT_EQ(open(path), 0);
    EXPECT_EQ(open(path), EADDRINUSE);
    struct stat found;
    ASSERT_EQ(stat(path.c_str(), &found), 0);
    EXPECT_EQ(found.st_mode, S_IFSOCK | 0600u);
    ASSERT_EQ(system(("rm " + path + "; touch " + path).c_str()), 0);
    difHostCloseControlSocket(); // must not remove what it has not made
    EXPECT_EQ(open(path), ENOTSOCK);
    EXPECT_EQ(stat(path.c_str(), &found), 0);
    EXPECT_EQ(open(path + "/x"), ENOTDIR);
    EXPECT_EQ(open(std::string(108, 'x')), ENAMETOOLONG);
    EXPECT_EQ(difHostOpenControlSocket(nullptr), EINVAL);
}

TEST_F(ControlSocket, HostileClientsHurtNobody) {
    ASSERT_EQ(difHostOpenControlSocket(path.c_str()), 0);
    for (int i = 0; i < 10; ++i) {
        close(client(i % 2 == 0 ? "diagnose spill\n" : "diagnose ech"));
        EXPECT_EQ(readAll(client(std::string(100000, '\xEE'))),
                  "Error: the request line exceeds 4096 bytes.\n\00090\n"s);
        EXPECT_EQ(readAll(client("diagnose e\0c\n"s)), "Error: the request line holds a NUL byte.\n\00022\n"s);
        EXPECT_EQ(attach("echo 1"), Result(2, "[1]"));
    }
    const auto start = std::chrono::steady_clock::now();
    const int slow = client("diagnose spill\n"); // reads nothing
    std::vector<int> silent;
    while (silent.size() < 7)
        silent.push_back(client("diagnose"));
    EXPECT_EQ(attach("echo"), Result(EBUSY, "Error: too many clients, try again in a few seconds.\n"));
    for (const int fd : silent)
        EXPECT_EQ(readAll(fd), ""); // once they are dropped
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(attach("echo 1"), Result(2, "[1]"));
    EXPECT_PRED2(matches, readAll(slow), "[0-9 ]+");
}

TEST_F(ControlSocket, ClientsGiveUpOnBadServers) {
    const int listener = server();
    auto attached = std::async(std::launch::async, [&] { return attach("echo", EPROTO).second; });
    const int fd = accept(listener, nullptr, nullptr);
    send(fd, "half\0001x\n", 8, 0);
    close(fd);
    EXPECT_EQ(attached.get(), "half\0001x\n"s);
    attach("echo", ETIMEDOUT); // nobody accepts
    close(listener);
}

} // namespace
