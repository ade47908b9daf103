/* Text on its way out: formatted as printf does, made printable, and handed to whoever asked for it. */
#ifndef DIF_HOST_OUTPUT_H
#define DIF_HOST_OUTPUT_H

#include "dif_host.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <string_view>

/* The format itself if it cannot be filled in. Throws bad_alloc. */
inline std::string formatted(const char *format, va_list args) {
    char *text = nullptr;
    const int length = vasprintf(&text, format, args);
    if (length < 0) {
        return errno == ENOMEM ? throw std::bad_alloc() : format;
    }
    const std::unique_ptr<char, decltype(&std::free)> owner(text, &std::free);
    return {text, static_cast<size_t>(length)};
}

/* Names come from anywhere: what would break a line or steer a terminal is spelt as C does it. */
inline std::string escaped(std::string_view text) {
    std::string printable;
    for (const char c : text) {
        const auto code = static_cast<unsigned char>(c);
        if (code >= 0x20 && code != 0x7F) {
            printable += c;
        } else if (c == '\n') {
            printable += "\\n";
        } else {
            constexpr std::string_view kDigit = "0123456789abcdef";
            printable.append("\\x").append({kDigit[code / 16], kDigit[code % 16]});
        }
    }
    return printable;
}

inline void writeOutput(DifHostPrint print, void *context, std::string_view text) {
    if (print == nullptr) {
        std::fwrite(text.data(), 1, text.size(), stdout);
    } else {
        print(context, text.data(), text.size());
    }
}

/* A print routine: adds to the std::string that `text` points to. */
inline void appendTo(void *text, const char *piece, size_t size) {
    static_cast<std::string *>(text)->append(piece, size);
}

#endif
