/* An image on its way to a block device. */
#ifndef DIFCTL_DEVICE_SINK_H
#define DIFCTL_DEVICE_SINK_H

#include "io/file_store.h"
#include "io/overwriting_sink.h"

namespace difctl {

/* One that the system does not use itself and nobody has locked. */
class DeviceSink : public OverwritingSink {
public:
    explicit DeviceSink(const std::string &path);

private:
    uint64_t length() const override { return device_.length().value_or(0); }
    void append(const Pieces &pieces) override;
    void finish() override { device_.sync(); }

    FileStore device_;
    uint64_t offset_ = 0;
};

} // namespace difctl

#endif
