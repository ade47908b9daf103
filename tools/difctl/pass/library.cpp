#include "pass/library.h"

#include "io/error.h"
#include "io/interrupt.h"

#include "dif_host.h"

#include <array>

namespace difctl {

namespace {

/* The assertion service: says where a failed assertion leaves the command, and has the process stopped by a signal. */
uint8_t answerAssertion(const char *expression, uint64_t /*reserved0*/, uint64_t /*reserved1*/, uint32_t /*moduleId*/,
                        const char *funcName, int32_t line) {
    giveUp(std::string("the library stops the process: assertion (") + expression + ") failed in " + funcName + ":" +
           std::to_string(line));
    return DIF_HOST_ASSERT_STOP;
}

} // namespace

Library::Library(bool verbose) {
    difHostSetLogLevel(verbose ? DIF_HOST_LOG_NOTICE : DIF_HOST_LOG_ERROR);
    difHostRegisterService("INFRA_ADAPTER_OS", "Adapt_OS_sysBugHandle", reinterpret_cast<void *>(&answerAssertion));
    std::array<char, 200> why;
    if (difHostTestEngines(why.data(), why.size()) != 0) {
        throw Error(std::string(why.data()) + "; another library of this process stands in its place");
    }
    difModuleInit();
    const VerifyPointDesc point = {kVerifyPoint, "DIFCTL_IMAGE_VERIFY"};
    if (difRegistVerifyPoint(kVerifyModule, &point, 1, __func__, __LINE__) != DIF_OK) {
        throw Error("verify point " + std::string(point.pointName) + " cannot be registered; -v shows why");
    }
}

Library::~Library() {
    difModuleExit();
}

void collectText(void *text, const char *piece, size_t size) {
    static_cast<std::string *>(text)->append(piece, size);
}

} // namespace difctl
