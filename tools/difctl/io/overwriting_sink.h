/* An image written over the start of what exists already and keeps its length. */
#ifndef DIFCTL_OVERWRITING_SINK_H
#define DIFCTL_OVERWRITING_SINK_H

#include "io/sink.h"

#include <utility>

namespace difctl {

/* What lies behind the image's end stays as it is. There is no way back: the message about an early end says how far
 * writing has come. */
class OverwritingSink : public Sink {
public:
    void requireRoom(uint64_t bytes) const final;
    void write(const Pieces &pieces) final;
    void commit() final;
    std::string leftoverNote() const final;

protected:
    explicit OverwritingSink(std::string name) : name_(std::move(name)) {}

    const std::string &name() const { return name_; }

private:
    virtual uint64_t length() const = 0;
    /* Writes what comes next. */
    virtual void append(const Pieces &pieces) = 0;
    /* Ends the writing and brings it to stable storage. */
    virtual void finish() = 0;

    std::string name_;
    uint64_t begun_ = 0; /* bytes that are written or may be */
};

} // namespace difctl

#endif
