/* Checking the whole disk in the background, again and again. */
#ifndef DIF_NBDKIT_SCRUBBER_H
#define DIF_NBDKIT_SCRUBBER_H

#include "disk.h"

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace nbd {

/*
 * One thread, which reads at most at its rate, and only a little while clients have requests under way. Where it is
 * outlives a stop, and the process if there is an intent file.
 */
class Scrubber {
public:
    /* What it reads through, opened on its thread at every start: the layer and the disk's blocks, or none. */
    struct Source {
        Layer layer;
        uint64_t blocks;
    };
    using Open = std::function<std::optional<Source>()>;

    Scrubber(Disk &disk, Intent &intent, Open open) : disk_(disk), intent_(intent), open_(std::move(open)) {}
    ~Scrubber() { end(); }
    Scrubber(const Scrubber &) = delete;
    Scrubber &operator=(const Scrubber &) = delete;

    /* Begins, or goes on, at `rate` bytes a second; 0 stops. Throws std::system_error for want of a thread. */
    void setRate(uint64_t rate);

    /* Stops for good. */
    void end();

    /* "scrubbing at 1048576 bytes a second: block 5 of 100 (5 %), pass 1" */
    std::string text();

    /* For Prometheus. */
    std::string metrics();

private:
    std::optional<Source> openSource();
    void run();
    bool step(const Source &source);

    Disk &disk_;
    Intent &intent_;
    Open open_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::thread thread_;
    bool ending_ = false;
    uint64_t rate_ = 0;
    uint64_t block_ = 0;
    uint64_t blocks_ = 0;     /* 0: not known yet */
    uint64_t passes_ = 0;     /* complete */
    uint32_t unreadable_ = 0; /* steps in a row */
    std::string trouble_;     /* why it has stopped by itself */
};

} // namespace nbd

#endif
