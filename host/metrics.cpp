/* The library's settings and counters in the Prometheus text format 0.0.4. */
#include "dif/runtime.h"
#include "dif/verify_point.h"
#include "dif_host.h"
#include "output.h"

#include <fmt/format.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>

namespace {

constexpr std::array<const char *, DIF_STAT_BUTT> kKindName{"verify_ok", "version_error", "lba_error", "crc_error"};
constexpr std::string_view kReplacement = "\xEF\xBF\xBD"; // U+FFFD

// Size of the UTF-8 sequence that `text` starts with, 0 if it is malformed.
size_t utf8Size(std::string_view text) {
    const auto byte = [text](size_t i) { return i < text.size() ? static_cast<uint8_t>(text[i]) : uint8_t{0}; };
    const uint8_t lead = byte(0);
    if (lead < 0x80) {
        return 1;
    }
    // The limits of the second byte exclude overlong forms, surrogates and what lies beyond U+10FFFF.
    const uint8_t low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const uint8_t high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    if (lead < 0xC2 || lead > 0xF4 || byte(1) < low || byte(1) > high) {
        return 0;
    }
    const size_t size = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    for (size_t i = 2; i < size; ++i) {
        if ((byte(i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    return size;
}

// Any bytes as a label value, which is UTF-8 with three escapes.
std::string labelValue(std::string_view text) {
    std::string value;
    while (!text.empty()) {
        const size_t size = utf8Size(text);
        const std::string_view character = text.substr(0, size);
        if (size == 0) {
            value += kReplacement;
        } else if (character == "\n") {
            value += "\\n";
        } else {
            value += character == "\\" || character == "\"" ? "\\" : "";
            value += character;
        }
        text.remove_prefix(size == 0 ? 1 : size);
    }
    return value;
}

class Exposition {
public:
    void family(std::string_view name, std::string_view type, std::string_view help) {
        add("# HELP {0} {2}\n# TYPE {0} {1}\n", name, type, help);
    }

    template <typename... Args>
    void add(fmt::format_string<Args...> format, Args &&...args) {
        fmt::format_to(std::back_inserter(text_), format, std::forward<Args>(args)...);
    }

    const std::string &text() const { return text_; }

private:
    std::string text_;
};

void addSettings(Exposition &out) {
    out.family("dif_switch", "gauge", "Whether DIF is on (1) or off (0).");
    out.add("dif_switch {}\n", getDifOn() != 0 ? 1 : 0);
    out.family("dif_crc_version_info", "gauge", "System CRC version, which insertion and replacement write.");
    out.add("dif_crc_version_info{{version=\"{:#04x}\"}} 1\n", getSysDifCrcVersion());
    out.family("dif_verify_level", "gauge", "Verify level of a module.");
    for (uint32_t mid = 0; mid < DIF_MID_BUTT; ++mid) {
        out.add("dif_verify_level{{mid=\"{}\",module=\"{}\"}} {}\n", mid, g_difModuleName[mid],
                getDifVerifyLevelByMid(mid));
    }
}

// The registry is read in place; a module may be registering its points meanwhile.
uint8_t load(uint8_t &byte) {
    return std::atomic_ref{byte}.load(std::memory_order_relaxed);
}

void addCounters(Exposition &out) {
    out.family("dif_verify_events_total", "counter", "Check calls by what they found at a verify point.");
    for (uint8_t mid = 0; mid < DIF_MID_BUTT; ++mid) {
        VerifyPointMsg &record = *difVerifyMsgGetByMid(mid);
        const uint8_t pointNum = load(record.verifyPointNum);
        for (uint32_t point = 0; point < pointNum; ++point) {
            VerifyPointSlot &slot = record.verifyPoints[point];
            if (load(slot.pointId) == DIF_VERIFY_POINT_FREE) {
                continue;
            }
            const std::string name = labelValue({slot.pointName, strnlen(slot.pointName, DIF_VERIFY_POINT_NAME_SIZE)});
            uint64_t counters[DIF_STAT_BUTT];
            difVerifyStatisticGet(mid, point, counters);
            for (size_t kind = 0; kind < DIF_STAT_BUTT; ++kind) {
                out.add("dif_verify_events_total{{mid=\"{}\",module=\"{}\",point=\"{}\",name=\"{}\",kind=\"{}\"}} {}\n",
                        mid, g_difModuleName[mid], point + 1, name, kKindName[kind], counters[kind]);
            }
        }
    }
}

} // namespace

int difHostRenderMetrics(DifHostPrint print, void *context) {
    try {
        Exposition out;
        addSettings(out);
        addCounters(out);
        writeOutput(print, context, out.text());
        return 0;
    } catch (...) {
        return ENOMEM;
    }
}
