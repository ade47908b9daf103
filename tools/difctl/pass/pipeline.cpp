#include "pass/pipeline.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace difctl {

namespace {

constexpr unsigned kMaxThreads = 32; /* bounds the memory on machines with many cores */

/* A thread that waits that long for a store so many times in a row gets another one beside it: more requests hide latency.
 * Where stores are quicker, more memory than the caches hold costs more than that gains. */
constexpr std::chrono::milliseconds kLongWait{4};
constexpr unsigned kManyWaits = 8;

using Clock = std::chrono::steady_clock;

template <typename Step>
std::exception_ptr caught(Step step) {
    try {
        step();
    } catch (...) {
        return std::current_exception();
    }
    return nullptr;
}

/*
 * Every thread takes one request after the other all the way, in memory of its own: reads it, processes it, consumes it when
 * those before it are consumed, and does the rest of that. What fails on the way to that fails in its turn, and the end of
 * the blocks, a request of none, has its turn as well. Where the source's length tells the place of each request, threads
 * read at once; else, only one. If threads wait long for what they read or write, more of them start.
 */
class Relay {
public:
    Relay(Source &source, const Pipeline &pipeline)
        : source_(source), pipeline_(pipeline), nextBlock_(pipeline.blocks.first) {}

    void run(unsigned threadNum) {
        for (unsigned i = 1; i < threadNum; ++i) {
            addThread();
        }
        work();
        /* Since that has ended, none is added. */
        for (std::thread &thread : others_) {
            thread.join();
        }
        if (failure_) {
            std::rethrow_exception(failure_);
        }
    }

private:
    void work() {
        std::vector<uint8_t> memory;
        Request request;
        Clock::duration waited = {};
        for (unsigned longWaits = 0; !stopped_; longWaits = waited > kLongWait ? longWaits + 1 : 0) {
            if (longWaits == kManyWaits) {
                longWaits = 0;
                addThread();
            }
            std::unique_lock reading(readMutex_);
            const uint64_t turn = readNum_++;
            std::exception_ptr error = caught([&] { waited = read(request, memory, std::move(reading)); });
            if (!error && request.blockNum != 0) {
                error = caught([&] { pipeline_.process(request); });
            }
            std::unique_lock consuming(consumeMutex_);
            turnCame_.wait(consuming, [&] { return stopped_ || consumedNum_ == turn; });
            if (stopped_) {
                return;
            }
            consume(request, error);
            consuming.unlock();
            const auto rest = std::exchange(request.rest, nullptr);
            const Clock::time_point begin = Clock::now();
            if (rest && (error = caught(rest))) {
                consuming.lock();
                stop(error);
            }
            waited += Clock::now() - begin;
        }
    }

    void addThread() {
        const std::lock_guard lock(consumeMutex_);
        if (stopped_ || others_.size() + 1 >= kMaxThreads) {
            return;
        }
        try {
            others_.emplace_back([this] { work(); });
        } catch (const std::exception &) {
            /* The threads there are do all of it. */
        }
    }

    /* Returns how long it has waited for the store; not at all for a stream, where more threads would not help. */
    Clock::duration read(Request &request, std::vector<uint8_t> &memory, std::unique_lock<std::mutex> reading) {
        const DifTypeInfo &geometry = pipeline_.format.geometry;
        const uint32_t maxBlocks = kRequestDataBytes / geometry.dataSize;
        memory.resize(size_t{maxBlocks} * geometry.blockSize);
        request.format = &pipeline_.format;
        request.buf = memory.data();
        request.firstBlock = nextBlock_;
        uint64_t blocks = std::min<uint64_t>(maxBlocks, pipeline_.blocks.end - nextBlock_);
        if (source_.length()) {
            blocks = std::min(blocks, source_.unitNum() - nextBlock_);
            nextBlock_ += blocks;
            if (blocks != 0) {
                reading.unlock();
            }
        }
        const Pieces pieces = (request.*pipeline_.layout)(static_cast<uint32_t>(blocks));
        const Clock::time_point begin = Clock::now();
        request.unreadable.clear();
        if (pipeline_.takesUnreadable && !reading) {
            request.blockNum = static_cast<uint32_t>(blocks);
            readParts(request, 0, request.blockNum);
        } else {
            const size_t bytes = source_.read(request.firstBlock, pieces);
            request.blockNum = static_cast<uint32_t>(bytes / (request.*pipeline_.layout)(1).bytes());
        }
        const Clock::duration waited = Clock::now() - begin;
        if (reading) {
            nextBlock_ += request.blockNum;
            return {};
        }
        return waited;
    }

    /* Reads blocks of the request, and marks those that cannot be read: it halves what it has to read until it knows. */
    void readParts(Request &request, uint32_t first, uint32_t blocks) {
        const size_t bytes = size_t{blocks} * pipeline_.format.geometry.blockSize;
        try {
            source_.read(request.firstBlock + first, {request.block(first), bytes, bytes, 1});
        } catch (const Unreadable &) {
            if (blocks > 1) {
                readParts(request, first, blocks / 2);
                readParts(request, first + blocks / 2, blocks - blocks / 2);
            } else {
                std::memset(request.block(first), 0, bytes);
                request.unreadable.push_back(first);
            }
        }
    }

    void consume(Request &request, std::exception_ptr error) {
        bool goesOn = false;
        if (!error) {
            error = caught([&] { goesOn = request.blockNum != 0 && pipeline_.consume(request); });
        }
        ++consumedNum_;
        if (!goesOn) {
            stop(error);
        }
        turnCame_.notify_all();
    }

    /* With consumeMutex_ held. */
    void stop(const std::exception_ptr &failure) {
        failure_ = failure_ ? failure_ : failure;
        stopped_ = true;
        source_.cancel();
        turnCame_.notify_all();
    }

    Source &source_;
    const Pipeline &pipeline_;
    std::mutex readMutex_; /* guards the next two, and a source that is read in order */
    uint64_t readNum_ = 0;
    uint64_t nextBlock_;
    std::mutex consumeMutex_; /* guards what follows; stopped_ may be read without it */
    std::vector<std::thread> others_;
    std::condition_variable turnCame_;
    uint64_t consumedNum_ = 0;
    std::exception_ptr failure_;
    std::atomic<bool> stopped_{false};
};

} // namespace

void runPipeline(Source &source, const Pipeline &pipeline) {
    /* Beside one thread a core, one may wait for the source and one for what consumes. */
    Relay(source, pipeline).run(std::min(std::max(std::thread::hardware_concurrency(), 1U) + 2, kMaxThreads));
}

} // namespace difctl
