#include "io/standard_output.h"

#include "io/error.h"
#include "io/interrupt.h"

#include <cerrno>

#include <unistd.h>

namespace difctl {

namespace {

constexpr const char *kNoWayBack = "; what was written to standard output cannot be undone";

} // namespace

StandardOutput::StandardOutput() {
    if (::isatty(STDOUT_FILENO) == 1) {
        throw Error("standard output: is a terminal; redirect it or name a file");
    }
    holdingInterrupts([](Unfinished &unfinished) { unfinished.note = kNoWayBack; });
}

std::function<void()> StandardOutput::write(const Pieces &pieces) {
    if (!writeAll(STDOUT_FILENO, pieces, offset_)) {
        throw systemError(kStandardOutput, "cannot write at offset " + std::to_string(offset_), errno);
    }
    return {};
}

std::string StandardOutput::leftoverNote() const {
    return offset_ == 0 ? "" : kNoWayBack;
}

} // namespace difctl
