#include "dif_util/verify/check_messages.h"

#include "log.h"

namespace {

/* The steps, as the log knows them. */
constexpr const char *kReportStep = "tryCheckDifAppAndSetResult";
constexpr const char *kIntegrityStep = "tryCheckDifIntegrity";
constexpr const char *kLbaComparison = "isDifLbaCorrect";
constexpr const char *kCrcComparison = "isDifCrcCorrect";

const void *address(const CheckedBlock &block) {
    return block.tuple();
}

bool claimDetailedLog(DifCheckParam &param) {
    const bool first = (param.ctrlFlag & DIF_CHECK_LOG_FIRST) != 0;
    param.ctrlFlag &= ~DIF_CHECK_LOG_FIRST;
    return first;
}

} // namespace

void noteExemptFromReport(const CheckedBlock &block, const DifCheckParam &param) {
    DIF_LOG_LIMITED_IN(kReportStep, ExemptNoteLimiter, kLogInfo,
                       "DIF_APP_CHECK_INFO: version(0xFF), app(0xFF),difPtr(%p), type(%u), ctrlFlag(0x%x), mid(%u).",
                       address(block), param.type, param.ctrlFlag, param.mid);
}

void noteExemptFromIntegrity(const CheckedBlock &block, const DifCheckParam &param) {
    DIF_LOG_LIMITED_IN(kIntegrityStep, ExemptNoteLimiter, kLogInfo,
                       "DIF_INTEGRITY_CHECK_INFO: version(0xFF), app(0xFF), difPtr(%p), type(%u),ctrlFlag(0x%x), "
                       "mid(%u), subPid(%u), crcLevel(%u), lbaLevel(%u).",
                       address(block), param.type, param.ctrlFlag, param.mid, param.subPid, param.crcLevel,
                       param.lbaLevel);
}

void warnOfBst(const CheckedBlock &block, const DifCheckParam &param) {
    DIF_WARN_BLOCK(kReportStep, block,
                   "DIF_WARNING_CHECK_DIF: HAVE BST error: version(0x%x),difPtr(%p), type(%u), ctrlFlag(0x%x), "
                   "mid(%u), subPid(%u).",
                   tupleVersion(block.tuple()), address(block), param.type, param.ctrlFlag, param.mid, param.subPid);
}

void warnOfVersionInLbaCheck(const CheckedBlock &block, DifCheckParam &param) {
    if (claimDetailedLog(param)) {
        DIF_WARN_BLOCK(kIntegrityStep, block,
                       "DIF_WARNING_CHECK_DIF: VERSION error: version(0x%x), block(%u),difPtr(%p), type(%u), "
                       "ctrlFlag(0x%x), mid(%u), subPid(%u), lbaLevel(%u).",
                       tupleVersion(block.tuple()), block.index, address(block), param.type, param.ctrlFlag, param.mid,
                       param.subPid, param.lbaLevel);
    }
}

void warnOfVersionInCrcCheck(const CheckedBlock &block, DifCheckParam &param) {
    if (claimDetailedLog(param)) {
        DIF_WARN_BLOCK(kIntegrityStep, block,
                       "DIF_WARNING_CHECK_DIF: VERSION error: version(0x%x), block(%u),difPtr(%p), type(%u), "
                       "ctrlFlag(0x%x), mid(%u), subPid(%u), crcLevel(%u).",
                       tupleVersion(block.tuple()), block.index, address(block), param.type, param.ctrlFlag, param.mid,
                       param.subPid, param.crcLevel);
    }
}

void warnOfLba(const CheckedBlock &block, DifCheckParam &param) {
    if (claimDetailedLog(param)) {
        DIF_WARN_BLOCK(kLbaComparison, block,
                       "DIF_WARNING_CHECK_DIF: LBA error: expected(%u), actual(%u), block(%u), difPtr(%p), type(%u), "
                       "ctrlFlag(0x%x), mid(%u), lbaLevel(%u).",
                       static_cast<uint32_t>(param.lba), tupleLba(block.tuple()), block.index, address(block),
                       param.type, param.ctrlFlag, param.mid, param.lbaLevel);
    }
}

void warnOfCrc(const CheckedBlock &block, DifCheckParam &param, uint16_t expected) {
    if (!claimDetailedLog(param)) {
        return;
    }
    const uint16_t actual = tupleGuard(block.tuple());
    if (tupleVersion(block.tuple()) == DIF_VERSION_CRC32C) {
        DIF_WARN_BLOCK(kCrcComparison, block,
                       "DIF_WARNING_CHECK_DIF: CRC error: expected(0x%x), actual(0x%x), ver(CRC32C),block(%u), "
                       "difPtr(%p), type(%u), ctrlFlag(0x%x), mid(%u), subPid(%u), crcLevel(%u).",
                       expected, actual, block.index, address(block), param.type, param.ctrlFlag, param.mid,
                       param.subPid, param.crcLevel);
    } else {
        DIF_WARN_BLOCK(kCrcComparison, block,
                       "DIF_WARNING_CHECK_DIF: CRC error:expected(0x%x), actual(0x%x), ver(T10),block(%u), "
                       "difPtr(%p), type(%u), ctrlFlag(0x%x), mid(%u), subPid(%u), crcLevel(%u).",
                       expected, actual, block.index, address(block), param.type, param.ctrlFlag, param.mid,
                       param.subPid, param.crcLevel);
    }
}
