/*
 * The control socket's protocol, which its server and its clients share. A client connects, sends one line and reads the
 * answer to its end:
 *
 *     REGISTRY LINE \n           REGISTRY is "diagnose" or "cli", LINE a command line; 4096 bytes at most, none of them NUL
 *     OUTPUT \0 STATUS \n        what the command printed, and difHostRunCommand's result in decimal
 *
 * (without the blanks around the control characters). The last NUL is the one before the status. What follows the request
 * line is ignored. An answer without a status is incomplete: the server was stopped, or the client has not read in time.
 */
#ifndef DIF_HOST_CONTROL_SOCKET_H
#define DIF_HOST_CONTROL_SOCKET_H

#include "dif_host.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

inline constexpr size_t kMaxRequest = 4096;
inline constexpr size_t kMaxOutput = size_t{1} << 20; /* more is cut */
inline constexpr std::array<const char *, 2> kRegistryName{"diagnose", "cli"};
static_assert(DIF_HOST_DIAGNOSE == 0 && DIF_HOST_CLI == 1, "registry names by number");

/* With the other side, for a request and for an answer. */
std::chrono::milliseconds controlPatience();

/* A file descriptor that is closed with its owner. */
class UniqueFd {
public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    ~UniqueFd() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_;
};

/* Returns 0, ENAMETOOLONG, or ENOENT for the empty path, which to a socket would be a name in no directory. */
inline int socketAddress(const char *path, sockaddr_un &address) {
    address = {.sun_family = AF_UNIX, .sun_path = {}};
    const size_t length = std::strlen(path);
    if (length == 0) {
        return ENOENT;
    }
    if (length >= sizeof address.sun_path) {
        return ENAMETOOLONG;
    }
    std::memcpy(address.sun_path, path, length);
    return 0;
}

inline int connectTo(int fd, const sockaddr_un &address) {
    return connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
}

#endif
