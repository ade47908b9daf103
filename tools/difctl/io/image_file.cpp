#include "io/image_file.h"

#include "io/error.h"
#include "io/file_store.h"
#include "io/nbd_store.h"

namespace difctl {

namespace {

std::unique_ptr<ImageStore> openStore(const std::string &path, ImageStore::Use use) {
    if (isNbdUri(path)) {
        return std::make_unique<NbdStore>(path, use);
    }
    return std::make_unique<FileStore>(path, use);
}

} // namespace

ImageFile::ImageFile(const std::string &path, Use use)
    : name_(path == "-" ? kStandardInput : printable(path)), store_(openStore(path, use)) {}

} // namespace difctl
