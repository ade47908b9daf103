/* Changing an image where it is: whole requests are read and changed in memory, and the fields that differ written back. */
#ifndef DIFCTL_IN_PLACE_H
#define DIFCTL_IN_PLACE_H

#include "io/image_file.h"
#include "pass/block_range.h"
#include "pass/recognition.h"
#include "pass/report.h"

#include <functional>
#include <string>

namespace difctl {

/*
 * The image of one command, the same file from the first look to the last write. An interrupt or a failure leaves every
 * block as it was or as it is to be (only a write that fails may leave one in between), and the message about it says how
 * far the command came. Data is written only where a whole block is replaced.
 */
class InPlaceImage {
public:
    /* Throws Error for what is not a file of whole blocks that can be written, and for what shows no fields to change or
     * others than `claims` and `check` say; `force` allows other LBAs and zeros. */
    InPlaceImage(const std::string &path, const Claims &claims, const CheckOptions &check, bool force);

    const std::string &name() const { return file_.name(); }
    uint64_t blockNum() const { return blockNum_; }
    const ImageFile &file() const { return file_; }

    uint64_t firstLba() const { return check_.imageLba; }
    const Recognition &seen() const { return seen_; }
    const CheckOptions &check() const { return check_; }

    /* Throws Error if `said` means guards of `version` and the image shows others alone. */
    void requireGuard(uint8_t version, const std::string &said) const;

    /* Whether a check of all of the image finds no fault, or is not asked for. Says why if not. */
    bool mayChange() const;

    /* Runs `change` over the requests of `blocks` on any threads, writes the bytes of fields that it has changed and the
     * blocks that it has replaced, and brings them to stable storage. Names the faults that `change` leaves in requests. */
    Findings change(const std::function<void(Request &)> &change, const BlockRange &blocks = {});

private:
    void writeBack(const Request &request);

    /* The end of a message that the command ends early. */
    std::string note() const;

    ImageFile file_;
    Recognition seen_;
    CheckOptions check_;
    bool force_;
    uint64_t blockNum_;
    uint64_t doneBlocks_ = 0; /* all before this one */
    bool writing_ = false;    /* the request behind them */
};

} // namespace difctl

#endif
