/*
 * The host log. A line:
 *   [2024-05-17 09:30:00.123] [4711] WARNING DIF dif_util/checkDif:210 [4660] text
 * that is, time, thread, severity, module (its short name or its id), source file (if given), function and line, log id.
 */
#include "dif_host.h"
#include "output.h"
#include "platform/hostlog.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/dist_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <string>
#include <unistd.h>
#include <utility>

namespace {

constexpr const char *kPattern = "[%Y-%m-%d %H:%M:%S.%e] [%t] %v";
constexpr std::array kSeverityName{"ASSERT", "ALERT", "CRITICAL", "ERROR", "WARNING", "NOTICE", "INFO", "DEBUG"};

std::atomic<uint32_t> maxLevel{DIF_HOST_LOG_NOTICE};

class Log {
public:
    Log() {
        console_->set_pattern(kPattern);
        sinks_->set_sinks({console_});
        // The process may be stopped right after a line, by a failed assertion.
        logger_.flush_on(spdlog::level::trace);
        // spdlog must not write on to a file that it failed to reopen, so the file goes with the first error.
        logger_.set_error_handler([this](const std::string &error) {
            setFile(nullptr);
            std::fprintf(stderr, "dif_host: log file given up: %s\n", error.c_str());
        });
    }

    void setFile(std::shared_ptr<spdlog::sinks::sink> file) {
        if (file == nullptr) {
            sinks_->set_sinks({console_});
            return;
        }
        file->set_pattern(kPattern);
        sinks_->set_sinks({console_, std::move(file)});
    }

    // Severities are the host's own and stand in the text; to spdlog all messages are alike.
    template <typename... Args>
    void write(fmt::format_string<Args...> format, Args &&...args) {
        logger_.log(spdlog::level::info, format, std::forward<Args>(args)...);
    }

private:
    std::shared_ptr<spdlog::sinks::sink> console_ = std::make_shared<spdlog::sinks::stderr_sink_mt>();
    std::shared_ptr<spdlog::sinks::dist_sink_mt> sinks_ = std::make_shared<spdlog::sinks::dist_sink_mt>();
    spdlog::logger logger_{"dif_host", sinks_};
};

// Never destroyed: lines are written until the last destructor of the process has run.
Log &theLog() {
    static auto &instance = *new Log;
    return instance;
}

std::string moduleName(uint32_t moduleId) {
    std::array<char, 32> name{};
    return difHostModuleName(moduleId, name.data(), name.size()) ? name.data() : std::to_string(moduleId);
}

void writeLine(uint32_t moduleId, uint32_t level, const char *file, int32_t line, const char *funcName, uint32_t logId,
               const char *format, va_list args) {
    try {
        const auto *severity = kSeverityName[std::min<size_t>(level, kSeverityName.size() - 1)];
        const std::string place = (file == nullptr ? std::string() : std::string(file) + '/') +
                                  (funcName == nullptr ? "?" : funcName) + ':' + std::to_string(line);
        theLog().write("{} {} {} [{}] {}", severity, moduleName(moduleId), place, logId, formatted(format, args));
    } catch (...) {
        // Out of memory: the bare format still says what happened.
        std::fprintf(stderr, "%s\n", format);
    }
}

// errno of an attempt to open `path` for appending, which spdlog's own errors do not carry.
int tryToOpen(const char *path) {
    const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) {
        return errno;
    }
    close(fd);
    return 0;
}

} // namespace

int32_t hostlog_level_check(uint32_t /*moduleId*/, uint32_t level) {
    return level <= maxLevel.load(std::memory_order_relaxed) ? 0 : 1;
}

void hostlog(uint32_t moduleId, uint32_t level, const char *file, int32_t line, const char *funcName, uint32_t logId,
             const char *format, ...) {
    if (hostlog_level_check(moduleId, level) != 0) {
        return;
    }
    va_list args;
    va_start(args, format);
    writeLine(moduleId, level, file, line, funcName, logId, format, args);
    va_end(args);
}

void hostlog_standard(uint32_t moduleId, uint32_t level, const char *funcName, int32_t line, uint32_t logId,
                      const char *format, ...) {
    if (hostlog_level_check(moduleId, level) != 0) {
        return;
    }
    va_list args;
    va_start(args, format);
    writeLine(moduleId, level, nullptr, line, funcName, logId, format, args);
    va_end(args);
}

void difHostSetLogLevel(uint32_t level) {
    maxLevel.store(level, std::memory_order_relaxed);
}

uint32_t difHostGetLogLevel(void) {
    return maxLevel.load(std::memory_order_relaxed);
}

int difHostSetLogFile(const char *path, size_t maxBytes, size_t maxFiles) {
    try {
        if (path == nullptr) {
            theLog().setFile(nullptr);
            return 0;
        }
        if (maxBytes == 0) {
            return EINVAL;
        }
        if (const int error = tryToOpen(path); error != 0) {
            return error;
        }
        theLog().setFile(std::make_shared<spdlog::sinks::rotating_file_sink_mt>(path, maxBytes, maxFiles));
        return 0;
    } catch (const spdlog::spdlog_ex &) {
        return EINVAL; // the path can be opened, so spdlog refuses maxFiles
    } catch (...) {
        return ENOMEM;
    }
}
