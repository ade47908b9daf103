#include "io/new_file.h"

#include "io/error.h"
#include "io/interrupt.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace difctl {

namespace {

constexpr mode_t kOwnerOnly = S_IRUSR | S_IWUSR;
constexpr size_t kHoleBytes = 4096; /* what file systems can leave out */

std::string directoryOf(const std::string &path) {
    const auto parent = std::filesystem::path(path).parent_path();
    return parent.empty() ? "." : parent.string();
}

/* The name by which a file without one can be linked. */
std::string descriptorPath(int file) {
    return "/proc/self/fd/" + std::to_string(file);
}

/* Gives the file its name unless that is taken. */
int renameIfFree(const char *from, const char *to) {
    if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) {
        return 0;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return -1;
    }
    /* A system without that call or flag: a link refuses a taken name as well. */
    return ::link(from, to) == 0 ? ::unlink(from) : -1;
}

/* Whether the directory is one in which everyone may remove only their own files, and this file is another's. */
bool isHeldByAnother(const struct stat &status, const std::string &directory) {
    struct stat parent = {};
    const uid_t user = ::geteuid();
    return user != 0 && status.st_uid != user && ::stat(directory.c_str(), &parent) == 0 &&
           (parent.st_mode & S_ISVTX) != 0 && parent.st_uid != user;
}

} // namespace

NewFile::NewFile(const std::string &path, Replacing replacing, std::optional<FileAccess> source)
    : name_(printable(path)), replacing_(std::move(replacing)), source_(source) {
    requireUsable(path);
    create();
}

void NewFile::requireUsable(const std::string &path) {
    target_ = path;
    if (!std::filesystem::path(path).has_filename()) {
        throw Error(name_ + ": ends in '/', which is no name for a file");
    }
    struct stat status = {};
    if (::lstat(path.c_str(), &status) != 0) {
        if (errno != ENOENT) {
            throw systemError(name_, "cannot be written", errno);
        }
        return;
    }
    if (::stat(path.c_str(), &status) != 0) {
        throw systemError(name_, "is a symbolic link that leads nowhere", errno);
    }
    if (!S_ISREG(status.st_mode)) {
        throw Error(name_ + ": is not a regular file; write to '-' and redirect that");
    }
    if (!replacing_.allowed(path)) {
        throw Error(name_ + ": exists already; " + replacing_.otherwise);
    }
    std::error_code failed;
    target_ = std::filesystem::canonical(path, failed).string();
    if (failed) {
        throw systemError(name_, "cannot be followed to the file it names", failed.value());
    }
    if (isHeldByAnother(status, directoryOf(target_))) {
        throw Error(name_ + ": cannot be replaced: it belongs to another user, in a directory where only they may");
    }
}

void NewFile::create() {
    const std::string directory = directoryOf(target_);
    holdingInterrupts([&](Unfinished &unfinished) {
        file_.set(::open(directory.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, kOwnerOnly));
        if (file_.get() < 0 || ::access(descriptorPath(file_.get()).c_str(), F_OK) != 0) {
            const std::string path = unusedName();
            file_.set(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kOwnerOnly));
            if (file_.get() < 0) {
                throw systemError(name_, "cannot create a file in " + directory, errno);
            }
            temporary_ = path;
        }
        unfinished = {temporary_, "; nothing new is left at " + name_};
    });
}

std::string NewFile::unusedName() const {
    struct stat status = {};
    for (int attempt = 0;; ++attempt) {
        std::string path =
            directoryOf(target_) + "/.difctl-" + std::to_string(::getpid()) + "-" + std::to_string(attempt) + ".tmp";
        if (::lstat(path.c_str(), &status) != 0) {
            return path;
        }
    }
}

NewFile::~NewFile() {
    if (!temporary_.empty()) {
        holdingInterrupts([this](Unfinished &unfinished) {
            ::unlink(temporary_.c_str());
            unfinished.path.clear();
        });
    }
}

std::function<void()> NewFile::write(const Pieces &pieces) {
    const uint64_t start = offset_;
    size_t begin = 0;
    for (size_t at = 0, end = 0; at < pieces.bytes(); at = end) {
        end = std::min(pieces.bytes(), at + kHoleBytes - (start + at) % kHoleBytes);
        if (end - at == kHoleBytes && isZero(pieces, at, end)) {
            put(pieces, begin, at);
            offset_ += kHoleBytes;
            begin = end;
        }
    }
    put(pieces, begin, pieces.bytes());
    return {};
}

void NewFile::put(const Pieces &pieces, size_t from, size_t to) {
    if (from == to) {
        return;
    }
    const bool inPlace = end_ == offset_ || ::lseek(file_.get(), static_cast<off_t>(offset_), SEEK_SET) >= 0;
    if (!inPlace || !writePart(file_.get(), pieces, from, to, offset_)) {
        throw systemError(name_, "cannot write at offset " + std::to_string(offset_), errno);
    }
    end_ = offset_;
}

void NewFile::commit() {
    if (end_ != offset_ && ::ftruncate(file_.get(), static_cast<off_t>(offset_)) != 0) {
        throw systemError(name_, "cannot be made " + std::to_string(offset_) + " bytes long", errno);
    }
    const auto replaced = accessOf(target_);
    if (replaced && !replacing_.allowed(target_)) {
        throw Error(name_ + ": has appeared meanwhile and is left as it is; " + replacing_.otherwise);
    }
    grantAccess(file_.get(), source_, replaced);
    if (syncFile(file_.get()) != 0) {
        throw systemError(name_, "cannot bring its " + std::to_string(offset_) + " bytes to stable storage", errno);
    }
    holdingInterrupts([&](Unfinished &unfinished) {
        giveName(replaced.has_value());
        unfinished = {"", "; " + name_ + " is complete"};
    });
    syncDirectory();
}

/* A file without a name is linked; to replace another it needs one first. */
void NewFile::giveName(bool replace) {
    const auto linkTo = [this](const std::string &path) {
        return ::linkat(AT_FDCWD, descriptorPath(file_.get()).c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW);
    };
    int failed = 0;
    if (replace && temporary_.empty()) {
        const std::string path = unusedName();
        failed = linkTo(path);
        temporary_ = failed == 0 ? path : "";
    }
    if (failed == 0 && replace) {
        failed = ::rename(temporary_.c_str(), target_.c_str());
    } else if (failed == 0) {
        failed = temporary_.empty() ? linkTo(target_) : renameIfFree(temporary_.c_str(), target_.c_str());
    }
    if (failed != 0 && errno == EEXIST) {
        throw Error(name_ + ": has appeared meanwhile and is left as it is; " + replacing_.otherwise);
    }
    if (failed != 0) {
        throw systemError(name_, "cannot give the file its name", errno);
    }
    temporary_.clear();
}

void NewFile::syncDirectory() {
    const FileDescriptor directory(::open(directoryOf(target_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    /* A directory that may be written but not read, or no descriptor to be had: the whole file system does as well. */
    const int failed = directory.get() < 0 ? ::syncfs(file_.get()) : syncFile(directory.get());
    /* EINVAL: a file system whose directories need no such call. */
    if (failed != 0 && errno != EINVAL) {
        throw systemError(name_,
                          "is complete, but its name may not outlive a power failure: cannot bring the directory "
                          "to stable storage",
                          errno);
    }
}

} // namespace difctl
