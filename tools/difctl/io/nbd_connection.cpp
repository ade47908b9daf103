#include "io/nbd_connection.h"

#include "io/error.h"

#include <algorithm>
#include <chrono>
#include <cstring>

namespace difctl {

namespace {

constexpr size_t kCommandBytes = size_t{256} * 1024;
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
    const uint64_t most =
        std::min<uint64_t>(blockSize(handle_.get(), LIBNBD_SIZE_MAXIMUM, kCommandBytes), kCommandBytes);
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
    if (commands_.empty() && answer(nbd_aio_is_ready(handle_.get()))) {
        nbd_aio_disconnect(handle_.get(), 0);
    }
}

bool NbdConnection::isReadOnly() const {
    return answer(nbd_is_read_only(handle_.get()));
}

bool NbdConnection::allowsFurther() const {
    return answer(nbd_can_multi_conn(handle_.get()));
}

/* Calls `issue` with the place of each command's bytes, counted from `offset`, and their number. */
template <typename Issue>
size_t NbdConnection::begin(const char *what, uint64_t offset, size_t size, Issue issue) {
    size_t commands = 0;
    for (size_t done = 0; done < size; ++commands) {
        const size_t part = std::min(size - done, commandBytes_);
        finish(kMaxUnderWay - 1);
        const Command command = {issue(done, part), what, offset + done};
        if (command.cookie < 0) {
            fail(command);
        }
        commands_.push_back(command);
        done += part;
    }
    return commands;
}

size_t NbdConnection::beginRead(uint64_t offset, uint8_t *bytes, size_t size) {
    return begin("read", offset, size, [&](size_t done, size_t part) {
        return nbd_aio_pread(handle_.get(), bytes + done, part, offset + done, nbd_completion_callback{}, 0);
    });
}

size_t NbdConnection::beginWrite(uint64_t offset, const uint8_t *bytes, size_t size) {
    return begin("write", offset, size, [&](size_t done, size_t part) {
        nbd_handle *const handle = handle_.get();
        if (takesZeros_ && part == commandBytes_ && isZero(bytes + done, part)) {
            return nbd_aio_zero(handle, part, offset + done, nbd_completion_callback{}, 0);
        }
        return nbd_aio_pwrite(handle, bytes + done, part, offset + done, nbd_completion_callback{}, 0);
    });
}

/* Whether it was done; waits for that. */
bool NbdConnection::completes(const Command &command) {
    int result = 0;
    while ((result = nbd_aio_command_completed(handle_.get(), static_cast<uint64_t>(command.cookie))) == 0) {
        if (nbd_poll(handle_.get(), -1) < 0 && lost_.empty()) {
            lost_ = nbd_get_error();
        }
    }
    return result > 0;
}

void NbdConnection::fail(const Command &command) {
    const std::string why = std::system_category().message(nbd_get_errno());
    if (lost_.empty() && (answer(nbd_aio_is_dead(handle_.get())) || answer(nbd_aio_is_closed(handle_.get())))) {
        lost_ = why;
    }
    while (!commands_.empty()) {
        completes(commands_.front());
        commands_.pop_front();
    }
    throw Error(name_ + ": cannot " + command.what + " at offset " + std::to_string(command.offset) + ": " +
                (lost_.empty() ? why : "the connection to the server is lost: " + lost_));
}

void NbdConnection::finish(size_t left) {
    while (commands_.size() > left) {
        const Command command = commands_.front();
        const bool done = completes(command);
        commands_.pop_front();
        if (!done) {
            fail(command);
        }
    }
}

void NbdConnection::flush() {
    if (answer(nbd_can_flush(handle_.get())) && nbd_flush(handle_.get(), 0) != 0) {
        throw nbdError(name_, "cannot bring what is written to stable storage");
    }
}

/* Of the connection's own memory, which is good until the next call. */
NbdConnection::Units NbdConnection::unitsOf(uint64_t offset, size_t size) {
    const uint64_t first = offset - offset % unit_;
    const uint64_t behind = offset + size + unit_ - 1;
    const size_t bytes = static_cast<size_t>(std::min(length_, behind - behind % unit_) - first);
    whole_.resize(std::max(whole_.size(), bytes));
    return {first, {whole_.data(), bytes}};
}

size_t NbdConnection::read(uint64_t offset, const Pieces &pieces, size_t done) {
    const auto size =
        static_cast<size_t>(std::min<uint64_t>(pieces.bytes() - done, length_ - std::min(offset, length_)));
    if (unit_ == 1 && pieces.count == 1) {
        beginRead(offset, pieces.base + done, size);
        finish();
        return size;
    }
    if (size == 0) {
        return 0;
    }
    const Units units = unitsOf(offset, size);
    beginRead(units.offset, units.memory.data(), units.memory.size());
    finish();
    const uint8_t *bytes = units.at(offset);
    for (size_t at = 0; at < size;) {
        const std::span<uint8_t> piece = pieces.after(done + at);
        const size_t part = std::min(piece.size(), size - at);
        std::memcpy(piece.data(), bytes + at, part);
        at += part;
    }
    return size;
}

void NbdConnection::write(uint64_t offset, const Pieces &pieces) {
    if (unit_ == 1) {
        for (size_t index = 0; index < pieces.count; ++index) {
            beginWrite(offset + index * pieces.stride, pieces.base + index * pieces.stride, pieces.size);
        }
        finish();
        return;
    }
    const Units units = unitsOf(offset, (pieces.count - 1) * pieces.stride + pieces.size);
    beginRead(units.offset, units.memory.data(), units.memory.size());
    finish();
    for (size_t index = 0; index < pieces.count; ++index) {
        std::memcpy(units.at(offset + index * pieces.stride), pieces.base + index * pieces.stride, pieces.size);
    }
    beginWrite(units.offset, units.memory.data(), units.memory.size());
    finish();
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
