/* The self-test of the CRC16 engines, as a command of the tool and as a word of its shell. */
#include "commands/selftest.h"

#include "commands/options.h"
#include "io/error.h"
#include "io/number.h"
#include "pass/library.h"

#include "dif_host.h"
#include "platform/dbg_cmd.h"

#include <array>
#include <cstdio>
#include <string>
#include <string_view>

namespace difctl {

namespace {

struct SelftestOptions {
    uint64_t times = 1000;
    uint64_t len = 4096;
};

constexpr const char *kWord = "selftest";

int32_t runWord(int32_t argc, char **argv) {
    const auto times = argc > 1 ? parseNumber(argv[1]) : SelftestOptions().times;
    const auto len = argc > 2 ? parseNumber(argv[2]) : SelftestOptions().len;
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

/* The rates of the report, which are in bytes a second, in a unit that can be read. */
std::string inGigabytes(std::string report) {
    constexpr std::string_view kUnit = " B/s";
    for (size_t end = report.find(kUnit); end != std::string::npos; end = report.find(kUnit, end + 1)) {
        const size_t begin = report.find_last_not_of("0123456789", end - 1) + 1;
        std::array<char, 32> gigabytes{};
        std::snprintf(gigabytes.data(), gigabytes.size(), "%.2f GB/s", std::stod(report.substr(begin)) / 1e9);
        report.replace(begin, end + kUnit.size() - begin, gigabytes.data());
        end = begin;
    }
    return report;
}

int runSelftest(const SelftestOptions &options) {
    if (options.times == 0) {
        throw Error("selftest: --times 0 would compare nothing; give 1 or more");
    }
    registerSelftest();
    const std::string line =
        std::string(kWord) + " " + std::to_string(options.times) + " " + std::to_string(options.len);
    std::string output;
    const int status = difHostRunCommand(DIF_HOST_DIAGNOSE, line.c_str(), collectText, &output);
    printResult(inGigabytes(output));
    const bool passed = status == 0 && output.find("Test PASS") != std::string::npos;
    return passed ? kAllWell : kFaultsFound;
}

} // namespace

void registerSelftest() {
    const DbgCmdReg command = {"selftest", "compare and time the CRC16 engines", runWord, printHelp};
    if (const int error = DBG_RegCmd(&command); error != 0) {
        throw systemError(kWord, "cannot be registered", error);
    }
}

void addSelftest(CLI::App &app, Command &chosen) {
    const auto [command, options] =
        addCommand(app, chosen, "selftest", "Compare and time the CRC16 engines", runSelftest);
    addNumber(command, "--times", "N", options.times, "How often, at least once")->capture_default_str();
    addNumber(command, "--len", "BYTES", options.len, "Over how many bytes, below 2^32")->capture_default_str();
    command.footer(
        R"(Compares the chosen CRC16 engine, the hardware engine and the table over generated data, and tells how fast each is.
Exit status: 0 they agree, 1 they do not or the test could not run.

Examples:
  difctl selftest
  difctl selftest --times 100000 --len 512
)");
}

} // namespace difctl
