/* difctl: disk images whose blocks carry an integrity field. The process, and the one place where errors end. */
#include "commands/command_line.h"
#include "commands/commands.h"
#include "io/interrupt.h"
#include "io/progress.h"
#include "pass/library.h"

#include <csignal>

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

int run(int argc, char **argv) {
    const CommandLine line = parseCommandLine(argc, argv);
    if (!line.command) {
        return line.status;
    }
    /* The library's messages would cut through a bar. */
    allowProgress(!line.verbose);
    const Library library(line.verbose);
    return line.command();
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
