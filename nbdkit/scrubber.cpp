#include "scrubber.h"

#include "dif_host.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include <fmt/format.h>
#include <pthread.h>

namespace nbd {

namespace {

using namespace std::chrono_literals;

/* How long it lets clients go first, so that it comes to an end however busy they are. */
constexpr auto kPatience = 50ms;
constexpr auto kLook = 2ms;
constexpr uint64_t kStepsToRemember = 64;
/* So many steps in a row that cannot be read are a store that is gone. */
constexpr uint32_t kMostUnreadable = 16;

} // namespace

void Scrubber::setRate(uint64_t rate) {
    const std::lock_guard lock(mutex_);
    if (ending_) {
        return;
    }
    rate_ = rate;
    trouble_.clear();
    if (rate != 0 && !thread_.joinable()) {
        thread_ = std::thread(&Scrubber::run, this);
        pthread_setname_np(thread_.native_handle(), "dif-scrub");
    }
    changed_.notify_all();
}

void Scrubber::end() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
        changed_.notify_all();
    }
    if (thread_.joinable()) {
        thread_.join();
    }
}

/* Anew at every start: what is below may have gone and come back since the last. */
std::optional<Scrubber::Source> Scrubber::openSource() {
    auto source = open_();
    const std::lock_guard lock(mutex_);
    if (!source || source->blocks == 0) {
        trouble_ = source ? "the image has no whole block" : "the image cannot be opened";
        rate_ = 0;
        return std::nullopt;
    }
    if (blocks_ == 0 && intent_.isOpen()) {
        block_ = intent_.scrubbedTo();
    }
    blocks_ = source->blocks;
    block_ = block_ < blocks_ ? block_ : 0;
    return source;
}

void Scrubber::run() {
    std::optional<Source> source;
    for (uint64_t steps = 1;; ++steps) {
        {
            std::unique_lock lock(mutex_);
            if (rate_ == 0) {
                source.reset();
            }
            changed_.wait(lock, [this] { return ending_ || rate_ != 0; });
            if (ending_) {
                return;
            }
        }
        if (!source && !(source = openSource())) {
            continue;
        }
        for (auto waited = 0ms; disk_.busy() != 0 && waited < kPatience; waited += kLook) {
            std::this_thread::sleep_for(kLook);
        }
        if (!step(*source)) {
            continue;
        }
        if (intent_.isOpen() && steps % kStepsToRemember == 0) {
            intent_.setScrubbedTo(block_);
        }
    }
}

bool Scrubber::step(const Source &source) {
    const auto began = std::chrono::steady_clock::now();
    const auto count = static_cast<uint32_t>(std::min<uint64_t>(disk_.pieceBlocks(), blocks_ - block_));
    int error = 0;
    const bool done = disk_.scrub(source.layer, block_, count, error) == 0;
    unreadable_ = done ? 0 : unreadable_ + 1;
    if (!done) {
        NBD_LOG(DIF_HOST_LOG_ERROR, fmt::format("scrubbing: blocks {} to {} cannot be read: {}", block_,
                                                block_ + count - 1, errorText(error)));
    }
    const bool isGone = unreadable_ == kMostUnreadable;
    uint64_t rate = 0;
    {
        const std::lock_guard lock(mutex_);
        if (isGone) {
            trouble_ = fmt::format("block {} and those before it cannot be read: {}", block_, errorText(error));
            rate_ = 0;
            unreadable_ = 0;
        } else if (block_ += count; block_ == blocks_) {
            block_ = 0;
            ++passes_;
        }
        rate = rate_;
    }
    if (isGone) {
        NBD_LOG(DIF_HOST_LOG_ERROR, "scrubbing has stopped: " + trouble_);
        return false;
    }
    if (block_ == 0) {
        NBD_LOG(DIF_HOST_LOG_NOTICE, fmt::format("scrubbed all {} blocks", blocks_));
    }
    if (rate != 0) {
        const auto bytes = static_cast<double>(uint64_t{count} * disk_.geometry().blockSize);
        const std::chrono::duration<double> share(bytes / static_cast<double>(rate));
        const auto left =
            std::chrono::duration_cast<std::chrono::nanoseconds>(share) - (std::chrono::steady_clock::now() - began);
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, left, [&] { return ending_ || rate_ != rate; });
    }
    return true;
}

std::string Scrubber::text() {
    const std::lock_guard lock(mutex_);
    std::string text = rate_ != 0 ? fmt::format("scrubbing at {} bytes a second", rate_) : "not scrubbing";
    if (blocks_ != 0) {
        text += fmt::format(": block {} of {} ({} %), {} passes complete", block_, blocks_, block_ * 100 / blocks_,
                            passes_);
    }
    return text + (trouble_.empty() ? "" : "; stopped, " + trouble_) + "\n";
}

std::string Scrubber::metrics() {
    const std::lock_guard lock(mutex_);
    return fmt::format("# HELP dif_nbd_scrub_block Block at which scrubbing is.\n# TYPE dif_nbd_scrub_block gauge\n"
                       "dif_nbd_scrub_block {}\n"
                       "# HELP dif_nbd_scrub_passes_total Times that the whole disk was scrubbed.\n"
                       "# TYPE dif_nbd_scrub_passes_total counter\ndif_nbd_scrub_passes_total {}\n",
                       block_, passes_);
}

} // namespace nbd
