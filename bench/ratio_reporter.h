/* A table for each yardstick, of the fastest repetition of each benchmark. */
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <vector>

namespace bench {

/*
 * Expects names of the form ROW/COLUMN, where ROW may hold further slashes, and as label what heads the table. Shows the
 * ratio of a paired run, else the time of a call; a counter "entry_ns" comes at the end of its row.
 */
class RatioReporter : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context &context) override;
    void ReportRuns(const std::vector<Run> &runs) override;
    void Finalize() override;

    bool failed() const { return failed_; }

private:
    std::map<int64_t, Run> fastest_; /* by place in the order of registration, whatever the order of running */
    bool failed_ = false;
};

} /* namespace bench */
