/* What may stand on the command line. */
#ifndef DIFCTL_COMMAND_LINE_H
#define DIFCTL_COMMAND_LINE_H

#include <functional>

namespace difctl {

struct CommandLine {
    std::function<int()> command; /* what to run, with the library; none: nothing is left to do but to end */
    int status;                   /* of the process that has nothing to run */
    bool verbose;
};

/* Prints help, the version and complaints by itself. */
CommandLine parseCommandLine(int argc, char **argv);

} // namespace difctl

#endif
