/* Names that options had before, still understood but not shown. */
#ifndef DIFCTL_OLD_NAMES_H
#define DIFCTL_OLD_NAMES_H

#include <string>
#include <vector>

namespace difctl {

/* The words of a command line with today's names of options in place of old ones. `command` is what they belong to. */
void replaceOldNames(const std::string &command, std::vector<std::string> &words);

} // namespace difctl

#endif
