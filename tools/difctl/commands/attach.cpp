/* Running an operator command in a process that serves a control socket. */
#include "commands/options.h"
#include "io/error.h"
#include "pass/library.h"

#include "dif_host.h"

namespace difctl {

namespace {

struct AttachOptions {
    std::string socket;
    bool cli = false;
    std::vector<std::string> words;
};

/* A word as the other side splits it back: in single quotes, those in it outside of them. */
std::string quoted(const std::string &word) {
    std::string text = "'";
    for (const char c : word) {
        text += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return text + "'";
}

int runAttach(const AttachOptions &options) {
    std::string line;
    for (const std::string &word : options.words) {
        line += (line.empty() ? "" : " ") + quoted(word);
    }
    int status = 0;
    std::string output;
    const int error = difHostAttach(options.socket.c_str(), options.cli ? DIF_HOST_CLI : DIF_HOST_DIAGNOSE,
                                    line.c_str(), collectText, &output, &status);
    printResult(output);
    if (error != 0) {
        throw systemError(options.socket, "cannot run a command through this socket", error);
    }
    return status == 0 ? kAllWell : kNotDone;
}

} // namespace

void addAttach(CLI::App &app, Command &chosen) {
    const auto [command, options] =
        addCommand(app, chosen, "attach", "Run an operator command in a live process", runAttach);
    command.add_option("SOCKET", options.socket, "Control socket of the process")->required()->type_name("");
    command.add_option("COMMAND", options.words, "Operator command and its words; 'help' lists the commands")
        ->required()
        ->type_name("");
    command.add_flag("--cli", options.cli, "The commands of the CLI instead of those of the diagnose shell");
    command.footer(
        R"(Runs one operator command in a live process, whose data path goes on meanwhile, and prints its output.
Exit status: 0 the command was done, 2 it could not be.

Examples:
  difctl attach /run/store/dif.sock dif showverifyresult
  difctl attach /run/store/dif.sock metrics
)");
}

} // namespace difctl
