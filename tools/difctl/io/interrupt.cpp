#include "io/interrupt.h"

#include "io/error.h"
#include "io/progress.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>

#include <unistd.h>

namespace difctl {

namespace {

struct Watch {
    std::atomic<bool> ending{false};
    std::mutex mutex;
    Unfinished unfinished;
};

/* Never destroyed: the watching thread may look at it until the process is gone. */
Watch &watch() {
    static Watch &instance = *new Watch;
    return instance;
}

[[noreturn]] void endProcess(int signalNumber) {
    giveUp(std::string("interrupted by SIG") + sigabbrev_np(signalNumber));
    std::_Exit(kNotDone);
}

} // namespace

void watchInterrupts() {
    sigset_t watched;
    sigemptyset(&watched);
    for (const int signalNumber : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction current = {};
        sigaction(signalNumber, nullptr, &current);
        if (current.sa_handler != SIG_IGN) {
            sigaddset(&watched, signalNumber);
        }
    }
    /* Threads inherit the mask, so that only the watching thread takes these signals. */
    pthread_sigmask(SIG_BLOCK, &watched, nullptr);
    watch();
    std::thread([watched] {
        int signalNumber = 0;
        while (sigwait(&watched, &signalNumber) != 0) {
        }
        endProcess(signalNumber);
    }).detach();
}

void holdingInterrupts(const std::function<void(Unfinished &)> &change) {
    /* No changes one after the other may keep an interrupt from getting the mutex. */
    watch().ending.wait(true);
    const std::lock_guard lock(watch().mutex);
    change(watch().unfinished);
}

void giveUp(const std::string &why) {
    watch().ending = true;
    /* Not unlocked again: no other thread may write in place or give the file its final name any more. */
    watch().mutex.lock();
    const Unfinished &unfinished = watch().unfinished;
    if (!unfinished.path.empty()) {
        ::unlink(unfinished.path.c_str());
    }
    printMessage(why + unfinished.note);
}

} // namespace difctl
