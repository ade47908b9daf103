#include "chain.h"
#include "fake_host.h"
#include "model.h"

#include <csignal>

namespace {

using Logging = StartedDif;
using Call = std::function<void()>;

/* A place that logs behind a limiter, which is free at first. Ticks count from now on. */
struct Site {
    explicit Site(const Call &call) : attempt(call) {
        attempt(); /* reports what earlier tests left */
        host.later();
        host.take();
        host.wantsReports = true;
        start = host.tick;
    }
    ~Site() { host.wantsReports = false; }

    /* How many of some attempts at a tick are written. */
    uint32_t written(uint32_t attempts, uint64_t tick) {
        uint32_t count = 0;
        for (host.tick = start + tick; attempts > 0; --attempts) {
            attempt();
            Lines events = host.take();
            if (!events.empty() && events[0].find(": print: ") != std::string::npos) {
                EXPECT_TRUE(events[0].ends_with(format(",line=%d.", host.lines.back())));
                reports.push_back(events[0].substr(0, events[0].rfind(",line=")));
                events.erase(events.begin());
            }
            count += events.empty() ? 0 : 1;
        }
        return count;
    }

    Lines reports; /* of suppressed messages, without their line */
    const Call attempt;
    uint64_t start;
};

/* Credit grows by one a tick up to three intervals, and a message costs an interval. */
TEST_F(Logging, CreditLimiter) {
    Blocks blocks(DIF_DATA_520, 1);
    blocks.set(0, kOnes);
    Check check(DIF_DATA_520, DIF_CHECK_CONVERT_T10);
    Site site([&] { checkBuffer(blocks.data(0), 1, &check.param); });
    constexpr uint64_t I = 75000;
    host.filtered = 1u << 6; /* what the gate filters leaves the limiter as it is */
    EXPECT_EQ(site.written(5, 0), 0u);
    host.filtered = ~host.filtered;
    EXPECT_EQ(site.written(4, 0), 3u);
    EXPECT_EQ(site.written(2, I - 1), 0u); /* dropped attempts keep what has gathered */
    EXPECT_EQ(site.written(2, I), 1u);
    EXPECT_EQ(site.written(4, 11 * I - 1), 3u); /* no more than three gather */
    EXPECT_EQ(site.reports.size(), 1u);
    EXPECT_EQ(site.written(1, 12 * I), 1u);     /* more than ten intervals after the report */
    EXPECT_EQ(site.written(4, 12 * I - 2), 3u); /* time goes back */
    EXPECT_EQ(site.reports.back(),
              "level 6, dif_util, tryCheckDifIntegrity, 0: print: 2 messages suppressed.tryCheckDifIntegrity");
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
    EXPECT_EQ(site.written(2, 2 * I - 2), 1u); /* the third of the period */
    EXPECT_EQ(site.written(1, 3 * I - 3), 0u);
    EXPECT_EQ(site.written(4, 3 * I - 2), 3u);
    EXPECT_EQ(site.written(1, 13 * I - 3), 1u); /* not ten intervals after the report */
    EXPECT_EQ(site.reports.size(), 1u);
    EXPECT_EQ(site.written(1, 14 * I - 3), 1u);
    EXPECT_EQ(site.reports.back(), "level 3, dif_util, checkDif, 0: print: 1 messages suppressed.checkDif");
}

void expectLimit(uint64_t interval, const Call &cause) {
    Site site(cause);
    EXPECT_EQ(site.written(4, 0), 3u);
    EXPECT_EQ(site.written(4, interval - 1), 0u);
    EXPECT_EQ(site.written(4, interval), interval == 2500 || interval == 15000 ? 3u : 1u);
}

/* What is written about a tuple, here of block 1 behind a right one. Its data is all zeros but for the last byte, a 1. */
TEST_F(Logging, MessagesAboutTuples) {
    constexpr uint32_t kLba = DIF_CHECK_LBA, kCrc = DIF_CHECK_CRC;
    constexpr Tuple kWrong{0xABC, 0x13, 2, ~6u}, kCrc32c{0xABC, 0x29, 0xFD, 0}, kUnknown{0, 0x1F, 1, 0x01020304};
    Blocks blocks(DIF_DATA_4160, 2);
    blocks.set(0, blocks.right(0, 7));
    blocks.zeroData(1);
    uint8_t *const tuple = blocks.dif(1), *const small = tuple - 512; /* the small block that it ends, too */
    tuple[-1] = 1;
    Chain chain(Lengths{{8320}});
    chain.at(0)->entries[0].buf = blocks.data(0);
    Check asked(DIF_DATA_4160, 0, 0x100000007);
    asked.param.crcLevel = 1;
    asked.param.subPid = 2;
    DifInjectParam injected{DIF_DATA_520, 0, 0x100000007, 0x1234, 0x1E};
    uint64_t found = 0;
    const Call check = [&] { checkBuffer(blocks.data(0), 16, &asked.param); };
    const Call stdT10 = [&] { checkDifInSglWithStdT10(chain.at(0), 0, 16, &asked.param); };
    const Call eviction = [&] { isDifEvictable(small, 1); };
    const Call lbaOf = [&] { getDifLba(small, 520, &found); };
    const Call injection = [&] { injectDif(small, 1, &injected); };
    const struct {
        const char *text, *function; /* the text has a place for the address of the tuple */
        uint32_t level;
        uint64_t interval;
        const Call &cause;
        Tuple tuple;
        uint32_t flags;
    } rows[] = {
        {"DIF_WARNING_CHECK_DIF: VERSION error: version(0x1f), block(1),difPtr(%p), type(2), ctrlFlag(0x30000), "
         "mid(4), subPid(2), lbaLevel(2).",
         "tryCheckDifIntegrity", 4, 1250, check, kUnknown, kLba | kCrc},
        {"DIF_WARNING_CHECK_DIF: VERSION error: version(0x1f), block(1),difPtr(%p), type(2), ctrlFlag(0x10000), "
         "mid(4), subPid(2), crcLevel(1).",
         "tryCheckDifIntegrity", 4, 1250, check, kUnknown, kCrc},
        {"DIF_WARNING_CHECK_DIF: LBA error: expected(8), actual(4294967289), block(1), difPtr(%p), type(2), "
         "ctrlFlag(0x30000), mid(4), lbaLevel(2).",
         "isDifLbaCorrect", 4, 1250, check, kWrong, kLba | kCrc},
        {"DIF_WARNING_CHECK_DIF: CRC error:expected(0xb78b), actual(0xabc), ver(T10),block(1), difPtr(%p), type(2), "
         "ctrlFlag(0x10000), mid(4), subPid(2), crcLevel(1).",
         "isDifCrcCorrect", 4, 1250, check, kWrong, kCrc},
        {"DIF_WARNING_CHECK_DIF: CRC error: expected(0xc28a), actual(0xabc), ver(CRC32C),block(1), difPtr(%p), "
         "type(2), ctrlFlag(0x10000), mid(4), subPid(2), crcLevel(1).",
         "isDifCrcCorrect", 4, 1250, check, kCrc32c, kCrc},
        {"DIF_WARNING_CHECK_DIF: HAVE BST error: version(0x1f),difPtr(%p), type(2), ctrlFlag(0x40100000), mid(4), "
         "subPid(2).",
         "tryCheckDifAppAndSetResult", 4, 1250, check, kUnknown, DIF_CHECK_BST},
        {"DIF_WARNING_CHECK_DIF_WITH_STD_T10: LBA error: expected(8), actual(4294967289),block(1), difPtr(%p), "
         "type(2), ctrlFlag(0x30000).",
         "checkDifIntegrityWithStdT10", 4, 1250, stdT10, kWrong, kLba | kCrc},
        {"DIF_WARNING_CHECK_DIF_WITH_STD_T10: CRC error: expected(0xb78b), actual(0xabc),block(1), difPtr(%p), "
         "type(2), ctrlFlag(0x10000).",
         "checkDifIntegrityWithStdT10", 4, 1250, stdT10, kWrong, kCrc},
        {"DIF_INTEGRITY_CHECK_INFO: version(0xFF), app(0xFF), difPtr(%p), type(2),ctrlFlag(0x40020000), mid(4), "
         "subPid(2), crcLevel(1), lbaLevel(2).",
         "tryCheckDifIntegrity", 6, 75000, check, kOnes, kLba},
        {"DIF_APP_CHECK_INFO: version(0xFF), app(0xFF),difPtr(%p), type(2), ctrlFlag(0x40800000), mid(4).",
         "tryCheckDifAppAndSetResult", 6, 75000, check, kOnes, DIF_CHECK_NOT_T10},
        {"DIF_CHECK_WITH_STDT10_INFO: version(0xFF), app(0xFF), difPtr(%p),type(2), ctrlFlag(0x20000), mid(4), "
         "subPid(2), crcLevel(1), lbaLevel(2).",
         "checkDifIntegrityWithStdT10", 6, 75000, stdT10, kOnes, kLba},
        {"DIF_ISDIFEVICTABLE_INFO: version(0xFF),app(0xFF), difPtr(%p),type(512).", "isDifEvictable", 6, 75000,
         eviction, kOnes, 0},
        {"Dif version error,dif:0x00 0x00 0x1f 0x01 0x01 0x02 0x03 0x04", "getDifLba", 4, 1250, lbaOf, kUnknown, 0},
        {"Lba valid flag error,dif:0xbc 0x0a 0x29 0xfd 0x00 0x00 0x00 0x00", "getDifLba", 4, 1250, lbaOf, kCrc32c, 0},
        {"DIF_INFO_INJECT_DIF: inject invalid version(0x1e).", "injectDifInOneBlock", 6, 2500, injection, kWrong,
         DIF_INJECT_VERSION},
        {"DIF_INFO_INJECT_DIF: inject invalid crc(0x1234).", "injectDifInOneBlock", 6, 2500, injection, kWrong,
         DIF_INJECT_CRC},
        {"DIF_INFO_INJECT_DIF: inject invalid lba(4294967303).", "injectDifInOneBlock", 6, 2500, injection, kWrong,
         DIF_INJECT_LBA},
        {"DIF_INFO_INJECT_DIF: inject app BST.", "injectDifInOneBlock", 6, 2500, injection, kWrong, DIF_INJECT_BST},
    };
    const std::string zeros = "00 00 00 00 00 00 00 0", dump = "DIF_WARNING_CHECK_DIF_FAIL_BLOCK: data(size=4096): 0x";
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        asked.param.ctrlFlag = injected.ctrlFlag = row.flags;
        blocks.set(1, row.tuple);
        Lines want = {limited(row.level, row.function, format(row.text, static_cast<const void *>(tuple)))};
        if (row.level == 4 && &row.cause != &lbaOf)
            want.push_back(limited(4, row.function,
                                   dump + zeros + "0..." + zeros + "1; dif: 0x" +
                                       format("%02x %02x %02x %02x %02x %02x %02x %02x.", tuple[0], tuple[1], tuple[2],
                                              tuple[3], tuple[4], tuple[5], tuple[6], tuple[7])));
        host.later();
        row.cause();
        EXPECT_EQ(host.take(), want);
        expectLimit(row.interval, row.cause);
    }
}

TEST_F(Logging, MessagesAboutArgumentsAreLimited) {
    Check good(DIF_DATA_520, 0), strange(DIF_DATA_BUTT, 0);
    Chain chain(Lengths{{520}});
    const Sgl *const sgl = chain.at(0);
    uint8_t buf[520];
    host.filtered = 1u << 4; /* no dumps */
    expectLimit(1250, [] { getDifLba(nullptr, 520, nullptr); });
    expectLimit(15000, [&] { checkBuffer(buf, 1, &strange.param); });
    expectLimit(15000, [&] { checkList(sgl, 0, 1, nullptr); });
    expectLimit(15000, [&] { checkList(sgl, 0, 1, &strange.param); });
    expectLimit(2500, [&] { checkDifInSglWithStdT10(sgl, 0, 1, nullptr); });
    expectLimit(2500, [&] { checkDifInSglWithStdT10(sgl, 0, 1, &strange.param); });
    expectLimit(2500, [&] { checkDifInSglWithStdT10(sgl, 0, 0, &good.param); });
    expectLimit(2500, [&] { checkListReturning(sgl, ~0u, 1, &good.param); });
}

TEST_F(Logging, AssertionAsksTheServiceThatTheHostHas) {
    constexpr uint64_t I = 150000;
    const Lines texts = notNull("insertDif", "buf");
    const std::string lookup = "lookup INFRA_ADAPTER_OS Adapt_OS_sysBugHandle";
    DifOpParam op{DIF_DATA_520, DIF_INSERT_CRC, 0, nullptr};
    const auto attempt = [&] {
        insertDif(nullptr, 1, &op);
        return host.take();
    };
    g_baseServiceIntfRely = nullptr;
    host.hasService = false;
    host.filtered = 1u << 3; /* the gate is the error level, */
    EXPECT_EQ(attempt(), Lines{});
    host.filtered = 1u << 0; /* not that of the text */
    EXPECT_EQ(attempt(), (Lines{texts[0], lookup}));
    host.hasService = true; /* looked up again, then kept */
    host.tick += I - 1;
    EXPECT_EQ(attempt(), Lines{});
    host.tick += 1;
    EXPECT_EQ(attempt(), (Lines{texts[0], lookup, texts[1]}));
    host.tick += I;
    EXPECT_EQ(attempt(), texts);
    EXPECT_EQ(host.lines[0], host.lines[1]);
}

TEST_F(Logging, AssertionStopsTheProcessOnRequest) {
    host.assertAnswer = 0x80; /* any true value */
    host.onEvent = [](const std::string &event) { fprintf(stderr, "%s\n", event.c_str()); };
    const std::string story = "buf != NULL\nask insertDif\\(buf != \\(\\(void \\*\\)0\\)\\)\n"
                              "level 0, no file, insertDif, 0: Assert fail: \\(0\\)\n";
    DifOpParam op{DIF_DATA_520, DIF_INSERT_CRC, 0, nullptr};
    EXPECT_EXIT(insertDif(nullptr, 1, &op), ::testing::KilledBySignal(SIGILL), story);
    EXPECT_EXIT((signal(SIGILL, SIG_IGN), insertDif(nullptr, 1, &op)), ::testing::ExitedWithCode(255), story);
}

} /* namespace */
