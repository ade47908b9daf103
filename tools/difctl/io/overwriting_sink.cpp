#include "io/overwriting_sink.h"

#include "io/error.h"
#include "io/interrupt.h"

namespace difctl {

void OverwritingSink::requireRoom(uint64_t bytes) const {
    if (bytes > *place_.length()) {
        throw Error(place_.name() + ": is too small: it has " + std::to_string(*place_.length()) + " bytes, " +
                    std::to_string(bytes) + " are to be written");
    }
}

std::function<void()> OverwritingSink::write(const Pieces &pieces) {
    const uint64_t offset = begun_;
    requireRoom(offset + pieces.bytes());
    begun_ += pieces.bytes();
    holdingInterrupts([this](Unfinished &unfinished) { unfinished.note = leftoverNote(); });
    return [this, offset, pieces] { place_.write(offset, gathered(pieces)); };
}

void OverwritingSink::commit() {
    try {
        place_.sync();
    } catch (const Error &error) {
        throw Error(error.what() + leftoverNote());
    }
    holdingInterrupts([this](Unfinished &unfinished) { unfinished.note = "; " + place_.name() + " is complete"; });
}

std::string OverwritingSink::leftoverNote() const {
    if (begun_ == 0) {
        return "";
    }
    return "; what was written over the first " + std::to_string(begun_) + " bytes of " + place_.name() +
           " cannot be undone";
}

} // namespace difctl
