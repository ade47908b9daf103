/* Text on its way out: formatted as printf does, and handed to whoever asked for it. */
#ifndef DIF_HOST_OUTPUT_H
#define DIF_HOST_OUTPUT_H

#include "dif_host.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

// The format itself if it cannot be filled in.
inline std::string formatted(const char *format, va_list args) {
    char *text = nullptr;
    const int length = vasprintf(&text, format, args);
    if (length < 0) {
        return format;
    }
    const std::unique_ptr<char, decltype(&std::free)> owner(text, &std::free);
    return {text, static_cast<size_t>(length)};
}

inline void writeOutput(DifHostPrint print, void *context, std::string_view text) {
    if (print == nullptr) {
        std::fwrite(text.data(), 1, text.size(), stdout);
    } else {
        print(context, text.data(), text.size());
    }
}

#endif
