/*
 * A host that records what libdif asks of it. The test executable supplies every platform symbol itself, as a real host
 * process would (crc16_t10dif comes with ISA-L).
 *
 * The library's limiters, its state before the start and the assertion service that it has found last for the whole
 * process. Every test therefore counts on a process of its own: run the tests through ctest, or one at a time with
 * --gtest_filter.
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

/*
 * Everything the library does to the host becomes one event, a line of text, in the order of happening:
 *   "L3 dif_util insertDif #4660: text"   hostlog: level, file, function, log id, formatted text
 *   "L4 - isDifLbaCorrect #0: text"       hostlog_standard
 *   "lookup INTERFACE METHOD"             lookupIntfMethod
 *   "ask insertDif(expression)"           a call of the assertion service; "null" for a null expression
 *   "name 250 DIF"                        osal_pid_set_name
 *   "register diagnose dif: description"  DBG_RegCmd; with "cli" DBG_RegCmdToCLI
 *   "unregister diagnose dif"             DBG_UnRegCmd; with "cli" DBG_UnRegCmdToCLI
 *   "usage message"                       DBG_ShowUsageAndErrMsg; "null" for a null message
 * A module id other than 250 and a nonzero reserved argument are marked in the line, so that it compares unequal.
 */
class FakeHost {
public:
    std::atomic<uint64_t> tick{0};
    std::atomic<uint32_t> filtered{0};                /* bit L: messages of level L are filtered */
    std::atomic<uint8_t> assertAnswer{0};             /* what the assertion service answers */
    std::atomic<bool> serviceRegistered{true};        /* whether the lookup finds the assertion service */
    std::function<void(const std::string &)> onEvent; /* told of each event; set it before threads run */
    std::atomic<int32_t> diagnoseResult{0};           /* what (un)registration answers, by registry */
    std::atomic<int32_t> cliResult{0};
    std::atomic<int32_t> usageResult{0};       /* what DBG_ShowUsageAndErrMsg answers */
    DbgCmdReg diagnoseCommand{}, cliCommand{}; /* the records last registered */
    std::string printed;                       /* by DBG_Print; the test empties it */
    std::vector<int32_t> lines;                /* source lines of the events last taken, 0 for none */

    static void *assertionService();
    Lines take(); /* the events since the last take */
    void record(const std::string &event, int32_t line);

private:
    std::mutex mutex_;
    Lines events_;
    std::vector<int32_t> eventLines_;
};

extern FakeHost host;

std::string format(const char *text, ...) __attribute__((format(printf, 1, 2)));

/* The events of one failed assertion; the two texts are the same if only one is given. */
Lines asserted(const std::string &function, const std::string &logged, const std::string &expression = "");

/* A started library that knows its assertion service and whose cache module has two verify points; no events yet. */
class StartedDif : public ::testing::Test {
protected:
    void SetUp() override {
        const VerifyPointDesc points[] = {{1, "front"}, {2, "back"}};
        difModuleInit();
        g_baseServiceIntfRely = FakeHost::assertionService();
        ASSERT_EQ(difRegistVerifyPoint(DIF_MID_CACHE, points, 2, "setUp", 1), DIF_OK);
        host.take();
    }
};

#endif
