/* The listening socket of the control service, and its name. */
#ifndef DIF_HOST_CONTROL_NAME_H
#define DIF_HOST_CONTROL_NAME_H

#include "control_socket.h"

#include <string>
#include <sys/stat.h>

/* At most one of a process is open at a time. */
class Listener {
public:
    Listener() = default;
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    /* Takes the name away, if it still is this socket's. */
    ~Listener();

    /* Returns 0 or an errno value. */
    int open(const std::string &path, int backlog);

    int fd() const { return fd_.get(); }

    /* In a child of fork: closes the parent's socket, so that the name is free when the parent is gone. */
    static void closeInChild();

private:
    int bindAndListen(const std::string &path, const std::string &temporary, int backlog);
    int publish(const sockaddr_un &address, const std::string &temporary);
    int removeStale(const sockaddr_un &address);
    bool statName(const std::string &name, struct stat &found) const;

    UniqueFd directory_;
    std::string name_; /* empty as long as there is none */
    UniqueFd fd_;
    struct stat file_ {};
};

#endif
