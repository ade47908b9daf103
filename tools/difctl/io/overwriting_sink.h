/* An image written over the start of what exists already and keeps its length. */
#ifndef DIFCTL_OVERWRITING_SINK_H
#define DIFCTL_OVERWRITING_SINK_H

#include "io/image_file.h"
#include "io/sink.h"

namespace difctl {

/*
 * A block device that the system does not use itself and nobody has locked, or the export of an NBD server. What lies behind
 * the image's end stays as it is. There is no way back: the message about an early end says how far writing has come.
 */
class OverwritingSink : public Sink {
public:
    explicit OverwritingSink(const std::string &path) : place_(path, ImageFile::Use::kChange) {}

    void requireRoom(uint64_t bytes) const override;
    std::function<void()> write(const Pieces &pieces) override;
    void commit() override;
    std::string leftoverNote() const override;

private:
    ImageFile place_;
    uint64_t begun_ = 0; /* bytes that are written or may be */
};

} // namespace difctl

#endif
