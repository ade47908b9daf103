#include "io/nbd_connection.h"

#include "io/error.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <span>
#include <vector>

namespace difctl {

namespace {

constexpr uint64_t kCommandBytes = uint64_t{2} * 1024 * 1024; /* at most; servers that say nothing take that */
constexpr size_t kHoleBytes = size_t{64} * 1024;              /* what stores leave out, in whole units of any size */
constexpr size_t kMaxUnderWay = 64;
constexpr std::chrono::milliseconds kFurtherSoon{500};
constexpr uint64_t kMaxStatusBytes = uint64_t{1} << 31; /* the length of a status command has 32 bits */

/* "NAME: WHAT: libnbd's text for what has just failed" */
Error nbdError(const std::string &name, const std::string &what) {
    return Error(name + ": " + what + ": " + nbd_get_error());
}

/* The answer to a question about the export, which fails only where there is no connection. */
bool answer(int result) {
    return result == 1;
}

uint64_t blockSize(nbd_handle *handle, int type, uint64_t otherwise) {
    const int64_t size = nbd_get_block_size(handle, type);
    return size > 0 ? static_cast<uint64_t>(size) : otherwise;
}

} // namespace

bool isNbdUri(const std::string &path) {
    const std::string scheme = path.substr(0, path.find(':'));
    return scheme != path &&
           (scheme == "nbd" || scheme == "nbds" || scheme.starts_with("nbd+") || scheme.starts_with("nbds+"));
}

NbdConnection::Handle NbdConnection::prepared(const std::string &name) {
    Handle handle(nbd_create());
    if (!handle) {
        throw nbdError(name, "cannot be reached");
    }
    /* A key file in the URI is the user's; the server itself judges the end of an export of not whole units; and what a
     * failed read leaves in memory is not looked at. */
    nbd_set_uri_allow_local_file(handle.get(), true);
    nbd_set_strict_mode(handle.get(), nbd_get_strict_mode(handle.get()) & ~LIBNBD_STRICT_ALIGN);
    nbd_set_pread_initialize(handle.get(), false);
    nbd_add_meta_context(handle.get(), LIBNBD_CONTEXT_BASE_ALLOCATION);
    return handle;
}

NbdConnection::NbdConnection(const std::string &uri, Handle handle)
    : name_(printable(uri)), handle_(std::move(handle)) {
    const int64_t length = nbd_get_size(handle_.get());
    if (length < 0) {
        throw nbdError(name_, "has no known length");
    }
    length_ = static_cast<uint64_t>(length);
    unit_ = blockSize(handle_.get(), LIBNBD_SIZE_MINIMUM, 1);
    const uint64_t most = std::min(blockSize(handle_.get(), LIBNBD_SIZE_MAXIMUM, kCommandBytes), kCommandBytes);
    commandBytes_ = std::max(most - most % unit_, unit_);
    takesZeros_ = answer(nbd_can_zero(handle_.get()));
}

NbdConnection::NbdConnection(const std::string &uri)
    : NbdConnection(uri, [&] {
          const std::string name = printable(uri);
          Handle handle = prepared(name);
          if (nbd_connect_uri(handle.get(), uri.c_str()) != 0) {
              throw nbdError(name, "cannot be reached");
          }
          return handle;
      }()) {}

std::unique_ptr<NbdConnection> NbdConnection::further(const std::string &uri) {
    Handle handle = prepared(printable(uri));
    const auto end = std::chrono::steady_clock::now() + kFurtherSoon;
    int result = nbd_aio_connect_uri(handle.get(), uri.c_str());
    while (result >= 0 && !answer(nbd_aio_is_ready(handle.get()))) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        result = left.count() > 0 ? nbd_poll(handle.get(), static_cast<int>(left.count())) : -1;
    }
    return result < 0 ? nullptr : std::unique_ptr<NbdConnection>(new NbdConnection(uri, std::move(handle)));
}

NbdConnection::~NbdConnection() {
    if (answer(nbd_aio_is_ready(handle_.get()))) {
        nbd_aio_disconnect(handle_.get(), 0);
    }
}

bool NbdConnection::isReadOnly() const {
    return answer(nbd_is_read_only(handle_.get()));
}

bool NbdConnection::allowsFurther() const {
    return answer(nbd_can_multi_conn(handle_.get()));
}

/* Units that hold some bytes, and the place of the first. */
struct NbdConnection::Units {
    uint64_t offset;
    std::span<uint8_t> memory;

    uint8_t *at(uint64_t place) const { return memory.data() + (place - offset); }
};

/* Commands that one thread has under way. */
class NbdConnection::Batch {
public:
    explicit Batch(NbdConnection &connection) : connection_(connection), handle_(connection.handle_.get()) {}

    void read(uint64_t offset, uint8_t *bytes, size_t size) {
        for (size_t done = 0, part = 0; done < size; done += part) {
            part = std::min(size - done, connection_.commandBytes_);
            add({nbd_aio_pread(handle_, bytes + done, part, offset + done, {}, 0), "read", offset + done});
        }
    }

    /* Whole units. */
    void write(uint64_t offset, const uint8_t *bytes, size_t size) {
        const auto isHole = [&](size_t at) {
            return connection_.takesZeros_ && size - at >= kHoleBytes && isZero(bytes + at, kHoleBytes);
        };
        for (size_t done = 0, part = 0; done < size; done += part) {
            const bool zero = isHole(done);
            const size_t most = std::min(size - done, connection_.commandBytes_);
            for (part = kHoleBytes; part < most && isHole(done + part) == zero;) {
                part += kHoleBytes;
            }
            part = std::min(part, most);
            const uint64_t place = offset + done;
            add({zero ? nbd_aio_zero(handle_, part, place, {}, 0)
                      : nbd_aio_pwrite(handle_, bytes + done, part, place, {}, 0),
                 "write", place});
        }
    }

    /* Waits until no more than the last `left` commands are under way. */
    void finish(size_t left = 0) {
        while (commands_.size() > left) {
            const Command command = commands_.front();
            const bool done = completes(command);
            commands_.pop_front();
            if (!done) {
                fail(command);
            }
        }
    }

private:
    struct Command {
        int64_t cookie;
        const char *what;
        uint64_t offset;
    };

    void add(const Command &command) {
        if (command.cookie < 0) {
            fail(command);
        }
        commands_.push_back(command);
        finish(kMaxUnderWay);
    }

    /* Whether it was done; waits for that. */
    bool completes(const Command &command) {
        while (true) {
            const std::lock_guard lock(connection_.repliesMutex_);
            const int result = nbd_aio_command_completed(handle_, static_cast<uint64_t>(command.cookie));
            if (result != 0) {
                return result > 0;
            }
            if (nbd_poll(handle_, -1) < 0 && connection_.loss_.empty()) {
                connection_.loss_ = nbd_get_error();
            }
        }
    }

    [[noreturn]] void fail(const Command &command) {
        const int errorNumber = nbd_get_errno();
        std::string why = std::system_category().message(errorNumber);
        while (!commands_.empty()) {
            completes(commands_.front());
            commands_.pop_front();
        }
        const bool lost = answer(nbd_aio_is_dead(handle_)) || answer(nbd_aio_is_closed(handle_));
        if (lost) {
            const std::lock_guard lock(connection_.repliesMutex_);
            why = "the connection to the server is lost: " + (connection_.loss_.empty() ? why : connection_.loss_);
        }
        const Error error(connection_.name_ + ": cannot " + command.what + " at offset " +
                          std::to_string(command.offset) + ": " + why);
        if (!lost && isErrorOfPlace(errorNumber)) {
            throw Unreadable(error);
        }
        throw error;
    }

    NbdConnection &connection_;
    nbd_handle *handle_;
    std::deque<Command> commands_;
};

void NbdConnection::flush() {
    const std::lock_guard lock(repliesMutex_);
    if (answer(nbd_can_flush(handle_.get())) && nbd_flush(handle_.get(), 0) != 0) {
        throw nbdError(name_, "cannot bring what is written to stable storage");
    }
}

/* With memory that is good until the thread's next call. */
NbdConnection::Units NbdConnection::unitsOf(uint64_t offset, size_t size) const {
    thread_local std::vector<uint8_t> memory;
    const uint64_t first = offset - offset % unit_;
    const uint64_t behind = offset + size + unit_ - 1;
    const size_t bytes = static_cast<size_t>(std::min(length_, behind - behind % unit_) - first);
    memory.resize(std::max(memory.size(), bytes));
    return {first, {memory.data(), bytes}};
}

size_t NbdConnection::read(uint64_t offset, const Pieces &pieces, size_t done) {
    const auto size =
        static_cast<size_t>(std::min<uint64_t>(pieces.bytes() - done, length_ - std::min(offset, length_)));
    if (unit_ == 1 && pieces.count == 1) {
        Batch batch(*this);
        batch.read(offset, pieces.base + done, size);
        batch.finish();
        return size;
    }
    if (size == 0) {
        return 0;
    }
    const Units units = unitsOf(offset, size);
    Batch batch(*this);
    batch.read(units.offset, units.memory.data(), units.memory.size());
    batch.finish();
    const uint8_t *bytes = units.at(offset);
    for (size_t at = 0; at < size;) {
        const std::span<uint8_t> piece = pieces.after(done + at);
        const size_t part = std::min(piece.size(), size - at);
        std::memcpy(piece.data(), bytes + at, part);
        at += part;
    }
    return size;
}

bool NbdConnection::isWholeUnits(uint64_t offset, const Pieces &pieces) const {
    const auto isWhole = [this](uint64_t place) { return place % unit_ == 0 || place == length_; };
    return unit_ == 1 || (pieces.count == 1 && isWhole(offset) && isWhole(offset + pieces.size));
}

void NbdConnection::write(uint64_t offset, const Pieces &pieces) {
    Batch batch(*this);
    if (isWholeUnits(offset, pieces)) {
        for (size_t index = 0; index < pieces.count; ++index) {
            batch.write(offset + index * pieces.stride, pieces.base + index * pieces.stride, pieces.size);
        }
    } else {
        const uint64_t end = offset + (pieces.count - 1) * pieces.stride + pieces.size;
        const Units units = unitsOf(offset, end - offset);
        const auto readUnit = [&](uint64_t place) {
            const uint64_t first = place - place % unit_;
            batch.read(first, units.at(first), static_cast<size_t>(std::min(unit_, length_ - first)));
        };
        if (pieces.count > 1) {
            batch.read(units.offset, units.memory.data(), units.memory.size());
        } else { /* what is all written need not be readable */
            if (offset % unit_ != 0) {
                readUnit(offset);
            }
            if (end % unit_ != 0 && end != length_) {
                readUnit(end);
            }
        }
        batch.finish();
        for (size_t index = 0; index < pieces.count; ++index) {
            const size_t distance = index * pieces.stride;
            std::memcpy(units.at(offset + distance), pieces.base + distance, pieces.size);
        }
        batch.write(units.offset, units.memory.data(), units.memory.size());
    }
    batch.finish();
}

uint64_t NbdConnection::nextData(uint64_t offset) {
    struct Search {
        uint64_t at;
        bool found = false;
    } search{offset - offset % unit_};
    /* NOLINTNEXTLINE(readability-non-const-parameter): the type that libnbd calls */
    const auto look = [](void *data, const char * /*context*/, uint64_t /*offset*/, uint32_t *extents, size_t words,
                         int * /*error*/) {
        auto &state = *static_cast<Search *>(data);
        for (size_t i = 0; i + 1 < words && !state.found; i += 2) {
            state.found = (extents[i + 1] & LIBNBD_STATE_ZERO) == 0;
            state.at += state.found ? 0 : extents[i];
        }
        return 0;
    };
    nbd_handle *const handle = handle_.get();
    const std::lock_guard lock(repliesMutex_);
    while (search.at < length_ && !search.found) {
        const uint64_t from = search.at;
        const uint64_t size = std::min(length_ - from, kMaxStatusBytes);
        if (!answer(nbd_can_meta_context(handle, LIBNBD_CONTEXT_BASE_ALLOCATION)) ||
            nbd_block_status(handle, size, from, {look, &search, nullptr}, 0) != 0 || search.at == from) {
            return std::max(from, offset);
        }
    }
    return std::min(std::max(search.at, offset), length_);
}

} // namespace difctl
