/* Module names, and the registry of each module's verify points. */
#include "dif/verify_point.h"

#include "dif_util/verify/verify_point_registry.h"
#include "log.h"
#include "platform/secure_string.h"

#include <atomic>

extern "C" {
VerifyPointMsg g_verifyPointMsg[DIF_MID_BUTT];

constexpr const char *const g_difModuleName[DIF_MID_BUTT + 1] = {
    "debug",  "fc",      "lun",      "volume", "cache",    "pool",     "bdm",      "rss",   "logzone",
    "sasini", "bdm_lun", "reserved", "lam",    "reserved", "reserved", "reserved", nullptr,
};

constexpr const char *const g_midDescription[DIF_MID_BUTT + 1] = {
    "DIF_MID_DEBUG", "DIF_MID_FC",  "DIF_MID_LUN",     "DIF_MID_VOLUME", "DIF_MID_CACHE", "DIF_MID_POOL",
    "DIF_MID_BDM",   "DIF_MID_RSS", "DIF_MID_LOGZONE", "DIF_MID_SASINI", "reserved",      "reserved",
    "reserved",      "reserved",    "reserved",        "reserved",       nullptr,
};
}

namespace {

/* Registry bytes that checks and operators read while a module may be registering. */
template <typename Byte>
void store(Byte &byte, Byte value) {
    std::atomic_ref{byte}.store(value, std::memory_order_relaxed);
}

void emptyRecord(VerifyPointMsg &record) {
    store<uint8_t>(record.verifyPointNum, 0);
    for (VerifyPointSlot &slot : record.verifyPoints) {
        store<uint8_t>(slot.pointId, DIF_VERIFY_POINT_FREE);
    }
}

void fillSlot(VerifyPointSlot &slot, const VerifyPointDesc &desc) {
    store(slot.pointId, desc.pointId);
    strncpy_s(slot.pointName, DIF_VERIFY_POINT_NAME_SIZE, desc.pointName, DIF_VERIFY_POINT_NAME_SIZE - 1);
    store(slot.pointName[DIF_VERIFY_POINT_NAME_SIZE - 1], '\0');
}

} // namespace

void initAllModVerifyPointMsg() {
    for (VerifyPointMsg &record : g_verifyPointMsg) {
        emptyRecord(record);
    }
    const VerifyPointDesc own = {1, "DEBUG_MOD_COMMON_VERIFY_POINT"};
    difRegistVerifyPoint(DIF_MID_DEBUG, &own, 1, __func__, __LINE__);
}

uint32_t difRegistVerifyPoint(uint32_t mid, const VerifyPointDesc *verifyPointPtr, uint32_t num, const char *funcName,
                              int32_t line) {
    if (mid >= DIF_MID_BUTT) {
        DIF_LOG(kLogError, "mid(%u) is invalid.", mid);
        return DIF_FAIL;
    }
    if (num > DIF_VERIFY_POINT_MAX) {
        DIF_LOG(kLogError,
                "dif regist mid(%u-%s)'s verify point failed, num(%u) exceed limit(%u), funcName(%s), line(%d).", mid,
                g_difModuleName[mid], num, DIF_VERIFY_POINT_MAX, funcName, line);
        return DIF_FAIL;
    }
    if (verifyPointPtr == nullptr) {
        DIF_LOG(kLogError, "verifyPointPtr is NULL.");
        return DIF_FAIL;
    }
    VerifyPointMsg &record = g_verifyPointMsg[mid];
    store(record.verifyPointNum, static_cast<uint8_t>(num));
    for (uint32_t i = 0; i < num; ++i) {
        const VerifyPointDesc &desc = verifyPointPtr[i];
        if (desc.pointId == 0 || desc.pointId > num) {
            DIF_LOG(kLogError,
                    "dif regist mid(%u-%s)'s %uth verify point(%u,%s) failed, pointId exceed num(%u), funcName(%s), "
                    "line(%d).",
                    mid, g_difModuleName[mid], i, desc.pointId, desc.pointName, num, funcName, line);
            emptyRecord(record);
            return DIF_FAIL;
        }
        VerifyPointSlot &slot = record.verifyPoints[desc.pointId - 1];
        if (slot.pointId != DIF_VERIFY_POINT_FREE) {
            DIF_LOG(kLogError,
                    "dif regist mid(%u-%s)'s %uth verify point(%u,%s) failed, has registed as(%u,%s), num(%u), "
                    "funcName(%s), line(%d)",
                    mid, g_difModuleName[mid], i, desc.pointId, desc.pointName, slot.pointId, slot.pointName, num,
                    funcName, line);
            emptyRecord(record);
            return DIF_FAIL;
        }
        fillSlot(slot, desc);
    }
    DIF_LOG(kLogNotice, "dif regist mid(%u-%s)'s verify point success, num(%u), funcName(%s), line(%d)", mid,
            g_difModuleName[mid], num, funcName, line);
    return DIF_OK;
}

VerifyPointMsg *difVerifyMsgGetByMid(uint8_t mid) {
    return mid < DIF_MID_BUTT ? &g_verifyPointMsg[mid] : nullptr;
}
