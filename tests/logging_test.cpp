#include "chain.h"
#include "fake_host.h"
#include "model.h"

#include <csignal>

namespace {

using Logging = StartedDif;
using Call = std::function<void()>;

/* A place that logs behind a limiter, which is free at first. Ticks count from now on. */
class Site {
public:
    explicit Site(const Call &attempt) : attempt_(attempt) {
        attempt(); // reports what earlier tests left
        host.later();
        host.take();
        host.wantsReports = true;
        start_ = host.tick;
    }
    ~Site() { host.wantsReports = false; }

    /* How many of some attempts at a tick are written. */
    uint32_t written(uint32_t attempts, uint64_t tick) {
        uint32_t count = 0;
        host.tick = start_ + tick;
        while (attempts-- > 0) {
            attempt_();
            Lines events = host.take();
            if (!events.empty() && events[0].find(": print: ") != std::string::npos) {
                reports.push_back(events[0]);
                EXPECT_TRUE(events[0].ends_with(format(",line=%d.", host.lines.back())));
                events.erase(events.begin());
            }
            count += events.empty() ? 0 : 1;
        }
        return count;
    }

    Lines reports; /* of suppressed messages, before one that is written */

private:
    const Call attempt_;
    uint64_t start_;
};

/* Credit grows by one a tick up to three intervals, and a message costs an interval. */
TEST_F(Logging, CreditLimiter) {
    Blocks blocks(DIF_DATA_520, 1);
    blocks.set(0, kOnes);
    Check check(DIF_DATA_520, DIF_CHECK_CONVERT_T10);
    Site site([&] { checkBuffer(blocks.data(0), 1, &check.param); });
    constexpr uint64_t I = 75000;
    host.filtered = 1u << 6; // what the gate filters leaves the limiter as it is
    EXPECT_EQ(site.written(5, 0), 0u);
    host.filtered = ~host.filtered;
    EXPECT_EQ(site.written(4, 0), 3u);
    EXPECT_EQ(site.written(2, I - 1), 0u); // dropped attempts keep what has gathered
    EXPECT_EQ(site.written(2, I), 1u);
    EXPECT_EQ(site.written(4, 11 * I - 1), 3u); // no more than three gather
    EXPECT_EQ(site.reports.size(), 1u);
    EXPECT_EQ(site.written(1, 12 * I), 1u);     // more than ten intervals after the report
    EXPECT_EQ(site.written(4, 12 * I - 2), 3u); // time goes back
    const std::string report = "level 6, dif_util, tryCheckDifIntegrity, 0: print: ";
    ASSERT_EQ(site.reports.size(), 2u);
    EXPECT_TRUE(site.reports[0].starts_with(report + "3 messages suppressed.tryCheckDifIntegrity,line="));
    EXPECT_TRUE(site.reports[1].starts_with(report + "2 messages suppressed.tryCheckDifIntegrity,line="));
}

/* Three messages a period, which starts anew with every message written. */
TEST_F(Logging, BurstLimiter) {
    Site site([] { checkBuffer(nullptr, 1, nullptr); });
    constexpr uint64_t I = 15000;
    host.filtered = 1u << 3;
    EXPECT_EQ(site.written(5, 0), 0u);
    host.filtered = ~host.filtered;
    EXPECT_EQ(site.written(1, 0), 1u);
    EXPECT_EQ(site.written(1, I - 1), 1u);
    EXPECT_EQ(site.written(2, 2 * I - 2), 1u); // the third of the period
    EXPECT_EQ(site.written(1, 3 * I - 3), 0u);
    EXPECT_EQ(site.written(4, 3 * I - 2), 3u);
    EXPECT_EQ(site.written(1, 13 * I - 3), 1u); // not ten intervals after the report
    EXPECT_EQ(site.reports.size(), 1u);
    EXPECT_EQ(site.written(1, 14 * I - 3), 1u);
    const std::string report = "level 3, dif_util, checkDif, 0: print: ";
    ASSERT_EQ(site.reports.size(), 2u);
    EXPECT_TRUE(site.reports[0].starts_with(report + "2 messages suppressed.checkDif,line="));
    EXPECT_TRUE(site.reports[1].starts_with(report + "1 messages suppressed.checkDif,line="));
}

/* A limited message comes three times at once, then not until the interval has passed, then once or three times. */
void expectLimit(uint64_t interval, const Call &cause) {
    Site site(cause);
    EXPECT_EQ(site.written(4, 0), 3u);
    EXPECT_EQ(site.written(4, interval - 1), 0u);
    EXPECT_EQ(site.written(4, interval), interval == 2500 || interval == 15000 ? 3u : 1u);
}

TEST_F(Logging, LimitsOfInputErrors) {
    Chain chain(Lengths{{520}});
    const Sgl *const sgl = chain.at(0);
    uint8_t buf[520] = {};
    Check good(DIF_DATA_520, 0), bad(DIF_DATA_520_ZERO, 0);
    expectLimit(15000, [&] { checkBuffer(nullptr, 1, &good.param); });
    expectLimit(15000, [&] { checkBuffer(buf, 1, &bad.param); });
    expectLimit(15000, [&] { checkList(nullptr, 0, 1, &good.param); });
    expectLimit(15000, [&] { checkList(sgl, 0, 1, &bad.param); });
    expectLimit(2500, [&] { checkListReturning(sgl, ~0u, 1, &good.param); });
    expectLimit(2500, [&] { checkDifInSglWithStdT10(nullptr, 0, 1, &good.param); });
    expectLimit(2500, [&] { checkDifInSglWithStdT10(sgl, 0, 1, &bad.param); });
    expectLimit(1250, [&] { getDifLba(buf, 520, nullptr); });
}

/* What is written about a tuple, here of block 1 behind a right one. Its data is all zeros but for the last byte, a 1. */
TEST_F(Logging, MessagesAboutTuples) {
    enum Cause { kCheck, kStdT10, kEviction, kLbaOf, kInjection };
    constexpr uint32_t kLba = DIF_CHECK_LBA, kCrc = DIF_CHECK_CRC;
    constexpr Tuple kWrong{0xABC, 0x13, 2, ~6u}, kCrc32c{0xABC, 0x29, 0xFD, 0}, kUnknown{0, 0x1F, 1, 0x01020304};
    Blocks blocks(DIF_DATA_4160, 2), small(DIF_DATA_520, 1);
    Chain chain(Lengths{{8320}});
    const struct {
        Cause cause;
        Tuple tuple;
        uint32_t flags;
        uint64_t interval;
        uint32_t level;
        const char *function, *text; /* with a place for the address of the tuple */
    } rows[] = {
        {kCheck, kUnknown, kLba | kCrc, 1250, 4, "tryCheckDifIntegrity",
         "DIF_WARNING_CHECK_DIF: VERSION error: version(0x1f), block(1),difPtr(%p), type(2), ctrlFlag(0x30000), "
         "mid(4), subPid(2), lbaLevel(2)."},
        {kCheck, kUnknown, kCrc, 1250, 4, "tryCheckDifIntegrity",
         "DIF_WARNING_CHECK_DIF: VERSION error: version(0x1f), block(1),difPtr(%p), type(2), ctrlFlag(0x10000), "
         "mid(4), subPid(2), crcLevel(1)."},
        {kCheck, kWrong, kLba | kCrc, 1250, 4, "isDifLbaCorrect",
         "DIF_WARNING_CHECK_DIF: LBA error: expected(8), actual(4294967289), block(1), difPtr(%p), type(2), "
         "ctrlFlag(0x30000), mid(4), lbaLevel(2)."},
        {kCheck, kWrong, kCrc, 1250, 4, "isDifCrcCorrect",
         "DIF_WARNING_CHECK_DIF: CRC error:expected(0xb78b), actual(0xabc), ver(T10),block(1), difPtr(%p), "
         "type(2), ctrlFlag(0x10000), mid(4), subPid(2), crcLevel(1)."},
        {kCheck, kCrc32c, kCrc, 1250, 4, "isDifCrcCorrect",
         "DIF_WARNING_CHECK_DIF: CRC error: expected(0xc28a), actual(0xabc), ver(CRC32C),block(1), difPtr(%p), "
         "type(2), ctrlFlag(0x10000), mid(4), subPid(2), crcLevel(1)."},
        {kCheck, kUnknown, DIF_CHECK_BST, 1250, 4, "tryCheckDifAppAndSetResult",
         "DIF_WARNING_CHECK_DIF: HAVE BST error: version(0x1f),difPtr(%p), type(2), ctrlFlag(0x40100000), mid(4), "
         "subPid(2)."},
        {kStdT10, kWrong, kLba | kCrc, 1250, 4, "checkDifIntegrityWithStdT10",
         "DIF_WARNING_CHECK_DIF_WITH_STD_T10: LBA error: expected(8), actual(4294967289),block(1), difPtr(%p), "
         "type(2), ctrlFlag(0x30000)."},
        {kStdT10, kWrong, kCrc, 1250, 4, "checkDifIntegrityWithStdT10",
         "DIF_WARNING_CHECK_DIF_WITH_STD_T10: CRC error: expected(0xb78b), actual(0xabc),block(1), difPtr(%p), "
         "type(2), ctrlFlag(0x10000)."},
        {kCheck, kOnes, kLba, 75000, 6, "tryCheckDifIntegrity",
         "DIF_INTEGRITY_CHECK_INFO: version(0xFF), app(0xFF), difPtr(%p), type(2),ctrlFlag(0x40020000), mid(4), "
         "subPid(2), crcLevel(1), lbaLevel(2)."},
        {kCheck, kOnes, DIF_CHECK_NOT_T10, 75000, 6, "tryCheckDifAppAndSetResult",
         "DIF_APP_CHECK_INFO: version(0xFF), app(0xFF),difPtr(%p), type(2), ctrlFlag(0x40800000), mid(4)."},
        {kStdT10, kOnes, kLba, 75000, 6, "checkDifIntegrityWithStdT10",
         "DIF_CHECK_WITH_STDT10_INFO: version(0xFF), app(0xFF), difPtr(%p),type(2), ctrlFlag(0x20000), mid(4), "
         "subPid(2), crcLevel(1), lbaLevel(2)."},
        {kEviction, kOnes, 0, 75000, 6, "isDifEvictable",
         "DIF_ISDIFEVICTABLE_INFO: version(0xFF),app(0xFF), difPtr(%p),type(512)."},
        {kLbaOf, kUnknown, 0, 1250, 4, "getDifLba", "Dif version error,dif:0x00 0x00 0x1f 0x01 0x01 0x02 0x03 0x04"},
        {kLbaOf, kCrc32c, 0, 1250, 4, "getDifLba", "Lba valid flag error,dif:0xbc 0x0a 0x29 0xfd 0x00 0x00 0x00 0x00"},
        {kInjection, kWrong, DIF_INJECT_VERSION, 2500, 6, "injectDifInOneBlock",
         "DIF_INFO_INJECT_DIF: inject invalid version(0x1e)."},
        {kInjection, kWrong, DIF_INJECT_CRC, 2500, 6, "injectDifInOneBlock",
         "DIF_INFO_INJECT_DIF: inject invalid crc(0x1234)."},
        {kInjection, kWrong, DIF_INJECT_LBA, 2500, 6, "injectDifInOneBlock",
         "DIF_INFO_INJECT_DIF: inject invalid lba(4294967303)."},
        {kInjection, kWrong, DIF_INJECT_BST, 2500, 6, "injectDifInOneBlock", "DIF_INFO_INJECT_DIF: inject app BST."},
    };
    blocks.zeroData(1);
    blocks.data(1)[4095] = 1;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        const auto call = [&] {
            Check asked(DIF_DATA_4160, row.flags, 0x100000007);
            asked.param.crcLevel = 1;
            asked.param.subPid = 2;
            DifInjectParam injected{DIF_DATA_520, row.flags, 0x100000007, 0x1234, 0x1E};
            uint64_t found = 0;
            if (row.cause == kCheck)
                checkBuffer(blocks.data(0), 16, &asked.param);
            else if (row.cause == kStdT10)
                checkDifInSglWithStdT10(chain.at(0), 0, 16, &asked.param);
            else if (row.cause == kEviction)
                isDifEvictable(small.data(0), 1);
            else if (row.cause == kLbaOf)
                getDifLba(small.data(0), 520, &found);
            else
                injectDif(small.data(0), 1, &injected);
        };
        blocks.set(0, blocks.right(0, 7));
        blocks.set(1, row.tuple);
        small.set(0, row.tuple);
        chain.fill(blocks.bytes);
        const uint8_t *const tuple = row.cause == kCheck    ? blocks.dif(1)
                                     : row.cause == kStdT10 ? chain.buffer(0) + 4160 + 4096
                                                            : small.dif(0);
        const std::string zeros = "00 00 00 00 00 00 00 0",
                          dump = "DIF_WARNING_CHECK_DIF_FAIL_BLOCK: data(size=4096): 0x";
        Lines want = {limited(row.level, row.function, format(row.text, static_cast<const void *>(tuple)))};
        if (row.level == 4 && row.cause != kLbaOf)
            want.push_back(limited(4, row.function,
                                   dump + zeros + "0..." + zeros + "1; dif: 0x" +
                                       format("%02x %02x %02x %02x %02x %02x %02x %02x.", tuple[0], tuple[1], tuple[2],
                                              tuple[3], tuple[4], tuple[5], tuple[6], tuple[7])));
        host.later();
        call();
        EXPECT_EQ(host.take(), want);
        expectLimit(row.interval, call);
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
    EXPECT_EVENTS(notNull("insertDif", "param")[0], lookup);
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
