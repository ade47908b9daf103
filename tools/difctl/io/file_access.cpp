#include "io/file_access.h"

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace difctl {

namespace {

constexpr const char *kAccessList = "system.posix_acl_access";
constexpr mode_t kOwnerBits = S_IRUSR | S_IWUSR;
constexpr mode_t kGroupBits = S_IRGRP | S_IWGRP;
constexpr mode_t kOtherBits = S_IROTH | S_IWOTH;
constexpr mode_t kReadWrite = kOwnerBits | kGroupBits | kOtherBits;

std::optional<FileAccess> accessFrom(const struct stat &status, bool withList) {
    if (!S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode)) {
        return std::nullopt;
    }
    return FileAccess{status.st_uid, status.st_gid, status.st_mode & kReadWrite & ~(withList ? kGroupBits : 0)};
}

/* The most that a file of `group` may grant to its group and to others without granting more than `limit` does. */
mode_t mostFor(gid_t group, const FileAccess &limit) {
    if (group == limit.group) {
        return limit.mode & (kGroupBits | kOtherBits);
    }
    /* A member of either group may be anyone to the other file. */
    const mode_t both = limit.mode >> 3 & limit.mode & kOtherBits;
    return both << 3 | both;
}

mode_t modeOfNewFiles() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return kReadWrite & ~mask;
}

} // namespace

std::optional<FileAccess> accessOf(int file) {
    struct stat status = {};
    return ::fstat(file, &status) != 0 ? std::nullopt
                                       : accessFrom(status, ::fgetxattr(file, kAccessList, nullptr, 0) > 0);
}

std::optional<FileAccess> accessOf(const std::string &path) {
    struct stat status = {};
    return ::lstat(path.c_str(), &status) != 0
               ? std::nullopt
               : accessFrom(status, ::lgetxattr(path.c_str(), kAccessList, nullptr, 0) > 0);
}

void grantAccess(int file, const std::optional<FileAccess> &source, const std::optional<FileAccess> &replaced) {
    mode_t mode = replaced ? replaced->mode : modeOfNewFiles();
    if (replaced) {
        const bool ownerMay = !source || source->owner == replaced->owner || (source->mode & S_IROTH) != 0;
        if (!ownerMay || ::fchown(file, replaced->owner, replaced->group) != 0) {
            [[maybe_unused]] const int kept = ::fchown(file, static_cast<uid_t>(-1), replaced->group);
        }
    }
    const auto own = accessOf(file);
    for (const auto &limit : {source, replaced}) {
        if (limit && own) {
            mode &= kOwnerBits | mostFor(own->group, *limit);
        }
    }
    /* The group's bits would be what a list that the directory hands down grants at most. */
    if (::fgetxattr(file, kAccessList, nullptr, 0) > 0) {
        mode &= ~kGroupBits;
    }
    /* Where it fails, the file stays its owner's alone, or has what its file system gives to all files. */
    ::fchmod(file, mode);
}

} // namespace difctl
