/* Changing an image where it is: whole requests are read, changed and written back. */
#ifndef DIFCTL_IN_PLACE_H
#define DIFCTL_IN_PLACE_H

#include "commands/commands.h"
#include "io/image_io.h"
#include "pass/block_range.h"
#include "pass/report.h"

#include <functional>
#include <string>

namespace difctl {

/*
 * The image of one command. An interrupt or a failure leaves every request as it was or as it is to be (only a write that
 * fails may leave one in between), and the message about it says how far the command came.
 */
class InPlaceImage {
public:
    /* Throws Error for what is not a file of whole blocks that can be written. */
    explicit InPlaceImage(const InPlaceOptions &options);
    ~InPlaceImage();
    InPlaceImage(const InPlaceImage &) = delete;
    InPlaceImage &operator=(const InPlaceImage &) = delete;

    const std::string &name() const { return options_.image; }
    uint64_t blockNum() const { return blockNum_; }

    /* Whether the image may be changed: a check of all of it finds no fault, or the user forces it. Says why if not. */
    bool accept() const;

    /* Runs `change` over the requests of `blocks` on any threads, writes back those it has changed, and brings them to
     * stable storage. Names the faults that `change` leaves in requests. */
    Findings change(const std::function<void(Request &)> &change, const BlockRange &blocks = {});

private:
    void writeBack(const Request &request);

    const InPlaceOptions &options_;
    BlockFormat format_;
    InPlaceFile file_;
    uint64_t blockNum_;
    std::string note_ = "; nothing is changed"; /* for a message that the command ends early */
};

} // namespace difctl

#endif
