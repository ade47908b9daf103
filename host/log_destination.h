/* A place that log lines go to. */
#ifndef DIF_HOST_LOG_DESTINATION_H
#define DIF_HOST_LOG_DESTINATION_H

#include <spdlog/async_logger.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

inline constexpr size_t kLogQueue = 4096;              /* lines */
inline constexpr std::chrono::seconds kLogPatience{1}; /* with a thread that writes nothing */
inline constexpr std::chrono::seconds kLogPatienceInAll{10};

/*
 * Once started it has a queue and a thread that writes the lines to a sink of spdlog's: who logs never waits for it, and
 * when the queue is full its oldest line goes. Before that and after its stop, a line is written by who logs it. Lines that
 * went or could not be written are counted, and the next one that is written is preceded by one that says how many.
 *
 * start, post and stop need a lock of the caller's.
 */
class LogDestination {
public:
    enum class OnError { TryAgain, GiveUp };

    LogDestination(std::shared_ptr<spdlog::sinks::sink> sink, OnError onError);

    /* Does not wait for a thread that hangs: it keeps what it needs. */
    ~LogDestination();

    LogDestination(const LogDestination &) = delete;
    LogDestination &operator=(const LogDestination &) = delete;

    /* Returns 0, or the errno value of the attempt to start a thread. */
    int start();

    void post(spdlog::log_clock::time_point time, std::string_view line);

    /* Waits until what was posted is written, as long as the patience lasts, and not at all where it did not last and
     * nothing was written since. False if there is more to write. */
    bool drain();

    /* Drains and ends the thread; false if it hangs. */
    bool stop();

    /* Why it was given up, null if it was not. */
    const char *failure() const;

    uint64_t dropped() const;

private:
    class Writer;

    std::shared_ptr<Writer> writer_;
    std::shared_ptr<spdlog::details::thread_pool> pool_;
    std::shared_ptr<spdlog::async_logger> logger_;
    std::atomic<uint64_t> posted_{0};
};

#endif
