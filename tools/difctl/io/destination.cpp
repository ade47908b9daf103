#include "io/destination.h"

#include "io/error.h"
#include "io/interrupt.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace difctl {

namespace {

constexpr const char *kNoWayBack = "what was written to standard output cannot be undone";

std::string directoryOf(const std::string &path) {
    const auto parent = std::filesystem::path(path).parent_path();
    return parent.empty() ? "." : parent.string();
}

/* Gives the file its name unless that is taken. */
int renameIfFree(const char *from, const char *to) {
    if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) {
        return 0;
    }
    if (errno != EINVAL) {
        return -1;
    }
    /* A file system without that flag: a link refuses a taken name as well. */
    return ::link(from, to) == 0 ? ::unlink(from) : -1;
}

} // namespace

Destination::Destination(const std::string &path, bool force)
    : name_(path == "-" ? kStandardOutput : path), target_(path), force_(force) {
    if (path == "-") {
        if (::isatty(STDOUT_FILENO) == 1) {
            throw Error("standard output: is a terminal; redirect it or name a file");
        }
        file_.set(STDOUT_FILENO);
        holdingInterrupts([](Unfinished &unfinished) { unfinished.note = std::string("; ") + kNoWayBack; });
        return;
    }
    struct stat status = {};
    if (::lstat(path.c_str(), &status) == 0 && !force) {
        throw Error(name_ + ": exists already; --force replaces it");
    }
    if (::stat(path.c_str(), &status) == 0) {
        if (!S_ISREG(status.st_mode)) {
            throw Error(name_ + ": is not a regular file; write to '-' and redirect that");
        }
        target_ = std::filesystem::canonical(path).string();
    }
    createTemporary();
}

void Destination::createTemporary() {
    holdingInterrupts([this](Unfinished &unfinished) {
        std::string path;
        int file = -1;
        for (int attempt = 0; file < 0; ++attempt) {
            path = directoryOf(target_) + "/.difctl-" + std::to_string(::getpid()) + "-" + std::to_string(attempt) +
                   ".tmp";
            file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
            if (file < 0 && errno != EEXIST) {
                throw systemError(name_, "cannot create a file in " + directoryOf(target_), errno);
            }
        }
        file_.set(file);
        temporary_ = path;
        unfinished = {path, "; nothing new is left at " + name_};
    });
}

Destination::~Destination() {
    if (!toStandardOutput() && !committed_) {
        holdingInterrupts([this](Unfinished &unfinished) {
            ::unlink(temporary_.c_str());
            unfinished = {};
        });
    }
}

void Destination::write(const Pieces &pieces) {
    if (!writeAll(file_.get(), pieces, offset_)) {
        throw systemError(name_, "cannot write at offset " + std::to_string(offset_), errno);
    }
}

void Destination::commit() {
    if (toStandardOutput()) {
        return;
    }
    if (::fsync(file_.get()) != 0) {
        throw systemError(name_, "cannot bring its " + std::to_string(offset_) + " bytes to stable storage", errno);
    }
    holdingInterrupts([this](Unfinished &unfinished) {
        const int renamed =
            force_ ? ::rename(temporary_.c_str(), target_.c_str()) : renameIfFree(temporary_.c_str(), target_.c_str());
        if (renamed != 0 && errno == EEXIST) {
            throw Error(name_ + ": has appeared meanwhile and is left as it is; --force replaces it");
        }
        if (renamed != 0) {
            throw systemError(name_, "cannot give the file its name", errno);
        }
        committed_ = true;
        unfinished = {};
    });
    const FileDescriptor directory(::open(directoryOf(target_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    /* EINVAL: a file system whose directories need no such call. */
    if (::fsync(directory.get()) != 0 && errno != EINVAL) {
        throw systemError(directoryOf(target_), "cannot bring the directory to stable storage", errno);
    }
}

std::string Destination::leftoverNote() const {
    return toStandardOutput() && offset_ != 0 ? std::string("; ") + kNoWayBack : std::string();
}

} // namespace difctl
