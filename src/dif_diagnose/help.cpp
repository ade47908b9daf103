/* The help of the "dif" commands. */
#include "dif/diagnose.h"
#include "dif/verify_point.h"
#include "platform/dbg_cmd.h"

#include <cstring>
#include <span>

namespace {

/* A line of the brief form, and of the detailed one. */
struct HelpLine {
    const char *brief;
    const char *detail;
};

constexpr HelpLine kVerifyLevel = {
    "        dif showverifylevel\n",
    "        dif showverifylevel                         : show module's verify level for all modules.\n"};
constexpr HelpLine kDifSwitch = {"        dif showdifswitch\n",
                                 "        dif showdifswitch                           : show dif is on or off.\n"};
constexpr HelpLine kVerifyResult = {
    "        dif showverifyresult\n",
    "        dif showverifyresult                        : show verify result for all modules.\n"};

constexpr HelpLine kDiagnoseHelp[] = {kVerifyLevel, kDifSwitch, kVerifyResult};
constexpr HelpLine kCliHelp[] = {kVerifyLevel, kVerifyResult};

constexpr uint32_t kFirstReservedMid = DIF_MID_SASINI + 1;

void difPrintMidHelp() {
    DBG_Print("\n%-14s:    description\n", "mid");
    for (uint32_t mid = 0; mid < kFirstReservedMid; ++mid) {
        DBG_Print("%-14u:    %s\n", mid, g_midDescription[mid]);
    }
    DBG_Print("%-2u~%-11u:    reserved\n", kFirstReservedMid, DIF_MID_BUTT - 1u);
}

void difPrintLevelHelp() {
    DBG_Print("\n%-14s:    description\n", "verify level");
    for (uint32_t level = 0; g_levelDescription[level] != nullptr; ++level) {
        DBG_Print("%-14u:    %s\n", level, g_levelDescription[level]);
    }
}

int32_t printHelp(std::span<const HelpLine> lines, const char *name, uint32_t detail) {
    if (name != nullptr && std::strcmp(name, "dif") == 0) {
        DBG_Print(detail == 0 ? "\n" : "SYNOPSIS\n");
        for (const HelpLine &line : lines) {
            DBG_Print("%s", detail == 0 ? line.brief : line.detail);
        }
    }
    difPrintMidHelp();
    difPrintLevelHelp();
    return 0;
}

} // namespace

int32_t diagnoseDoDifHelp(const char *name, uint32_t detail) {
    return printHelp(kDiagnoseHelp, name, detail);
}

int32_t cliDoDifHelp(const char *name, uint32_t detail) {
    return printHelp(kCliHelp, name, detail);
}
