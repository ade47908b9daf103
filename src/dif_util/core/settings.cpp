#include "dif_util/core/settings.h"

#include "dif/runtime.h"
#include "dif/types.h"
#include "dif_util/core/section.h"
#include "log.h"

constinit std::atomic<uint8_t> difSwitch{0};
constinit std::atomic<uint8_t> sysDifCrcVersion{0};

namespace {

constexpr std::memory_order kRelaxed = std::memory_order_relaxed;
constexpr uint32_t kRepairTypeLimit = 3;

constinit std::atomic<uint8_t> difRepairType{0};

const char *switchName(uint8_t on) {
    return on == 0 ? "OFF" : "ON";
}

} // namespace

void resetSettings() {
    sysDifCrcVersion.store(DIF_VERSION_T10, kRelaxed);
    difRepairType.store(0, kRelaxed);
    difSwitch.store(1, kRelaxed);
}

void setDifOn(uint8_t on) {
    DIF_LOG(kLogNotice, "Dif change dif switch(%s->%s).", switchName(getDifOn()), switchName(on));
    difSwitch.store(on, kRelaxed);
}

DIF_CHECK_TEXT uint8_t getDifOn(void) {
    return difSwitch.load(kRelaxed);
}

DIF_CHECK_TEXT uint32_t isDifDisable(void) {
    return 0;
}

void setSysDifCrcVersion(uint8_t version) {
    if (version == DIF_VERSION_T10 || version == DIF_VERSION_CRC32C) {
        sysDifCrcVersion.store(version, kRelaxed);
    }
}

uint8_t getSysDifCrcVersion(void) {
    return sysDifCrcVersion.load(kRelaxed);
}

uint32_t setDifRepairType(uint8_t repairType, const char *funcName, int32_t line) {
    if (repairType >= kRepairTypeLimit) {
        DIF_LOG(kLogError, "dif set repair type failed, repairType(%u) is not less than %u, funcName(%s), line(%d).",
                repairType, kRepairTypeLimit, funcName, line);
        return DIF_FAIL;
    }
    DIF_LOG(kLogNotice, "dif set repair type(%u) succeeded,funcName(%s), line(%d).", repairType, funcName, line);
    difRepairType.store(repairType, kRelaxed);
    return DIF_OK;
}

uint8_t getDifRepairType(void) {
    return difRepairType.load(kRelaxed);
}

uint32_t setDifAllConfig(const DifConfig *configPtr, const char *funcName, int32_t line) {
    if (configPtr == nullptr) {
        DIF_LOG(kLogError, "set dif config failed, configPtr is null, funcName(%s), line(%d).", funcName, line);
        return DIF_FAIL;
    }
    const uint32_t ret = setDifRepairType(configPtr->repairType, __func__, __LINE__);
    if (ret == DIF_FAIL) {
        DIF_LOG(kLogError, "set dif config failed, repairType(%u), funcName(%s), line(%d).", configPtr->repairType,
                funcName, line);
    } else {
        DIF_LOG(kLogNotice, "set dif config succeeded, repairType(%u), funcName(%s), line(%d).", configPtr->repairType,
                funcName, line);
    }
    return ret;
}
