/* An image on its way to standard output. */
#ifndef DIFCTL_STANDARD_OUTPUT_H
#define DIFCTL_STANDARD_OUTPUT_H

#include "io/sink.h"

namespace difctl {

/* Not a terminal. It has no way back. */
class StandardOutput : public Sink {
public:
    StandardOutput();

    std::function<void()> write(const Pieces &pieces) override;
    void commit() override {}
    std::string leftoverNote() const override;

private:
    uint64_t offset_ = 0;
};

} // namespace difctl

#endif
