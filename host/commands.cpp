/*
 * The debug-command framework: two registries of command words, and the running of a line. A command runs on the thread
 * that asked for it and without a lock, so that it may register words or run other lines.
 */
#include "dif_host.h"
#include "help.h"
#include "output.h"
#include "platform/dbg_cmd.h"
#include "session.h"
#include "set_command.h"
#include "words.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

int32_t runHelp(int32_t argc, char **argv);
int32_t runMetrics(int32_t argc, char **argv);

int32_t printHelpOfHelp(const char * /*name*/, uint32_t detail) {
    return printHelp(detail, "        help [WORD]\n",
                     "SYNOPSIS\n"
                     "        help                                        : list the commands.\n"
                     "        help WORD                                   : show the help of a command.\n");
}

int32_t printHelpOfMetrics(const char * /*name*/, uint32_t detail) {
    return printHelp(detail, "        metrics\n",
                     "SYNOPSIS\n"
                     "        metrics                                     : show DIF switch, CRC version, "
                     "verify levels and counters\n"
                     "                                                      in the Prometheus text format.\n");
}

constexpr std::array kBuiltIns{
    DbgCmdReg{"help", "list the commands, show their help", runHelp, printHelpOfHelp},
    DbgCmdReg{"metrics", "counters and settings for Prometheus", runMetrics, printHelpOfMetrics},
    DbgCmdReg{"set", "change a verify level, the switch, the counters", runSet, printHelpOfSet}};

/* Up to the NUL that ends a text field, or all of it. */
template <size_t Size>
std::string fieldText(const char (&field)[Size]) {
    return {field, strnlen(field, Size)};
}

class Registry {
public:
    Registry() {
        for (const DbgCmdReg &command : kBuiltIns) {
            words_.emplace(command.name, command);
        }
    }

    int add(const DbgCmdReg *command) {
        if (command == nullptr || command->doCmd == nullptr || command->doHelp == nullptr) {
            return EINVAL;
        }
        const std::string name = fieldText(command->name);
        if (name.empty() || name.size() == DBG_CMD_NAME_SIZE) {
            return EINVAL;
        }
        const std::lock_guard lock(mutex_);
        return words_.emplace(name, *command).second ? 0 : EEXIST;
    }

    int remove(const char *name) {
        if (name == nullptr) {
            return EINVAL;
        }
        for (const DbgCmdReg &command : kBuiltIns) {
            if (std::strcmp(name, command.name) == 0) {
                return EPERM;
            }
        }
        const std::lock_guard lock(mutex_);
        return words_.erase(name) == 1 ? 0 : ENOENT;
    }

    std::optional<DbgCmdReg> find(const std::string &name) {
        const std::lock_guard lock(mutex_);
        const auto found = words_.find(name);
        return found == words_.end() ? std::nullopt : std::optional(found->second);
    }

    std::vector<DbgCmdReg> all() {
        const std::lock_guard lock(mutex_);
        std::vector<DbgCmdReg> commands;
        for (const auto &[name, command] : words_) {
            commands.push_back(command);
        }
        return commands;
    }

private:
    std::mutex mutex_;
    std::map<std::string, DbgCmdReg> words_;
};

/* Null for a number that no registry has. Never destroyed: modules take their words out as late as they like. */
Registry *registryOf(int number) {
    static auto &registries = *new std::array<Registry, 2>;
    return number == DIF_HOST_DIAGNOSE || number == DIF_HOST_CLI ? &registries[static_cast<size_t>(number)] : nullptr;
}

/* The line that this thread is running. */
struct Session {
    const char *who;
    Registry *registry;
    DifHostPrint print;
    void *context;
    const DbgCmdReg *command = nullptr; /* whose usage is shown */
    bool outOfMemory = false;           /* while printing: commands know no exceptions and go on */
};

thread_local Session session{};

class SessionScope {
public:
    explicit SessionScope(const Session &inner) : outer_(std::exchange(session, inner)) {}
    ~SessionScope() { session = outer_; }
    SessionScope(const SessionScope &) = delete;
    SessionScope &operator=(const SessionScope &) = delete;

private:
    Session outer_;
};

int refuseUnknown(const std::string &word) {
    DBG_Print("Error: unknown command '%s', 'help' lists the commands.\n", escaped(word).c_str());
    return ENOENT;
}

int32_t runHelp(int32_t argc, char **argv) {
    if (argc > 2) {
        return DBG_ShowUsageAndErrMsg("Error: help takes one word at most.");
    }
    if (argc == 2) {
        const auto command = session.registry->find(argv[1]);
        if (!command) {
            return refuseUnknown(argv[1]);
        }
        command->doHelp(command->name, 1);
        return 0;
    }
    for (const DbgCmdReg &command : session.registry->all()) {
        DBG_Print("%-*s  %s\n", DBG_CMD_NAME_SIZE, command.name, fieldText(command.description).c_str());
        command.doHelp(command.name, 0);
    }
    return 0;
}

int32_t runMetrics(int32_t argc, char ** /*argv*/) {
    if (argc != 1) {
        return DBG_ShowUsageAndErrMsg("Error: metrics takes no words.");
    }
    return difHostRenderMetrics(session.print, session.context);
}

int runLine(const char *line) {
    std::string error;
    auto words = splitWords(line, error);
    if (!words) {
        DBG_Print("Error: %s.\n", error.c_str());
        return EINVAL;
    }
    if (words->empty()) {
        return 0;
    }
    const auto command = session.registry->find(words->front());
    if (!command) {
        return refuseUnknown(words->front());
    }
    std::vector<char *> argv;
    for (std::string &word : *words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    session.command = &*command;
    return command->doCmd(static_cast<int32_t>(words->size()), argv.data());
}

int32_t addTo(int registry, const DbgCmdReg *command) {
    try {
        return registryOf(registry)->add(command);
    } catch (...) {
        return ENOMEM;
    }
}

int32_t removeFrom(int registry, const char *name) {
    try {
        return registryOf(registry)->remove(name);
    } catch (...) {
        return ENOMEM;
    }
}

} // namespace

int32_t DBG_RegCmd(const DbgCmdReg *cmd) {
    return addTo(DIF_HOST_DIAGNOSE, cmd);
}

int32_t DBG_RegCmdToCLI(const DbgCmdReg *cmd) {
    return addTo(DIF_HOST_CLI, cmd);
}

int32_t DBG_UnRegCmd(const char *name) {
    return removeFrom(DIF_HOST_DIAGNOSE, name);
}

int32_t DBG_UnRegCmdToCLI(const char *name) {
    return removeFrom(DIF_HOST_CLI, name);
}

void DBG_Print(const char *format, ...) {
    va_list args;
    va_start(args, format);
    try {
        writeOutput(session.print, session.context, formatted(format, args));
    } catch (...) {
        session.outOfMemory = true;
    }
    va_end(args);
}

int32_t DBG_ShowUsageAndErrMsg(const char *message) {
    if (message != nullptr) {
        DBG_Print("%s\n", message);
    }
    /* No usage outside of a command, nor for a help function that asks for it. */
    if (const DbgCmdReg *const command = std::exchange(session.command, nullptr); command != nullptr) {
        DBG_Print("Usage:\n");
        command->doHelp(command->name, 0);
        session.command = command;
    }
    return EINVAL;
}

int runCommandFor(const char *who, int registry, const char *line, DifHostPrint print, void *context) {
    try {
        Registry *const words = registryOf(registry);
        if (words == nullptr || line == nullptr) {
            return EINVAL;
        }
        const SessionScope scope({.who = who, .registry = words, .print = print, .context = context});
        const int result = runLine(line);
        if (!session.outOfMemory) {
            return result;
        }
    } catch (...) {
        /* Said below, where nothing is held any more. */
    }
    try {
        writeOutput(print, context, "\nError: out of memory, output is missing.\n");
    } catch (...) {
        /* The status says it. */
    }
    return ENOMEM;
}

int difHostRunCommand(int registry, const char *line, DifHostPrint print, void *context) {
    return runCommandFor(difHostOperator(), registry, line, print, context);
}

const char *difHostOperator(void) {
    return session.who == nullptr ? "this process" : session.who;
}

int difHostForEachCommand(int registry, DifHostWord each, void *context) {
    try {
        Registry *const words = registryOf(registry);
        if (words == nullptr || each == nullptr) {
            return EINVAL;
        }
        for (const DbgCmdReg &command : words->all()) {
            each(context, command.name, fieldText(command.description).c_str());
        }
        return 0;
    } catch (...) {
        return ENOMEM;
    }
}
