#include "io/in_place_file.h"

#include "io/error.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

namespace difctl {

InPlaceFile::InPlaceFile(const std::string &path) : name_(path) {
    if (path == "-") {
        throw Error(std::string(kStandardInput) + ": cannot be changed in place; name a file");
    }
    file_.set(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (file_.get() < 0) {
        throw systemError(name_, "cannot open for writing", errno);
    }
}

void InPlaceFile::write(uint64_t offset, const Pieces &pieces) {
    if (::lseek(file_.get(), static_cast<off_t>(offset), SEEK_SET) < 0 || !writeAll(file_.get(), pieces, offset)) {
        throw systemError(name_, "cannot write at offset " + std::to_string(offset), errno);
    }
}

void InPlaceFile::sync() {
    if (::fsync(file_.get()) != 0) {
        throw systemError(name_, "cannot bring the changes to stable storage", errno);
    }
}

} // namespace difctl
