#include "benchCommon.h"

#include <iostream>

namespace vxbench {

namespace {

constexpr int kDefaultRepetitions = 5;

} // namespace

int runBenchmarks(int argc, char** argv, const char* program, const char* pluginDir,
                  std::vector<benchPair> pairs, const std::function<bool(benchFrame&)>& prepare)
{
    // Five repetitions by default; a --benchmark_repetitions on the command line comes later and
    // wins.
    std::string repetitions = "--benchmark_repetitions=" + std::to_string(kDefaultRepetitions);
    std::vector<char*> args{argv[0], repetitions.data()};
    args.insert(args.end(), argv + 1, argv + argc);
    int count = static_cast<int>(args.size());
    args.push_back(nullptr);
    benchmark::Initialize(&count, args.data());
    if (benchmark::ReportUnrecognizedArguments(count, args.data())) {
        return 1;
    }

    benchFrame frame;
    if (!frame.loadPlugin(pluginDir)) {
        std::cerr << program << ": cannot load the plug-in from " << pluginDir << "\n";
        vxBase::DumpStackTrace(std::cerr);
        return 1;
    }
    if (!prepare(frame)) {
        vxBase::DumpStackTrace(std::cerr);
        return 1;
    }

    ratioReporter reporter(benchmark::CreateDefaultDisplayReporter(), std::move(pairs));
    (void)benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    reporter.printSummary(std::cout);

    const bool latched = vxGlobal.stackTrace.errorLatch.load();
    if (latched) {
        vxBase::DumpStackTrace(std::cerr);
    }
    (void)benchFrame::close(frame.api);
    return reporter.anyFailed() || latched ? 1 : 0;
}

} // namespace vxbench
