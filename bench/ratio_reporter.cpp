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

constexpr const char *kEntryCost = "ns/entry";

/*
 * What was measured beside one yardstick: a row an operation, a column a size. The last column, where there is one, is of
 * its own kind: what an entry of a list costs.
 */
struct Table {
    Names rows;
    Names columns;
    std::map<std::pair<std::string, std::string>, double> cells;

    void add(const std::string &row, const std::string &column, double value) {
        addOnce(rows, row);
        addOnce(columns, column);
        cells[{row, column}] = value;
    }

    void print() {
        std::stable_partition(columns.begin(), columns.end(), [](const std::string &c) { return c != kEntryCost; });
        size_t width = 0;
        for (const std::string &row : rows) {
            width = std::max(width, row.size());
        }
        printLine(width, "", [](const std::string &column) { return column; });
        for (const std::string &row : rows) {
            printLine(width, row, [&](const std::string &column) -> std::string {
                const auto cell = cells.find({row, column});
                if (cell == cells.end()) {
                    return "-";
                }
                char text[32];
                std::snprintf(text, sizeof text, "%.2f", cell->second);
                return text;
            });
        }
    }

private:
    template <typename TextOf>
    void printLine(size_t width, const std::string &row, TextOf textOf) const {
        std::printf("%-*s", static_cast<int>(width), row.c_str());
        for (const std::string &column : columns) {
            std::printf(" %9s", textOf(column).c_str());
        }
        std::printf("\n");
    }
};

} /* namespace */

bool RatioReporter::ReportContext(const Context &context) {
    const auto &cpu = context.cpu_info;
    const double load = cpu.load_avg.empty() ? 0 : cpu.load_avg.front();
    std::printf("%d CPUs, %.0f MHz, load average %.2f\n", cpu.num_cpus, cpu.cycles_per_second / 1e6, load);
    return true;
}

/* Called with all repetitions of one benchmark, and once more with their aggregates. */
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
    for (const auto &[place, run] : fastest_) {
        const std::string name = run.run_name.function_name;
        const size_t slash = name.rfind('/');
        const std::string row = name.substr(0, slash);
        const std::string yardstick = run.report_label;
        addOnce(yardsticks, yardstick);
        if (run.counters.count("ratio") == 0) {
            tables[yardstick].add(row, name.substr(slash + 1), run.GetAdjustedRealTime());
            continue;
        }
        tables[yardstick].add(row, name.substr(slash + 1), run.counters.at("ratio"));
        if (run.counters.count("entry_ns") != 0) {
            tables[yardstick].add(row, kEntryCost, run.counters.at("entry_ns"));
        }
    }
    for (const std::string &yardstick : yardsticks) {
        std::printf("\n%s\n\n", yardstick.c_str());
        tables[yardstick].print();
    }
}

} /* namespace bench */
