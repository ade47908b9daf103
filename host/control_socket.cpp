/*
 * The server side of the control socket: one thread that polls, never blocks on a client and never has a client hold
 * anything of the process beyond the limits below.
 */
#include "control_socket.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMaxClients = 8;
constexpr std::chrono::seconds kAcceptPause{1}; // after an error such as too many open files
constexpr std::chrono::milliseconds kLockTime{1000};
constexpr std::chrono::milliseconds kLockPause{10};

// What is printed, up to the limit.
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

int runRequest(const std::string &request, Output &output) {
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
        output.append("Error: unknown shell '" + name + "', expected 'diagnose' or 'cli'.\n");
        return EINVAL;
    }
    return difHostRunCommand(static_cast<int>(found - kRegistryName.begin()), request.c_str() + name.size(),
                             &Output::print, &output);
}

// A connection, on a socket that does not block: first its request is read, then its answer is written.
class Client {
public:
    explicit Client(UniqueFd fd) : fd_(std::move(fd)) {}

    int fd() const { return fd_.get(); }
    short events() const { return answer_.empty() ? POLLIN : POLLOUT; }
    Clock::time_point deadline() const { return deadline_; }

    // Goes as far as it can without waiting; false when the connection is at its end.
    bool advance() {
        if (answer_.empty() && !receive()) {
            return false;
        }
        return answer_.empty() || send();
    }

private:
    bool receive() {
        std::array<char, kMaxRequest> piece;
        const ssize_t size = recv(fd_.get(), piece.data(), piece.size(), 0);
        if (size <= 0) {
            return size < 0 && (errno == EAGAIN || errno == EINTR);
        }
        request_.append(piece.data(), static_cast<size_t>(size));
        const size_t end = request_.find('\n');
        if (end == std::string::npos && request_.size() <= kMaxRequest) {
            return true;
        }
        Output output;
        const int status = runRequest(request_.substr(0, end), output);
        answer_ = std::move(output).answer(status);
        deadline_ = Clock::now() + kPatience;
        return true;
    }

    bool send() {
        while (sent_ < answer_.size()) {
            const ssize_t size = ::send(fd_.get(), answer_.data() + sent_, answer_.size() - sent_, MSG_NOSIGNAL);
            if (size < 0) {
                return errno == EAGAIN || errno == EINTR;
            }
            sent_ += static_cast<size_t>(size);
        }
        return false;
    }

    UniqueFd fd_;
    Clock::time_point deadline_ = Clock::now() + kPatience;
    std::string request_;
    std::string answer_;
    size_t sent_ = 0;
};

// The lock on a directory under which the names of control sockets in it are made and removed.
class DirectoryLock {
public:
    explicit DirectoryLock(int directory) : directory_(directory) {
        const auto deadline = Clock::now() + kLockTime;
        while (!(held_ = flock(directory_, LOCK_EX | LOCK_NB) == 0) && Clock::now() < deadline) {
            std::this_thread::sleep_for(kLockPause);
        }
    }
    ~DirectoryLock() {
        if (held_) {
            flock(directory_, LOCK_UN);
        }
    }
    DirectoryLock(const DirectoryLock &) = delete;
    DirectoryLock &operator=(const DirectoryLock &) = delete;

    bool held() const { return held_; }

private:
    int directory_;
    bool held_ = false;
};

// The listening socket and its name.
class Listener {
public:
    Listener() = default;
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    ~Listener() {
        if (!bound_) {
            return;
        }
        const DirectoryLock lock(directory_.get());
        struct stat found;
        if (lock.held() && fstatat(directory_.get(), name_.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 &&
            found.st_dev == file_.st_dev && found.st_ino == file_.st_ino) {
            unlinkat(directory_.get(), name_.c_str(), 0);
        }
    }

    // Returns 0 or an errno value.
    int open(const std::string &path) {
        sockaddr_un address;
        if (const int error = socketAddress(path.c_str(), address); error != 0) {
            return error;
        }
        const size_t nameAt = path.rfind('/') + 1; // 0 if there is no slash
        name_ = path.substr(nameAt);
        const std::string directory = nameAt == 0 ? "." : path.substr(0, nameAt);
        directory_ = UniqueFd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!directory_) {
            return errno;
        }
        const DirectoryLock lock(directory_.get());
        if (!lock.held()) {
            return ETIMEDOUT;
        }
        const int error = removeStale(address);
        return error != 0 ? error : bindAndListen(address);
    }

    int fd() const { return fd_.get(); }

private:
    int removeStale(const sockaddr_un &address) {
        struct stat found;
        if (fstatat(directory_.get(), name_.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
            return errno == ENOENT ? 0 : errno;
        }
        if (!S_ISSOCK(found.st_mode)) {
            return ENOTSOCK;
        }
        const UniqueFd probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (!probe) {
            return errno;
        }
        if (connectTo(probe.get(), address) == 0 || errno == EAGAIN) { // EAGAIN: its queue is full
            return EADDRINUSE;
        }
        return errno != ECONNREFUSED || unlinkat(directory_.get(), name_.c_str(), 0) != 0 ? errno : 0;
    }

    int bindAndListen(const sockaddr_un &address) {
        fd_ = UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        // The name gets the mode that the socket has when it is bound, so that it is never anyone else's.
        if (!fd_ || fchmod(fd_.get(), S_IRUSR | S_IWUSR) != 0 ||
            bind(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
            return errno;
        }
        if (fstatat(directory_.get(), name_.c_str(), &file_, AT_SYMLINK_NOFOLLOW) != 0) {
            return errno;
        }
        bound_ = true;
        return listen(fd_.get(), kMaxClients) == 0 ? 0 : errno;
    }

    UniqueFd directory_;
    std::string name_;
    UniqueFd fd_;
    struct stat file_ {};
    bool bound_ = false;
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

    // Returns 0 or an errno value.
    int start(const char *path) {
        stop_ = UniqueFd(eventfd(0, EFD_CLOEXEC));
        if (!stop_) {
            return errno;
        }
        clients_.reserve(kMaxClients);
        if (const int error = listener_.open(path); error != 0) {
            return error;
        }
        // The signals of the process are not for the service thread.
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
        try {
            thread_ = std::thread(&Server::serve, this);
        } catch (...) {
            pthread_sigmask(SIG_SETMASK, &before, nullptr);
            return EAGAIN;
        }
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        return 0;
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
                continue; // no memory; it comes back
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

    // Until the first deadline, in milliseconds; -1 if nothing is due.
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

    // The deadline comes last: a request that has waited for another client's command is still answered.
    static bool stays(Client &client, short revents) {
        try {
            return (revents == 0 || client.advance()) && Clock::now() < client.deadline();
        } catch (...) {
            return false; // out of memory
        }
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
            refuse(fd.get(), "Error: this control socket is its owner's alone.\n", EACCES);
        } else if (clients_.size() == kMaxClients) {
            refuse(fd.get(), "Error: too many clients, try again in a few seconds.\n", EBUSY);
        } else {
            clients_.emplace_back(std::move(fd));
        }
    }

    static void refuse(int fd, const char *text, int status) {
        try {
            Output output;
            output.append(text);
            const std::string answer = std::move(output).answer(status);
            send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
        } catch (...) {
            // Out of memory: refused without a word.
        }
    }

    Listener listener_;
    UniqueFd stop_;
    std::vector<Client> clients_;
    Clock::time_point acceptAgain_{};
    std::thread thread_;
};

struct TheServer {
    std::mutex mutex;
    std::unique_ptr<Server> server;
};

// Never destroyed: a process that ends need not wait for its service.
TheServer &theServer() {
    static auto &instance = *new TheServer;
    return instance;
}

} // namespace

int difHostOpenControlSocket(const char *path) {
    if (path == nullptr) {
        return EINVAL;
    }
    // On the service thread there is a server, and the lock may be held by one who waits for this thread to end.
    if (onServiceThread) {
        return EADDRINUSE;
    }
    try {
        const std::lock_guard lock(theServer().mutex);
        if (theServer().server != nullptr) {
            return EADDRINUSE;
        }
        auto server = std::make_unique<Server>();
        const int error = server->start(path);
        if (error == 0) {
            theServer().server = std::move(server);
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
    const std::lock_guard lock(theServer().mutex);
    theServer().server.reset();
}
