/* What a destination lies on. */
#ifndef DIFCTL_SINK_H
#define DIFCTL_SINK_H

#include "io/transfer.h"

#include <cstdint>
#include <functional>
#include <string>

namespace difctl {

/* What may be replaced of what exists already, and how the message ends that refuses the rest. */
struct Replacing {
    std::function<bool(const std::string &path)> allowed;
    const char *otherwise;
};

/* Takes an image from its start to its end. Everything throws Error. */
class Sink {
public:
    Sink() = default;
    virtual ~Sink() = default;
    Sink(const Sink &) = delete;
    Sink &operator=(const Sink &) = delete;

    /* Throws if `bytes` bytes are known not to fit. */
    virtual void requireRoom(uint64_t /*bytes*/) const {}

    /* Writes what comes next. What the answer does, if anything, is the rest of that: for any thread, at once with others,
     * while the memory of `pieces` is left to it; they may lie elsewhere in it afterwards. */
    [[nodiscard]] virtual std::function<void()> write(const Pieces &pieces) = 0;
    virtual void commit() = 0;

    /* What to add to the message of a failure: that bytes have been written that cannot be taken back, or nothing. */
    virtual std::string leftoverNote() const = 0;
};

} // namespace difctl

#endif
