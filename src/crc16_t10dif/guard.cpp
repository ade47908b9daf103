#include "crc16_t10dif/guard.h"

#include "dif/crc16.h"
#include "platform/osal.h"

uint16_t crcGuardT10(const uint8_t *data, uint32_t len, bool zeroData) {
    if (zeroData && (len == 512 || len == 4096)) {
        return kZeroGuardT10;
    }
    return crc16T10Dif(0, data, len);
}

uint16_t crcGuardCrc32c(const uint8_t *data, uint32_t len, bool zeroData) {
    if (zeroData && len == 512) {
        return kZeroGuardCrc32c512;
    }
    if (zeroData && len == 4096) {
        return kZeroGuardCrc32c4096;
    }
    return static_cast<uint16_t>(osal_crc32c(data, len));
}
