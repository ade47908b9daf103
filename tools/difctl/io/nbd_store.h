/* An image in the export of an NBD server. */
#ifndef DIFCTL_NBD_STORE_H
#define DIFCTL_NBD_STORE_H

#include "io/image_store.h"
#include "io/nbd_connection.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace difctl {

/*
 * Threads that read get a connection each, as far as the server takes several. The length cannot change while they last;
 * there are no locks: who else writes to the export is not kept out.
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
    /* A connection while one thread has it. */
    class Lease {
    public:
        explicit Lease(const NbdStore &store) : store_(store), connection_(store.take()) {}
        ~Lease() { store_.giveBack(std::move(connection_)); }
        Lease(const Lease &) = delete;
        Lease &operator=(const Lease &) = delete;

        NbdConnection *operator->() const { return connection_.get(); }

    private:
        const NbdStore &store_;
        std::unique_ptr<NbdConnection> connection_;
    };

    std::unique_ptr<NbdConnection> take() const;
    void giveBack(std::unique_ptr<NbdConnection> connection) const;

    std::string uri_;
    uint64_t length_ = 0;
    mutable std::mutex mutex_; /* guards what follows */
    mutable std::condition_variable givenBack_;
    mutable std::vector<std::unique_ptr<NbdConnection>> idle_;
    mutable unsigned further_ = 0; /* connections that may be tried yet */
};

} // namespace difctl

#endif
