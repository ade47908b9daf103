/*
 * A name that is found is the name of a server that listens: the socket is bound to a temporary name beside it, and gets
 * its own only when it listens. Only a socket that answers nobody is taken away, and no lock is needed for that, which
 * others could hold.
 */
#include "control_name.h"

#include <atomic>
#include <cstdio>
#include <fcntl.h>
#include <random>

namespace {

/* For children of fork; -1 if there is none. */
std::atomic<int> listening{-1};

std::string temporaryName() {
    std::array<char, 10> name;
    std::snprintf(name.data(), name.size(), ".%08x", std::random_device()());
    return name.data();
}

bool isSameFile(const struct stat &a, const struct stat &b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

} // namespace

Listener::~Listener() {
    /* As long as it listens, no other server of this kind takes the name over between the look and the removal. */
    struct stat found;
    if (!name_.empty() && statName(name_, found) && isSameFile(found, file_)) {
        unlinkat(directory_.get(), name_.c_str(), 0);
    }
    if (fd_) {
        listening = -1;
        shutdown(fd_.get(), SHUT_RDWR); /* also for a child that has come by the descriptor */
    }
}

int Listener::open(const std::string &path, int backlog) {
    sockaddr_un address;
    if (const int error = socketAddress(path.c_str(), address); error != 0) {
        return error;
    }
    const size_t nameAt = path.rfind('/') + 1; /* 0 if there is no slash */
    const std::string directory = path.substr(0, nameAt);
    directory_ = UniqueFd(::open(nameAt == 0 ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory_) {
        return errno;
    }
    if (nameAt == path.size()) {
        return EISDIR;
    }
    const std::string temporary = temporaryName();
    if (const int error = bindAndListen(directory + temporary, temporary, backlog); error != 0) {
        return error;
    }
    name_ = path.substr(nameAt);
    const int error = publish(address, temporary);
    unlinkat(directory_.get(), temporary.c_str(), 0);
    return error;
}

int Listener::bindAndListen(const std::string &path, const std::string &temporary, int backlog) {
    sockaddr_un address;
    if (const int error = socketAddress(path.c_str(), address); error != 0) {
        return error;
    }
    fd_ = UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd_) {
        return errno;
    }
    listening = fd_.get();
    /* The name gets the socket's mode, without what the umask takes, so that it is never anyone else's. */
    constexpr mode_t kMode = S_IRUSR | S_IWUSR;
    if (fchmod(fd_.get(), kMode) != 0 ||
        bind(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        return errno;
    }
    if (!statName(temporary, file_) ||
        ((file_.st_mode & ACCESSPERMS) != kMode &&
         fchmodat(directory_.get(), temporary.c_str(), kMode, AT_SYMLINK_NOFOLLOW) != 0) ||
        listen(fd_.get(), backlog) != 0) {
        const int error = errno;
        unlinkat(directory_.get(), temporary.c_str(), 0);
        return error;
    }
    return 0;
}

int Listener::publish(const sockaddr_un &address, const std::string &temporary) {
    const auto linked = [&] {
        return linkat(directory_.get(), temporary.c_str(), directory_.get(), name_.c_str(), 0) == 0;
    };
    if (linked()) {
        return 0;
    }
    if (errno != EEXIST) {
        return errno;
    }
    if (const int error = removeStale(address); error != 0) {
        return error;
    }
    return linked() ? 0 : errno == EEXIST ? EADDRINUSE : errno;
}

int Listener::removeStale(const sockaddr_un &address) {
    struct stat stale;
    if (!statName(name_, stale)) {
        return errno == ENOENT ? 0 : errno;
    }
    if (!S_ISSOCK(stale.st_mode)) {
        return ENOTSOCK;
    }
    const UniqueFd probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!probe) {
        return errno;
    }
    if (connectTo(probe.get(), address) == 0 || errno == EAGAIN) { /* EAGAIN: its queue is full */
        return EADDRINUSE;
    }
    if (errno != ECONNREFUSED) {
        return errno;
    }
    /* Another process may have taken the name over since. What is set aside shows it, and goes back in that case. */
    const std::string aside = temporaryName();
    struct stat moved;
    if (renameat(directory_.get(), name_.c_str(), directory_.get(), aside.c_str()) != 0 || !statName(aside, moved)) {
        return errno == ENOENT ? 0 : errno;
    }
    const bool isStale = isSameFile(moved, stale);
    if (!isStale) {
        /* Fails if a third has the name by now. */
        [[maybe_unused]] const int back = linkat(directory_.get(), aside.c_str(), directory_.get(), name_.c_str(), 0);
    }
    unlinkat(directory_.get(), aside.c_str(), 0);
    return isStale ? 0 : EADDRINUSE;
}

bool Listener::statName(const std::string &name, struct stat &found) const {
    return fstatat(directory_.get(), name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0;
}

void Listener::closeInChild() {
    if (const int fd = listening.exchange(-1); fd >= 0) {
        close(fd);
    }
}
