// Timing of the message formatter against a hand-written string stream, and of a log write with no handler.
// After the Google Benchmark run, prints the format/ostringstream time ratio and the heap allocations per call,
// and fails when the formatter allocates more per call than its design allows.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <sstream>
#include <string>

#include "common/diagnostics/log.h"
#include "common/utils/format.h"
#include "timing.h"

// --- allocation counting: every global operator new of this program goes through here ---

namespace {
std::atomic<uint64_t> g_allocations{0};

uint64_t allocations() { return g_allocations.load(std::memory_order_relaxed); }
}  // namespace

// Kept out of line, like the deletes: once inlined, the compiler pairs `malloc`/`free` with `new`/`delete` and warns.
[[gnu::noinline]] void* operator new(std::size_t size) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* p) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

using common::diagnostics::Log;
using common::diagnostics::LogContext;
using common::diagnostics::SourceInfo;

// The arguments of a location prefix: a path long enough to defeat the small-string buffer.
const std::string kFile = "../common/include/common/v8binding/v8binding";
constexpr unsigned kLine = 7;
const char* const kMessage = "Fail to create object-wrapper for types instance";

std::string viaFormat(const std::string& file, unsigned line, const char* message) {
    return common::format("{0}({1}):{2}", file, line, message);
}

std::string viaStream(const std::string& file, unsigned line, const char* message) {
    std::ostringstream out;
    out << std::boolalpha << file << '(' << line << "):" << message;
    return std::move(out).str();
}

void logWithoutHandler() {
    Log::write(Log::Level::Warning,
               LogContext(SourceInfo{"getButtonState", "../bridge/platform/Linux/mousetool-linux", 57}),
               common::diagnostics_internal::makeUtf8String("XQueryPointer returns False"));
}

void formattedLogWithoutHandler() {
    Log::write(Log::Level::Warning, LogContext(SourceInfo{"acquire", "../common/include/common/com/comptr", 120}),
               common::diagnostics_internal::makeUtf8String("Expected API not exposed: (%2). Source type (%1)",
                                                            "ISource", "ITarget"));
}

// Reports the average number of heap allocations per iteration as a counter.
class AllocationCounter {
public:
    explicit AllocationCounter(benchmark::State& state) : m_state(state), m_start(allocations()) {}
    ~AllocationCounter() {
        m_state.counters["allocs"] =
            benchmark::Counter(double(allocations() - m_start), benchmark::Counter::kAvgIterations);
    }
    AllocationCounter(const AllocationCounter&) = delete;
    AllocationCounter& operator=(const AllocationCounter&) = delete;

private:
    benchmark::State& m_state;
    uint64_t m_start;
};

void BM_Format(benchmark::State& state) {
    AllocationCounter counter(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(viaFormat(kFile, kLine, kMessage));
}
BENCHMARK(BM_Format);

void BM_Ostringstream(benchmark::State& state) {
    AllocationCounter counter(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(viaStream(kFile, kLine, kMessage));
}
BENCHMARK(BM_Ostringstream);

void BM_FormatNoArguments(benchmark::State& state) {
    AllocationCounter counter(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(common::format("Pointer capture motion callback already set."));
}
BENCHMARK(BM_FormatNoArguments);

void BM_LogWriteNoHandler(benchmark::State& state) {
    Log::setHandler(nullptr);
    AllocationCounter counter(state);
    for (auto _ : state)
        logWithoutHandler();
}
BENCHMARK(BM_LogWriteNoHandler);

void BM_FormattedLogWriteNoHandler(benchmark::State& state) {
    Log::setHandler(nullptr);
    AllocationCounter counter(state);
    for (auto _ : state)
        formattedLogWithoutHandler();
}
BENCHMARK(BM_FormattedLogWriteNoHandler);

// --- the summary: a separate timing loop, best of several rounds ---

template <typename F>
double allocationsPerCall(F&& f, int calls) {
    f();  // first-use statics are not part of a call's cost
    const uint64_t start = allocations();
    for (int i = 0; i < calls; ++i)
        f();
    return double(allocations() - start) / calls;
}

// The formatter may allocate its string stream (object and buffer), the result and short-lived specifier texts.
constexpr double kMaxFormatAllocations = 4.0;

int printSummary() {
    constexpr int kCalls = 100000;
    constexpr int kRounds = 5;
    if (viaFormat(kFile, kLine, kMessage) != viaStream(kFile, kLine, kMessage)) {
        std::printf("MISMATCH: format gives \"%s\", ostringstream gives \"%s\"\n",
                    viaFormat(kFile, kLine, kMessage).c_str(), viaStream(kFile, kLine, kMessage).c_str());
        return 1;
    }
    Log::setHandler(nullptr);

    const double formatNs =
        nanosecondsPerCall([] { benchmark::DoNotOptimize(viaFormat(kFile, kLine, kMessage)); }, kCalls, kRounds);
    const double streamNs =
        nanosecondsPerCall([] { benchmark::DoNotOptimize(viaStream(kFile, kLine, kMessage)); }, kCalls, kRounds);
    const double logNs = nanosecondsPerCall(logWithoutHandler, kCalls, kRounds);
    const double formattedLogNs = nanosecondsPerCall(formattedLogWithoutHandler, kCalls, kRounds);

    const double formatAllocs =
        allocationsPerCall([] { benchmark::DoNotOptimize(viaFormat(kFile, kLine, kMessage)); }, kCalls);
    const double streamAllocs =
        allocationsPerCall([] { benchmark::DoNotOptimize(viaStream(kFile, kLine, kMessage)); }, kCalls);
    const double logAllocs = allocationsPerCall(logWithoutHandler, kCalls);
    const double formattedLogAllocs = allocationsPerCall(formattedLogWithoutHandler, kCalls);

    std::printf("\nSummary (best of %d rounds of %d calls)\n", kRounds, kCalls);
    std::printf("  %-36s %8.1f ns/call  %5.2f allocations/call\n", "format(\"{0}({1}):{2}\")", formatNs, formatAllocs);
    std::printf("  %-36s %8.1f ns/call  %5.2f allocations/call\n", "hand-written ostringstream", streamNs,
                streamAllocs);
    std::printf("  %-36s %8.1f ns/call  %5.2f allocations/call\n", "Log::write, no handler", logNs, logAllocs);
    std::printf("  %-36s %8.1f ns/call  %5.2f allocations/call\n", "Log::write, formatted, no handler", formattedLogNs,
                formattedLogAllocs);
    std::printf("  %-36s %8.2f\n", "format/ostringstream ratio", formatNs / streamNs);

    if (formatAllocs > kMaxFormatAllocations) {
        std::printf("FAIL: format allocates %.2f times per call, more than %.0f\n", formatAllocs,
                    kMaxFormatAllocations);
        return 1;
    }
    std::printf("  allocations per format call within bound (%.0f)\n", kMaxFormatAllocations);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return printSummary();
}
