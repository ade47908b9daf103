/* Scatter-gather lists over requests: what the library is given for them. */
#ifndef DIFCTL_REQUEST_LIST_H
#define DIFCTL_REQUEST_LIST_H

#include "pass/request.h"

#include <cstddef>
#include <memory>

namespace difctl {

/*
 * A list over all blocks of a request: entries of the size that its format says, the last one perhaps shorter, in
 * chained nodes. It points into the request's memory and is no longer good once the request has other blocks.
 */
class RequestList {
public:
    explicit RequestList(const Request &request);

    const Sgl *root() const { return reinterpret_cast<const Sgl *>(nodes_.get()); }

private:
    std::unique_ptr<std::byte[]> nodes_; /* all in one, one behind the other */
};

} // namespace difctl

#endif
