/*
 * How the process ends early, by SIGINT, SIGTERM or SIGHUP or for want of memory: remove the unfinished file or wait for
 * the request that is being written in place, though not for ever, give the terminal its modes back, say in one line how
 * things were left and end with status 2.
 */
#ifndef DIFCTL_INTERRUPT_H
#define DIFCTL_INTERRUPT_H

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include <termios.h>

namespace difctl {

/* Starts the watch. Call it before any other thread starts; signals that the process was started to ignore stay ignored.
 * Throws Error if there can be no watch. */
void watchInterrupts();

/* What an interrupt has to undo and to say. */
struct Unfinished {
    std::string path; /* file to remove, if any */
    std::string note; /* end of the message */
    /* At a prompt, where SIGINT ends nothing: the modes to give back to the terminal that is standard input. */
    std::optional<termios> promptModes = {};
};

/* Runs `change`, which updates what an interrupt has to undo together with the files themselves, with interrupts held
 * off. */
void holdingInterrupts(const std::function<void(Unfinished &)> &change);

/* Undoes what an interrupt would undo and says `why` in one line. The process must end: nothing is written any more, and
 * a second later it ends with status 2 of itself, whoever has not taken the line. */
void giveUp(std::string_view why);

} // namespace difctl

#endif
