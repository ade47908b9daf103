/*
 * What SIGINT, SIGTERM and SIGHUP do: remove the unfinished file or wait for the request that is being written in place,
 * say in one line how things were left and end with status 2.
 */
#ifndef DIFCTL_INTERRUPT_H
#define DIFCTL_INTERRUPT_H

#include <functional>
#include <string>

namespace difctl {

/* Starts the watch. Call it before any other thread starts; signals that the process was started to ignore stay ignored. */
void watchInterrupts();

/* What an interrupt has to undo and to say. */
struct Unfinished {
    std::string path; /* file to remove, if any */
    std::string note; /* end of the message */
};

/* Runs `change`, which updates what an interrupt has to undo together with the files themselves, with interrupts held
 * off. */
void holdingInterrupts(const std::function<void(Unfinished &)> &change);

/* Undoes what an interrupt would undo and says `why` in one line. The process must end: nothing is written any more. */
void giveUp(const std::string &why);

} // namespace difctl

#endif
