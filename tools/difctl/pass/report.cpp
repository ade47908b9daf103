#include "pass/report.h"

#include "io/number.h"

#include <numeric>

#include <nlohmann/json.hpp>

namespace difctl {

namespace {

using Json = nlohmann::ordered_json;

/* The report bits: those that tell of some block and those that tell of every block. */
struct ReportBit {
    uint32_t bit;
    bool ofEveryBlock;
    const char *key;
    const char *words;
};

constexpr std::array<ReportBit, 6> kReportBits = {{
    {DIF_RESULT_HAVE_BST, false, "have_bst", "some block carries the BST mark"},
    {DIF_RESULT_ALL_LBA_VALID, true, "all_lba_valid", "every block has a valid LBA"},
    {DIF_RESULT_ALL_ZERO, true, "all_zero", "every block is zero data"},
    {DIF_RESULT_NOT_T10, false, "not_t10", "some version is neither 0x00 nor 0x13 (T10)"},
    {DIF_RESULT_UNKNOWN_VERSION, false, "unknown_version", "some version is unknown"},
    {DIF_RESULT_VERSION_ZERO, false, "version_zero", "some version is 0x00 or 0xff"},
}};

const char *kindName(FaultKind kind) {
    switch (kind) {
    case FaultKind::kGuard:
        return "guard";
    case FaultKind::kLba:
        return "LBA";
    case FaultKind::kVersion:
        break;
    }
    return "version";
}

std::string tupleText(const Fault &fault) {
    return hexText(fault.tuple.data(), fault.tuple.size());
}

/* A file name may be any bytes; JSON text may not. */
std::string dump(const Json &json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

} // namespace

void Findings::add(Request &request) {
    inSome_ |= request.checkResult;
    inEvery_ &= request.checkResult;
    if (!complete()) {
        request.faults.clear();
        return;
    }
    for (const Fault &fault : request.faults) {
        ++failed_[static_cast<size_t>(fault.kind)];
    }
    checked_ += complete() ? request.blockNum : request.faults.front().block - request.firstBlock + 1;
}

uint64_t Findings::failed() const {
    return std::accumulate(failed_.begin(), failed_.end(), uint64_t{0});
}

uint32_t Findings::report() const {
    uint32_t answer = 0;
    for (const ReportBit &entry : kReportBits) {
        answer |= entry.bit & (entry.ofEveryBlock ? inEvery_ : inSome_);
    }
    return answer;
}

std::string placeText(uint64_t block, uint64_t lba) {
    return "block " + std::to_string(block) + ", LBA " + std::to_string(lba);
}

std::string faultText(const Fault &fault) {
    return placeText(fault.block, fault.lba) + ": " + kindName(fault.kind) + " error, tuple " + tupleText(fault);
}

std::string totalsText(const Findings &findings) {
    return "blocks checked " + std::to_string(findings.checked()) + ", failed " + std::to_string(findings.failed()) +
           " (guard " + std::to_string(findings.failed(FaultKind::kGuard)) + ", LBA " +
           std::to_string(findings.failed(FaultKind::kLba)) + ", version " +
           std::to_string(findings.failed(FaultKind::kVersion)) + ")" +
           (findings.complete() ? "" : "; ended at the first, --all goes on");
}

std::string reportText(const Findings &findings) {
    std::string text;
    for (const ReportBit &entry : kReportBits) {
        text += std::string(entry.words) + ": " + ((findings.report() & entry.bit) != 0 ? "yes" : "no") + "\n";
    }
    return text;
}

std::string jsonBegin(const std::string &imageName, uint32_t blockSize, uint64_t lba) {
    std::string text = dump(Json{{"image", imageName}, {"block_size", blockSize}, {"lba", lba}});
    text.back() = ',';
    return text + "\"failed_blocks\":[";
}

std::string jsonFault(const Fault &fault, bool first) {
    return (first ? "" : ",") + dump(Json{{"block", fault.block},
                                          {"lba", fault.lba},
                                          {"kind", kindName(fault.kind)},
                                          {"tuple", tupleText(fault)}});
}

std::string jsonEnd(const Findings &findings, bool withReport) {
    Json totals = {{"blocks_checked", findings.checked()},
                   {"complete", findings.complete()},
                   {"failed",
                    {{"total", findings.failed()},
                     {"guard", findings.failed(FaultKind::kGuard)},
                     {"LBA", findings.failed(FaultKind::kLba)},
                     {"version", findings.failed(FaultKind::kVersion)}}}};
    if (withReport) {
        for (const ReportBit &entry : kReportBits) {
            totals["report"][entry.key] = (findings.report() & entry.bit) != 0;
        }
    }
    std::string text = dump(totals);
    text.front() = ',';
    return "]" + text + "\n";
}

} // namespace difctl
