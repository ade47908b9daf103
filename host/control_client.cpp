/* The client side of the control socket. */
#include "control_socket.h"
#include "output.h"

#include <algorithm>
#include <charconv>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/time.h>

namespace {

using Clock = std::chrono::steady_clock;

/*
 * Sends all of it: no socket buffer is too small for a request. A server that refuses this client may have closed the
 * connection already; its answer says why.
 */
int sendRequest(int fd, const std::string &request) {
    if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) >= 0 || errno == EPIPE || errno == ECONNRESET) {
        return 0;
    }
    return errno == EAGAIN ? ETIMEDOUT : errno;
}

int receiveAnswer(int fd, Clock::time_point deadline, std::string &answer) {
    constexpr size_t kMaxAnswer = kMaxOutput + 4096; /* room for error lines and the status */
    while (answer.size() <= kMaxAnswer) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd polled{.fd = fd, .events = POLLIN, .revents = 0};
        const int ready = left.count() <= 0 ? 0 : poll(&polled, 1, static_cast<int>(left.count()));
        if (ready == 0) {
            return ETIMEDOUT;
        }
        std::array<char, 16384> piece;
        const ssize_t size = ready < 0 ? -1 : recv(fd, piece.data(), piece.size(), MSG_DONTWAIT);
        if (size == 0 || (size < 0 && errno == ECONNRESET)) {
            return 0;
        }
        if (size < 0 && errno != EINTR && errno != EAGAIN) {
            return errno;
        }
        answer.append(piece.data(), static_cast<size_t>(std::max<ssize_t>(size, 0)));
    }
    return EPROTO;
}

/* Takes the status off the answer; false if there is none. */
bool takeStatus(std::string &answer, int &status) {
    const size_t end = answer.rfind('\0');
    if (end == std::string::npos || answer.back() != '\n') {
        return false;
    }
    const char *const last = answer.data() + answer.size() - 1;
    const auto [parsed, error] = std::from_chars(answer.data() + end + 1, last, status);
    if (error != std::errc() || parsed != last) {
        return false;
    }
    answer.resize(end);
    return true;
}

int attach(const sockaddr_un &address, const std::string &request, DifHostPrint print, void *context, int &status) {
    const auto limit = controlPatience();
    const auto deadline = Clock::now() + limit;
    const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    /* A connection waits for a place in the queue of a server that hangs as long as it may wait to send. */
    const timeval timeout{.tv_sec = limit.count() / 1000, .tv_usec = limit.count() % 1000 * 1000};
    if (!fd || setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) != 0) {
        return errno;
    }
    if (connectTo(fd.get(), address) != 0) {
        return errno == EAGAIN ? ETIMEDOUT : errno;
    }
    if (const int error = sendRequest(fd.get(), request); error != 0) {
        return error;
    }
    std::string answer;
    const int error = receiveAnswer(fd.get(), deadline, answer);
    const bool complete = error == 0 && takeStatus(answer, status);
    writeOutput(print, context, answer);
    return complete ? 0 : error == 0 ? EPROTO : error;
}

} // namespace

int difHostAttach(const char *path, int registry, const char *line, DifHostPrint print, void *context, int *status) {
    if (path == nullptr || line == nullptr || status == nullptr ||
        (registry != DIF_HOST_DIAGNOSE && registry != DIF_HOST_CLI)) {
        return EINVAL;
    }
    if (std::string_view(line).find('\n') != std::string_view::npos) {
        return EINVAL;
    }
    sockaddr_un address;
    if (const int error = socketAddress(path, address); error != 0) {
        return error;
    }
    try {
        const std::string request = std::string(kRegistryName[static_cast<size_t>(registry)]) + ' ' + line;
        return request.size() > kMaxRequest ? EMSGSIZE : attach(address, request + '\n', print, context, *status);
    } catch (...) {
        return ENOMEM;
    }
}
