/* What a check has found over a whole image, and how it is told to people and to programs. */
#ifndef DIFCTL_REPORT_H
#define DIFCTL_REPORT_H

#include "pass/request.h"

#include <array>
#include <cstdint>
#include <string>

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

    /* False if the check ended at a first fault. */
    bool complete() const { return allBlocks_ || failed() == 0; }

    /* The report bits (DIF_RESULT_*) as they hold for the image. */
    uint32_t report() const;

private:
    bool allBlocks_;
    uint64_t checked_ = 0;
    std::array<uint64_t, kFaultKindNum> failed_{};
    uint32_t inSome_ = 0;
    uint32_t inEvery_ = UINT32_MAX;
};

/* "block BLOCK, LBA LBA", as every line about a block begins. */
std::string placeText(uint64_t block, uint64_t lba);

/* For people: a line a failed block, a line a report bit, a line of totals. Without the line feed. */
std::string faultText(const Fault &fault);
std::string totalsText(const Findings &findings);
std::string reportText(const Findings &findings);

/* For programs: one object, written in this order so that no image is too large for it. */
std::string jsonBegin(const std::string &imageName, uint32_t blockSize, uint64_t lba);
std::string jsonFault(const Fault &fault, bool first);
std::string jsonEnd(const Findings &findings, bool withReport);

} // namespace difctl

#endif
