/* What SIGINT, SIGTERM and SIGHUP do: remove the unfinished file, say so in one line and end with status 2. */
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

} // namespace difctl

#endif
