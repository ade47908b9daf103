#include "io/progress.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cmath>
#include <cstdio>

#include <unistd.h>

namespace difctl {

namespace {

constexpr std::chrono::milliseconds kFirstDraw{500}; /* short work shows nothing */
constexpr std::chrono::milliseconds kRedraw{200};
constexpr double kMebibyte = 1024.0 * 1024.0;
constexpr const char *kEraseLine = "\r\x1b[K";
/* A line longer than a narrow terminal is cut there: wrapped, it could not be erased again. */
constexpr const char *kWrapOff = "\x1b[?7l";
constexpr const char *kWrapOn = "\x1b[?7h";

bool progressAllowed = true;

bool onTerminal() {
    return ::isatty(STDERR_FILENO) == 1;
}

std::string clockText(uint64_t seconds) {
    std::array<char, 32> text{};
    if (seconds >= 3600) {
        std::snprintf(text.data(), text.size(), "%" PRIu64 ":%02u:%02u", seconds / 3600,
                      static_cast<unsigned>(seconds / 60 % 60), static_cast<unsigned>(seconds % 60));
    } else {
        std::snprintf(text.data(), text.size(), "%u:%02u", static_cast<unsigned>(seconds / 60),
                      static_cast<unsigned>(seconds % 60));
    }
    return text.data();
}

} // namespace

void printMessage(const std::string &text) {
    std::fprintf(stderr, "%sdifctl: %s\n", onTerminal() ? kEraseLine : "", text.c_str());
}

void allowProgress(bool allowed) {
    progressAllowed = allowed;
}

Progress::Progress(std::optional<uint64_t> totalBytes)
    : totalBytes_(totalBytes), active_(progressAllowed && onTerminal()), nextDraw_(start_ + kFirstDraw) {}

Progress::~Progress() {
    clear();
}

void Progress::advance(uint64_t bytes) {
    doneBytes_ += bytes;
    if (!active_) {
        return;
    }
    const auto now = Clock::now();
    if (now >= nextDraw_) {
        draw(now);
        nextDraw_ = now + kRedraw;
    }
}

void Progress::clear() {
    if (drawn_) {
        std::fputs(kEraseLine, stderr);
        drawn_ = false;
    }
}

void Progress::draw(Clock::time_point now) {
    const double seconds = std::chrono::duration<double>(now - start_).count();
    const auto done = static_cast<double>(doneBytes_);
    const double rate = done / seconds;
    drawn_ = true;
    if (!totalBytes_) {
        std::fprintf(stderr, "%s%s%.0f MiB  %.0f MiB/s%s", kEraseLine, kWrapOff, done / kMebibyte, rate / kMebibyte,
                     kWrapOn);
        return;
    }
    const auto total = static_cast<double>(*totalBytes_);
    const double share = std::min(done / total, 1.0);
    constexpr size_t kBarWidth = 30;
    std::string bar(kBarWidth, '.');
    std::fill_n(bar.begin(), static_cast<size_t>(share * kBarWidth), '#');
    const auto left = static_cast<uint64_t>(std::llround(std::max(total - done, 0.0) / rate));
    std::fprintf(stderr, "%s%s[%s] %3.0f%%  %.0f of %.0f MiB  %.0f MiB/s  %s left%s", kEraseLine, kWrapOff, bar.c_str(),
                 share * 100, done / kMebibyte, total / kMebibyte, rate / kMebibyte, clockText(left).c_str(), kWrapOn);
}

} // namespace difctl
