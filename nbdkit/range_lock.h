/* Exclusion by range of blocks. */
#ifndef DIF_NBDKIT_RANGE_LOCK_H
#define DIF_NBDKIT_RANGE_LOCK_H

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace nbd {

/* Ranges that are held do not overlap: who wants one that does waits for those that came before. Holding takes no memory
 * but the holder's. */
class RangeLock {
public:
    class Hold {
    public:
        Hold(RangeLock &lock, uint64_t first, uint64_t count) : lock_(lock), first_(first), end_(first + count) {
            std::unique_lock guard(lock_.mutex_);
            next_ = lock_.holds_;
            lock_.holds_ = this;
            lock_.released_.wait(guard, [this] { return isFree(); });
        }
        ~Hold() {
            {
                const std::lock_guard guard(lock_.mutex_);
                Hold **link = &lock_.holds_;
                while (*link != this) {
                    link = &(*link)->next_;
                }
                *link = next_;
            }
            lock_.released_.notify_all();
        }
        Hold(const Hold &) = delete;
        Hold &operator=(const Hold &) = delete;

    private:
        bool isFree() const {
            for (const Hold *hold = next_; hold != nullptr; hold = hold->next_) {
                if (hold->first_ < end_ && first_ < hold->end_) {
                    return false;
                }
            }
            return true;
        }

        RangeLock &lock_;
        uint64_t first_;
        uint64_t end_;
        Hold *next_ = nullptr; /* that came before */
    };

private:
    std::mutex mutex_;
    std::condition_variable released_;
    Hold *holds_ = nullptr; /* held and waited for, the newest first */
};

} // namespace nbd

#endif
