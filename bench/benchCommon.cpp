#include "benchCommon.h"

#include <iostream>

namespace vxbench {

int runBenchmarks(int argc, char** argv, const char* program, const char* pluginDir,
                  std::vector<benchPair> pairs, const std::function<bool(benchFrame&)>& prepare)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
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
    (void)benchFrame::closeChild(frame.api);
    return reporter.anyFailed() || latched ? 1 : 0;
}

} // namespace vxbench
