/* An image file to change where it is. */
#ifndef DIFCTL_IN_PLACE_FILE_H
#define DIFCTL_IN_PLACE_FILE_H

#include "io/transfer.h"

#include <cstdint>
#include <string>

namespace difctl {

/* Everything throws Error. */
class InPlaceFile {
public:
    explicit InPlaceFile(const std::string &path);

    void write(uint64_t offset, const Pieces &pieces);
    void sync();

private:
    std::string name_;
    FileDescriptor file_;
};

} // namespace difctl

#endif
