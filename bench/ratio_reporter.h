// One line a benchmark, of the fastest of its repetitions, and a closing table of the ratios to the bare engine.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <vector>

namespace bench {

// Expects names of the form ROW/COLUMN, where ROW may hold further slashes.
class RatioReporter : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context &context) override;
    void ReportRuns(const std::vector<Run> &runs) override;
    void Finalize() override;

    bool failed() const { return failed_; }

private:
    std::map<int64_t, Run> fastest_; // by place in the order of registration, whatever the order of running
    bool failed_ = false;
};

} // namespace bench
