/* Short names of module ids. */
#include "dif_host.h"
#include "platform/osal.h"

#include <cstdio>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>

namespace {

struct Names {
    std::shared_mutex mutex;
    std::unordered_map<uint32_t, std::string> byModule;
};

/* Never destroyed: the log asks for names until the last destructor of the process has run. */
Names &names() {
    static auto &instance = *new Names;
    return instance;
}

} // namespace

void osal_pid_set_name(uint32_t moduleId, const char *name) {
    if (name == nullptr) {
        return;
    }
    try {
        const std::unique_lock lock(names().mutex);
        names().byModule.insert_or_assign(moduleId, name);
    } catch (...) {
        /* Out of memory: the module goes by its number. */
    }
}

bool difHostModuleName(uint32_t moduleId, char *name, size_t size) {
    try {
        const std::shared_lock lock(names().mutex);
        const auto found = names().byModule.find(moduleId);
        if (found == names().byModule.end()) {
            return false;
        }
        std::snprintf(name, size, "%s", found->second.c_str());
        return true;
    } catch (...) {
        return false;
    }
}
