#include "io/nbd_store.h"

#include "io/error.h"

#include <algorithm>
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
    further_ = connection->allowsFurther() ? kMaxConnections - 1 : 0;
    connections_.push_back({std::move(connection)});
}

/* A connection that nobody uses, or a new one, or the one that the fewest use. */
NbdStore::Shared &NbdStore::take() const {
    const auto leastUsed = [this] { return std::ranges::min_element(connections_, {}, &Shared::users); };
    std::unique_lock lock(mutex_);
    auto chosen = leastUsed();
    if (chosen->users != 0 && further_ > 0) {
        --further_;
        lock.unlock();
        auto connection = NbdConnection::further(uri_);
        lock.lock();
        if (connection) {
            connections_.push_back({std::move(connection)});
        } else {
            further_ = 0;
        }
        chosen = leastUsed();
    }
    ++chosen->users;
    return *chosen;
}

void NbdStore::giveBack(Shared &connection) const {
    const std::lock_guard lock(mutex_);
    --connection.users;
}

ssize_t NbdStore::read(uint64_t offset, const Pieces &pieces, size_t done) const {
    return static_cast<ssize_t>(Lease(*this)->read(offset, pieces, done));
}

uint64_t NbdStore::nextData(uint64_t offset) const {
    return Lease(*this)->nextData(offset);
}

void NbdStore::write(uint64_t offset, const Pieces &pieces) {
    const Lease connection(*this);
    std::unique_lock lock(partsMutex_, std::defer_lock);
    if (!connection->isWholeUnits(offset, pieces)) {
        lock.lock();
    }
    connection->write(offset, pieces);
}

void NbdStore::sync() {
    Lease(*this)->flush();
}

} // namespace difctl
