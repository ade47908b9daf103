/* Threads of the host's own that take no signals of the process. */
#ifndef DIF_HOST_BLOCKED_SIGNALS_H
#define DIF_HOST_BLOCKED_SIGNALS_H

#include <csignal>
#include <initializer_list>

/* Threads started while it lives get no signals but those that they raise themselves. */
class BlockedSignals {
public:
    BlockedSignals() {
        sigset_t others;
        sigfillset(&others);
        for (const int own : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP}) {
            sigdelset(&others, own);
        }
        pthread_sigmask(SIG_SETMASK, &others, &before_);
    }
    ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    BlockedSignals(const BlockedSignals &) = delete;
    BlockedSignals &operator=(const BlockedSignals &) = delete;

private:
    sigset_t before_;
};

#endif
