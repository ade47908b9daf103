/* A connection to the export of an NBD server. */
#ifndef DIFCTL_NBD_CONNECTION_H
#define DIFCTL_NBD_CONNECTION_H

#include "io/transfer.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <libnbd.h>

namespace difctl {

/* Whether a path is the URI of an export: nbd://HOST/EXPORT, nbd+unix:///EXPORT?socket=PATH and the like. */
bool isNbdUri(const std::string &path);

/*
 * For one thread at a time. Many commands are under way at once; what is written and read at the same place must not be.
 * Everything throws Error that names the export and the place, and then no command is under way any more.
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

    /* Where and by how much may be read and written: at and by multiples of this, except at the export's end. */
    uint64_t unit() const { return unit_; }

    /* Reads from `offset` on what follows the first `done` bytes of `pieces`; returns how many, fewer than that only at the
     * export's end. */
    size_t read(uint64_t offset, const Pieces &pieces, size_t done);

    /* Writes `pieces`, each as far from `offset` as it is from the first one in memory, and nothing between them; only
     * where the server takes no less, what lies there is written with them. */
    void write(uint64_t offset, const Pieces &pieces);

    /* Begins to write whole units, whose memory is in use until it is finished; returns the number of commands. */
    size_t beginWrite(uint64_t offset, const uint8_t *bytes, size_t size);

    /* Waits until no more than the last `left` commands are under way. */
    void finish(size_t left = 0);

    /* Brings to stable storage what is written, as far as the server can. */
    void flush();

    /* The first offset from `offset` on that is not known to be zero; the length if there is none. */
    uint64_t nextData(uint64_t offset);

private:
    struct Closer {
        void operator()(nbd_handle *handle) const { nbd_close(handle); }
    };
    using Handle = std::unique_ptr<nbd_handle, Closer>;

    struct Command {
        int64_t cookie;
        const char *what;
        uint64_t offset;
    };

    static Handle prepared(const std::string &name);
    NbdConnection(const std::string &uri, Handle handle);

    /* The memory of the units that hold some bytes, and the place of the first. */
    struct Units {
        uint64_t offset;
        std::span<uint8_t> memory;

        uint8_t *at(uint64_t place) const { return memory.data() + (place - offset); }
    };
    Units unitsOf(uint64_t offset, size_t size);

    size_t beginRead(uint64_t offset, uint8_t *bytes, size_t size);
    template <typename Issue>
    size_t begin(const char *what, uint64_t offset, size_t size, Issue issue);
    bool completes(const Command &command);
    [[noreturn]] void fail(const Command &command);

    std::string name_;
    Handle handle_;
    uint64_t length_;
    uint64_t unit_;
    size_t commandBytes_; /* of the largest commands */
    bool takesZeros_;     /* without being sent them */
    std::deque<Command> commands_;
    std::string lost_;           /* why the connection is no more, if it is not */
    std::vector<uint8_t> whole_; /* units of which only a part is asked for, or whose bytes go to many places */
};

} // namespace difctl

#endif
