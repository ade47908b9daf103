#include "dif_util/verify/check_messages.h"

#include "log.h"

namespace {

/* The steps, as the log knows them. */
constexpr const char *kReportStep = "tryCheckDifAppAndSetResult";
constexpr const char *kIntegrityStep = "tryCheckDifIntegrity";
constexpr const char *kLbaComparison = "isDifLbaCorrect";
constexpr const char *kCrcComparison = "isDifCrcCorrect";

const void *address(CheckedBlock block, const DifTypeInfo &info) {
    return block.tuple(info);
}

bool claimDetailedLog(DifCheckParam &param) {
    const bool first = (param.ctrlFlag & DIF_CHECK_LOG_FIRST) != 0;
    param.ctrlFlag &= ~DIF_CHECK_LOG_FIRST;
    return first;
}

} // namespace

void noteExemptFromReport(CheckedBlock block, const DifTypeInfo &info, const DifCheckParam &param) {
    DIF_LOG_LIMITED_IN(kReportStep, ExemptNoteLimiter, kLogInfo,
                       "DIF_APP_CHECK_INFO: version(0xFF), app(0xFF),difPtr(%p), type(%u), ctrlFlag(0x%x), mid(%u).",
                       address(block, info), param.type, param.ctrlFlag, param.mid);
}

void noteExemptFromIntegrity(CheckedBlock block, const DifTypeInfo &info, const DifCheckParam &param) {
    DIF_LOG_LIMITED_IN(kIntegrityStep, ExemptNoteLimiter, kLogInfo,
                       "DIF_INTEGRITY_CHECK_INFO: version(0xFF), app(0xFF), difPtr(%p), type(%u),ctrlFlag(0x%x), "
                       "mid(%u), subPid(%u), crcLevel(%u), lbaLevel(%u).",
                       address(block, info), param.type, param.ctrlFlag, param.mid, param.subPid, param.crcLevel,
                       param.lbaLevel);
}

void warnOfBst(CheckedBlock block, const DifTypeInfo &info, const DifCheckParam &param) {
    DIF_WARN_BLOCK(kReportStep, block, info,
                   "DIF_WARNING_CHECK_DIF: HAVE BST error: version(0x%x),difPtr(%p), type(%u), ctrlFlag(0x%x), "
                   "mid(%u), subPid(%u).",
                   tupleVersion(block.tuple(info)), address(block, info), param.type, param.ctrlFlag, param.mid,
                   param.subPid);
}

void warnOfVersionInLbaCheck(CheckedBlock block, const DifTypeInfo &info, DifCheckParam &param) {
    if (claimDetailedLog(param)) {
        DIF_WARN_BLOCK(kIntegrityStep, block, info,
                       "DIF_WARNING_CHECK_DIF: VERSION error: version(0x%x), block(%u),difPtr(%p), type(%u), "
                       "ctrlFlag(0x%x), mid(%u), subPid(%u), lbaLevel(%u).",
                       tupleVersion(block.tuple(info)), block.index, address(block, info), param.type, param.ctrlFlag,
                       param.mid, param.subPid, param.lbaLevel);
    }
}

void warnOfVersionInCrcCheck(CheckedBlock block, const DifTypeInfo &info, DifCheckParam &param) {
    if (claimDetailedLog(param)) {
        DIF_WARN_BLOCK(kIntegrityStep, block, info,
                       "DIF_WARNING_CHECK_DIF: VERSION error: version(0x%x), block(%u),difPtr(%p), type(%u), "
                       "ctrlFlag(0x%x), mid(%u), subPid(%u), crcLevel(%u).",
                       tupleVersion(block.tuple(info)), block.index, address(block, info), param.type, param.ctrlFlag,
                       param.mid, param.subPid, param.crcLevel);
    }
}

void warnOfLba(CheckedBlock block, const DifTypeInfo &info, DifCheckParam &param) {
    if (claimDetailedLog(param)) {
        DIF_WARN_BLOCK(kLbaComparison, block, info,
                       "DIF_WARNING_CHECK_DIF: LBA error: expected(%u), actual(%u), block(%u), difPtr(%p), type(%u), "
                       "ctrlFlag(0x%x), mid(%u), lbaLevel(%u).",
                       static_cast<uint32_t>(param.lba), tupleLba(block.tuple(info)), block.index, address(block, info),
                       param.type, param.ctrlFlag, param.mid, param.lbaLevel);
    }
}

void warnOfCrc(CheckedBlock block, const DifTypeInfo &info, DifCheckParam &param, uint16_t expected) {
    if (!claimDetailedLog(param)) {
        return;
    }
    const uint16_t actual = tupleGuard(block.tuple(info));
    if (tupleVersion(block.tuple(info)) == DIF_VERSION_CRC32C) {
        DIF_WARN_BLOCK(kCrcComparison, block, info,
                       "DIF_WARNING_CHECK_DIF: CRC error: expected(0x%x), actual(0x%x), ver(CRC32C),block(%u), "
                       "difPtr(%p), type(%u), ctrlFlag(0x%x), mid(%u), subPid(%u), crcLevel(%u).",
                       expected, actual, block.index, address(block, info), param.type, param.ctrlFlag, param.mid,
                       param.subPid, param.crcLevel);
    } else {
        DIF_WARN_BLOCK(kCrcComparison, block, info,
                       "DIF_WARNING_CHECK_DIF: CRC error:expected(0x%x), actual(0x%x), ver(T10),block(%u), "
                       "difPtr(%p), type(%u), ctrlFlag(0x%x), mid(%u), subPid(%u), crcLevel(%u).",
                       expected, actual, block.index, address(block, info), param.type, param.ctrlFlag, param.mid,
                       param.subPid, param.crcLevel);
    }
}
