/* The commands. Each one's file says what its command line is and what it does. */
#ifndef DIFCTL_COMMANDS_H
#define DIFCTL_COMMANDS_H

#include <functional>

namespace CLI {
class App;
}

namespace difctl {

/* What the command line asks for, to be run with the library: returns the exit status, or throws Error. */
using Command = std::function<int()>;

/* Each adds its subcommand to `app`, which sets `chosen` if the command line names it. */
void addInfo(CLI::App &app, Command &chosen);
void addProtect(CLI::App &app, Command &chosen);
void addVerify(CLI::App &app, Command &chosen);
void addStrip(CLI::App &app, Command &chosen);
void addShow(CLI::App &app, Command &chosen);
void addInject(CLI::App &app, Command &chosen);
void addRelabel(CLI::App &app, Command &chosen);
void addConvert(CLI::App &app, Command &chosen);
void addRepair(CLI::App &app, Command &chosen);
void addFold(CLI::App &app, Command &chosen);
void addShell(CLI::App &app, Command &chosen);
void addAttach(CLI::App &app, Command &chosen);
void addSelftest(CLI::App &app, Command &chosen);

} // namespace difctl

#endif
