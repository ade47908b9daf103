/* A connection to the export of an NBD server. */
#ifndef DIFCTL_NBD_CONNECTION_H
#define DIFCTL_NBD_CONNECTION_H

#include "io/transfer.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include <libnbd.h>

namespace difctl {

/* Whether a path is the URI of an export: nbd://HOST/EXPORT, nbd+unix:///EXPORT?socket=PATH and the like. */
bool isNbdUri(const std::string &path);

/*
 * For any threads at once, each of whose calls has many commands under way; what is written and read at the same place must
 * not be. Everything throws Error that names the export and the place, and then no command of that call is under way.
 */
class NbdConnection {
public:
    explicit NbdConnection(const std::string &uri);
    ~NbdConnection();
    NbdConnection(const NbdConnection &) = delete;
    NbdConnection &operator=(const NbdConnection &) = delete;

    /* A further connection; null if the server does not take one soon. */
    static std::unique_ptr<NbdConnection> further(const std::string &uri);

    uint64_t length() const { return length_; }
    bool isReadOnly() const;

    /* Whether what one connection has written is there for the others, and flushed by their flush. */
    bool allowsFurther() const;

    /* Reads from `offset` on what follows the first `done` bytes of `pieces`; returns how many, fewer than that only at the
     * export's end. */
    size_t read(uint64_t offset, const Pieces &pieces, size_t done);

    /* Writes `pieces`, each as far from `offset` as it is from the first one in memory, and nothing between them; only
     * where the server takes no less, what lies there is written with them. */
    void write(uint64_t offset, const Pieces &pieces);

    /* Whether nothing else is written with `pieces`; else nobody may write nearby meanwhile. */
    bool isWholeUnits(uint64_t offset, const Pieces &pieces) const;

    /* Brings to stable storage what is written, as far as the server can. */
    void flush();

    /* The first offset from `offset` on that is not known to be zero; the length if there is none. */
    uint64_t nextData(uint64_t offset);

private:
    struct Closer {
        void operator()(nbd_handle *handle) const { nbd_close(handle); }
    };
    using Handle = std::unique_ptr<nbd_handle, Closer>;

    class Batch;
    struct Units;

    static Handle prepared(const std::string &name);
    NbdConnection(const std::string &uri, Handle handle);

    Units unitsOf(uint64_t offset, size_t size) const;

    std::string name_;
    Handle handle_;
    uint64_t length_;
    uint64_t unit_;       /* may be read and written, and multiples of it; fewer bytes only at the export's end */
    size_t commandBytes_; /* of the largest commands */
    bool takesZeros_;     /* without being sent them */
    /* Held by the thread that waits for replies, from when it finds its own missing: it takes those of the others too. It
     * guards the next one. */
    std::mutex repliesMutex_;
    std::string loss_; /* why the connection is no more, if it is not */
};

} // namespace difctl

#endif
