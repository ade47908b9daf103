/* Who may read a file, and a copy of it. */
#ifndef DIFCTL_FILE_ACCESS_H
#define DIFCTL_FILE_ACCESS_H

#include <optional>
#include <string>

#include <sys/types.h>

namespace difctl {

struct FileAccess {
    uid_t owner;
    gid_t group;
    mode_t mode; /* read and write bits; none for the group where an access control list takes its place */
};

/* None for what is neither a regular file nor a block device. */
std::optional<FileAccess> accessOf(int file);
std::optional<FileAccess> accessOf(const std::string &path);

/*
 * Gives a new file the owner, group and mode of the file that it replaces, or those of any new file, as far as the process
 * may and as nobody can read it who could not read both `source`, whose content it has, and `replaced`.
 */
void grantAccess(int file, const std::optional<FileAccess> &source, const std::optional<FileAccess> &replaced);

} // namespace difctl

#endif
