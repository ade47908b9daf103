/*
 * A host that records what libdif asks of it; it supplies every platform symbol, as a real host process would.
 *
 * The library's limiters last for the whole process. Every test, and every case that needs fresh ones, therefore starts
 * later(), when all are open again. What they then report of earlier drops is an event only if a test wants it.
 */
#ifndef DIF_TESTS_FAKE_HOST_H
#define DIF_TESTS_FAKE_HOST_H

#include "dif/dif.h"
#include "platform/dbg_cmd.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

using Lines = std::vector<std::string>;

std::string format(const char *text, ...) __attribute__((format(printf, 1, 2)));

/*
 * What the library does to the host becomes events, lines of text: here those of a plain message, of one behind a limiter,
 * and of a failed assertion, its text and the question to the assertion service, which repeats it if not given.
 */
inline std::string plain(uint32_t level, const std::string &function, const std::string &text) {
    return "level " + std::to_string(level) + ", dif_util, " + function + ", 4660: " + text;
}
inline std::string limited(uint32_t level, const std::string &function, const std::string &text) {
    return "level " + std::to_string(level) + ", no file, " + function + ", 0: " + text;
}
inline Lines asserted(const std::string &function, const std::string &text, const std::string &expression = "") {
    return {"level 0, dif_util, " + function + ", 0: " + text,
            "ask " + function + "(" + (expression.empty() ? text : expression) + ")"};
}
inline Lines notNull(const std::string &function, const std::string &pointer) {
    return asserted(function, pointer + " != NULL", pointer + " != ((void *)0)");
}

/* What a test may set, and what it finds in the end. */
struct HostState {
    uint8_t assertAnswer = 0; /* of the assertion service */
    bool hasService = true;   /* whether the lookup finds the assertion service */
    bool wantsReports = false;
    std::function<void(const std::string &)> onEvent; /* told of each event */
    /* Told of the data of each CRC16 of the hardware engine and of each continued CRC32C; alters the CRC16 by XOR. */
    std::function<uint16_t(const uint8_t *, uint64_t)> onCrc;
    int32_t diagnoseResult = 0, cliResult = 0; /* of (un)registration */
    DbgCmdReg diagnose{}, cli{};               /* as registered last */
    std::string printed;                       /* by DBG_Print */
    std::vector<int32_t> lines;                /* source lines of the events last taken, 0 for none */
};

struct FakeHost : HostState {
    std::atomic<uint64_t> tick{0};
    std::atomic<uint32_t> filtered{0}; /* bit L: messages of level L are filtered */

    static constexpr int32_t kUsageResult = 77; /* of DBG_ShowUsageAndErrMsg */
    static void *assertionService();
    Lines take(); /* the events since the last take */
    void later() { tick += 100'000'000; }
    void reset();
    void record(const std::string &event, int32_t line = 0);

private:
    std::mutex mutex_;
    Lines events_;
    std::vector<int32_t> eventLines_;
};

extern FakeHost host;

/* The events since the last ones were taken are these. */
#define EXPECT_EVENTS(...) EXPECT_EQ(host.take(), (Lines{__VA_ARGS__}))

/* A started library that knows its assertion service and whose cache module has two verify points; no events yet. */
class StartedDif : public ::testing::Test {
protected:
    StartedDif() {
        const VerifyPointDesc points[] = {{1, "front"}, {2, "back"}};
        host.reset();
        host.later();
        difModuleInit();
        g_baseServiceIntfRely = FakeHost::assertionService();
        EXPECT_EQ(difRegistVerifyPoint(DIF_MID_CACHE, points, 2, "setUp", 1), DIF_OK);
        host.take();
    }
    ~StartedDif() override { host.reset(); }
};

#endif
