/* What happens once, before the first request: is this image what the parameters say, and did the last stop tear blocks? */
#ifndef DIF_NBDKIT_START_H
#define DIF_NBDKIT_START_H

#include "disk.h"

#include <cstdint>
#include <mutex>
#include <vector>

namespace nbd {

class Start {
public:
    Start(const Parameters &parameters, Disk &disk, Intent &intent)
        : parameters_(parameters), disk_(disk), intent_(intent) {}

    /* To be asked of every connection. Returns 0; or -1, after nbdkit_error: the image is not to be served. What a crash
     * tore is mended by the first connection that may write. */
    int connection(const Layer &layer, uint64_t imageSize, bool mayWrite);

private:
    bool looksRight(const Layer &layer, uint64_t imageSize) const;
    int mend(const Layer &layer);

    const Parameters &parameters_;
    Disk &disk_;
    Intent &intent_;
    std::mutex mutex_;
    bool looked_ = false;
    uint64_t imageSize_ = 0;       /* of the first connection */
    std::vector<BlockRun> marked_; /* regions to be mended */
};

} // namespace nbd

#endif
