#include "pass/pipeline.h"

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>

namespace difctl {

namespace {

constexpr unsigned kMaxSlots = 32; /* bounds the memory on machines with many cores */

enum class State { kFree, kFilled, kBusy, kDone };

struct Slot {
    State state = State::kFree;
    Request request;
    std::exception_ptr error;
    std::unique_ptr<uint8_t[]> memory;
};

/*
 * Request n lives in slot n % size. Its state moves from free to filled (reader), busy and done (a worker), and back to
 * free (consumer). The reader ends the sequence with a request of no blocks or with an error, which is done at once.
 */
class Ring {
public:
    Ring(Source &source, const Pipeline &pipeline, unsigned workerNum)
        : source_(source), pipeline_(pipeline), slots_(std::min(2 * workerNum + 2, kMaxSlots)) {
        const DifTypeInfo &geometry = pipeline.format.geometry;
        blocksPerRequest_ = kRequestDataBytes / geometry.dataSize;
        for (Slot &slot : slots_) {
            slot.memory = std::make_unique_for_overwrite<uint8_t[]>(size_t{blocksPerRequest_} * geometry.blockSize);
            slot.request.format = &pipeline.format;
            slot.request.buf = slot.memory.get();
        }
    }

    ~Ring() {
        {
            const std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        changed_.notify_all();
        source_.cancel();
        for (std::thread &thread : threads_) {
            thread.join();
        }
    }

    Ring(const Ring &) = delete;
    Ring &operator=(const Ring &) = delete;

    /* On its own, so that the threads there are end in order if one more cannot be had. */
    void start(unsigned workerNum) {
        threads_.emplace_back([this] { read(); });
        for (unsigned i = 0; i < workerNum; ++i) {
            threads_.emplace_back([this] { work(); });
        }
    }

    void consume() {
        for (uint64_t number = 0;; ++number) {
            Slot &slot = slotOf(number);
            await([&slot] { return slot.state == State::kDone; });
            if (slot.error) {
                std::rethrow_exception(slot.error);
            }
            if (slot.request.blockNum == 0 || !pipeline_.consume(slot.request)) {
                return;
            }
            set(slot, State::kFree);
        }
    }

private:
    Slot &slotOf(uint64_t number) { return slots_[number % slots_.size()]; }

    /* Waits for `condition`; false if the pipeline is to stop. */
    template <typename Condition>
    bool await(Condition condition) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return stopping_ || condition(); });
        return !stopping_;
    }

    void set(Slot &slot, State state) {
        {
            const std::lock_guard lock(mutex_);
            slot.state = state;
        }
        changed_.notify_all();
    }

    /* Runs `step` and keeps what it throws for the consumer. */
    template <typename Step>
    static void guarded(Slot &slot, Step step) {
        try {
            step(slot.request);
        } catch (...) {
            slot.error = std::current_exception();
        }
    }

    void read() {
        const Pipeline &pipeline = pipeline_;
        uint64_t block = pipeline.blocks.first;
        for (uint64_t number = 0;; ++number) {
            Slot &slot = slotOf(number);
            if (!await([&slot] { return slot.state == State::kFree; })) {
                return;
            }
            guarded(slot, [&](Request &request) {
                request.firstBlock = block;
                request.blockNum = 0;
                const uint64_t blocks = std::min<uint64_t>(blocksPerRequest_, pipeline.blocks.end - block);
                const size_t bytes = source_.read((request.*pipeline.layout)(static_cast<uint32_t>(blocks)));
                request.blockNum = static_cast<uint32_t>(bytes / (request.*pipeline.layout)(1).bytes());
                block += request.blockNum;
            });
            if (slot.error || slot.request.blockNum == 0) {
                set(slot, State::kDone);
                return;
            }
            set(slot, State::kFilled);
        }
    }

    void work() {
        Slot *slot = nullptr;
        const auto takeNext = [&] {
            if (slotOf(nextToWork_).state != State::kFilled) {
                return false;
            }
            slot = &slotOf(nextToWork_++);
            slot->state = State::kBusy;
            return true;
        };
        while (await(takeNext)) {
            guarded(*slot, pipeline_.process);
            set(*slot, State::kDone);
        }
    }

    Source &source_;
    const Pipeline &pipeline_;
    uint32_t blocksPerRequest_ = 0;
    std::vector<Slot> slots_;
    /* Guards the states, nextToWork_ and stopping_; the rest of a slot belongs to whom its state names. */
    std::mutex mutex_;
    std::condition_variable changed_;
    uint64_t nextToWork_ = 0;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

} // namespace

void runPipeline(Source &source, const Pipeline &pipeline) {
    source.skip(pipeline.blocks.first);
    const unsigned workerNum = std::max(std::thread::hardware_concurrency(), 1U);
    Ring ring(source, pipeline, workerNum);
    ring.start(workerNum);
    ring.consume();
}

} // namespace difctl
