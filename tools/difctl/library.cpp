#include "library.h"

#include "error.h"

#include "dif_host.h"

namespace difctl {

Library::Library(bool verbose) {
    difHostSetLogLevel(verbose ? DIF_HOST_LOG_NOTICE : DIF_HOST_LOG_ERROR);
    difHostSetAssertPolicy(DIF_HOST_ASSERT_STOP);
    difModuleInit();
    const VerifyPointDesc point = {kVerifyPoint, "DIFCTL_IMAGE_VERIFY"};
    if (difRegistVerifyPoint(kVerifyModule, &point, 1, __func__, __LINE__) != DIF_OK) {
        throw Error("verify point " + std::string(point.pointName) + " cannot be registered; -v shows why");
    }
}

Library::~Library() {
    difModuleExit();
}

} // namespace difctl
