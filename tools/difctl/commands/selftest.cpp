/* The self-test of the CRC16 engines, as a command of the tool and as a word of its shell. */
#include "commands/selftest.h"

#include "commands/commands.h"
#include "io/error.h"
#include "io/number.h"

#include "dif_host.h"
#include "platform/dbg_cmd.h"

#include <cerrno>
#include <limits>
#include <string_view>

namespace difctl {

namespace {

constexpr const char *kWord = "selftest";

int32_t runWord(int32_t argc, char **argv) {
    constexpr uint64_t kMax = std::numeric_limits<uint64_t>::max();
    const auto times = argc > 1 ? parseNumber(argv[1], kMax) : kSelftestTimes;
    const auto len = argc > 2 ? parseNumber(argv[2], kMax) : kSelftestLen;
    if (argc > 3 || !times || !len) {
        return DBG_ShowUsageAndErrMsg("Error: selftest takes two numbers at most.");
    }
    testCRCPerf(*times, *len);
    return 0;
}

int32_t printHelp(const char * /*name*/, uint32_t /*detail*/) {
    DBG_Print("        selftest [TIMES [LEN]]                      : compare and time the CRC16 engines.\n");
    return 0;
}

} // namespace

void registerSelftest() {
    const DbgCmdReg command = {"selftest", "compare and time the CRC16 engines", runWord, printHelp};
    if (const int error = DBG_RegCmd(&command); error != 0) {
        throw systemError(kWord, "cannot be registered", error);
    }
}

int runSelftest(const SelftestOptions &options) {
    registerSelftest();
    std::string output;
    const auto collect = [](void *context, const char *text, size_t size) {
        static_cast<std::string *>(context)->append(text, size);
    };
    const std::string line =
        std::string(kWord) + " " + std::to_string(options.times) + " " + std::to_string(options.len);
    const int status = difHostRunCommand(DIF_HOST_DIAGNOSE, line.c_str(), collect, &output);
    printResult(output);
    const bool passed = status == 0 && output.find("Test PASS") != std::string::npos;
    return passed ? kAllWell : kFaultsFound;
}

} // namespace difctl
