#include "operator_words.h"

#include "dif_host.h"
#include "help.h"
#include "metrics_file.h"
#include "nbdkit_api.h"
#include "output.h"
#include "platform/dbg_cmd.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <span>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nbd {

namespace {

/* Words have no context of their own, and the library is one a process, as the filter is. */
Ledger *theLedger = nullptr;
Scrubber *theScrubber = nullptr;

/* What scrubs when no rate was ever given. */
constexpr int64_t kUsualRate = int64_t{16} << 20;

/* As far as the umask lets them: the collector is another user. */
constexpr mode_t kForAllToRead = 0666;

int32_t showNbd(int32_t argc, char ** /*argv*/) {
    if (argc != 1) {
        return DBG_ShowUsageAndErrMsg("Error: nbd takes no words.");
    }
    DBG_Print("%s%s", theLedger->text().c_str(), theScrubber->text().c_str());
    return 0;
}

int32_t helpNbd(const char * /*name*/, uint32_t detail) {
    return printHelp(detail, "        nbd\n",
                     "SYNOPSIS\n"
                     "        nbd                                         : what the disk has done, and which "
                     "blocks are bad.\n");
}

int32_t runScrub(int32_t argc, char **argv) {
    const std::span words(argv, static_cast<size_t>(argc));
    const std::string_view what = words.size() > 1 ? words[1] : "";
    if (what == "status" && words.size() == 2) {
        DBG_Print("%s", theScrubber->text().c_str());
        return 0;
    }
    int64_t rate = 0;
    if (what == "start" && words.size() <= 3) {
        rate = words.size() == 3 ? nbdkit_parse_size(words[2]) : kUsualRate;
        if (rate <= 0) {
            DBG_Print("Error: '%s' is no rate: a number of bytes a second, such as 16M.\n", escaped(words[2]).c_str());
            return EINVAL;
        }
    } else if (what != "stop" || words.size() != 2) {
        return DBG_ShowUsageAndErrMsg("Error: scrub takes one of these.");
    }
    try {
        theScrubber->setRate(static_cast<uint64_t>(rate));
    } catch (const std::system_error &error) {
        DBG_Print("Error: no thread can be had: %s.\n", error.what());
        return EAGAIN;
    }
    NBD_LOG(DIF_HOST_LOG_NOTICE, "scrub " + std::string(what) + ": by " + difHostOperator());
    return 0;
}

int32_t helpScrub(const char * /*name*/, uint32_t detail) {
    return printHelp(
        detail, "        scrub start [RATE] | stop | status\n",
        "SYNOPSIS\n"
        "        scrub start [RATE]                          : check the whole disk again and again, RATE "
        "bytes a second (16M).\n"
        "        scrub stop                                  : until the next start, which goes on there.\n"
        "        scrub status                                : where it is.\n");
}

constexpr std::array kWords{DbgCmdReg{"nbd", "counters of the disk, bad blocks", showNbd, helpNbd},
                            DbgCmdReg{"scrub", "check the whole disk in the background", runScrub, helpScrub}};

} // namespace

int registerWords(Ledger &ledger, Scrubber &scrubber) {
    theLedger = &ledger;
    theScrubber = &scrubber;
    for (const auto regist : {DBG_RegCmd, DBG_RegCmdToCLI}) {
        for (const DbgCmdReg &word : kWords) {
            if (const int error = regist(&word); error != 0) {
                return error;
            }
        }
    }
    return difHostRegisterMetrics(
        [](void * /*context*/, DifHostPrint print, void *to) {
            const std::string text = theLedger->metrics() + theScrubber->metrics();
            print(to, text.data(), text.size());
        },
        nullptr);
}

bool mayHoldMetrics(const std::string &path) {
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) {
        return errno == ENOENT;
    }
    return S_ISREG(status.st_mode) && isMetricsFile(path);
}

int writeMetrics(const std::string &path) {
    std::string text;
    if (const int error = difHostRenderMetrics(appendTo, &text); error != 0) {
        return error;
    }
    const std::string temporary = path + ".new";
    if (!mayHoldMetrics(temporary)) {
        return EEXIST;
    }
    const int created = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, kForAllToRead);
    FILE *const file = created < 0 ? nullptr : fdopen(created, "w");
    if (file == nullptr) {
        return errno;
    }
    const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    if (std::fclose(file) != 0 || !written || std::rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        unlink(temporary.c_str());
        return error;
    }
    return 0;
}

} // namespace nbd
