/* The "dif" commands: dispatch, and what each sub-command shows. */
#include "dif/diagnose.h"
#include "dif/runtime.h"
#include "dif/verify_point.h"
#include "platform/dbg_cmd.h"

#include <atomic>
#include <cstring>
#include <span>

namespace {

constexpr const char *kCommandWord = "dif";
constexpr uint32_t kShownModules = 10; /* reserved module ids have no row of results */

using Counters = uint64_t[DIF_STAT_BUTT];

int32_t refuse() {
    DBG_Print("Error: invalid input!\n");
    return DBG_ShowUsageAndErrMsg(nullptr);
}

/* A word that is not there is none. */
bool isWord(const char *word, const char *expected) {
    return word != nullptr && std::strcmp(word, expected) == 0;
}

/* The sub-commands take no arguments. */
bool isBare(int32_t argc) {
    return argc == 2;
}

int32_t dispatch(std::span<const DifCmdEntry> entries, int32_t argc, char **argv) {
    if (argv == nullptr) {
        return DBG_ShowUsageAndErrMsg("Error: cmd input is null.");
    }
    if (argc > 1 && isWord(argv[0], kCommandWord)) {
        for (const DifCmdEntry &entry : entries) {
            if (isWord(argv[1], entry.name)) {
                return entry.handler(argc, argv);
            }
        }
    }
    return refuse();
}

/* A byte of the registry, which a module may be registering in. */
template <typename Byte>
Byte load(Byte &byte) {
    return std::atomic_ref{byte}.load(std::memory_order_relaxed);
}

VerifyPointSlot copyOf(VerifyPointSlot &slot) {
    VerifyPointSlot copy;
    copy.pointId = load(slot.pointId);
    for (uint32_t i = 0; i < DIF_VERIFY_POINT_NAME_SIZE; ++i) {
        copy.pointName[i] = load(slot.pointName[i]);
    }
    copy.pointName[DIF_VERIFY_POINT_NAME_SIZE - 1] = '\0';
    return copy;
}

/* Calls `print(mid, slot, isFirstOfModule, counters)` for every registered verify point of the shown modules. */
template <typename Print>
void forEachVerifyPoint(Print print) {
    for (uint8_t mid = 0; mid < kShownModules; ++mid) {
        VerifyPointMsg &record = *difVerifyMsgGetByMid(mid);
        for (uint32_t point = 0; point < load(record.verifyPointNum); ++point) {
            Counters counters;
            difVerifyStatisticGet(mid, point, counters);
            print(mid, copyOf(record.verifyPoints[point]), point == 0, counters);
        }
    }
}

unsigned long long wide(uint64_t value) {
    return value;
}

int32_t difShowVerifyLevel(int32_t argc, char ** /*argv*/) {
    if (!isBare(argc)) {
        return refuse();
    }
    DBG_Print("\n  module id   module name        verify level  \n");
    DBG_Print("  ----------  ----------------  -------------  \n");
    for (uint32_t mid = 0; mid < DIF_MID_BUTT; ++mid) {
        DBG_Print("  %-10llu  %-16s  %13u\n", wide(mid), g_midDescription[mid], getDifVerifyLevelByMid(mid));
    }
    return 0;
}

int32_t difShowDifSwitch(int32_t argc, char ** /*argv*/) {
    if (!isBare(argc)) {
        return refuse();
    }
    DBG_Print(getDifOn() != 0 ? "dif switch status: on\n" : "dif switch status: off\n");
    return 0;
}

int32_t difShowVerifyResult(int32_t argc, char ** /*argv*/) {
    if (!isBare(argc)) {
        return refuse();
    }
    DBG_Print("\n  module_id   module_name       verify_point_id  verify_point_name                         "
              "           verify_ok             lba_error             crc_error         version_error\n");
    DBG_Print("  ----------  ----------------  ---------------  ----------------------------------------  "
              "--------------------  --------------------  --------------------  --------------------\n");
    forEachVerifyPoint([](uint8_t mid, const VerifyPointSlot &slot, bool isFirst, const Counters &counters) {
        const auto ok = wide(counters[DIF_STAT_VERIFY_OK]);
        const auto lba = wide(counters[DIF_STAT_LBA_ERROR]);
        const auto crc = wide(counters[DIF_STAT_CRC_ERROR]);
        const auto version = wide(counters[DIF_STAT_VERSION_ERROR]);
        if (isFirst) {
            DBG_Print("  %-10u  %-16s  %-15u  %-40s  %20llu  %20llu  %20llu  %20llu\n", mid, g_midDescription[mid],
                      slot.pointId, slot.pointName, ok, lba, crc, version);
        } else {
            DBG_Print("  %-10s  %-16s  %-15u  %-40s  %20llu  %20llu  %20llu  %20llu\n", " ", " ", slot.pointId,
                      slot.pointName, ok, lba, crc, version);
        }
    });
    return 0;
}

int32_t cliShowVerifyResult(int32_t argc, char ** /*argv*/) {
    if (!isBare(argc)) {
        return refuse();
    }
    DBG_Print("\n  module_id   module_name       verify_point_id  verify_point_name                         "
              "           lba_error             crc_error         version_error\n");
    DBG_Print("  ----------  ----------------  ---------------  ----------------------------------------  "
              "--------------------  --------------------  --------------------\n");
    forEachVerifyPoint([](uint8_t mid, const VerifyPointSlot &slot, bool isFirst, const Counters &counters) {
        const auto lba = wide(counters[DIF_STAT_LBA_ERROR]);
        const auto crc = wide(counters[DIF_STAT_CRC_ERROR]);
        const auto version = wide(counters[DIF_STAT_VERSION_ERROR]);
        if (isFirst) {
            DBG_Print("  %-10u  %-16s  %-15u  %-40s  %20llu  %20llu  %20llu\n", mid, g_midDescription[mid],
                      slot.pointId, slot.pointName, lba, crc, version);
        } else {
            DBG_Print("  %-10s  %-16s  %-15u  %-40s  %20llu  %20llu  %20llu\n", " ", " ", slot.pointId, slot.pointName,
                      lba, crc, version);
        }
    });
    return 0;
}

} // namespace

extern "C" {
constexpr DifCmdEntry g_difArray[3] = {
    {"showverifylevel", difShowVerifyLevel},
    {"showdifswitch", difShowDifSwitch},
    {"showverifyresult", difShowVerifyResult},
};

constexpr DifCmdEntry g_difArrayForCli[2] = {
    {"showverifylevel", difShowVerifyLevel},
    {"showverifyresult", cliShowVerifyResult},
};
}

int32_t diagnoseDoDifCmd(int32_t argc, char **argv) {
    return dispatch(g_difArray, argc, argv);
}

int32_t cliDoDifCmd(int32_t argc, char **argv) {
    return dispatch(g_difArrayForCli, argc, argv);
}
