#include "pass/report.h"

#include "io/number.h"

#include <numeric>

#include <endian.h>
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

struct Kind {
    const char *word;
    const char *key;
};

constexpr std::array<Kind, kFaultKindNum> kKinds = {{{"guard error", "guard"},
                                                     {"LBA error", "lba"},
                                                     {"version error", "version"},
                                                     {"no protection", "unprotected"},
                                                     {"cannot be read", "unreadable"}}};

const Kind &kindOf(const Fault &fault) {
    return kKinds[static_cast<size_t>(fault.kind)];
}

std::string bytesText(const void *bytes, size_t size) {
    return hexText(static_cast<const uint8_t *>(bytes), size);
}

/* The value of a fault's field: guards as their bytes in the tuple, versions in hexadecimal. */
Json valueOf(FaultKind kind, uint64_t value) {
    if (kind == FaultKind::kLba) {
        return value;
    }
    const auto low = static_cast<uint16_t>(value);
    return kind == FaultKind::kGuard ? bytesText(&low, sizeof(low)) : "0x" + bytesText(&low, 1);
}

Json expectedOf(const Fault &fault) {
    return fault.expected ? valueOf(fault.kind, *fault.expected) : Json();
}

Json foundOf(const Fault &fault) {
    if (fault.kind == FaultKind::kUnreadable) {
        return {};
    }
    const uint64_t found = fault.kind == FaultKind::kLba     ? be32toh(fault.tuple.lba)
                           : fault.kind == FaultKind::kGuard ? fault.tuple.crc
                                                             : fault.tuple.version;
    return valueOf(fault.kind, found);
}

Json tupleOf(const Fault &fault) {
    return fault.kind == FaultKind::kUnreadable ? Json() : Json(bytesText(&fault.tuple, sizeof(fault.tuple)));
}

std::string plainText(const Json &value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

/* "7", or "7-9" for more than one */
std::string rangeText(uint64_t first, uint64_t count) {
    return std::to_string(first) + (count > 1 ? "-" + std::to_string(first + count - 1) : "");
}

} // namespace

std::string jsonText(const Json &json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void FaultRuns::add(const Request &request) {
    for (const Fault &fault : request.faults) {
        if (last_ && last_->first.kind == fault.kind && last_->first.block + last_->count == fault.block) {
            ++last_->count;
        } else {
            end();
            last_ = {fault, 1};
        }
    }
    if (last_ && last_->first.block + last_->count != request.firstBlock + request.blockNum) {
        end();
    }
}

void FaultRuns::end() {
    if (last_ && runs_++ < limit_) {
        tell_(*last_);
    }
    last_.reset();
}

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
    unprotected_ += request.unprotected;
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

std::string runText(const FaultRun &run) {
    const Fault &fault = run.first;
    std::string what =
        (run.count == 1 ? placeText(fault.block, fault.lba)
                        : "blocks " + rangeText(fault.block, run.count) + ", LBAs " + rangeText(fault.lba, run.count)) +
        ": " + kindOf(fault).word;
    if (fault.kind == FaultKind::kUnreadable) {
        return what;
    }
    const std::string expected = fault.expected ? "expected " + plainText(expectedOf(fault)) + ", " : "";
    return what + (run.count == 1 ? ", " : ", the first: ") + expected + "found " + plainText(foundOf(fault)) +
           ", tuple " + bytesText(&fault.tuple, sizeof(fault.tuple));
}

std::string untoldText(uint64_t runs) {
    return std::to_string(runs) +
           (runs == 1 ? " more run of failed blocks is not named" : " more runs of failed blocks are not named");
}

std::string totalsText(const Findings &findings) {
    const auto ifAny = [&findings](const char *word, FaultKind kind) {
        return findings.failed(kind) == 0 ? "" : word + std::to_string(findings.failed(kind));
    };
    return "blocks checked " + std::to_string(findings.checked()) + ", failed " + std::to_string(findings.failed()) +
           " (guard " + std::to_string(findings.failed(FaultKind::kGuard)) + ", LBA " +
           std::to_string(findings.failed(FaultKind::kLba)) + ", version " +
           std::to_string(findings.failed(FaultKind::kVersion)) + ifAny(", unprotected ", FaultKind::kUnprotected) +
           ifAny(", unreadable ", FaultKind::kUnreadable) + "), unprotected " + std::to_string(findings.unprotected()) +
           (findings.complete() ? "" : "; ended at the first, --all goes on");
}

std::string reportText(const Findings &findings) {
    std::string text;
    for (const ReportBit &entry : kReportBits) {
        text += std::string(entry.words) + ": " + ((findings.report() & entry.bit) != 0 ? "yes" : "no") + "\n";
    }
    return text;
}

std::string jsonBegin(const std::string &imageName, uint32_t blockSize, uint64_t firstLba) {
    std::string text = jsonText(
        Json{{"schema", kJsonSchema}, {"image", imageName}, {"block_size", blockSize}, {"first_lba", firstLba}});
    text.back() = ',';
    return text + "\"faults\":[";
}

std::string jsonRun(const FaultRun &run, bool first) {
    const Fault &fault = run.first;
    return (first ? "" : ",") + jsonText(Json{{"block", fault.block},
                                              {"count", run.count},
                                              {"lba", fault.lba},
                                              {"kind", kindOf(fault).key},
                                              {"expected", expectedOf(fault)},
                                              {"found", foundOf(fault)},
                                              {"tuple", tupleOf(fault)}});
}

std::string jsonEnd(const Findings &findings, uint64_t untoldRuns, bool withReport) {
    Json totals = {{"faults_omitted", untoldRuns},
                   {"blocks_checked", findings.checked()},
                   {"blocks_unprotected", findings.unprotected()},
                   {"complete", findings.complete()},
                   {"failed", {{"total", findings.failed()}}}};
    for (size_t kind = 0; kind < kFaultKindNum; ++kind) {
        totals["failed"][kKinds[kind].key] = findings.failed(static_cast<FaultKind>(kind));
    }
    if (withReport) {
        for (const ReportBit &entry : kReportBits) {
            totals["report"][entry.key] = (findings.report() & entry.bit) != 0;
        }
    }
    std::string text = jsonText(totals);
    text.front() = ',';
    return "]" + text + "\n";
}

} // namespace difctl
