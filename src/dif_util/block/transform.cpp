/* The large-sector transform: one tuple for the data of several 520-byte blocks. */
#include "dif/block.h"

#include "crc16_t10dif/engine.h"
#include "dif/crc16.h"
#include "dif_util/core/arguments.h"
#include "dif_util/core/geometry.h"
#include "dif_util/core/settings.h"
#include "dif_util/core/tuple.h"
#include "platform/osal.h"

namespace {

constexpr const DifTypeInfo &kInfo = kTypeInfo[DIF_DATA_520];

uint16_t t10GuardOfAll(const uint8_t *block, uint32_t blockNum) {
    uint16_t stored = 0;
    for (uint32_t k = 0; k < blockNum; ++k, block += kInfo.blockSize) {
        stored = crc16T10Dif(__builtin_bswap16(stored), block, kInfo.dataSize);
    }
    return stored;
}

uint16_t crc32cGuardOfAll(const uint8_t *block, uint32_t blockNum) {
    uint32_t reg = 0xFFFFFFFF;
    for (uint32_t k = 0; k < blockNum; ++k, block += kInfo.blockSize) {
        reg = osal_crc32cContinue(reg, block, kInfo.dataSize);
    }
    releaseUpperHalves();
    return static_cast<uint16_t>(~reg);
}

} // namespace

void trans2LSectorDif(const uint8_t *buf, uint32_t sectorNum, DifTuple *dif) {
    if (!isDifOn()) {
        return;
    }
    if (!DIF_ASSERT_NOT_NULL(buf)) {
        return;
    }
    static_cast<void>(DIF_ASSERT(sectorNum != 0));
    if (!DIF_ASSERT_NOT_NULL(dif)) {
        return;
    }
    const uint8_t version = sysDifCrcVersion.load(std::memory_order_relaxed);
    setTupleVersion(dif, version);
    setTupleApp(dif, 0);
    setTupleLba(dif, 0);
    setTupleGuard(dif, version == DIF_VERSION_T10 ? t10GuardOfAll(buf, sectorNum) : crc32cGuardOfAll(buf, sectorNum));
}
