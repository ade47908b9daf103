/* The library's life in this process. */
#ifndef DIFCTL_LIBRARY_H
#define DIFCTL_LIBRARY_H

#include "dif/dif.h"

#include <cstdint>

#include <cstddef>

namespace difctl {

/* The verify point on whose behalf images are checked. */
inline constexpr uint8_t kVerifyModule = DIF_MID_LUN;
inline constexpr uint8_t kVerifyPoint = 1;

/* Starts the library, and stops it at the end of the object's life. A failed assertion of it ends the process.
 * `verbose`: its warnings and notices are shown too. */
class Library {
public:
    explicit Library(bool verbose);
    ~Library();
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;
};

/* Adds what an operator command prints to the std::string at `text`. */
void collectText(void *text, const char *piece, size_t size);

} // namespace difctl

#endif
