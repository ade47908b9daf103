#include "io/device_sink.h"

#include "io/error.h"

#include <cerrno>

namespace difctl {

DeviceSink::DeviceSink(const std::string &path)
    : OverwritingSink(printable(path)), device_(path, ImageStore::Use::kChange) {}

void DeviceSink::append(const Pieces &pieces) {
    if (!writeAll(device_.descriptor(), pieces, offset_)) {
        throw systemError(name(), "cannot write at offset " + std::to_string(offset_), errno);
    }
}

} // namespace difctl
