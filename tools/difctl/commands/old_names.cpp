#include "commands/old_names.h"

#include <array>
#include <string_view>

namespace difctl {

namespace {

struct Rename {
    std::string_view command;
    std::string_view from;
    std::string_view to;
};

constexpr std::array<Rename, 11> kRenames = {{
    {"protect", "--lba", "--first-lba"},
    {"verify", "--lba", "--first-lba"},
    {"strip", "--lba", "--first-lba"},
    {"show", "--lba", "--first-lba"},
    {"convert", "--lba", "--first-lba"},
    {"fold", "--lba", "--set-lba"},
    {"relabel", "--lba", "--set-lba"},
    {"inject", "--lba", "--set-lba"},
    {"inject", "--crc", "--set-guard"},
    {"inject", "--version", "--set-version"},
    {"inject", "--bst", "--set-bst"},
}};

} // namespace

void replaceOldNames(const std::string &command, std::vector<std::string> &words) {
    for (std::string &word : words) {
        if (word == "--") {
            return;
        }
        for (const Rename &rename : kRenames) {
            if (rename.command == command && word.substr(0, word.find('=')) == rename.from) {
                word.replace(0, rename.from.size(), rename.to);
            }
        }
    }
}

} // namespace difctl
