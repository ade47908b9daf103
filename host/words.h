/* A command line taken apart. */
#ifndef DIF_HOST_WORDS_H
#define DIF_HOST_WORDS_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/*
 * Splits `line` at its blanks (space, tab, newline) as a POSIX shell does, with single and double quotes and backslashes,
 * but expands nothing and knows no operators and no comments. Nothing for a line with an open quote, which `error` names.
 */
std::optional<std::vector<std::string>> splitWords(std::string_view line, std::string &error);

#endif
