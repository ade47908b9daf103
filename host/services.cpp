/* The service registry, and the assertion service that is in it from the start. */
#include "dif_host.h"
#include "platform/hostlog.h"
#include "platform/intf_lookup.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <utility>

namespace {

std::atomic<int> assertPolicy{DIF_HOST_ASSERT_STOP};

uint8_t answerAssertion(const char *expression, uint64_t /*reserved0*/, uint64_t /*reserved1*/, uint32_t moduleId,
                        const char *funcName, int32_t line) {
    if (assertPolicy.load(std::memory_order_relaxed) == DIF_HOST_ASSERT_GO_ON) {
        return 0;
    }
    /* An unconditional assertion is handed over as "0". */
    const bool isCondition = expression != nullptr && std::strcmp(expression, "0") != 0;
    hostlog(moduleId, DIF_HOST_LOG_ASSERT, "dif_host", line, funcName, 0,
            "%s%s. The process stops (SIGILL, \"Illegal instruction\"); after "
            "difHostSetAssertPolicy(DIF_HOST_ASSERT_GO_ON) it would go on.",
            isCondition ? "this does not hold: " : "this must not happen (see the lines before)",
            isCondition ? expression : "");
    return 1;
}

struct Services {
    using Name = std::pair<std::string, std::string>;

    std::mutex mutex;
    std::map<Name, void *> methods{
        {{"INFRA_ADAPTER_OS", "Adapt_OS_sysBugHandle"}, reinterpret_cast<void *>(&answerAssertion)}};
};

/* Never destroyed: assertions may fail until the last destructor of the process has run. */
Services &services() {
    static auto &instance = *new Services;
    return instance;
}

} // namespace

void difHostSetAssertPolicy(int policy) {
    assertPolicy.store(policy, std::memory_order_relaxed);
}

int difHostRegisterService(const char *interfaceName, const char *methodName, void *method) {
    if (interfaceName == nullptr || methodName == nullptr) {
        return EINVAL;
    }
    try {
        Services::Name name(interfaceName, methodName);
        const std::lock_guard lock(services().mutex);
        if (method == nullptr) {
            services().methods.erase(name);
        } else {
            services().methods.insert_or_assign(std::move(name), method);
        }
        return 0;
    } catch (...) {
        return ENOMEM;
    }
}

void *lookupIntfMethod(const char *interfaceName, const char *methodName, uint64_t /*reserved0*/,
                       uint64_t /*reserved1*/) {
    if (interfaceName == nullptr || methodName == nullptr) {
        return nullptr;
    }
    try {
        const Services::Name name(interfaceName, methodName);
        const std::lock_guard lock(services().mutex);
        const auto found = services().methods.find(name);
        return found == services().methods.end() ? nullptr : found->second;
    } catch (...) {
        return nullptr;
    }
}
