#include "words.h"

namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n';
}

/* What a backslash protects: inside double quotes only what is special there, elsewhere everything. */
bool isProtected(char c, char quote) {
    return quote == '\0' || std::string_view("$`\"\\\n").find(c) != std::string_view::npos;
}

} // namespace

std::optional<std::vector<std::string>> splitWords(std::string_view line, std::string &error) {
    std::vector<std::string> words;
    bool inWord = false;
    char quote = '\0';
    size_t quoteAt = 0;
    const auto word = [&]() -> std::string & {
        if (!inWord) {
            words.emplace_back();
            inWord = true;
        }
        return words.back();
    };
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (quote != '\0' && c == quote) {
            quote = '\0';
        } else if (c == '\\' && quote != '\'' && i + 1 < line.size() && isProtected(line[i + 1], quote)) {
            if (line[++i] != '\n') { /* a line broken by a backslash goes on */
                word() += line[i];
            }
        } else if (quote == '\0' && (c == '\'' || c == '"')) {
            quote = c;
            quoteAt = i;
            word(); /* which may stay empty */
        } else if (quote == '\0' && isBlank(c)) {
            inWord = false;
        } else {
            word() += c;
        }
    }
    if (quote != '\0') {
        error = "the quote " + std::string(1, quote) + " at column " + std::to_string(quoteAt + 1) + " is not closed";
        return std::nullopt;
    }
    return words;
}
