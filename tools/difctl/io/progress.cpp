#include "io/progress.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <string>

#include <sys/uio.h>
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

Show shown = Show::kBar;

bool onTerminal() {
    return ::isatty(STDERR_FILENO) == 1;
}

/* In one call, which keeps the lines of threads apart, and past stdio, whose lock is held by who waits for a reader. */
void show(const std::array<std::string_view, 5> &pieces) {
    std::array<iovec, 5> vector{};
    std::transform(pieces.begin(), pieces.end(), vector.begin(), [](std::string_view piece) {
        return iovec{const_cast<char *>(piece.data()), piece.size()};
    });
    while (::writev(STDERR_FILENO, vector.data(), vector.size()) < 0 && errno == EINTR) {
    }
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

void printMessage(std::string_view text, std::string_view note) {
    show({onTerminal() ? kEraseLine : "", "difctl: ", text, note, "\n"});
}

void showOfWork(Show what) {
    shown = what;
}

bool isQuiet() {
    return shown == Show::kNothing;
}

Progress::Progress(std::optional<uint64_t> totalBytes)
    : totalBytes_(totalBytes), active_(shown == Show::kBarAtOnce || (shown == Show::kBar && onTerminal())),
      nextDraw_(shown == Show::kBarAtOnce ? start_ : start_ + kFirstDraw) {}

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
        show({kEraseLine});
        drawn_ = false;
    }
}

void Progress::draw(Clock::time_point now) {
    const double seconds = std::chrono::duration<double>(now - start_).count();
    const auto done = static_cast<double>(doneBytes_);
    const double rate = done / seconds;
    std::array<char, 128> text{};
    if (!totalBytes_) {
        std::snprintf(text.data(), text.size(), "%.0f MiB  %.0f MiB/s", done / kMebibyte, rate / kMebibyte);
    } else {
        const auto total = static_cast<double>(*totalBytes_);
        const double share = std::min(done / total, 1.0);
        constexpr size_t kBarWidth = 30;
        std::string bar(kBarWidth, '.');
        std::fill_n(bar.begin(), static_cast<size_t>(share * kBarWidth), '#');
        const auto left = static_cast<uint64_t>(std::llround(std::max(total - done, 0.0) / rate));
        std::snprintf(text.data(), text.size(), "[%s] %3.0f%%  %.0f of %.0f MiB  %.0f MiB/s  %s left", bar.c_str(),
                      share * 100, done / kMebibyte, total / kMebibyte, rate / kMebibyte, clockText(left).c_str());
    }
    show({kEraseLine, kWrapOff, text.data(), kWrapOn});
    drawn_ = true;
}

} // namespace difctl
