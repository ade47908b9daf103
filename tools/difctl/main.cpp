/* difctl: disk images whose blocks carry an integrity field. The process, its commands, and where errors end. */
#include "commands/old_names.h"
#include "commands/options.h"
#include "io/error.h"
#include "io/interrupt.h"
#include "io/progress.h"
#include "io/transfer.h"
#include "pass/library.h"

#include <algorithm>
#include <csignal>
#include <iostream>
#include <numeric>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fcntl.h>

namespace {

using namespace difctl;

/* A closed standard stream's number must not go to an image. The wrong direction makes its use an error as before. */
void occupyStandardStreams() {
    for (const int stream : {0, 1, 2}) {
        if (::fcntl(stream, F_GETFD) == -1) {
            ::open("/dev/null", stream == 0 ? O_WRONLY : O_RDONLY);
        }
    }
}

/* In the order in which --help lists them. */
constexpr auto kCommands = {addInfo,    addProtect, addVerify, addStrip, addShow,   addInject,  addRelabel,
                            addConvert, addRepair,  addFold,   addShell, addAttach, addSelftest};

std::vector<CLI::App *> commandsOf(CLI::App &app) {
    return app.get_subcommands([](CLI::App *) { return true; });
}

/* Options that go before a command as well as behind it. */
struct Talk {
    bool verbose = false;
    bool quiet = false;
    bool progress = false;

    void addTo(CLI::App &app) {
        app.add_flag("-v,--verbose", verbose, "Show the library's warnings and notices, not only its errors");
        app.add_flag("-q,--quiet", quiet, "Show no progress, and no result that all is well");
        app.add_flag("-p,--progress", progress, "Show progress at once and off a terminal, too")
            ->excludes(app.get_option("--quiet"));
    }

    Show work() const {
        /* The library's messages would cut through a bar. */
        return quiet ? Show::kNothing : verbose ? Show::kNoBar : progress ? Show::kBarAtOnce : Show::kBar;
    }
};

/* How many letters must be changed, put in or taken out to make the one word the other. */
size_t distanceOf(std::string_view a, std::string_view b) {
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < a.size(); ++i) {
        size_t diagonal = std::exchange(row[0], i + 1);
        for (size_t j = 0; j < b.size(); ++j) {
            const size_t changed = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

/* Throws if `word` is none of `known`: with the one that is meant, if one is near. */
void requireKnown(const std::string &kind, const std::string &word, const std::vector<std::string> &known) {
    const auto distance = [&word](const std::string &other) { return distanceOf(word, other); };
    const auto nearest = std::ranges::min_element(known, {}, distance);
    if (distance(*nearest) != 0) {
        throw CLI::ValidationError("unknown " + kind + " '" + word + "'" +
                                   (distance(*nearest) <= 2 ? ", did you mean '" + *nearest + "'?" : ""));
    }
}

void requireCommand(CLI::App &app, const std::string &word) {
    std::vector<std::string> names;
    for (const CLI::App *command : commandsOf(app)) {
        names.push_back(command->get_name());
    }
    requireKnown("command", word, names);
}

/* Of `words`, those behind that of the command, up to "--". */
void requireOptions(const CLI::App &command, const std::vector<std::string> &words) {
    std::vector<std::string> names;
    for (const CLI::Option *option : command.get_options()) {
        for (const std::string &name : option->get_lnames()) {
            names.push_back("--" + name);
        }
    }
    for (auto word = std::ranges::find(words, command.get_name()); word != words.end() && *word != "--"; ++word) {
        if (word->starts_with("--")) {
            requireKnown("option", word->substr(0, word->find('=')), names);
        }
    }
}

/* The words behind the program's name as the parser takes them: "help COMMAND" is "COMMAND --help". */
std::vector<std::string> understood(CLI::App &app, std::vector<std::string> words) {
    const auto command =
        std::find_if(words.begin(), words.end(), [](const auto &word) { return !word.starts_with("-"); });
    if (command == words.end()) {
        return words;
    }
    if (*command == "help") {
        words.erase(command);
        words.insert(words.end(), "--help");
        return words.size() > 1 ? understood(app, words) : words;
    }
    requireCommand(app, *command);
    const CLI::App *chosen = app.get_subcommand(*command);
    replaceOldNames(*command, words);
    requireOptions(*chosen, words);
    return words;
}

/* An empty shell variable must not pass for an option that was not given. The words of attach alone may be empty. */
void refuseEmptyValues(CLI::App &app) {
    for (CLI::App *command : commandsOf(app)) {
        for (CLI::Option *option : command->get_options()) {
            if (option->get_items_expected_max() == 1) {
                option->transform(
                    [](const std::string &word) {
                        return word.empty() ? throw CLI::ValidationError("has an empty value") : word;
                    },
                    "");
            }
        }
    }
}

/* "--option=" would take the next word for its value. */
void refuseEmptyAssignments(const std::vector<std::string> &words) {
    for (const std::string &word : words) {
        if (word == "--") {
            return;
        }
        if (word.starts_with("--") && word.ends_with("=")) {
            throw CLI::ValidationError(word.substr(0, word.size() - 1), "has an empty value");
        }
    }
}

int run(int argc, char **argv) {
    Command command;
    Talk talk;
    CLI::App app("Disk images whose blocks carry an 8-byte integrity field: a guard, a version, an LBA.", "difctl");
    app.set_version_flag("-V,--version", "difctl " DIFCTL_VERSION, "Print the version and exit");
    app.failure_message([](const CLI::App *, const CLI::Error &error) {
        return "difctl: " + printable(error.what()) + "; --help tells more\n";
    });
    talk.addTo(app);
    app.footer(std::string(kExitStatusText) + R"(
Examples:
  difctl protect disk.raw disk.dif
  difctl verify disk.dif
  difctl strip disk.dif disk.raw
  difctl help protect
)");
    for (const auto addTo : kCommands) {
        addTo(app, command);
    }
    for (CLI::App *const sub : commandsOf(app)) {
        talk.addTo(*sub);
    }
    app.require_subcommand(0, 1);
    refuseEmptyValues(app);
    try {
        std::vector<std::string> words = understood(app, {argv + 1, argv + argc});
        refuseEmptyAssignments(words);
        std::reverse(words.begin(), words.end()); /* as the parser takes them */
        app.parse(std::move(words));
        if (!command) {
            throw CLI::RequiredError("A command, such as verify,");
        }
    } catch (const CLI::ParseError &error) {
        std::ostringstream help;
        const int status = app.exit(error, help, std::cerr);
        printResult(help.str());
        return status == 0 ? kAllWell : kNotDone;
    }
    showOfWork(talk.work());
    const Library library(talk.verbose);
    return command();
}

} // namespace

int main(int argc, char **argv) {
    occupyStandardStreams();
    /* A closed pipe and a file size limit are errors of the write that meets them. */
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    try {
        watchInterrupts();
        return run(argc, argv);
    } catch (const std::exception &error) {
        printMessage(error.what());
    }
    return kNotDone;
}
