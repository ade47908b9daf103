/* The commands, each with what its command line says. They throw Error for what could not be done. */
#ifndef DIFCTL_COMMANDS_H
#define DIFCTL_COMMANDS_H

#include "commands/selftest.h"
#include "pass/block_range.h"
#include "pass/request.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

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
    std::optional<uint64_t> entryBytes;
    std::string crc = "t10";
    uint64_t lba = 0;
    bool noLba = false;
    bool force = false;
};

/* What every other command knows about its image of protected blocks, and about its check of them. */
struct ImageOptions {
    std::string image;
    uint32_t blockSize = 520;
    uint64_t imageLba = 0;
    bool noLba = false;
    bool all = false;
};

/* What verify and strip know beyond that. */
struct CheckedImageOptions : ImageOptions {
    std::optional<uint64_t> entryBytes;
    std::string crc; /* empty: every tuple by its own version */
};

struct VerifyOptions : CheckedImageOptions {
    bool standard = false;
    bool report = false;
    bool json = false;
    bool stats = false;
    std::string metrics; /* file to write; empty: none */
};

struct StripOptions : CheckedImageOptions {
    std::string destination;
    bool force = false;
};

struct FoldOptions : ImageOptions {
    std::string destination;
    std::string crc = "t10";
    std::optional<uint64_t> newLba;
    bool force = false;
};

struct ShowOptions : ImageOptions {
    std::string at;
};

/* What the commands that change an image where it is know beyond ImageOptions; all that convert knows. */
struct InPlaceOptions : ImageOptions {
    bool force = false;
};

struct InjectOptions : InPlaceOptions {
    std::string at;
    std::optional<uint64_t> version;
    std::optional<uint64_t> guard;
    std::optional<uint64_t> lba;
    bool bst = false;
};

struct RelabelOptions : InPlaceOptions {
    std::optional<uint64_t> newLba;
    std::string crc;
    bool versionOnly = false;
    std::string bitmap;
};

struct ShellOptions {
    bool cli = false;
};

struct AttachOptions {
    std::string socket;
    bool cli = false;
    std::vector<std::string> words;
};

struct SelftestOptions {
    uint64_t times = kSelftestTimes;
    uint64_t len = kSelftestLen;
};

int runProtect(const ProtectOptions &options);
int runVerify(const VerifyOptions &options);
int runStrip(const StripOptions &options);
int runShow(const ShowOptions &options);
int runInject(const InjectOptions &options);
int runRelabel(const RelabelOptions &options);
int runConvert(const InPlaceOptions &options);
int runFold(const FoldOptions &options);
int runShell(const ShellOptions &options);
int runAttach(const AttachOptions &options);
int runSelftest(const SelftestOptions &options);

CheckOptions checkOptionsOf(const ImageOptions &options);
CheckOptions checkOptionsOf(const CheckedImageOptions &options);

} // namespace difctl

#endif
