/* Numbers as people write them and bytes as they read them. */
#ifndef DIFCTL_NUMBER_H
#define DIFCTL_NUMBER_H

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace difctl {

/* Decimal, or hexadecimal after 0x, without a sign, and perhaps times 1024 to the power that a K, M, G or T behind it says;
 * none for anything else and for a number above `max`. */
inline std::optional<uint64_t> parseNumber(std::string_view text, uint64_t max = UINT64_MAX) {
    const bool hexadecimal = text.starts_with("0x");
    text.remove_prefix(hexadecimal ? 2 : 0);
    constexpr std::string_view kSuffixes = "KMGT";
    const size_t suffix = text.empty() ? std::string_view::npos : kSuffixes.find(text.back());
    const bool hasSuffix = suffix != std::string_view::npos;
    text.remove_suffix(hasSuffix ? 1 : 0);
    const uint64_t unit = hasSuffix ? uint64_t{1024} << 10 * suffix : 1;
    const char *end = text.data() + text.size();
    uint64_t value = 0;
    const auto [rest, error] = std::from_chars(text.data(), end, value, hexadecimal ? 16 : 10);
    return error == std::errc() && rest == end && value <= max / unit ? std::optional(value * unit) : std::nullopt;
}

/* Two digits a byte, in the order of the bytes. */
inline std::string hexText(const uint8_t *bytes, size_t size) {
    constexpr const char *kDigits = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 0xF];
    }
    return text;
}

} // namespace difctl

#endif
