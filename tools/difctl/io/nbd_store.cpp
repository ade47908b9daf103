#include "io/nbd_store.h"

#include "io/error.h"

#include <utility>

namespace difctl {

namespace {

constexpr unsigned kMaxConnections = 4;

} // namespace

NbdStore::NbdStore(const std::string &uri, Use use) : uri_(uri) {
    auto connection = std::make_unique<NbdConnection>(uri);
    if (use == Use::kChange && connection->isReadOnly()) {
        throw Error(uri + ": cannot be changed: the server exports it for reading only");
    }
    length_ = connection->length();
    idle_.reserve(kMaxConnections);
    further_ = connection->allowsFurther() ? kMaxConnections - 1 : 0;
    giveBack(std::move(connection));
}

std::unique_ptr<NbdConnection> NbdStore::take() const {
    std::unique_lock lock(mutex_);
    if (idle_.empty() && further_ > 0) {
        --further_;
        lock.unlock();
        if (auto connection = NbdConnection::further(uri_)) {
            return connection;
        }
        lock.lock();
        further_ = 0;
    }
    givenBack_.wait(lock, [this] { return !idle_.empty(); });
    auto connection = std::move(idle_.back());
    idle_.pop_back();
    return connection;
}

void NbdStore::giveBack(std::unique_ptr<NbdConnection> connection) const {
    const std::lock_guard lock(mutex_);
    idle_.push_back(std::move(connection));
    givenBack_.notify_one();
}

ssize_t NbdStore::read(uint64_t offset, const Pieces &pieces, size_t done) const {
    return static_cast<ssize_t>(Lease(*this)->read(offset, pieces, done));
}

uint64_t NbdStore::nextData(uint64_t offset) const {
    return Lease(*this)->nextData(offset);
}

void NbdStore::write(uint64_t offset, const Pieces &pieces) {
    Lease(*this)->write(offset, pieces);
}

void NbdStore::sync() {
    Lease(*this)->flush();
}

} // namespace difctl
