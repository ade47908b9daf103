#include "io/interrupt.h"

#include "io/error.h"
#include "io/progress.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>

#include <unistd.h>

namespace difctl {

namespace {

constexpr std::chrono::seconds kLongestWrite{10}; /* what takes longer waits for a server or device that is stuck */
constexpr std::chrono::milliseconds kRetry{5};

struct Watch {
    std::atomic<bool> ending{false};
    std::recursive_mutex mutex; /* memory may be wanting while it is held */
    Unfinished unfinished;
    std::atomic<bool> atPrompt{false}; /* as unfinished says, for who must not wait for the mutex */
};

/* Never destroyed: the watching thread may look at it until the process is gone. */
Watch &watch() {
    static Watch &instance = *new Watch;
    return instance;
}

/* Tried again and again, which the thread sanitizer understands, other than a wait for a lock with an end. */
bool locksInTime(std::recursive_mutex &mutex) {
    const auto end = std::chrono::steady_clock::now() + kLongestWrite;
    while (!mutex.try_lock()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(kRetry);
    }
    return true;
}

[[noreturn]] void endProcess(std::string_view why) {
    giveUp(why);
    std::_Exit(kNotDone);
}

/* Nobody may ever read what goes to standard error, and nothing else ends a write that waits for that. */
void endInASecond() {
    sigset_t alarmOnly;
    sigemptyset(&alarmOnly);
    sigaddset(&alarmOnly, SIGALRM);
    std::signal(SIGALRM, [](int) { std::_Exit(kNotDone); });
    pthread_sigmask(SIG_UNBLOCK, &alarmOnly, nullptr);
    ::alarm(1);
}

} // namespace

void watchInterrupts() {
    watch();
    std::set_new_handler([] { endProcess("memory cannot be had"); });
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
    try {
        std::thread([watched] {
            int signalNumber = 0;
            while (sigwait(&watched, &signalNumber) != 0 || (signalNumber == SIGINT && watch().atPrompt)) {
            }
            endProcess(std::string("interrupted by SIG") + sigabbrev_np(signalNumber));
        }).detach();
    } catch (const std::system_error &error) {
        throw Error(std::string("the thread that waits for interrupts cannot be had: ") + error.code().message() +
                    "; nothing is changed");
    }
}

void holdingInterrupts(const std::function<void(Unfinished &)> &change) {
    /* No changes one after the other may keep an interrupt from getting the mutex. */
    watch().ending.wait(true);
    const std::lock_guard lock(watch().mutex);
    change(watch().unfinished);
    watch().atPrompt = watch().unfinished.promptModes.has_value();
}

void giveUp(std::string_view why) {
    watch().ending = true;
    /* Not unlocked again: no other thread may write in place or give the file its final name any more. */
    if (!locksInTime(watch().mutex)) {
        endInASecond();
        printMessage(why, "; some of what was being written, which does not end, may be there");
        return;
    }
    const Unfinished &unfinished = watch().unfinished;
    if (!unfinished.path.empty()) {
        ::unlink(unfinished.path.c_str());
    }
    /* In the background, the terminal is another's. */
    if (unfinished.promptModes && ::tcgetpgrp(STDIN_FILENO) == ::getpgrp()) {
        ::tcsetattr(STDIN_FILENO, TCSANOW, &*unfinished.promptModes);
    }
    endInASecond();
    printMessage(why, unfinished.note);
}

} // namespace difctl
