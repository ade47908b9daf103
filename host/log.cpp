/*
 * The host log. A line:
 *   [2024-05-17 09:30:00.123] [4711] WARNING DIF dif_util/checkDif:210 [4660] text
 * that is, time, thread, severity, module (its short name or its id), source file (if given), function and line, log id.
 */
#include "dif/types.h"
#include "dif_host.h"
#include "log_destination.h"
#include "output.h"
#include "platform/hostlog.h"

#include <spdlog/details/os.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <optional>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr const char *kPattern = "[%Y-%m-%d %H:%M:%S.%e] %v";
constexpr std::array kSeverityName{"ASSERT", "ALERT", "CRITICAL", "ERROR", "WARNING", "NOTICE", "INFO", "DEBUG"};

std::atomic<uint32_t> maxLevel{DIF_HOST_LOG_NOTICE};

/* Not by way of stdio, whose lock a write that hangs would hold. */
class StandardError final : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
    void sink_it_(const spdlog::details::log_msg &line) override {
        spdlog::memory_buf_t text;
        formatter_->format(line, text);
        /* A pipe that polls as writable takes PIPE_BUF bytes at once. Who logs does not wait, the log's own thread does. */
        const int patience = line.thread_id == spdlog::details::os::thread_id() ? 0 : -1;
        for (size_t written = 0; written < text.size();) {
            pollfd polled{.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
            const int ready = poll(&polled, 1, patience);
            if (ready < 0) {
                continue; /* interrupted */
            }
            if (ready == 0 || polled.revents != POLLOUT) {
                spdlog::throw_spdlog_ex("standard error: nobody reads it");
            }
            const ssize_t size =
                ::write(STDERR_FILENO, text.data() + written, std::min<size_t>(text.size() - written, PIPE_BUF));
            if (size < 0 && errno != EINTR && errno != EAGAIN) {
                spdlog::throw_spdlog_ex("standard error", errno);
            }
            written += static_cast<size_t>(std::max<ssize_t>(size, 0));
        }
    }
    void flush_() override {}
};

using Destination = std::shared_ptr<LogDestination>;

Destination withSink(std::shared_ptr<spdlog::sinks::sink> sink, LogDestination::OnError onError) {
    sink->set_pattern(kPattern);
    return std::make_shared<LogDestination>(std::move(sink), onError);
}

/* The thread is asked for at every line: what spdlog remembers is wrong in a child of fork. */
std::string compose(const char *severity, const std::string &module, const std::string &place, uint32_t logId,
                    const std::string &text) {
    return escaped('[' + std::to_string(gettid()) + "] " + severity + ' ' + module + ' ' + place + " [" +
                   std::to_string(logId) + "] " + text);
}

std::string ownLine(const char *severity, const std::string &text) {
    return compose(severity, "dif_host", "log", 0, text);
}

std::string errorText(int error) {
    return std::generic_category().message(error);
}

struct File {
    std::string path;
    size_t maxBytes;
    size_t maxFiles;
};

/* Throws spdlog_ex for more files than spdlog takes. Returns 0 or an errno value. */
int openFile(const File &file, Destination &destination) {
    /* spdlog's own errors do not carry the errno value. */
    const int fd = open(file.path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) {
        return errno;
    }
    close(fd);
    spdlog::file_event_handlers handlers;
    handlers.after_open = [](const std::string & /*path*/, std::FILE *opened) {
        fcntl(fileno(opened), F_SETFD, FD_CLOEXEC);
    };
    /* spdlog must not write on to a file that it failed to reopen. */
    destination = withSink(std::make_shared<spdlog::sinks::rotating_file_sink_st>(file.path, file.maxBytes,
                                                                                  file.maxFiles, false, handlers),
                           LogDestination::OnError::GiveUp);
    return destination->start();
}

class Log {
public:
    /* Never throws; what cannot be written is counted. */
    void write(const std::string &text) {
        const std::lock_guard lock(mutex_);
        try {
            openDestinations();
            const auto now = spdlog::log_clock::now();
            if (toStandardError_) {
                standardError_->post(now, text);
            }
            if (file_ != nullptr) {
                file_->post(now, text);
            }
        } catch (...) {
            ++lost_;
        }
    }

    void loseOne() {
        const std::lock_guard lock(mutex_);
        ++lost_;
    }

    void setStandardError(bool on) {
        const std::lock_guard lock(mutex_);
        toStandardError_ = on;
    }

    /* Takes what openFile has opened. */
    void setFile(std::optional<File> settings, Destination file) {
        {
            const std::lock_guard lock(mutex_);
            fileSettings_ = std::move(settings);
            file_.swap(file);
        }
        if (file != nullptr) {
            file->stop();
            const std::lock_guard lock(mutex_);
            lost_ += file->dropped();
        }
    }

    bool drain() {
        const auto [standardError, file] = destinations();
        const bool fileDrained = file == nullptr || file->drain();
        const bool drained = (standardError == nullptr || standardError->drain()) && fileDrained;
        const std::lock_guard lock(mutex_);
        dropFailedFile();
        return drained;
    }

    /* The process ends: from now on, who logs writes. */
    void finish() {
        drain();
        const std::lock_guard lock(mutex_);
        finished_ = true;
        for (const Destination &destination : {standardError_, file_}) {
            if (destination != nullptr) {
                destination->stop();
            }
        }
    }

    uint64_t dropped() {
        const std::lock_guard lock(mutex_);
        return lost_ + (standardError_ == nullptr ? 0 : standardError_->dropped()) +
               (file_ == nullptr ? 0 : file_->dropped());
    }

    /* Around a fork, so that the child finds the lock free and the settings whole. */
    void lock() { mutex_.lock(); }
    void unlock() { mutex_.unlock(); }

    /* The queues and threads stayed with the parent, which also writes what is in them. */
    void abandonDestinations() {
        parents_.push_back(std::exchange(standardError_, nullptr));
        parents_.push_back(std::exchange(file_, nullptr));
    }

private:
    std::pair<Destination, Destination> destinations() {
        const std::lock_guard lock(mutex_);
        return {standardError_, file_};
    }

    /* The first line, of the process or of a child, finds none. */
    void openDestinations() {
        if (standardError_ == nullptr) {
            standardError_ = withSink(std::make_shared<StandardError>(), LogDestination::OnError::TryAgain);
            const int error = finished_ ? 0 : standardError_->start();
            if (error != 0) {
                complain("WARNING", "no thread for the log (" + errorText(error) +
                                        "): what standard error does not take at once is lost");
            }
        }
        if (fileSettings_ && file_ == nullptr) {
            reopenFile();
        }
        dropFailedFile();
    }

    void reopenFile() {
        Destination file;
        if (const int error = openFile(*fileSettings_, file); error == 0) {
            file_ = std::move(file);
        } else {
            giveUpFile(errorText(error));
        }
    }

    void dropFailedFile() {
        if (file_ != nullptr && file_->failure() != nullptr) {
            file_->stop();
            lost_ += file_->dropped();
            giveUpFile(file_->failure());
            file_ = nullptr;
        }
    }

    void giveUpFile(const std::string &why) {
        complain("ERROR", fmt::format("log file {} given up: {}", fileSettings_->path, why));
        fileSettings_.reset();
    }

    /* Not in the file, which may be what it is about. */
    void complain(const char *severity, const std::string &text) {
        if (!toStandardError_) {
            return;
        }
        try {
            standardError_->post(spdlog::log_clock::now(), ownLine(severity, text));
        } catch (...) {
            ++lost_;
        }
    }

    std::mutex mutex_;
    Destination standardError_;
    Destination file_;
    bool toStandardError_ = true;
    std::optional<File> fileSettings_;
    std::vector<Destination> parents_;
    bool finished_ = false;
    uint64_t lost_ = 0; /* outside of the destinations that there are */
};

/* Never destroyed: lines are written until the last destructor of the process has run. */
Log &theLog() {
    static auto &instance = []() -> Log & {
        pthread_atfork(
            [] {
                theLog().drain();
                theLog().lock();
            },
            [] { theLog().unlock(); },
            [] {
                theLog().abandonDestinations();
                theLog().unlock();
            });
        return *new Log;
    }();
    return instance;
}

[[gnu::destructor]] void finishLog() {
    theLog().finish();
}

std::string moduleName(uint32_t moduleId) {
    std::array<char, 32> name{};
    return difHostModuleName(moduleId, name.data(), name.size()) ? name.data() : std::to_string(moduleId);
}

/* The library's first act is to give its name; a message before that tells of a program that has forgotten to start it. */
void noticeMissingStart(uint32_t moduleId) {
    static std::atomic<bool> isFirst{true};
    std::array<char, 2> name{};
    if (moduleId == DIF_MODULE_ID && isFirst.exchange(false, std::memory_order_relaxed) &&
        !difHostModuleName(moduleId, name.data(), name.size()) &&
        hostlog_level_check(moduleId, DIF_HOST_LOG_ERROR) == 0) {
        theLog().write(ownLine("ERROR", "difModuleInit has not been called: DIF is off, every check passes, and "
                                        "no verify point can be registered"));
    }
}

void writeLine(uint32_t moduleId, uint32_t level, const char *file, int32_t lineNumber, const char *funcName,
               uint32_t logId, const char *format, va_list args) {
    try {
        noticeMissingStart(moduleId);
        if (hostlog_level_check(moduleId, level) != 0) {
            return;
        }
        const auto *severity = kSeverityName[std::min<size_t>(level, kSeverityName.size() - 1)];
        const std::string place = (file == nullptr ? std::string() : std::string(file) + '/') +
                                  (funcName == nullptr ? "?" : funcName) + ':' + std::to_string(lineNumber);
        theLog().write(compose(severity, moduleName(moduleId), place, logId, formatted(format, args)));
    } catch (...) {
        theLog().loseOne(); /* out of memory */
    }
}

} // namespace

int32_t hostlog_level_check(uint32_t /*moduleId*/, uint32_t level) {
    return level <= maxLevel.load(std::memory_order_relaxed) ? 0 : 1;
}

void hostlog(uint32_t moduleId, uint32_t level, const char *file, int32_t line, const char *funcName, uint32_t logId,
             const char *format, ...) {
    va_list args;
    va_start(args, format);
    writeLine(moduleId, level, file, line, funcName, logId, format, args);
    va_end(args);
}

void hostlog_standard(uint32_t moduleId, uint32_t level, const char *funcName, int32_t line, uint32_t logId,
                      const char *format, ...) {
    va_list args;
    va_start(args, format);
    writeLine(moduleId, level, nullptr, line, funcName, logId, format, args);
    va_end(args);
    /* With an assertion by this way the library says that it stops the process next. */
    if (level == DIF_HOST_LOG_ASSERT) {
        theLog().drain();
    }
}

void difHostSetLogLevel(uint32_t level) {
    maxLevel.store(level, std::memory_order_relaxed);
}

uint32_t difHostGetLogLevel(void) {
    return maxLevel.load(std::memory_order_relaxed);
}

void difHostSetLogStderr(bool on) {
    theLog().setStandardError(on);
}

int difHostSetLogFile(const char *path, size_t maxBytes, size_t maxFiles) {
    try {
        if (path == nullptr) {
            theLog().setFile(std::nullopt, nullptr);
            return 0;
        }
        if (maxBytes == 0) {
            return EINVAL;
        }
        const File file{path, maxBytes, maxFiles};
        Destination destination;
        const int error = openFile(file, destination);
        if (error == 0) {
            theLog().setFile(file, std::move(destination));
        }
        return error;
    } catch (const spdlog::spdlog_ex &) {
        return EINVAL; /* the path can be opened, so spdlog refuses maxFiles */
    } catch (...) {
        return ENOMEM;
    }
}

bool difHostFlushLog(void) {
    return theLog().drain();
}

uint64_t difHostLogDropped(void) {
    return theLog().dropped();
}
