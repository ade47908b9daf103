/* Changing an image where it is: whole requests are read and changed in memory, and the fields that differ written back. */
#ifndef DIFCTL_IN_PLACE_H
#define DIFCTL_IN_PLACE_H

#include "image/image_format.h"
#include "io/image_file.h"
#include "pass/block_format.h"
#include "pass/block_range.h"
#include "pass/report.h"

#include <functional>
#include <string>

namespace difctl {

/*
 * The image of one command, the same file from the first look to the last write. An interrupt or a failure leaves every
 * block as it was or as it is to be (only a write that fails may leave one in between), and the message about it says how
 * far the command came. Data is never written.
 */
class InPlaceImage {
public:
    /* Throws Error for what is not a file of whole blocks that can be written. */
    InPlaceImage(const std::string &path, const BlockFormat &format);

    const std::string &name() const { return file_.name(); }
    uint64_t blockNum() const { return blockNum_; }

    /* What it looked like when it was opened. */
    const ImageFormat &looks() const { return looks_; }

    /* Whether a check of all of the image finds no fault, or `force` makes it unnecessary. Says why if not. Throws Error if
     * the image shows no fields to change, or those of another block size, or of other LBAs than the check would want. */
    bool mayChange(const CheckOptions &check, bool force) const;

    /* Runs `change` over the requests of `blocks` on any threads, writes the bytes of fields that it has changed, and
     * brings them to stable storage. Names the faults that `change` leaves in requests. */
    Findings change(const std::function<void(Request &)> &change, const BlockRange &blocks = {});

private:
    void requireFormat(const CheckOptions &check, bool force) const;
    void writeBack(const Request &request);

    /* The end of a message that the command ends early. */
    std::string note() const;

    BlockFormat format_;
    ImageFile file_;
    uint64_t blockNum_;
    ImageFormat looks_;
    uint64_t doneBlocks_ = 0; /* all before this one */
    bool writing_ = false;    /* the request behind them */
};

} // namespace difctl

#endif
