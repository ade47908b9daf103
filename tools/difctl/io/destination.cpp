#include "io/destination.h"

#include "io/error.h"
#include "io/nbd_connection.h"
#include "io/new_file.h"
#include "io/overwriting_sink.h"
#include "io/standard_output.h"

#include <utility>

#include <sys/stat.h>

namespace difctl {

namespace {

bool isBlockDevice(const std::string &path) {
    struct stat status = {};
    return ::stat(path.c_str(), &status) == 0 && S_ISBLK(status.st_mode);
}

std::unique_ptr<Sink> openSink(const std::string &path, Replacing replacing, std::optional<FileAccess> source) {
    if (path == "-") {
        return std::make_unique<StandardOutput>();
    }
    if (!isNbdUri(path) && !isBlockDevice(path)) {
        return std::make_unique<NewFile>(path, std::move(replacing), source);
    }
    auto sink = std::make_unique<OverwritingSink>(path);
    if (!replacing.allowed(path)) {
        throw Error(path + ": exists already; " + replacing.otherwise);
    }
    return sink;
}

} // namespace

Destination::Destination(const std::string &path, Replacing replacing, std::optional<FileAccess> source)
    : name_(path == "-" ? kStandardOutput : printable(path)), sink_(openSink(path, std::move(replacing), source)) {}

} // namespace difctl
