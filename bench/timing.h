// The summary timing loop shared by the C++ benchmarks: the best of several rounds of back-to-back calls.
#pragma once

#include <algorithm>
#include <chrono>

/// Nanoseconds per call of `f`, the best of `rounds` rounds of `calls` calls each.
template <typename F>
double nanosecondsPerCall(F&& f, int calls, int rounds) {
    double best = 1e300;
    for (int r = 0; r < rounds; ++r) {
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < calls; ++i)
            f();
        const auto stop = std::chrono::steady_clock::now();
        best = std::min(best, std::chrono::duration<double, std::nano>(stop - start).count() / calls);
    }
    return best;
}
