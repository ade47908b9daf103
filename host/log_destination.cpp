#include "log_destination.h"

#include "blocked_signals.h"

#include <spdlog/details/thread_pool.h>
#include <spdlog/sinks/sink.h>

#include <exception>
#include <new>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

/* What is done with a line, on the destination's thread once it has one. It outlives a destination whose thread hangs. */
class LogDestination::Writer final : public spdlog::sinks::sink {
public:
    Writer(std::shared_ptr<spdlog::sinks::sink> target, OnError onError)
        : sink_(std::move(target)), onError_(onError) {}

    void log(const spdlog::details::log_msg &line) override {
        if (givenUp_ || !write(line)) {
            ++lost_;
        }
        ++done_;
        stuck_ = false;
    }

    void flush() override {}
    void set_pattern(const std::string & /*pattern*/) override {}
    void set_formatter(std::unique_ptr<spdlog::formatter> /*formatter*/) override {}

    /* A line that never comes here. */
    void lose(uint64_t lines) {
        lost_ += lines;
        done_ += lines;
    }

    /* The queue's count of lines that made room for others is part of what follows, until the queue's end. */
    void countOverruns(std::weak_ptr<spdlog::details::thread_pool> queue) { queue_ = std::move(queue); }
    uint64_t done() const { return done_ + overruns(); }
    uint64_t dropped() const { return lost_ + overruns(); }
    uint64_t overruns() const {
        const auto queue = queue_.lock();
        return queue == nullptr ? 0 : queue->overrun_counter();
    }

    const char *failure() const { return givenUp_ ? failure_.c_str() : nullptr; }
    bool stuck() const { return stuck_; }
    void setStuck() { stuck_ = true; }

private:
    bool write(const spdlog::details::log_msg &line) {
        try {
            if (const uint64_t dropped = this->dropped(); dropped != reported_) {
                const std::string text = '[' + std::to_string(gettid()) + "] WARNING dif_host log [0] " +
                                         std::to_string(dropped - reported_) + " log lines are missing here";
                spdlog::details::log_msg report = line;
                report.payload = text;
                sink_->log(report);
                reported_ = dropped;
            }
            sink_->log(line);
            sink_->flush();
            return true;
        } catch (const std::exception &error) {
            if (onError_ == OnError::GiveUp) {
                failure_ = error.what();
                givenUp_ = true;
            }
            return false;
        }
    }

    std::shared_ptr<spdlog::sinks::sink> sink_;
    OnError onError_;
    std::weak_ptr<spdlog::details::thread_pool> queue_;
    std::atomic<uint64_t> done_{0};
    std::atomic<uint64_t> lost_{0};
    uint64_t reported_ = 0;
    std::atomic<bool> stuck_{false};
    std::atomic<bool> givenUp_{false};
    std::string failure_;
};

LogDestination::LogDestination(std::shared_ptr<spdlog::sinks::sink> sink, OnError onError)
    : writer_(std::make_shared<Writer>(std::move(sink), onError)) {}

LogDestination::~LogDestination() {
    if (!stop()) {
        new (std::nothrow) auto(pool_); /* for its thread, for good */
    }
}

int LogDestination::start() {
    try {
        const BlockedSignals blocked;
        pool_ = std::make_shared<spdlog::details::thread_pool>(kLogQueue, 1);
    } catch (const std::system_error &error) {
        return error.code().value();
    }
    writer_->countOverruns(pool_);
    logger_ = std::make_shared<spdlog::async_logger>("dif_host", writer_, pool_,
                                                     spdlog::async_overflow_policy::overrun_oldest);
    logger_->set_error_handler([writer = writer_](const std::string & /*out of memory*/) { writer->lose(1); });
    return 0;
}

void LogDestination::post(spdlog::log_clock::time_point time, std::string_view line) {
    /* Severities are the host's own and stand in the text; to spdlog all lines are alike. */
    const spdlog::details::log_msg message(time, {}, "dif_host", spdlog::level::info, {line.data(), line.size()});
    if (pool_ == nullptr) {
        writer_->log(message);
        return;
    }
    ++posted_;
    logger_->log(time, {}, message.level, message.payload);
}

bool LogDestination::drain() {
    using Clock = std::chrono::steady_clock;
    const uint64_t posted = posted_;
    const auto start = Clock::now();
    auto moved = start;
    uint64_t before = 0;
    for (uint64_t done = writer_->done(); done < posted; done = writer_->done()) {
        if (writer_->stuck()) {
            return false;
        }
        const auto now = Clock::now();
        if (done != before) {
            moved = now;
        }
        before = done;
        if (now - moved > kLogPatience || now - start > kLogPatienceInAll) {
            writer_->setStuck();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

bool LogDestination::stop() {
    if (pool_ == nullptr) {
        return true;
    }
    if (!drain()) {
        return false;
    }
    writer_->lose(writer_->overruns());
    pool_.reset();
    return true;
}

const char *LogDestination::failure() const {
    return writer_->failure();
}

uint64_t LogDestination::dropped() const {
    return writer_->dropped();
}
