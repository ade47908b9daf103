#include "set_command.h"
#include "dif/runtime.h"
#include "dif/types.h"
#include "dif/verify_point.h"
#include "dif_host.h"
#include "help.h"
#include "output.h"
#include "platform/dbg_cmd.h"
#include "platform/hostlog.h"

#include <array>
#include <charconv>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>
#include <strings.h>

namespace {

using Words = std::span<char *const>;

std::optional<uint32_t> number(std::string_view word, uint32_t end) {
    uint32_t value = 0;
    const auto [rest, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    return error == std::errc() && rest == word.data() + word.size() && value < end ? std::optional(value)
                                                                                    : std::nullopt;
}

/* A module by its number, or by its short name if it has one. */
std::optional<uint32_t> moduleOf(const char *word) {
    for (uint32_t mid = 0; mid <= DIF_MID_SASINI; ++mid) {
        if (strcasecmp(word, g_difModuleName[mid]) == 0) {
            return mid;
        }
    }
    return number(word, DIF_MID_BUTT);
}

int32_t refuse(const char *what, const char *word) {
    DBG_Print("Error: '%s' is no %s.\n", escaped(word).c_str(), what);
    return DBG_ShowUsageAndErrMsg(nullptr);
}

int32_t setLevel(Words words) {
    const auto mid = moduleOf(words[0]);
    if (!mid) {
        return refuse("module", words[0]);
    }
    const auto level = number(words[1], DIF_VERIFY_LEVEL_BUTT);
    if (!level) {
        return refuse("verify level (0 to 4)", words[1]);
    }
    setDifVerifyLevelByMid(*mid, static_cast<uint8_t>(*level));
    return 0;
}

int32_t setSwitch(Words words) {
    const bool on = std::strcmp(words[0], "on") == 0;
    if (!on && std::strcmp(words[0], "off") != 0) {
        return refuse("state of the switch (on or off)", words[0]);
    }
    setDifOn(on ? 1 : 0);
    return 0;
}

int32_t setCounters(Words words) {
    if (std::strcmp(words[0], "0") != 0) {
        return refuse("count that counters can be set to (0)", words[0]);
    }
    difVerifyStatisticClean();
    return 0;
}

struct Setting {
    const char *name;
    size_t wordNum;
    int32_t (*set)(Words words);
};

constexpr std::array kSettings{Setting{"level", 2, setLevel}, Setting{"switch", 1, setSwitch},
                               Setting{"counters", 1, setCounters}};

} // namespace

int32_t printHelpOfSet(const char * /*name*/, uint32_t detail) {
    return printHelp(detail, "        set level MODULE LEVEL | switch on|off | counters 0\n",
                     "SYNOPSIS\n"
                     "        set level MODULE LEVEL                      : the verify level, 0 to 4, of a module, by "
                     "number or short name.\n"
                     "        set switch on|off                           : whether DIF is on.\n"
                     "        set counters 0                              : clear the counters of all verify points.\n"
                     "The log says who did it.\n");
}

int32_t runSet(int32_t argc, char **argv) {
    const Words words(argv, static_cast<size_t>(argc));
    for (const Setting &setting : kSettings) {
        if (words.size() != 2 + setting.wordNum || std::strcmp(words[1], setting.name) != 0) {
            continue;
        }
        const int32_t result = setting.set(words.subspan(2));
        if (result == 0) {
            hostlog_standard(DIF_MODULE_ID, DIF_HOST_LOG_NOTICE, __func__, __LINE__, 0, "set %s %s%s%s: by %s.",
                             words[1], words[2], words.size() > 3 ? " " : "", words.size() > 3 ? words[3] : "",
                             difHostOperator());
        }
        return result;
    }
    return DBG_ShowUsageAndErrMsg("Error: set takes one of these, with its words.");
}
