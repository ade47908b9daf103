/* Text from outside, such as a file name, as part of a message. */
#ifndef DIFCTL_PRINTABLE_H
#define DIFCTL_PRINTABLE_H

#include "io/number.h"

#include <string>
#include <string_view>

namespace difctl {

/* `text` with its control characters as \xNN, so that it stays on its line and does nothing to a terminal. */
inline std::string printable(std::string_view text) {
    std::string line;
    const auto isHighControl = [](char c) { return (static_cast<uint8_t>(c) & 0xE0) == 0x80; };
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<uint8_t>(text[i]);
        /* UTF-8 has the control characters from U+0080 to U+009F behind 0xC2. */
        const bool begins = byte == 0xC2 && i + 1 < text.size() && isHighControl(text[i + 1]);
        const bool ends = isHighControl(text[i]) && i > 0 && static_cast<uint8_t>(text[i - 1]) == 0xC2;
        if (byte < 0x20 || byte == 0x7F || begins || ends) {
            line += "\\x" + hexText(&byte, 1);
        } else {
            line += text[i];
        }
    }
    return line;
}

} // namespace difctl

#endif
