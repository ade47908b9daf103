/* What a check has found over a whole image, and how it is told to people and to programs. */
#ifndef DIFCTL_REPORT_H
#define DIFCTL_REPORT_H

#include "pass/request.h"

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include <nlohmann/json_fwd.hpp>

namespace difctl {

class Findings {
public:
    explicit Findings(bool allBlocks) : allBlocks_(allBlocks) {}

    /* Adds the next request of the image. Without `allBlocks`, only the first fault of the image stays in `request`. */
    void add(Request &request);

    uint64_t failed() const;
    uint64_t failed(FaultKind kind) const { return failed_[static_cast<size_t>(kind)]; }

    /* Blocks whose integrity is known. */
    uint64_t checked() const { return checked_; }

    /* Of those, blocks that pass although no guard protects their data. */
    uint64_t unprotected() const { return unprotected_; }

    /* False if the check ended at a first fault. */
    bool complete() const { return allBlocks_ || failed() == 0; }

    /* The report bits (DIF_RESULT_*) as they hold for the image. */
    uint32_t report() const;

private:
    bool allBlocks_;
    uint64_t checked_ = 0;
    uint64_t unprotected_ = 0;
    std::array<uint64_t, kFaultKindNum> failed_{};
    uint32_t inSome_ = 0;
    uint32_t inEvery_ = UINT32_MAX;
};

/* Consecutive blocks with the same kind of fault. */
struct FaultRun {
    Fault first;
    uint64_t count;
};

/* Joins faults to runs, and tells so many of these at most. */
class FaultRuns {
public:
    using Tell = std::function<void(const FaultRun &)>;

    FaultRuns(uint64_t limit, Tell tell) : limit_(limit), tell_(std::move(tell)) {}

    /* The next request of the image. A run that reaches its end is told only later. */
    void add(const Request &request);

    /* Tells the last one. */
    void end();

    /* Runs that were not told. */
    uint64_t untold() const { return runs_ > limit_ ? runs_ - limit_ : 0; }

private:
    uint64_t limit_;
    Tell tell_;
    uint64_t runs_ = 0; /* that have ended */
    std::optional<FaultRun> last_;
};

/* "block BLOCK, LBA LBA", as every line about a block begins. */
std::string placeText(uint64_t block, uint64_t lba);

/* For people: a line a run of failed blocks, a line a report bit, a line of totals. Without the line feed. */
std::string runText(const FaultRun &run);
std::string untoldText(uint64_t runs);
std::string totalsText(const Findings &findings);
std::string reportText(const Findings &findings);

/* What the members "schema" of JSON objects say: it counts up when a member gets another name or meaning. */
inline constexpr int kJsonSchema = 2;

/* Names may be any bytes; JSON text may not: what is no UTF-8 is replaced. */
std::string jsonText(const nlohmann::ordered_json &json);

/* For programs: one object, written in this order so that no image is too large for it. */
std::string jsonBegin(const std::string &imageName, uint32_t blockSize, uint64_t firstLba);
std::string jsonRun(const FaultRun &run, bool first);
std::string jsonEnd(const Findings &findings, uint64_t untoldRuns, bool withReport);

} // namespace difctl

#endif
