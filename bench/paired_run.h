/* Measures an operation against a yardstick on a machine whose speed wavers. */
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <vector>

namespace bench {

/* Batches of about this length are long against the clock's cost and short against a time slice. */
inline constexpr double kBatchSeconds = 20e-6;

inline double quantile(std::vector<double> &values, double fraction) {
    const auto rank = static_cast<std::ptrdiff_t>(fraction * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + rank, values.end());
    return values[static_cast<size_t>(rank)];
}

template <class Call>
double secondsFor(size_t calls, Call &&call) {
    const auto start = std::chrono::steady_clock::now();
    for (size_t i = 0; i < calls; ++i) {
        benchmark::DoNotOptimize(call());
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

template <class Call>
size_t callsInBatch(Call &&call) {
    size_t calls = 1;
    while (std::min(secondsFor(calls, call), secondsFor(calls, call)) < kBatchSeconds) {
        calls *= 2;
    }
    return calls;
}

/*
 * Each iteration runs a batch of `yardstick` and a batch of `operation` right after one another, in alternating order,
 * and keeps the ratio of their times: what slows the machine for longer than a pair slows both, and what hits one batch
 * is an outlier that the median drops. A busy neighbour of the core slows the two by different factors, though: repeat
 * the benchmark and believe the fastest repetition. Counters: "ratio" (the median; above 1 the operation is the faster
 * one), its quartiles "low" and "high", the median throughputs "bytes" and "yardstick_bytes" a second, and "excess_ns",
 * the median of what a call takes longer than the yardstick. The label is the heading of the table that shows the run.
 */
template <class Yardstick, class Operation>
void runPaired(benchmark::State &state, const char *heading, size_t bytesPerCall, Yardstick &&yardstick,
               Operation &&operation) {
    const size_t calls = callsInBatch(yardstick);
    std::vector<double> ratios;
    std::vector<double> times;
    std::vector<double> yardstickTimes;
    std::vector<double> excesses;
    bool yardstickFirst = true;
    for (auto _ : state) {
        double yardstickTime = yardstickFirst ? secondsFor(calls, yardstick) : 0;
        const double time = secondsFor(calls, operation);
        if (!yardstickFirst) {
            yardstickTime = secondsFor(calls, yardstick);
        }
        yardstickFirst = !yardstickFirst;
        ratios.push_back(yardstickTime / time);
        times.push_back(time);
        yardstickTimes.push_back(yardstickTime);
        excesses.push_back(time - yardstickTime);
        state.SetIterationTime(yardstickTime + time);
    }
    const auto batchBytes = static_cast<double>(calls * bytesPerCall);
    state.counters["ratio"] = quantile(ratios, 0.5);
    state.counters["low"] = quantile(ratios, 0.25);
    state.counters["high"] = quantile(ratios, 0.75);
    state.counters["bytes"] = batchBytes / quantile(times, 0.5);
    state.counters["yardstick_bytes"] = batchBytes / quantile(yardstickTimes, 0.5);
    state.counters["excess_ns"] = quantile(excesses, 0.5) / static_cast<double>(calls) * 1e9;
    state.SetLabel(heading);
}

} /* namespace bench */
