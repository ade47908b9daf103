#include "chain.h"
#include "fake_host.h"
#include "model.h"

#include <csignal>

namespace {

using Logging = StartedDif;
using Call = std::function<void()>;

struct Attempt {
    uint64_t tick; /* counted from the first one */
    bool isWritten;
    uint32_t reported = 0; /* suppressed messages, before the message */
};

/* Attempts of a site with that gate level, all of whose limiter is free. */
void expectAttempts(const std::vector<Attempt> &attempts, uint32_t gate, const std::string &function,
                    const std::string &message, const Call &attempt) {
    attempt(); // reports what earlier tests left
    host.later();
    host.filtered = 1u << gate; // what the gate filters leaves the limiter as it is
    for (int i = 0; i < 5; ++i)
        attempt();
    host.filtered = ~host.filtered;
    host.take();
    host.wantsReports = true;
    const uint64_t start = host.tick;
    for (const Attempt &row : attempts) {
        SCOPED_TRACE(format("attempt %td", &row - attempts.data()));
        host.tick = start + row.tick;
        attempt();
        const Lines events = host.take();
        Lines want = row.isWritten ? Lines{message} : Lines{};
        if (row.reported != 0 && !events.empty())
            want.insert(want.begin(), format("level %u, dif_util, %s, 0: print: %u messages suppressed.%s,line=%d.",
                                             gate, function.c_str(), row.reported, function.c_str(), host.lines[0]));
        EXPECT_EQ(events, want);
        EXPECT_TRUE(events.empty() || host.lines.front() == host.lines.back());
    }
}

/* Credit grows by one a tick up to three intervals, and a message costs an interval. */
TEST_F(Logging, CreditLimiter) {
    Blocks blocks(DIF_DATA_520, 1);
    blocks.set(0, kOnes);
    Check check(DIF_DATA_520, DIF_CHECK_CONVERT_T10);
    constexpr uint64_t I = 75000;
    const std::vector<Attempt> attempts = {
        {0, true},          {0, true},         {0, true},      {0, false}, // all credit
        {I - 1, false},     {I - 1, false},    {I, true, 3},               // dropped attempts keep what has gathered
        {5 * I, true},      {5 * I, true},     {5 * I, true},  {5 * I, false},  // no more than three
        {11 * I - 1, true}, {11 * I, true, 1}, {11 * I, true}, {11 * I, false}, // ten intervals between reports
        {11 * I - 2, true},                                                     // time goes back
    };
    const std::string text = format("DIF_INTEGRITY_CHECK_INFO: version(0xFF), app(0xFF), difPtr(%p), type(0),"
                                    "ctrlFlag(0x40080000), mid(4), subPid(1), crcLevel(2), lbaLevel(2).",
                                    static_cast<void *>(blocks.dif(0)));
    expectAttempts(attempts, 6, "tryCheckDifIntegrity", limited(6, "tryCheckDifIntegrity", text),
                   [&] { checkBuffer(blocks.data(0), 1, &check.param); });
}

/* Three messages a period, which starts anew with every message written. */
TEST_F(Logging, BurstLimiter) {
    constexpr uint64_t I = 15000;
    const std::vector<Attempt> attempts = {
        {0, true},
        {I - 1, true},
        {2 * I - 2, true},
        {2 * I - 2, false},
        {3 * I - 3, false},
        {3 * I - 2, true, 2},
        {3 * I, true},
        {3 * I, true},
        {3 * I, false},
        {4 * I, true},
        {13 * I - 3, true}, // ten intervals between reports
        {14 * I - 3, true, 1},
    };
    expectAttempts(attempts, 3, "checkDif", limited(3, "checkDif", "Input error, buf is (nil), param is (nil)."),
                   [] { checkBuffer(nullptr, 1, nullptr); });
}

/* Every limited site: three messages at once, none until an interval has passed, then one or three again. */
TEST_F(Logging, LimitsInUse) {
    Blocks blocks(DIF_DATA_520, 1);
    uint8_t *const buf = blocks.data(0);
    Chain empty(Lengths{{}}), chain(Lengths{{520}});
    const Sgl *const sgl = chain.at(0);
    Check zero(DIF_DATA_520_ZERO, 0), good(DIF_DATA_520, 0);
    DifCheckParam *const bad = &zero.param, *const none = &good.param;
    const auto found = [&](const Tuple &tuple, uint32_t flags) {
        return [=, &blocks] {
            Check check(DIF_DATA_520, flags);
            blocks.set(0, tuple);
            checkBuffer(blocks.data(0), 1, &check.param);
        };
    };
    const auto foundInList = [=](const Tuple &tuple, uint32_t flags) {
        return [=] {
            Check check(DIF_DATA_520, flags);
            putTuple(sgl->entries[0].buf + 512, tuple);
            checkDifInSglWithStdT10(sgl, 0, 1, &check.param);
        };
    };
    const auto injected = [=](uint32_t flag) {
        return [=] {
            DifInjectParam inject{DIF_DATA_520, flag, 0, 0, 0};
            injectDif(buf, 1, &inject);
        };
    };
    const auto lbaOf = [&](const Tuple &tuple, uint32_t size) {
        return [=, &blocks] {
            uint64_t lba = 0;
            blocks.set(0, tuple);
            getDifLba(blocks.data(0), size, &lba);
        };
    };
    constexpr uint32_t kLba = DIF_CHECK_LBA, kCrc = DIF_CHECK_CRC;
    constexpr Tuple kWrong{0xBAD, 0x13, 3, 9}, kUnknown{0xBAD, 0x1F, 0, 0};
    const struct {
        uint64_t interval;
        uint32_t again; /* 1 after an interval with a credit limiter, 3 with a burst limiter */
        Call attempt;
    } rows[] = {
        {1250, 1, found(kUnknown, kLba)},
        {1250, 1, found(kUnknown, kCrc)},
        {1250, 1, found(kWrong, kLba)},
        {1250, 1, found(kWrong, kCrc)},
        {1250, 1, found({0xBAD, 0x29, 0, 0}, kCrc)},
        {1250, 1, found(kWrong, DIF_CHECK_BST)},
        {1250, 1, foundInList(kWrong, kLba)},
        {1250, 1, foundInList(kWrong, kCrc)},
        {1250, 1, lbaOf(kOnes, 520)},
        {1250, 1, lbaOf(Tuple{}, 520)},
        {1250, 1, lbaOf(kOnes, 521)},
        {75000, 1, found(kOnes, kLba)},
        {75000, 1, found(kOnes, DIF_CHECK_NOT_T10)},
        {75000, 1, foundInList(kOnes, kLba)},
        {75000, 1, [&] { blocks.set(0, kOnes), isDifEvictable(buf, 1); }},
        {2500, 3, injected(DIF_INJECT_VERSION)},
        {2500, 3, injected(DIF_INJECT_CRC)},
        {2500, 3, injected(DIF_INJECT_LBA)},
        {2500, 3, injected(DIF_INJECT_BST)},
        {2500, 3, [=] { checkListReturning(sgl, ~0u, 1, none); }},
        {2500, 3, [=] { checkDifInSglWithStdT10(nullptr, 0, 1, none); }},
        {2500, 3, [=] { checkDifInSglWithStdT10(sgl, 0, 1, bad); }},
        {15000, 3, [=] { checkBuffer(nullptr, 1, none); }},
        {15000, 3, [=] { checkBuffer(buf, 1, bad); }},
        {15000, 3, [=] { checkList(nullptr, 0, 1, none); }},
        {15000, 3, [=] { checkList(sgl, 0, 1, bad); }},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(format("row %td", &row - rows));
        const auto written = [&](uint64_t tick) { // of four attempts at that tick
            host.tick = tick;
            int attempts = 0;
            for (int i = 0; i < 4; ++i) {
                row.attempt();
                attempts += host.take().empty() ? 0 : 1;
            }
            return attempts;
        };
        host.later();
        const uint64_t start = host.tick;
        EXPECT_EQ(written(start), 3);
        EXPECT_EQ(written(start + row.interval - 1), 0);
        EXPECT_EQ(written(start + row.interval), row.again);
    }
}

TEST_F(Logging, AssertionAsksTheServiceThatTheHostHas) {
    constexpr uint64_t I = 150000;
    const Lines texts = notNull("insertDif", "buf");
    const std::string lookup = "lookup INFRA_ADAPTER_OS Adapt_OS_sysBugHandle";
    DifOpParam op{DIF_DATA_520, DIF_INSERT_CRC, 0, nullptr};
    uint8_t buf[520];
    const auto attempt = [&] {
        insertDif(nullptr, 1, &op);
        return host.take();
    };
    attempt(); // reports what earlier tests left
    host.later();
    host.wantsReports = true;
    g_baseServiceIntfRely = nullptr;
    host.filtered = 1u << 3; // the gate is the error level,
    EXPECT_EQ(attempt(), Lines{});
    host.filtered = 1u << 0; // not that of the text
    host.hasService = false;
    EXPECT_EQ(attempt(), (Lines{texts[0], lookup}));
    insertDif(buf, 1, nullptr); // another site at the same tick
    EXPECT_EQ(host.take(), (Lines{notNull("insertDif", "param")[0], lookup}));
    host.hasService = true; // looked up again, then kept
    host.tick += I - 1;
    EXPECT_EQ(attempt(), Lines{});
    host.tick += 1;
    const Lines events = attempt();
    EXPECT_EQ(events, (Lines{format("level 3, dif_util, insertDif, 0: print: 1 messages suppressed.insertDif,line=%d.",
                                    host.lines.back()),
                             texts[0], lookup, texts[1]}));
    host.tick += I;
    EXPECT_EQ(attempt(), texts);
    EXPECT_EQ(host.lines[0], host.lines[1]);
}

TEST_F(Logging, AssertionStopsTheProcessOnRequest) {
    host.assertAnswer = 0x80; // any true value
    host.onEvent = [](const std::string &event) { fprintf(stderr, "%s\n", event.c_str()); };
    const std::string story = "buf != NULL\nask insertDif\\(buf != \\(\\(void \\*\\)0\\)\\)\n"
                              "level 0, no file, insertDif, 0: Assert fail: \\(0\\)\n";
    DifOpParam op{DIF_DATA_520, DIF_INSERT_CRC, 0, nullptr};
    EXPECT_EXIT(insertDif(nullptr, 1, &op), ::testing::KilledBySignal(SIGILL), story);
    EXPECT_EXIT((signal(SIGILL, SIG_IGN), insertDif(nullptr, 1, &op)), ::testing::ExitedWithCode(255), story);
}

} // namespace
