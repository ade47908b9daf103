/* What a user sees on standard error: messages, and while work lasts on a terminal, a progress bar. */
#ifndef DIFCTL_PROGRESS_H
#define DIFCTL_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

namespace difctl {

/* Writes "difctl: TEXTNOTE" as one line, over a progress bar if one is there. Holds no lock while nobody reads it and needs
 * no memory. */
void printMessage(std::string_view text, std::string_view note = {});

/* What the user wants to see of work beside its results and errors. */
enum class Show {
    kNothing, /* nor a result that all is well */
    kNoBar,
    kBar,      /* on a terminal, when work lasts */
    kBarAtOnce /* at once, wherever standard error goes */
};

/* kBar by default. Call it before any work. */
void showOfWork(Show what);
bool isQuiet();

/* A bar with share, rate and remaining time; without a known total, amount and rate. */
class Progress {
public:
    explicit Progress(std::optional<uint64_t> totalBytes);
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    void advance(uint64_t bytes);

    /* Takes the bar away until the next draw, to make room for other output. */
    void clear();

private:
    using Clock = std::chrono::steady_clock;

    void draw(Clock::time_point now);

    std::optional<uint64_t> totalBytes_;
    bool active_;
    bool drawn_ = false;
    uint64_t doneBytes_ = 0;
    Clock::time_point start_ = Clock::now();
    Clock::time_point nextDraw_;
};

} // namespace difctl

#endif
