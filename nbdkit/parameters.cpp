#include "parameters.h"

#include "nbdkit_api.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>

namespace nbd {

namespace {

/* Sets `target` to the value of the word that `value` is. */
template <typename Target>
struct Choice {
    const char *word;
    Target value;
};

template <typename Target>
int choose(Target &target, const char *key, const char *value, const std::array<Choice<Target>, 2> &choices) {
    for (const Choice<Target> &choice : choices) {
        if (std::strcmp(value, choice.word) == 0) {
            target = choice.value;
            return 0;
        }
    }
    nbdkit_error("%s=%s: expected %s or %s", key, value, choices[0].word, choices[1].word);
    return -1;
}

int takeRate(uint64_t &rate, const char *value) {
    const int64_t bytes = nbdkit_parse_size(value);
    rate = bytes < 0 ? 0 : static_cast<uint64_t>(bytes);
    return bytes < 0 ? -1 : 0;
}

} // namespace

const char kParameterHelp[] =
    "dif-block=512|4096          Data bytes of a block, in front of its field (default 512).\n"
    "dif-crc=t10|crc32c          Guard of the fields that are written (default t10).\n"
    "dif-lba=<N>                 LBA of the image's first block (default 0).\n"
    "dif-unwritten=zeros|error   What a block of zeros without a field is (default zeros).\n"
    "dif-on-error=eio|report     Refuse blocks that fail, or serve and report them (default eio).\n"
    "dif-intent=<FILE>           Remember where writes are under way, to mend what a crash tears.\n"
    "dif-scrub=<RATE>            Check the whole disk again and again, so many bytes a second.\n"
    "dif-socket=<SOCKET>         Control socket, for difctl attach.\n"
    "dif-log=<FILE>              Log file.\n"
    "dif-metrics=<FILE>          Counters for Prometheus' textfile collector.";

int takePath(std::string &path, const char *key, const char *value) {
    if (*value == '\0') {
        nbdkit_error("%s: has an empty value", key);
        return -1;
    }
    const std::unique_ptr<char, decltype(&std::free)> absolute(nbdkit_absolute_path(value), &std::free);
    if (absolute == nullptr) {
        return -1;
    }
    path = absolute.get();
    return 0;
}

int takeParameter(Parameters &parameters, const char *key, const char *value) {
    const auto is = [key](const char *name) { return std::strcmp(key, name) == 0; };
    if (is("dif-block")) {
        return choose<image::BlockFormat>(parameters.format, key, value,
                                          {{{"512", image::kFormat520}, {"4096", image::kFormat4160}}});
    }
    if (is("dif-crc")) {
        return choose<uint8_t>(parameters.version, key, value,
                               {{{"t10", DIF_VERSION_T10}, {"crc32c", DIF_VERSION_CRC32C}}});
    }
    if (is("dif-lba")) {
        return nbdkit_parse_uint64_t(key, value, &parameters.firstLba);
    }
    if (is("dif-unwritten")) {
        return choose<bool>(parameters.zerosAreUnwritten, key, value, {{{"zeros", true}, {"error", false}}});
    }
    if (is("dif-on-error")) {
        return choose<bool>(parameters.servesFaults, key, value, {{{"eio", false}, {"report", true}}});
    }
    if (is("dif-scrub")) {
        return takeRate(parameters.scrubRate, value);
    }
    for (const auto &[name, path] : {std::pair{"dif-intent", &parameters.intent},
                                     {"dif-socket", &parameters.socket},
                                     {"dif-log", &parameters.log},
                                     {"dif-metrics", &parameters.metrics}}) {
        if (is(name)) {
            return takePath(*path, key, value);
        }
    }
    nbdkit_error("%s: the dif filter has no such parameter", key);
    return -1;
}

int refuseSharedFiles(const Parameters &parameters) {
    const std::pair<const char *, std::string> files[] = {
        {"file", parameters.image},
        {"dif-intent", parameters.intent},
        {"dif-socket", parameters.socket},
        {"dif-log", parameters.log},
        {"dif-metrics", parameters.metrics},
        {"dif-metrics with .new", parameters.metrics.empty() ? "" : parameters.metrics + ".new"},
    };
    for (const auto &file : files) {
        for (const auto &other : files) {
            std::error_code none;
            if (&file != &other && !file.second.empty() &&
                (file.second == other.second || std::filesystem::equivalent(file.second, other.second, none))) {
                nbdkit_error("%s and %s are the same file: %s", file.first, other.first, file.second.c_str());
                return -1;
            }
        }
    }
    return 0;
}

} // namespace nbd
