#include "blocks.h"

#include <csignal>
#include <cstdio>
#include <sstream>

namespace {

using Logging = StartedDif;

/*
 * Attempts of a site with interval `I` and gate level `gate`. "7-1:W" is an attempt at tick 7 * I - 1 that writes
 * `message`; "7:2" one that reports two suppressed messages first; "7:-" one that writes nothing.
 */
void expectTimeline(const std::string &timeline, uint64_t I, uint32_t gate, const std::string &function,
                    const std::string &message, const std::function<void()> &attempt) {
    host.filtered = 1u << gate; // what the gate filters leaves the limiter as it is
    for (int i = 0; i < 4; ++i)
        attempt();
    EXPECT_EQ(host.take(), Lines{});
    host.filtered = ~host.filtered;
    std::istringstream steps(timeline);
    for (std::string step; steps >> step;) {
        const size_t minus = step.find('-'), colon = step.find(':');
        host.tick = std::stoul(step) * I - (minus < colon ? std::stoul(step.substr(minus + 1)) : 0);
        const char outcome = step[colon + 1];
        attempt();
        const Lines events = host.take();
        Lines want = outcome == '-' ? Lines{} : Lines{message};
        if (outcome >= '1' && outcome <= '9' && !events.empty())
            want.insert(want.begin(), format("L%u dif_util %s #0: print: %c messages suppressed.%s,line=%d.", gate,
                                             function.c_str(), outcome, function.c_str(), host.lines.back()));
        EXPECT_EQ(events, want) << "at " << step;
    }
}

TEST_F(Logging, CreditLimiter) {
    Blocks blocks(DIF_DATA_520, 1);
    blocks.set(0, "ffff ff ff ffffffff");
    Check check(DIF_DATA_520, DIF_CHECK_CONVERT_T10);
    constexpr uint64_t I = 75000;
    const std::string note =
        format("L6 - tryCheckDifIntegrity #0: DIF_INTEGRITY_CHECK_INFO: version(0xFF), app(0xFF), "
               "difPtr(%p), type(0),ctrlFlag(0x40080000), mid(4), subPid(1), crcLevel(2), lbaLevel(2).",
               static_cast<void *>(blocks.tuple(0)));
    // Three intervals of credit at most; dropped attempts keep what has gathered; at last, time goes back.
    expectTimeline(
        "6:W 6:W 6:W 6:- 7-1:- 7-1:- 7:W 10:3 10:W 10:W 10:- 11:W 20-1:W 20:1 20:W 20:- 30-1:W 30:1 30:W 30:- "
        "30-2:W 30-2:W 30-2:W 30-2:-",
        I, 6, "tryCheckDifIntegrity", note, [&] { check.run(blocks); });
}

TEST_F(Logging, BurstLimiter) {
    Check check(DIF_DATA_520, 0);
    constexpr uint64_t I = 15000;
    const std::string error =
        format("L3 - checkDif #0: Input error, buf is (nil), param is %p.", static_cast<void *>(&check.param));
    // Three messages a period, which starts anew with every message written.
    expectTimeline("1-9:W 1-9:W 1-9:W 1-9:- 2-10:- 2-9:W 2-9:W 2-9:W 2-9:- 10:3 11-1:W 12-2:W 12:- 13-3:- 13-2:W 20:2",
                   I, 3, "checkDif", error, [&] { checkDif(nullptr, 1, &check.param, "caller", 42); });
}

TEST_F(Logging, Assertion) {
    constexpr uint64_t I = 150000;
    const Lines texts = asserted("insertDif", "buf != NULL", "buf != ((void *)0)");
    const std::string lookup = "lookup INFRA_ADAPTER_OS Adapt_OS_sysBugHandle";
    DifOpParam op{DIF_DATA_520, DIF_INSERT_CRC, 0, nullptr};
    Blocks blocks(DIF_DATA_520, 1);
    g_baseServiceIntfRely = nullptr;
    const auto attempt = [&](uint64_t tick) {
        host.tick = tick;
        insertDif(nullptr, 1, &op);
        return host.take();
    };
    host.filtered = 1u << 3; // the gate is the error level,
    EXPECT_EQ(attempt(0), Lines{});
    host.filtered = 1u << 0; // not that of the text
    host.serviceRegistered = false;
    EXPECT_EQ(attempt(0), (Lines{texts[0], lookup}));
    insertDif(blocks.data(0), 1, nullptr); // another site at the same tick
    EXPECT_EQ(host.take(), (Lines{"L0 dif_util insertDif #0: param != NULL", lookup}));

    host.serviceRegistered = true; // looked up again, then kept
    EXPECT_EQ(attempt(I - 1), Lines{});
    EXPECT_EQ(attempt(I), (Lines{texts[0], lookup, texts[1]}));
    EXPECT_EQ(host.lines[0], host.lines[2]);
    EXPECT_EQ(attempt(2 * I), texts);
    EXPECT_EQ(attempt(2 * I), Lines{});
    const Lines events = attempt(10 * I);
    const std::string report = "L3 dif_util insertDif #0: print: 2 messages suppressed.insertDif,line=";
    EXPECT_EQ(events, (Lines{report + format("%d.", host.lines.back()), texts[0], texts[1]}));
}

TEST_F(Logging, AssertionStopsTheProcessOnRequest) {
    host.assertAnswer = 0x80; // any true value
    host.onEvent = [](const std::string &event) { fprintf(stderr, "%s\n", event.c_str()); };
    const std::string story = "L0 dif_util insertDif #0: buf != NULL\nask insertDif\\(buf != \\(\\(void \\*\\)0\\)\\)\n"
                              "L0 - insertDif #0: Assert fail: \\(0\\)\n";
    DifOpParam op{DIF_DATA_520, DIF_INSERT_CRC, 0, nullptr};
    EXPECT_EXIT(insertDif(nullptr, 1, &op), ::testing::KilledBySignal(SIGILL), story);
    EXPECT_EXIT((signal(SIGILL, SIG_IGN), insertDif(nullptr, 1, &op)), ::testing::ExitedWithCode(255), story);
}

} // namespace
