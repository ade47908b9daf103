/* A shell for the operator commands: at a terminal with line editing, history and completion, else line by line. */
#include "commands/options.h"
#include "commands/selftest.h"
#include "io/error.h"
#include "io/interrupt.h"
#include "pass/library.h"

#include "dif/dif.h"
#include "dif_host.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include <termios.h>
#include <unistd.h>

#include <editline/readline.h>

namespace difctl {

namespace {

struct ShellOptions {
    bool cli = false;
};

constexpr const char *kPrompt = "dif> ";
constexpr const char *kBlanks = " \t";

/* The words that complete the line; completion knows no context but this. */
int registry = DIF_HOST_DIAGNOSE;
std::vector<std::string> matches;

void addMatch(std::string_view prefix, const char *word) {
    if (std::string_view(word).starts_with(prefix)) {
        matches.emplace_back(word);
    }
}

/* The first word is a command; behind "help" stands one, behind "dif" a sub-command. */
void findMatches(std::string_view before, std::string_view prefix) {
    matches.clear();
    const size_t last = before.find_last_not_of(' ');
    const std::string_view words = last == std::string_view::npos ? std::string_view() : before.substr(0, last + 1);
    if (words.empty() || words == "help") {
        difHostForEachCommand(
            registry,
            [](void *context, const char *name, const char *) {
                addMatch(*static_cast<std::string_view *>(context), name);
            },
            &prefix);
    } else if (words == "dif") {
        const std::span<const DifCmdEntry> entries = registry == DIF_HOST_CLI
                                                         ? std::span<const DifCmdEntry>(g_difArrayForCli)
                                                         : std::span<const DifCmdEntry>(g_difArray);
        for (const DifCmdEntry &entry : entries) {
            addMatch(prefix, entry.name);
        }
    }
}

char *nextMatch(const char * /*prefix*/, int index) {
    return static_cast<size_t>(index) < matches.size() ? ::strdup(matches[static_cast<size_t>(index)].c_str())
                                                       : nullptr;
}

char **complete(const char *prefix, int start, int /*end*/) {
    rl_attempted_completion_over = 1; /* no file names */
    findMatches(std::string_view(rl_line_buffer).substr(0, static_cast<size_t>(start)), prefix);
    return rl_completion_matches(prefix, nextMatch);
}

/* At the prompt, keys that make signals elsewhere are keys like others: the one that interrupts drops the line. */
bool lineDropped = false;

int dropLine(int /*count*/, int /*key*/) {
    lineDropped = true;
    rl_done = 1;
    return 0;
}

int suspend(int /*count*/, int /*key*/) {
    return ::kill(0, SIGTSTP);
}

void prepareTerminal(const termios &modes) {
    ::rl_initialize();
    ::using_history();
    rl_attempted_completion_function = complete;
    ::rl_add_defun("drop-line", dropLine, modes.c_cc[VINTR]);
    ::rl_add_defun("suspend", suspend, modes.c_cc[VSUSP]);
    rl_pre_input_hook = [] { return ::rl_parse_and_bind("setty -d -isig"); };
}

/* The next line to run; false at the end. */
bool readTerminalLine(const termios &modes, std::string &line) {
    holdingInterrupts([&](Unfinished &unfinished) { unfinished.promptModes = modes; });
    std::unique_ptr<char, decltype(&std::free)> typed(nullptr, &std::free);
    do {
        lineDropped = false;
        typed.reset(::readline(kPrompt));
        if (typed == nullptr) {
            printResult(lineDropped ? "^C\n" : "\n");
        }
    } while (lineDropped);
    holdingInterrupts([](Unfinished &unfinished) { unfinished.promptModes.reset(); });
    line = typed == nullptr ? "" : typed.get();
    if (line.find_first_not_of(kBlanks) != std::string::npos) {
        ::add_history(line.c_str());
    }
    return typed != nullptr;
}

bool readScriptLine(std::string &line) {
    if (std::getline(std::cin, line)) {
        return true;
    }
    if (std::ferror(stdin) != 0) {
        throw systemError(kStandardInput, "cannot read", errno);
    }
    return false;
}

bool asksToLeave(std::string line) {
    line.erase(line.find_last_not_of(kBlanks) + 1);
    line.erase(0, line.find_first_not_of(kBlanks));
    return line == "exit" || line == "quit";
}

/* Whether the command was done. */
bool runLine(const std::string &line) {
    std::string output;
    int status = EINVAL;
    if (line.find('\0') != std::string::npos) {
        output = "Error: the line holds a NUL byte.\n";
    } else {
        status = difHostRunCommand(registry, line.c_str(), collectText, &output);
    }
    printResult(output);
    return status == 0;
}

int runShell(const ShellOptions &options) {
    registry = options.cli ? DIF_HOST_CLI : DIF_HOST_DIAGNOSE;
    registerSelftest();
    termios modes = {};
    const bool atTerminal = ::tcgetattr(STDIN_FILENO, &modes) == 0;
    if (atTerminal) {
        prepareTerminal(modes);
    }
    bool allDone = true;
    std::string line;
    while ((atTerminal ? readTerminalLine(modes, line) : readScriptLine(line)) && !asksToLeave(line)) {
        allDone = runLine(line) && allDone;
    }
    return allDone || atTerminal ? kAllWell : kNotDone;
}

} // namespace

void addShell(CLI::App &app, Command &chosen) {
    const auto [command, options] = addCommand(app, chosen, "shell", "Run operator commands in this process", runShell);
    command.add_flag("--cli", options.cli, "The commands of the CLI instead of those of the diagnose shell");
    command.footer(
        R"(Runs operator commands in a process of its own, line by line from standard input; 'help' lists them, 'exit' or the
end of the input leaves. At a terminal there are line editing, history and completion by the tab key.
Exit status: 0 every command of a script was done, 2 one could not be.

Examples:
  difctl shell
  echo 'dif showverifylevel' | difctl shell --cli
)");
}

} // namespace difctl
