/* An image on its way through memory: read and processed by all cores, handed on in order. */
#ifndef DIFCTL_PIPELINE_H
#define DIFCTL_PIPELINE_H

#include "io/source.h"
#include "pass/block_range.h"
#include "pass/request.h"

#include <functional>

namespace difctl {

struct Pipeline {
    const BlockFormat &format;
    /* Where a request's bytes go when they are read. */
    Pieces (Request::*layout)(uint32_t blocks) const;
    /* Runs on any thread, for several requests at once. */
    std::function<void(Request &)> process;
    /* Runs on any thread, request by request in the image's order; answers whether to go on, and leaves its rest in the
     * request. */
    std::function<bool(Request &)> consume;
    /* The blocks to run, of a source whose length is known if they are not all. */
    BlockRange blocks = {};
    /* Whether requests take whole blocks that cannot be read, where the length is known, and mark them. */
    bool takesUnreadable = false;
};

/*
 * Runs `source` through the pipeline until its end, the end of the blocks asked for, or until `consume` answers false.
 * The number of requests in memory is bounded, whatever the image's size. A failure to read or to process is thrown here
 * in its turn: after the requests before it have been consumed, so that the same image fails the same way every time.
 */
void runPipeline(Source &source, const Pipeline &pipeline);

} // namespace difctl

#endif
