/* Files of metrics, for a collector of text files. */
#ifndef DIF_HOST_METRICS_FILE_H
#define DIF_HOST_METRICS_FILE_H

#include <array>
#include <fstream>
#include <string>
#include <string_view>

/* Whether a file begins as what difHostRenderMetrics prints, so that no other one is replaced by it. */
inline bool isMetricsFile(const std::string &path) {
    constexpr std::string_view kBeginning = "# HELP dif_";
    std::array<char, kBeginning.size()> begin{};
    std::ifstream(path, std::ios::binary).read(begin.data(), begin.size());
    return std::string_view(begin.data(), begin.size()) == kBeginning;
}

#endif
