/* difctl: disk images whose blocks carry an integrity field. The process, its commands, and where errors end. */
#include "commands/options.h"
#include "io/error.h"
#include "io/interrupt.h"
#include "io/progress.h"
#include "io/transfer.h"
#include "pass/library.h"

#include <csignal>
#include <iostream>
#include <span>
#include <sstream>
#include <string_view>

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
constexpr auto kCommands = {addProtect, addVerify, addStrip, addShow,   addInject,  addRelabel,
                            addConvert, addFold,   addShell, addAttach, addSelftest};

/* An empty shell variable must not pass for an option that was not given. The words of attach alone may be empty. */
void refuseEmptyValues(CLI::App &app) {
    for (CLI::App *command : app.get_subcommands([](CLI::App *) { return true; })) {
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
void refuseEmptyAssignments(std::span<char *> words) {
    for (const std::string_view word : words) {
        if (word == "--") {
            return;
        }
        if (word.starts_with("--") && word.ends_with("=")) {
            throw CLI::ValidationError(std::string(word.substr(0, word.size() - 1)), "has an empty value");
        }
    }
}

int run(int argc, char **argv) {
    Command command;
    bool verbose = false;
    CLI::App app("Disk images whose blocks carry an 8-byte integrity field: a guard, a version, an LBA.", "difctl");
    app.set_version_flag("--version", "difctl " DIFCTL_VERSION, "Print the version and exit");
    app.failure_message([](const CLI::App *, const CLI::Error &error) {
        return "difctl: " + printable(error.what()) + "; --help tells more\n";
    });
    app.add_flag("-v,--verbose", verbose, "Show the library's warnings and notices, not only its errors");
    app.footer(std::string(kExitStatusText) + R"(
Examples:
  difctl protect disk.raw disk.dif
  difctl verify disk.dif
  difctl strip disk.dif disk.raw
  difctl protect --help
)");
    for (const auto addTo : kCommands) {
        addTo(app, command);
    }
    app.require_subcommand(0, 1);
    refuseEmptyValues(app);
    try {
        refuseEmptyAssignments({argv, static_cast<size_t>(argc)});
        app.parse(argc, argv);
        if (!command) {
            throw CLI::RequiredError("a command: protect, verify, strip, show, inject, relabel, convert, fold, "
                                     "shell, attach or selftest");
        }
    } catch (const CLI::ParseError &error) {
        std::ostringstream help;
        const int status = app.exit(error, help, std::cerr);
        printResult(help.str());
        return status == 0 ? kAllWell : kNotDone;
    }
    /* The library's messages would cut through a bar. */
    allowProgress(!verbose);
    const Library library(verbose);
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
