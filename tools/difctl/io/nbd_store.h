/* An image in the export of an NBD server. */
#ifndef DIFCTL_NBD_STORE_H
#define DIFCTL_NBD_STORE_H

#include "io/image_store.h"
#include "io/nbd_connection.h"

#include <list>
#include <memory>
#include <mutex>
#include <string>

namespace difctl {

/*
 * Threads that read and write get a connection each as far as the server takes several, and share them beyond that. The
 * length cannot change while they last; there are no locks: who else writes to the export is not kept out.
 */
class NbdStore : public ImageStore {
public:
    NbdStore(const std::string &uri, Use use);

    std::optional<uint64_t> length() const override { return length_; }
    bool isPlace() const override { return true; }
    std::optional<FileAccess> access() const override { return std::nullopt; }
    ssize_t read(uint64_t offset, const Pieces &pieces, size_t done) const override;
    uint64_t nextData(uint64_t offset) const override;
    bool waitForData(int /*cancelEvent*/) const override { return false; }
    void requireLength() const override {}
    void write(uint64_t offset, const Pieces &pieces) override;
    void sync() override;

private:
    struct Shared {
        std::unique_ptr<NbdConnection> connection;
        unsigned users = 0;
    };

    /* A connection while a thread uses it. */
    class Lease {
    public:
        explicit Lease(const NbdStore &store) : store_(store), connection_(store.take()) {}
        ~Lease() { store_.giveBack(connection_); }
        Lease(const Lease &) = delete;
        Lease &operator=(const Lease &) = delete;

        NbdConnection *operator->() const { return connection_.connection.get(); }

    private:
        const NbdStore &store_;
        Shared &connection_;
    };

    Shared &take() const;
    void giveBack(Shared &connection) const;

    std::string uri_;
    uint64_t length_ = 0;
    std::mutex partsMutex_;    /* held while parts of units are written, which two writes may share */
    mutable std::mutex mutex_; /* guards what follows */
    mutable std::list<Shared> connections_;
    mutable unsigned further_ = 0; /* connections that may be tried yet */
};

} // namespace difctl

#endif
