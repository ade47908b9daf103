/* Passes over protected images that say which blocks fail. */
#ifndef DIFCTL_CHECKED_PASS_H
#define DIFCTL_CHECKED_PASS_H

#include "io/destination.h"
#include "io/source.h"
#include "pass/block_range.h"
#include "pass/report.h"
#include "pass/request.h"

#include <cstdint>
#include <functional>
#include <optional>

namespace difctl {

/* How many runs of failed blocks are told. */
inline constexpr uint64_t kMaxFaults = 1000;

struct CheckedPass {
    const BlockFormat &format;
    bool allBlocks; /* go on after the first fault */
    /* Runs on any thread; leaves a request's faults in it. */
    std::function<void(Request &)> process;
    /* Runs request by request in the image's order, with the findings up to this request. */
    std::function<void(Request &, const Findings &)> consume;
    BlockRange blocks = {};
    bool wholeImage = false;                     /* go on behind faults, for what is true of the image as a whole */
    FaultRuns *runs = nullptr;                   /* takes the faults; by default they are told on standard error */
    std::optional<uint64_t> bytesPerSecond = {}; /* to read at most; 0 is no limit */
    bool takesUnreadable = false;                /* see Pipeline */
};

Findings runCheckedPass(Source &source, const CheckedPass &pass);

/* A destination for what is read and checked: complete, or nothing if a block fails. */
struct CheckedCopy {
    const BlockFormat &format;
    bool allBlocks;
    std::function<void(Request &)> process;
    /* Which of a request's bytes are written. */
    Pieces (Request::*layout)(uint32_t blocks) const;
};

/* Returns the command's exit status. */
int runCheckedCopy(Source &source, Destination &destination, const CheckedCopy &copy);

} // namespace difctl

#endif
