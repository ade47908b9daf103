/* Start and stop of the library. */
#include "dif/crc16.h"
#include "dif/diagnose.h"
#include "dif/runtime.h"
#include "dif_util/core/settings.h"
#include "dif_util/verify/verify_point_registry.h"
#include "log.h"
#include "platform/osal.h"

uint32_t difModuleInit(void) {
    osal_pid_set_name(DIF_MODULE_ID, "DIF");
    initCrc16T10Func();
    resetSettings();
    initVerifyPoint();
    initAllModVerifyPointMsg();
    difStatisticInit();
    initDifDiagnoseModule();
    DIF_LOG(kLogNotice, "Init DIF Module.");
    return DIF_OK;
}

void difModuleExit(void) {
    difStatisticExit();
    exitDifDiagnoseModule();
    DIF_LOG(kLogNotice, "Exit DIF Module.");
}
