/* The commands, each with what its command line says. They throw Error for what could not be done. */
#ifndef DIFCTL_COMMANDS_H
#define DIFCTL_COMMANDS_H

#include "request.h"

#include <cstdint>
#include <string>

namespace difctl {

/* Exit status of a command that was done. */
inline constexpr int kAllWell = 0;
inline constexpr int kFaultsFound = 1;
/* Exit status of one that could not be. */
inline constexpr int kNotDone = 2;

struct ProtectOptions {
    std::string source;
    std::string destination;
    uint32_t blockSize = 520;
    std::string crc = "t10";
    uint64_t lba = 0;
    bool noLba = false;
    bool force = false;
    bool progress = true;
};

/* What verify and strip know about an image of protected blocks. */
struct ProtectedImageOptions {
    std::string image;
    uint32_t blockSize = 520;
    std::string crc; /* empty: every tuple by its own version */
    uint64_t lba = 0;
    bool noLba = false;
    bool all = false;
    bool progress = true;
};

struct VerifyOptions : ProtectedImageOptions {
    bool report = false;
    bool json = false;
};

struct StripOptions : ProtectedImageOptions {
    std::string destination;
    bool force = false;
};

int runProtect(const ProtectOptions &options);
int runVerify(const VerifyOptions &options);
int runStrip(const StripOptions &options);

CheckOptions checkOptionsOf(const ProtectedImageOptions &options);

} // namespace difctl

#endif
