#include "bench/ratio_reporter.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>

namespace bench {
namespace {

using Names = std::vector<std::string>;

void addOnce(Names &names, const std::string &name) {
    if (std::find(names.begin(), names.end(), name) == names.end()) {
        names.push_back(name);
    }
}

// The ratios to one yardstick. The last column is of its own kind: what an entry of a list costs, where measured.
struct Table {
    Names rows;
    Names columns;
    std::map<std::pair<std::string, std::string>, double> ratios;
    std::map<std::string, double> entryCosts; // by row, in nanoseconds

    void print() const {
        std::printf("%-32s", "");
        for (const std::string &column : columns) {
            std::printf(" %9s", column.c_str());
        }
        std::printf(entryCosts.empty() ? "\n" : " %9s\n", "ns/entry");
        for (const std::string &row : rows) {
            std::printf("%-32s", row.c_str());
            for (const std::string &column : columns) {
                const auto cell = ratios.find({row, column});
                if (cell == ratios.end()) {
                    std::printf(" %9s", "-");
                } else {
                    std::printf(" %9.3g", cell->second);
                }
            }
            const auto cost = entryCosts.find(row);
            if (cost != entryCosts.end()) {
                std::printf(" %9.2f", cost->second);
            }
            std::printf("\n");
        }
    }
};

} // namespace

bool RatioReporter::ReportContext(const Context &context) {
    const auto &cpu = context.cpu_info;
    const double load = cpu.load_avg.empty() ? 0 : cpu.load_avg.front();
    std::printf("%d CPUs, %.0f MHz, load average %.2f\n", cpu.num_cpus, cpu.cycles_per_second / 1e6, load);
    return true;
}

// Called with all repetitions of one benchmark, and once more with their aggregates.
void RatioReporter::ReportRuns(const std::vector<Run> &runs) {
    for (const Run &run : runs) {
        if (run.error_occurred) {
            failed_ = true;
            std::fprintf(stderr, "%s: %s\n", run.run_name.function_name.c_str(), run.error_message.c_str());
        } else if (run.run_type == Run::RT_Iteration) {
            const auto known = fastest_.find(run.family_index);
            if (known == fastest_.end() || run.GetAdjustedRealTime() < known->second.GetAdjustedRealTime()) {
                fastest_.insert_or_assign(run.family_index, run);
            }
        }
    }
}

void RatioReporter::Finalize() {
    Names yardsticks;
    std::map<std::string, Table> tables;

    std::printf("%-40s %12s %12s %8s  %s\n", "benchmark", "GB/s", "beside GB/s", "ratio", "quartiles (pairs)");
    for (const auto &[place, run] : fastest_) {
        const std::string name = run.run_name.function_name;
        if (run.counters.count("ratio") == 0) {
            std::printf("%-40s %12.1f ns a call\n", name.c_str(), run.GetAdjustedRealTime());
            continue;
        }
        const double ratio = run.counters.at("ratio");
        std::printf("%-40s %12.2f %12.2f %8.3g  %.3g to %.3g (%lld)\n", name.c_str(), run.counters.at("bytes") / 1e9,
                    run.counters.at("yardstick_bytes") / 1e9, ratio, run.counters.at("low").value,
                    run.counters.at("high").value, static_cast<long long>(run.iterations));
        const size_t slash = name.rfind('/');
        const std::string row = name.substr(0, slash);
        const std::string column = name.substr(slash + 1);
        addOnce(yardsticks, run.report_label);
        Table &table = tables[run.report_label];
        addOnce(table.rows, row);
        addOnce(table.columns, column);
        table.ratios[{row, column}] = ratio;
        if (run.counters.count("entry_ns") != 0) {
            table.entryCosts[row] = run.counters.at("entry_ns");
        }
    }
    for (const std::string &yardstick : yardsticks) {
        std::printf("\nThroughput of the operation / throughput of %s over the same blocks (1 = as fast)\n",
                    yardstick.c_str());
        tables[yardstick].print();
    }
}

} // namespace bench
