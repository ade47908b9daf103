#include "fake_host.h"
#include "model.h"

#include <csignal>

namespace {

using Logging = StartedDif;

struct Attempt {
    uint64_t tick;
    bool isWritten;
    uint32_t reported = 0; /* suppressed messages, before the message */
};

/* Attempts of a site whose gate level is `gate`, at ticks counted from now. */
void expectAttempts(const std::vector<Attempt> &attempts, uint32_t gate, const std::string &function,
                    const std::string &message, const std::function<void()> &attempt) {
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
        SCOPED_TRACE(
            format("attempt %td, at tick %llu", &row - attempts.data(), static_cast<unsigned long long>(row.tick)));
        host.tick = start + row.tick;
        attempt();
        const Lines events = host.take();
        Lines want = row.isWritten ? Lines{message} : Lines{};
        if (row.reported != 0 && !events.empty())
            want.insert(want.begin(),
                        format("level %u, dif_util, %s, 0: print: %u messages suppressed.%s,line=%d.", gate,
                               function.c_str(), row.reported, function.c_str(), host.lines.back()));
        EXPECT_EQ(events, want);
    }
}

/* Credit grows by one a tick up to three intervals, and a message costs an interval. */
TEST_F(Logging, CreditLimiter) {
    Blocks blocks(DIF_DATA_520, 1);
    blocks.set(0, kOnes);
    Check check(DIF_DATA_520, DIF_CHECK_CONVERT_T10);
    constexpr uint64_t I = 75000;
    const std::vector<Attempt> attempts = {
        {0, true},          {0, true},         {0, true},          {0, false}, // all credit
        {I - 1, false},     {I - 1, false},    {I, true, 3}, // dropped attempts keep what has gathered
        {5 * I, true},      {5 * I, true},     {5 * I, true},      {5 * I, false},
        {11 * I - 1, true}, {11 * I, true, 1},                     // ten intervals between reports
        {11 * I, true},     {11 * I, false},   {11 * I - 2, true}, // time goes back
    };
    expectAttempts(attempts, 6, "tryCheckDifIntegrity",
                   limited(6, "tryCheckDifIntegrity",
                           format("DIF_INTEGRITY_CHECK_INFO: version(0xFF), app(0xFF), difPtr(%p), type(0),"
                                  "ctrlFlag(0x40080000), mid(4), subPid(1), crcLevel(2), lbaLevel(2).",
                                  static_cast<void *>(blocks.dif(0)))),
                   [&] { checkDif(blocks.data(0), 1, &check.param, "caller", 42); });
}

/* Three messages a period, which starts anew with every message written. */
TEST_F(Logging, BurstLimiter) {
    Check check(DIF_DATA_520, 0);
    constexpr uint64_t I = 15000;
    const std::vector<Attempt> attempts = {
        {0, true},          {I - 1, true},        {2 * I - 2, true}, {2 * I - 2, false},
        {3 * I - 3, false}, {3 * I - 2, true, 2}, {3 * I, true},     {3 * I, true},
        {3 * I, false},     {4 * I, true},        {4 * I, true},     {4 * I, true},
        {13 * I - 3, true}, // ten intervals between reports
        {13 * I - 3, true}, {14 * I, true, 1},
    };
    expectAttempts(
        attempts, 3, "checkDif",
        limited(3, "checkDif", format("Input error, buf is (nil), param is %p.", static_cast<void *>(&check.param))),
        [&] { checkDif(nullptr, 1, &check.param, "caller", 42); });
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
    attempt();
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
    EXPECT_EQ(
        attempt().front(),
        format("level 3, dif_util, insertDif, 0: print: 1 messages suppressed.insertDif,line=%d.", host.lines.back()));
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
