/* The library's settings and counters in the Prometheus text format 0.0.4. */
#include "dif/runtime.h"
#include "dif/verify_point.h"
#include "dif_host.h"
#include "output.h"

#include <fmt/format.h>
#include <utf8.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <iterator>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

constexpr std::array<const char *, DIF_STAT_BUTT> kKindName{"verify_ok", "version_error", "lba_error", "crc_error"};

/* Any bytes as a label value, which is UTF-8 with three escapes. */
std::string labelValue(std::string_view text) {
    std::string value;
    for (const char c : utf8::replace_invalid(text)) {
        if (c == '\n') {
            value += "\\n";
        } else {
            value += c == '\\' || c == '"' ? "\\" : "";
            value += c;
        }
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

/* The registry is read in place; a module may be registering its points meanwhile. */
template <typename Byte>
Byte load(Byte &byte) {
    return std::atomic_ref{byte}.load(std::memory_order_relaxed);
}

std::string pointName(VerifyPointSlot &slot) {
    std::string name;
    for (char &byte : slot.pointName) {
        const char c = load(byte);
        if (c == '\0') {
            break;
        }
        name += c;
    }
    return name;
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
            const std::string name = labelValue(pointName(slot));
            uint64_t counters[DIF_STAT_BUTT];
            difVerifyStatisticGet(mid, point, counters);
            for (size_t kind = 0; kind < DIF_STAT_BUTT; ++kind) {
                out.add("dif_verify_events_total{{mid=\"{}\",module=\"{}\",point=\"{}\",name=\"{}\",kind=\"{}\"}} {}\n",
                        mid, g_difModuleName[mid], point + 1, name, kKindName[kind], counters[kind]);
            }
        }
    }
}

struct Metrics {
    DifHostMetrics render;
    void *context;
};

/* Those of the program. Never destroyed: an operator may ask until the process is gone. */
struct ProgramMetrics {
    std::mutex mutex;
    std::vector<Metrics> all;
};

ProgramMetrics &programMetrics() {
    static auto &instance = *new ProgramMetrics;
    return instance;
}

} // namespace

int difHostRegisterMetrics(DifHostMetrics render, void *context) {
    if (render == nullptr) {
        return EINVAL;
    }
    try {
        const std::lock_guard lock(programMetrics().mutex);
        programMetrics().all.push_back({render, context});
        return 0;
    } catch (...) {
        return ENOMEM;
    }
}

int difHostRenderMetrics(DifHostPrint print, void *context) {
    try {
        Exposition out;
        addSettings(out);
        addCounters(out);
        out.family("dif_host_log_dropped_total", "counter", "Log lines that did not reach a destination.");
        out.add("dif_host_log_dropped_total {}\n", difHostLogDropped());
        std::string text = out.text();
        const std::lock_guard lock(programMetrics().mutex);
        for (const Metrics &metrics : programMetrics().all) {
            metrics.render(metrics.context, appendTo, &text);
        }
        writeOutput(print, context, text);
        return 0;
    } catch (...) {
        return ENOMEM;
    }
}
