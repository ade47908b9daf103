/* The filter as nbdkit sees it: its parameters, its life, and a client's requests on their way to the disk. */
#include "disk.h"
#include "image_lock.h"
#include "nbdkit_api.h"
#include "operator_words.h"
#include "parameters.h"
#include "scrubber.h"
#include "start.h"

#include "dif_host.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <thread>

namespace {

using namespace nbd;

constexpr uint32_t kPreferredBytes = 4096;
constexpr size_t kLogBytes = size_t{16} << 20;
constexpr size_t kLogFiles = 4;
constexpr std::chrono::seconds kHousekeeping{1};
constexpr int kMetricsEvery = 10; /* of those */

/* All that there is of the filter in the process. */
class Filter {
public:
    Parameters parameters;
    Ledger ledger{parameters};
    Intent intent;
    Disk disk{parameters, ledger, intent};
    Start start{parameters, disk, intent};
    ImageLock lock;
    Scrubber scrubber{disk, intent, [this] { return openForScrub(); }};
    std::mutex *oneAtATime = nullptr;
    bool background = true; /* the plugin can do with a connection of the filter's own */

    int getReady(int threadModel);
    int afterFork(nbdkit_backend *backend);
    void cleanUp();

    Layer layer(nbdkit_next *next) { return {next, parameters.format.geometry.blockSize, oneAtATime}; }

private:
    std::optional<Scrubber::Source> openForScrub();
    void closeOwn();
    void keepHouse();

    std::mutex turn_;
    nbdkit_backend *backend_ = nullptr;
    nbdkit_next *own_ = nullptr; /* the scrubber's */
    std::thread housekeeper_;
    std::mutex mutex_;
    std::condition_variable ending_;
    bool ended_ = false;
};

/* Never destroyed: the host's threads may be told about it until the process is gone. */
Filter &filter() {
    static Filter &instance = *new Filter;
    return instance;
}

int loads = 0;

/* A client's connection. */
struct Connection {
    bool mayWrite;
    bool nativeFua = false;
    uint64_t imageSize = 0;
};

Connection &connectionOf(void *handle) {
    return *static_cast<Connection *>(handle);
}

/* Asks everything that nbdkit wants asked before requests. Returns the size of the image; or -1. */
int64_t askAll(const Layer &layer) {
    nbdkit_next *const next = layer.next();
    const auto turn = layer.takeTurn();
    const int64_t size = next->get_size(next);
    for (const auto ask :
         {next->can_write, next->can_flush, next->can_trim, next->can_zero, next->can_fast_zero, next->can_extents,
          next->can_fua, next->can_multi_conn, next->can_cache, next->is_rotational}) {
        if (size < 0 || ask(next) < 0) {
            return -1;
        }
    }
    return size;
}

int Filter::getReady(int threadModel) {
    if (threadModel == NBDKIT_THREAD_MODEL_SERIALIZE_CONNECTIONS) {
        background = false;
        if (parameters.scrubRate != 0) {
            nbdkit_error("dif-scrub: the plugin takes one connection at a time, and scrubbing needs one of its own");
            return -1;
        }
    }
    oneAtATime = threadModel == NBDKIT_THREAD_MODEL_SERIALIZE_ALL_REQUESTS ? &turn_ : nullptr;
    if (std::array<char, 200> why; difHostTestEngines(why.data(), why.size()) != 0) {
        nbdkit_error("dif: %s; the plugin or a library of its stands in the engine's place", why.data());
        return -1;
    }
    if (!parameters.metrics.empty() && !mayHoldMetrics(parameters.metrics)) {
        nbdkit_error("dif-metrics=%s: exists and is no file of metrics", parameters.metrics.c_str());
        return -1;
    }
    return parameters.intent.empty() ? 0 : intent.open(parameters.intent);
}

/* Here and not before, threads may be: a fork would lose them, and nbdkit counts on the numbers of the descriptors that it
 * opens. The log is that of the user that the server has become. */
int Filter::afterFork(nbdkit_backend *backend) {
    backend_ = backend;
    difHostSetLogStderr(false);
    if (!parameters.log.empty()) {
        if (const int error = difHostSetLogFile(parameters.log.c_str(), kLogBytes, kLogFiles); error != 0) {
            nbdkit_error("dif-log=%s: cannot be written: %s", parameters.log.c_str(), errorText(error).c_str());
            return -1;
        }
    }
    difModuleInit();
    setSysDifCrcVersion(parameters.version);
    const VerifyPointDesc point = {1, "NBD_DISK"};
    difRegistVerifyPoint(DIF_MID_LUN, &point, 1, __func__, __LINE__);
    if (const int error = registerWords(ledger, scrubber); error != 0) {
        nbdkit_error("dif: the operator's words cannot be registered: %s", errorText(error).c_str());
        return -1;
    }
    if (!parameters.socket.empty()) {
        if (const int error = difHostOpenControlSocket(parameters.socket.c_str()); error != 0) {
            nbdkit_error("dif-socket=%s: cannot be opened: %s", parameters.socket.c_str(), errorText(error).c_str());
            return -1;
        }
    }
    try {
        if (!parameters.metrics.empty() || !parameters.intent.empty()) {
            housekeeper_ = std::thread(&Filter::keepHouse, this);
        }
        if (parameters.scrubRate != 0) {
            scrubber.setRate(parameters.scrubRate);
        }
    } catch (const std::system_error &error) {
        nbdkit_error("dif: a thread cannot be had: %s", error.what());
        return -1;
    }
    return 0;
}

void Filter::keepHouse() {
    std::unique_lock guard(mutex_);
    for (int round = 0; !ending_.wait_for(guard, kHousekeeping, [this] { return ended_; }); ++round) {
        intent.clear(false);
        if (!parameters.metrics.empty() && round % kMetricsEvery == 0) {
            if (const int error = writeMetrics(parameters.metrics); error != 0) {
                NBD_LOG(DIF_HOST_LOG_ERROR, parameters.metrics + ": cannot be written: " + errorText(error));
            }
        }
    }
}

void Filter::cleanUp() {
    difHostCloseControlSocket();
    scrubber.end();
    closeOwn();
    {
        const std::lock_guard guard(mutex_);
        ended_ = true;
    }
    ending_.notify_all();
    if (housekeeper_.joinable()) {
        housekeeper_.join();
    }
    if (!parameters.metrics.empty()) {
        writeMetrics(parameters.metrics);
    }
    intent.clear(true);
    difModuleExit();
    difHostFlushLog();
}

void Filter::closeOwn() {
    if (own_ != nullptr) {
        const auto turn = layer(nullptr).takeTurn();
        own_->finalize(own_);
        nbdkit_next_context_close(own_);
        own_ = nullptr;
    }
}

/* On the scrubber's thread. */
std::optional<Scrubber::Source> Filter::openForScrub() {
    closeOwn();
    if (!background || backend_ == nullptr || lock.take(parameters.image, false) != 0) {
        return std::nullopt;
    }
    auto turn = layer(nullptr).takeTurn();
    own_ = nbdkit_next_context_open(backend_, 1, "", 1);
    const bool isPrepared = own_ != nullptr && own_->prepare(own_) == 0;
    turn = {};
    const Layer own = layer(own_);
    const int64_t size = isPrepared ? askAll(own) : -1;
    if (size < 0 || start.connection(own, static_cast<uint64_t>(size), false) != 0) {
        closeOwn();
        return std::nullopt;
    }
    return Scrubber::Source{own, static_cast<uint64_t>(size) / parameters.format.geometry.blockSize};
}

/* ---- Life --------------------------------------------------------------------------------------------------------- */

void difLoad() {
    ++loads;
    difHostSetLogLevel(DIF_HOST_LOG_NOTICE);
}

int difConfig(nbdkit_next_config *next, nbdkit_backend *backend, const char *key, const char *value) {
    if (std::strncmp(key, "dif-", 4) == 0) {
        return takeParameter(filter().parameters, key, value);
    }
    if (std::strcmp(key, "file") == 0 && takePath(filter().parameters.image, key, value) != 0) {
        return -1;
    }
    return next(backend, key, value);
}

int difConfigComplete(nbdkit_next_config_complete *next, nbdkit_backend *backend) {
    if (loads > 1) {
        nbdkit_error("dif: one dif filter a server; run another server for another disk");
        return -1;
    }
    return refuseSharedFiles(filter().parameters) != 0 ? -1 : next(backend);
}

int difGetReady(int threadModel) {
    return filter().getReady(threadModel);
}

int difAfterFork(nbdkit_backend *backend) {
    return filter().afterFork(backend);
}

void difCleanup(nbdkit_backend * /*backend*/) {
    filter().cleanUp();
}

/* ---- Connections -------------------------------------------------------------------------------------------------- */

/* The disk is that of the export that the plugin takes for its default, whatever the client calls it. */
void *difOpen(nbdkit_next_open *next, nbdkit_context *context, int readOnly, const char * /*exportName*/,
              int /*isTls*/) {
    if (filter().lock.take(filter().parameters.image, readOnly == 0) != 0) {
        return nullptr;
    }
    if (const auto turn = filter().layer(nullptr).takeTurn(); next(context, readOnly, "") != 0) {
        return nullptr;
    }
    auto *const connection = new (std::nothrow) Connection{.mayWrite = readOnly == 0};
    if (connection == nullptr) {
        nbdkit_error("dif: out of memory");
    }
    return connection;
}

void difClose(void *handle) {
    delete &connectionOf(handle);
}

int difPrepare(nbdkit_next *next, void *handle, int /*readOnly*/) {
    const int64_t size = askAll(filter().layer(next));
    if (size < 0) {
        return -1;
    }
    Connection &connection = connectionOf(handle);
    connection.imageSize = static_cast<uint64_t>(size);
    connection.mayWrite = connection.mayWrite && next->can_write(next) == 1;
    connection.nativeFua = next->can_fua(next) == NBDKIT_FUA_NATIVE;
    return filter().start.connection(filter().layer(next), connection.imageSize, connection.mayWrite);
}

/* A client that leaves without a flush leaves marks; a last flush lets them be cleared. */
int difFinalize(nbdkit_next *next, void *handle) {
    int error = 0;
    if (filter().intent.isOpen() && connectionOf(handle).mayWrite) {
        static_cast<void>(filter().disk.settle(filter().layer(next), error));
    }
    return 0;
}

int64_t difGetSize(nbdkit_next * /*next*/, void *handle) {
    return static_cast<int64_t>(filter().disk.sizeOf(connectionOf(handle).imageSize));
}

int difBlockSize(nbdkit_next * /*next*/, void * /*handle*/, uint32_t *minimum, uint32_t *preferred, uint32_t *maximum) {
    *minimum = 1;
    *preferred = kPreferredBytes;
    *maximum = UINT32_MAX;
    return 0;
}

bool zerosGoBelow(nbdkit_next *next) {
    return filter().parameters.zerosAreUnwritten && next->can_zero(next) > NBDKIT_ZERO_NONE;
}

int difCanTrim(nbdkit_next *next, void * /*handle*/) {
    return zerosGoBelow(next) ? 1 : 0;
}

/* Without a zero below, nbdkit has blocks of zeros written. */
int difCanZero(nbdkit_next *next, void * /*handle*/) {
    return zerosGoBelow(next) || !filter().parameters.zerosAreUnwritten ? NBDKIT_ZERO_NATIVE : NBDKIT_ZERO_EMULATE;
}

int difCanFastZero(nbdkit_next *next, void * /*handle*/) {
    return zerosGoBelow(next) ? next->can_fast_zero(next) : 0;
}

int difCanExtents(nbdkit_next *next, void * /*handle*/) {
    return filter().parameters.zerosAreUnwritten ? next->can_extents(next) : 0;
}

/* ---- Requests ----------------------------------------------------------------------------------------------------- */

/* `request(flags, error)` with the flags that each write below is to have. An FUA that the layer below does not know is
 * one flush, at the end. */
template <typename Request>
int withFua(nbdkit_next *next, void *handle, uint32_t flags, int *error, Request request) {
    const bool flushes = (flags & NBDKIT_FLAG_FUA) != 0 && !connectionOf(handle).nativeFua;
    if (request(flushes ? flags & ~uint32_t{NBDKIT_FLAG_FUA} : flags, *error) != 0) {
        return -1;
    }
    return flushes ? filter().disk.flush(filter().layer(next), *error) : 0;
}

int difPread(nbdkit_next *next, void * /*handle*/, void *buf, uint32_t count, uint64_t offset, uint32_t /*flags*/,
             int *error) {
    return filter().disk.read(filter().layer(next), static_cast<uint8_t *>(buf), {offset, count}, *error);
}

int difPwrite(nbdkit_next *next, void *handle, const void *buf, uint32_t count, uint64_t offset, uint32_t flags,
              int *error) {
    return withFua(next, handle, flags, error, [&](uint32_t each, int &failed) {
        return filter().disk.write(filter().layer(next), static_cast<const uint8_t *>(buf), {offset, count}, each,
                                   failed);
    });
}

int difZero(nbdkit_next *next, void *handle, uint32_t count, uint64_t offset, uint32_t flags, int *error) {
    const int result = withFua(next, handle, flags, error, [&](uint32_t each, int &failed) {
        return filter().disk.zero(filter().layer(next), {offset, count}, each, failed);
    });
    /* A read or a write below may say so; it is what only a fast zero may answer. */
    if (result != 0 && (flags & NBDKIT_FLAG_FAST_ZERO) == 0 && (*error == ENOTSUP || *error == EOPNOTSUPP)) {
        *error = EIO;
    }
    return result;
}

int difTrim(nbdkit_next *next, void *handle, uint32_t count, uint64_t offset, uint32_t flags, int *error) {
    return withFua(next, handle, flags, error, [&](uint32_t each, int &failed) {
        return filter().disk.trim(filter().layer(next), {offset, count}, each, failed);
    });
}

int difFlush(nbdkit_next *next, void * /*handle*/, uint32_t /*flags*/, int *error) {
    return filter().disk.flush(filter().layer(next), *error);
}

int difExtents(nbdkit_next *next, void * /*handle*/, uint32_t count, uint64_t offset, uint32_t flags,
               struct nbdkit_extents *extents, int *error) {
    return filter().disk.extents(filter().layer(next), {offset, count}, flags, extents, *error);
}

int difCache(nbdkit_next *next, void * /*handle*/, uint32_t count, uint64_t offset, uint32_t flags, int *error) {
    const DifTypeInfo &geometry = filter().disk.geometry();
    const uint64_t first = offset / geometry.dataSize;
    const uint64_t blocks = (offset + count + geometry.dataSize - 1) / geometry.dataSize - first;
    const uint64_t most = UINT32_MAX / geometry.blockSize; /* it is no more than advice */
    return filter().layer(next).cache(first, static_cast<uint32_t>(std::min(blocks, most)), flags, *error);
}

constinit nbdkit_filter theFilter = [] {
    nbdkit_filter table{};
    table.name = "dif";
    table.longname = "nbdkit data integrity field filter";
    table.description =
        "Serves an image of blocks with integrity fields as a disk: every write gets its fields, every read "
        "is checked.";
    table.load = difLoad;
    table.config = difConfig;
    table.config_complete = difConfigComplete;
    table.config_help = kParameterHelp;
    table.get_ready = difGetReady;
    table.after_fork = difAfterFork;
    table.cleanup = difCleanup;
    table.open = difOpen;
    table.close = difClose;
    table.prepare = difPrepare;
    table.finalize = difFinalize;
    table.get_size = difGetSize;
    table.block_size = difBlockSize;
    table.can_trim = difCanTrim;
    table.can_zero = difCanZero;
    table.can_fast_zero = difCanFastZero;
    table.can_extents = difCanExtents;
    table.pread = difPread;
    table.pwrite = difPwrite;
    table.flush = difFlush;
    table.trim = difTrim;
    table.zero = difZero;
    table.extents = difExtents;
    table.cache = difCache;
    return table;
}();

} // namespace

NBDKIT_REGISTER_FILTER(theFilter)
