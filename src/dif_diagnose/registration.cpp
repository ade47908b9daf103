/* Registration of the "dif" commands with the host. */
#include "dif/diagnose.h"
#include "log.h"
#include "platform/dbg_cmd.h"

void initDifDiagnoseModule(void) {
    const DbgCmdReg diagnose = {"dif", "diagnose function of dif", diagnoseDoDifCmd, diagnoseDoDifHelp};
    const DbgCmdReg cli = {"dif", "cli function of dif", cliDoDifCmd, cliDoDifHelp};
    if (DBG_RegCmd(&diagnose) == 0) {
        DIF_LOG(kLogNotice, "Dif register PID to diagnose success.");
    } else {
        DIF_LOG(kLogError, "Dif register PID to diagnose fail.");
    }
    if (DBG_RegCmdToCLI(&cli) == 0) {
        DIF_LOG(kLogNotice, "Dif register PID to cli success.");
    } else {
        DIF_LOG(kLogError, "Dif register PID to cli fail.");
    }
}

int32_t exitDifDiagnoseModule(void) {
    DBG_UnRegCmd("dif");
    return DBG_UnRegCmdToCLI("dif");
}
