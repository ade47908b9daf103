/* Changing an image where it is: whole requests are read, changed and written back. */
#ifndef DIFCTL_IN_PLACE_H
#define DIFCTL_IN_PLACE_H

#include "io/in_place_file.h"
#include "pass/block_format.h"
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
    InPlaceImage(const std::string &name, const BlockFormat &format);
    ~InPlaceImage();
    InPlaceImage(const InPlaceImage &) = delete;
    InPlaceImage &operator=(const InPlaceImage &) = delete;

    const std::string &name() const { return name_; }
    uint64_t blockNum() const { return blockNum_; }

    /* Whether a check of all of the image finds no fault, so that it may be changed. Says why if not. */
    bool passes(const CheckOptions &check) const;

    /* Runs `change` over the requests of `blocks` on any threads, writes back those it has changed, and brings them to
     * stable storage. Names the faults that `change` leaves in requests. */
    Findings change(const std::function<void(Request &)> &change, const BlockRange &blocks = {});

private:
    void writeBack(const Request &request);

    std::string name_;
    BlockFormat format_;
    InPlaceFile file_;
    uint64_t blockNum_;
    std::string note_ = "; nothing is changed"; /* for a message that the command ends early */
};

} // namespace difctl

#endif
