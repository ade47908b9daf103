/* Running an operator command in a process that serves a control socket. */
#include "commands/commands.h"
#include "io/error.h"

#include "dif_host.h"

#include <cerrno>

namespace difctl {

namespace {

/* A word as the other side splits it back: in single quotes, those in it outside of them. */
std::string quoted(const std::string &word) {
    std::string text = "'";
    for (const char c : word) {
        text += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return text + "'";
}

} // namespace

int runAttach(const AttachOptions &options) {
    std::string line;
    for (const std::string &word : options.words) {
        line += (line.empty() ? "" : " ") + quoted(word);
    }
    int status = 0;
    const int error = difHostAttach(
        options.socket.c_str(), options.cli ? DIF_HOST_CLI : DIF_HOST_DIAGNOSE, line.c_str(),
        [](void *, const char *text, size_t size) {
            printResult({text, size});
        },
        nullptr, &status);
    if (error != 0) {
        throw systemError(options.socket, "cannot run a command through this socket", error);
    }
    return status == 0 ? kAllWell : kNotDone;
}

} // namespace difctl
