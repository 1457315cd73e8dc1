// Shared by the benchmark programs: the object frame that loads the plug-in, the timed loop, and
// the reporter that turns each library/direct pair of benchmarks into a row of CPU-time ratios.
#pragma once

#include "benchStats.h"
#include "vxGlobal.h"
#include "vxMain.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace vxbench {

using namespace veltrix;

/** The root of the benchmark's object tree: loads the plug-in and opens objects as an owner
 *  would. */
class benchFrame : public vxMain
{
public:
    bool main(int /*argc*/, char** /*argv*/) override { return true; }

    bool loadPlugin(const std::string& directory)
    {
        api.setSearchPath(directory);
        return LoadPlugin("openssl");
    }
};

/** Closes an object that is open; for the end of a scope. */
inline void closeIfOpen(vxBase& child)
{
    if (child.opened) {
        (void)benchFrame::closeChild(child);
    }
}

/** `size` bytes of a fixed, non-trivial pattern. */
inline std::vector<unsigned char> pattern(size_t size, unsigned seed)
{
    std::vector<unsigned char> bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<unsigned char>((i * 131U + seed * 17U + 7U) & 0xFFU);
    }
    return bytes;
}

inline vxBytes asBytes(std::vector<unsigned char> bytes)
{
    vxBytes result;
    result.bytes = std::move(bytes);
    return result;
}

/** The timed loop every benchmark shares: `step` does one iteration's work and says whether it
 *  succeeded; `output` is what the compiler must not optimise away. */
template <class Step>
void timeSteps(benchmark::State& state, bool ready, const char* what, size_t bytesPerStep,
               const void* output, Step step)
{
    if (!ready) {
        state.SkipWithError((std::string("cannot set up ") + what).c_str());
        return;
    }
    for (auto _ : state) {
        if (!step()) {
            state.SkipWithError((std::string(what) + " failed").c_str());
            break;
        }
        benchmark::DoNotOptimize(output);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytesPerStep));
}

/** A library benchmark and the direct benchmark it is measured against. */
struct benchPair
{
    const char* label;
    const char* library;
    const char* direct;
    double goal; ///< the library/direct ratio the library aims to stay within; 0 for none
};

/** The times per iteration, in nanoseconds, of each round of one benchmark. */
struct roundTimes
{
    std::vector<double> cpu;
    std::vector<double> real;
};

/** Passes every run on to the display reporter and keeps the times per iteration of each
 *  round, by benchmark name, for the ratio table. */
class ratioReporter : public benchmark::BenchmarkReporter
{
public:
    ratioReporter(benchmark::BenchmarkReporter* displayReporter, std::vector<benchPair> table)
        : display(displayReporter), pairs(std::move(table))
    {}

    bool ReportContext(const Context& context) override { return display->ReportContext(context); }

    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration) {
                continue;
            }
            if (run.error_occurred || run.iterations <= 0) {
                failed = true;
                continue;
            }
            const auto iterations = static_cast<double>(run.iterations);
            roundTimes& times = measured[run.run_name.function_name];
            times.cpu.push_back(run.cpu_accumulated_time * 1e9 / iterations);
            times.real.push_back(run.real_accumulated_time * 1e9 / iterations);
        }
        display->ReportRuns(runs);
    }

    void Finalize() override { display->Finalize(); }

    bool anyFailed() const { return failed; }

    /** Per pair: the median CPU times, the range of the per-round CPU-time ratios, and the
     *  median real-time ratio. CPU time leads because a shared machine steals wall-clock time
     *  from whichever side happens to be running; a large gap between the two ratios means the
     *  run was disturbed. */
    void printSummary(std::ostream& out) const
    {
        char line[200];
        out << "\nlibrary/direct ratios per iteration (CPU time; real-time median for "
               "comparison)\n";
        (void)std::snprintf(line, sizeof line, "%-30s %6s %10s %10s %6s %6s %6s %6s %5s  %s\n",
                            "pair", "rounds", "library ns", "direct ns", "min", "median", "max",
                            "real", "goal", "median");
        out << line;
        for (const benchPair& pair : pairs) {
            const auto library = measured.find(pair.library);
            const auto direct = measured.find(pair.direct);
            if (library == measured.end() || direct == measured.end()) {
                (void)std::snprintf(line, sizeof line, "%-30s %6s\n", pair.label, "-");
                out << line;
                continue;
            }
            const spread cpu = ratioSpread(library->second.cpu, direct->second.cpu);
            const spread real = ratioSpread(library->second.real, direct->second.real);
            (void)std::snprintf(
                line, sizeof line, "%-30s %6zu %10.1f %10.1f %6.2f %6.2f %6.2f %6.2f %5.2f  %s\n",
                pair.label, std::min(library->second.cpu.size(), direct->second.cpu.size()),
                median(library->second.cpu), median(direct->second.cpu), cpu.min, cpu.median,
                cpu.max, real.median, pair.goal,
                pair.goal <= 0 ? "-" : (cpu.median <= pair.goal ? "within" : "OVER"));
            out << line;
        }
    }

private:
    benchmark::BenchmarkReporter* display; ///< owned by the benchmark library
    std::vector<benchPair> pairs;
    std::map<std::string, roundTimes> measured;
    bool failed = false;
};

/** How often each pair is measured. */
constexpr int kRounds = 5;

/** Registers the library benchmark and its direct counterpart alternately, kRounds times each.
 *  The machine's speed drifts by tens of percent over seconds here, so measuring every round of
 *  one side right after the same round of the other keeps the drift out of their ratio; the
 *  reporter pairs round i of the library with round i of the direct code. */
template <class Library, class Direct>
void registerPair(const benchPair& pair, Library library, Direct direct)
{
    for (int round = 0; round < kRounds; ++round) {
        benchmark::RegisterBenchmark(pair.library, library);
        benchmark::RegisterBenchmark(pair.direct, direct);
    }
}

/** The common main: the plug-in loaded
 *  from `pluginDir`, `prepare` run (agreement checks and registration; false ends the program),
 *  the benchmarks run and the ratio table of `pairs` printed. Returns the exit status: nonzero
 *  only when the program could not measure. */
int runBenchmarks(int argc, char** argv, const char* program, const char* pluginDir,
                  std::vector<benchPair> pairs, const std::function<bool(benchFrame&)>& prepare);

} // namespace vxbench
