/*
 * The server side of the control socket: one thread that polls, never blocks on a client and never has a client hold
 * anything of the process beyond the limits below.
 */
#include "control_socket.h"
#include "blocked_signals.h"
#include "control_name.h"
#include "output.h"
#include "session.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <string_view>
#include <sys/eventfd.h>
#include <system_error>
#include <thread>
#include <vector>

namespace {

using namespace std::string_view_literals;

std::atomic<uint32_t> patience{5000};

using Clock = std::chrono::steady_clock;

constexpr size_t kMaxClients = 8;
constexpr std::chrono::seconds kAcceptPause{1}; /* after an error such as too many open files */

/* Answers that need no memory. */
constexpr auto kNotTheOwner = "Error: this control socket is its owner's alone.\n\00013\n"sv;
constexpr auto kDisplaced = "Error: too many clients, this one was idle the longest.\n\00016\n"sv;
constexpr auto kOutOfMemory = "Error: out of memory.\n\00012\n"sv;
static_assert(EACCES == 13 && EBUSY == 16 && ENOMEM == 12, "status in the answers");

/* What is printed, up to the limit. */
class Output {
public:
    static void print(void *self, const char *text, size_t size) { static_cast<Output *>(self)->append({text, size}); }

    void append(std::string_view text) {
        const size_t taken = std::min(text.size(), kMaxOutput - text_.size());
        text_.append(text.substr(0, taken));
        cut_ = cut_ || taken < text.size();
    }

    std::string answer(int status) && {
        if (cut_) {
            status = EFBIG;
            text_ += "\nError: the output is cut after " + std::to_string(kMaxOutput) + " bytes.\n";
        }
        return std::move(text_) + '\0' + std::to_string(status) + '\n';
    }

private:
    std::string text_;
    bool cut_ = false;
};

int runRequest(const std::string &who, const std::string &request, Output &output) {
    if (request.size() > kMaxRequest) {
        output.append("Error: the request line exceeds " + std::to_string(kMaxRequest) + " bytes.\n");
        return EMSGSIZE;
    }
    if (request.find('\0') != std::string::npos) {
        output.append("Error: the request line holds a NUL byte.\n");
        return EINVAL;
    }
    const std::string name = request.substr(0, request.find(' '));
    const auto *const found = std::find(kRegistryName.begin(), kRegistryName.end(), name);
    if (found == kRegistryName.end()) {
        output.append("Error: unknown shell '" + escaped(name) + "', expected 'diagnose' or 'cli'.\n");
        return EINVAL;
    }
    return runCommandFor(who.c_str(), static_cast<int>(found - kRegistryName.begin()), request.c_str() + name.size(),
                         &Output::print, &output);
}

/* A connection, on a socket that does not block: first its request is read, then its answer is written. */
class Client {
public:
    Client(UniqueFd fd, const ucred &peer)
        : fd_(std::move(fd)), who_("user " + std::to_string(peer.uid) + ", process " + std::to_string(peer.pid)) {}
    Client(Client &&) = default;
    Client &operator=(Client &&) = default;
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    /* The other side sees the end even if a child of this process has come by the descriptor. */
    ~Client() { shutdown(fd_.get(), SHUT_RDWR); }

    int fd() const { return fd_.get(); }
    short events() const { return answer_.empty() ? POLLIN : POLLOUT; }
    Clock::time_point deadline() const { return deadline_; }
    Clock::time_point lastMove() const { return lastMove_; }

    /* Goes as far as it can without waiting; false when the connection is at its end. */
    bool advance() {
        try {
            return (!answer_.empty() || receive()) && (answer_.empty() || sendAnswer());
        } catch (...) {
            dismiss(kOutOfMemory);
            return false;
        }
    }

    /* Says why it ends, unless it has its answer in part. */
    void dismiss(std::string_view answer) const {
        if (sent_ == 0) {
            send(fd_.get(), answer.data(), answer.size(), MSG_NOSIGNAL);
        }
    }

private:
    bool receive() {
        std::array<char, kMaxRequest> piece;
        const ssize_t size = recv(fd_.get(), piece.data(), piece.size(), 0);
        if (size <= 0) {
            return size < 0 && (errno == EAGAIN || errno == EINTR);
        }
        lastMove_ = Clock::now();
        request_.append(piece.data(), static_cast<size_t>(size));
        const size_t end = request_.find('\n');
        if (end == std::string::npos && request_.size() <= kMaxRequest) {
            return true;
        }
        Output output;
        const int status = runRequest(who_, request_.substr(0, end), output);
        answer_ = std::move(output).answer(status);
        deadline_ = Clock::now() + controlPatience();
        return true;
    }

    bool sendAnswer() {
        while (sent_ < answer_.size()) {
            const ssize_t size = send(fd_.get(), answer_.data() + sent_, answer_.size() - sent_, MSG_NOSIGNAL);
            if (size < 0) {
                return errno == EAGAIN || errno == EINTR;
            }
            sent_ += static_cast<size_t>(size);
            lastMove_ = Clock::now();
        }
        return false;
    }

    UniqueFd fd_;
    std::string who_;
    Clock::time_point lastMove_ = Clock::now();
    Clock::time_point deadline_ = lastMove_ + controlPatience();
    std::string request_;
    std::string answer_;
    size_t sent_ = 0;
};

thread_local bool onServiceThread = false;

class Server {
public:
    Server() = default;
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    ~Server() {
        if (thread_.joinable()) {
            eventfd_write(stop_.get(), 1);
            thread_.join();
        }
    }

    /* Returns 0 or an errno value. */
    int start(const char *path) {
        stop_ = UniqueFd(eventfd(0, EFD_CLOEXEC));
        if (!stop_) {
            return errno;
        }
        clients_.reserve(kMaxClients);
        if (const int error = listener_.open(path, kMaxClients); error != 0) {
            return error;
        }
        try {
            const BlockedSignals blocked;
            thread_ = std::thread(&Server::serve, this);
            return 0;
        } catch (const std::system_error &error) {
            return error.code().value();
        }
    }

private:
    void serve() {
        onServiceThread = true;
        pthread_setname_np(pthread_self(), "dif-control");
        for (;;) {
            std::array<pollfd, 2 + kMaxClients> polled{};
            polled[0] = {.fd = stop_.get(), .events = POLLIN, .revents = 0};
            polled[1] = {.fd = Clock::now() < acceptAgain_ ? -1 : listener_.fd(), .events = POLLIN, .revents = 0};
            for (size_t i = 0; i < clients_.size(); ++i) {
                polled[2 + i] = {.fd = clients_[i].fd(), .events = clients_[i].events(), .revents = 0};
            }
            if (poll(polled.data(), 2 + clients_.size(), pollTime()) < 0) {
                continue; /* no memory; it comes back */
            }
            if (polled[0].revents != 0) {
                return;
            }
            for (size_t i = clients_.size(); i-- > 0;) {
                if (!stays(clients_[i], polled[2 + i].revents)) {
                    clients_.erase(clients_.begin() + static_cast<std::ptrdiff_t>(i));
                }
            }
            if (polled[1].revents != 0) {
                acceptClient();
            }
        }
    }

    /* Until the first deadline, in milliseconds; -1 if nothing is due. */
    int pollTime() const {
        const auto now = Clock::now();
        auto first = acceptAgain_ > now ? acceptAgain_ : Clock::time_point::max();
        for (const Client &client : clients_) {
            first = std::min(first, client.deadline());
        }
        if (first == Clock::time_point::max()) {
            return -1;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(first - now).count();
        return static_cast<int>(std::max<decltype(left)>(left, 0));
    }

    /* The deadline comes last: a request that has waited for another client's command is still answered. */
    static bool stays(Client &client, short revents) {
        return (revents == 0 || client.advance()) && Clock::now() < client.deadline();
    }

    void acceptClient() {
        UniqueFd fd(accept4(listener_.fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!fd) {
            if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
                acceptAgain_ = Clock::now() + kAcceptPause;
            }
            return;
        }
        ucred peer{};
        socklen_t size = sizeof peer;
        if (getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 ||
            (peer.uid != geteuid() && peer.uid != 0)) {
            Client(std::move(fd), peer).dismiss(kNotTheOwner);
            return;
        }
        if (clients_.size() == kMaxClients) {
            const auto idle = std::min_element(clients_.begin(), clients_.end(), [](const auto &a, const auto &b) {
                return a.lastMove() < b.lastMove();
            });
            idle->dismiss(kDisplaced);
            clients_.erase(idle);
        }
        clients_.emplace_back(std::move(fd), peer);
    }

    Listener listener_;
    UniqueFd stop_;
    std::vector<Client> clients_;
    Clock::time_point acceptAgain_{};
    std::thread thread_;
};

/* Of this process: a child of fork starts with a state of its own and without a service. */
struct State {
    std::mutex mutex;
    Server *server = nullptr;
    Server *parents = nullptr; /* whose thread the child does not have */
};

/* Never destroyed: a process that ends need not wait for its service. */
State &state() {
    alignas(State) static std::array<std::byte, sizeof(State)> memory;
    static State *const instance = [] {
        pthread_atfork(nullptr, nullptr, [] {
            Listener::closeInChild();
            onServiceThread = false;
            Server *const parents = state().server;
            new (memory.data()) State;
            state().parents = parents;
        });
        return new (memory.data()) State;
    }();
    return *instance;
}

} // namespace

std::chrono::milliseconds controlPatience() {
    return std::chrono::milliseconds(patience);
}

int difHostOpenControlSocket(const char *path) {
    if (path == nullptr) {
        return EINVAL;
    }
    /* On the service thread there is a server, and the lock may be held by one who waits for this thread to end. */
    if (onServiceThread) {
        return EADDRINUSE;
    }
    try {
        const std::lock_guard lock(state().mutex);
        if (state().server != nullptr) {
            return EADDRINUSE;
        }
        auto server = std::make_unique<Server>();
        const int error = server->start(path);
        if (error == 0) {
            state().server = server.release();
        }
        return error;
    } catch (...) {
        return ENOMEM;
    }
}

void difHostCloseControlSocket(void) {
    if (onServiceThread) {
        return;
    }
    const std::lock_guard lock(state().mutex);
    delete std::exchange(state().server, nullptr);
}

void difHostSetControlPatience(uint32_t milliseconds) {
    patience = milliseconds;
}
