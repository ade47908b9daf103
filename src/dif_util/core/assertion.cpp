#include "dif_util/core/assertion.h"

#include "dif/runtime.h"
#include "log.h"
#include "platform/intf_lookup.h"

#include <atomic>
#include <csignal>
#include <cstdlib>

extern "C" {
void *g_baseServiceIntfRely = nullptr;
}

namespace {

/* The host's service, looked up until it is there. */
AssertionService assertionService() {
    const std::atomic_ref<void *> known{g_baseServiceIntfRely};
    void *service = known.load(std::memory_order_relaxed);
    if (service == nullptr) {
        service = lookupIntfMethod("INFRA_ADAPTER_OS", "Adapt_OS_sysBugHandle", 0, 0);
        known.store(service, std::memory_order_relaxed);
    }
    return reinterpret_cast<AssertionService>(service);
}

} // namespace

bool assertionFailed(AssertionSite &site, const char *func, uint32_t value) {
    if (!site.limiter.admit({func, site.line}, kLogError)) {
        return false;
    }
    hostlog(DIF_MODULE_ID, kLogAssert, DIF_SOURCE_MODULE, site.line, func, kNoLogId, site.text, value);
    const AssertionService mustStop = assertionService();
    if (mustStop != nullptr && mustStop(site.expression, 0, 0, DIF_MODULE_ID, func, site.line) != 0) {
        hostlog_standard(DIF_MODULE_ID, kLogAssert, func, site.line, kNoLogId, "Assert fail: (%s)", "0");
        std::raise(SIGILL);
        std::exit(-1); // NOLINT(concurrency-mt-unsafe): nothing of this process goes on
    }
    return false;
}
