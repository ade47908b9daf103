#include "io/overwriting_sink.h"

#include "io/error.h"
#include "io/interrupt.h"

namespace difctl {

void OverwritingSink::requireRoom(uint64_t bytes) const {
    if (bytes > length()) {
        throw Error(name_ + ": is too small: it has " + std::to_string(length()) + " bytes, " + std::to_string(bytes) +
                    " are to be written");
    }
}

void OverwritingSink::write(const Pieces &pieces) {
    requireRoom(begun_ + pieces.bytes());
    begun_ += pieces.bytes();
    holdingInterrupts([this](Unfinished &unfinished) { unfinished.note = leftoverNote(); });
    append(pieces);
}

void OverwritingSink::commit() {
    try {
        finish();
    } catch (const Error &error) {
        throw Error(error.what() + leftoverNote());
    }
    holdingInterrupts([this](Unfinished &unfinished) { unfinished.note = "; " + name_ + " is complete"; });
}

std::string OverwritingSink::leftoverNote() const {
    if (begun_ == 0) {
        return "";
    }
    return "; what was written over the first " + std::to_string(begun_) + " bytes of " + name_ + " cannot be undone";
}

} // namespace difctl
