// The trace log on standard error and the version table on standard output.
#include "vxTest.h"
#include "vxVersions.h"

#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using veltrix::vxBase;
using veltrix::vxVersions;
using vxTraceTest = vxtest::vxTest;

/** The stamp "[YYYY/MM/DD HH:MM:SS] ->", a blank, the message and a line end. */
std::regex traceLine(const std::string& message)
{
    static const std::regex metaChars(R"([.^$|()\[\]{}*+?\\])");
    const std::string escaped = std::regex_replace(message, metaChars, R"(\$&)");
    return std::regex(R"(^\[\d{4}/\d{2}/\d{2} \d{2}:\d{2}:\d{2}\] -> )" + escaped + "\n$");
}

TEST_F(vxTraceTest, SysLogAndTheTraceFlagsAcceptAnyText)
{
    // A message is never taken as a format.
    EXPECT_TRUE(vxGlobal.traceLog.SysLog("libveltrix unit test %s%s%s%n"));
    EXPECT_TRUE(vxGlobal.traceLog.SysLog(""));
    for (const char* flag : {"", "net", "any name at all"}) {
        EXPECT_TRUE(vxGlobal.traceLog.RegisterTraceFlag(flag));
        EXPECT_TRUE(vxGlobal.traceLog.EnableTraceFlag(flag));
        EXPECT_TRUE(vxGlobal.traceLog.DisableTraceFlag(flag));
    }
    EXPECT_QUIET();
}

TEST_F(vxTraceTest, AddMessageWritesOneStampedLineEvenWhileLatched)
{
    for (const std::string message : {"text", "", "100% %s %n done", "two  blanks ", "latched"}) {
        if (message == "latched") {
            EXPECT_FALSE(vxBase::HaveStackTrace());
            vxtest::latchByFailure();
        }
        testing::internal::CaptureStderr();
        EXPECT_TRUE(vxGlobal.traceLog.AddMessage(message));
        const std::string written = testing::internal::GetCapturedStderr();
        EXPECT_TRUE(std::regex_match(written, traceLine(message))) << '"' << written << '"';
    }
    EXPECT_EQ(vxGlobal.stackTrace.events.size(), 1U);
}

TEST_F(vxTraceTest, TheVersionTableListsTheApplicationThenLibrariesThenPlugIns)
{
    using pairs = std::vector<std::pair<std::string, std::string>>;
    const std::string rule3 = "|------|-------------|---------|\n";
    const std::string head3 = rule3 + "| Name | Type        | Version |\n" + rule3;

    // clang-format off
    const struct { const char* title; std::pair<std::string, std::string> app; pairs libraries; pairs plugins; std::string expected; } rows[] = {
        {"application only", {"demo", "1.2"}, {}, {}, head3 + "| demo | Application | 1.2     |\n" + rule3},
        {"no application set", {"", ""}, {}, {}, head3 + "|      | Application |         |\n" + rule3},
        {"groups follow without a rule; duplicates kept", {"demo", "1.2"}, {{"libveltrix", "2.0"}, {"libz", "1.3.1"}}, {{"openssl", "3.0"}, {"openssl", "3.0"}},
         "|------------|-------------|---------|\n"
         "| Name       | Type        | Version |\n"
         "|------------|-------------|---------|\n"
         "| demo       | Application | 1.2     |\n"
         "| libveltrix | Library     | 2.0     |\n"
         "| libz       | Library     | 1.3.1   |\n"
         "| openssl    | Plug-in     | 3.0     |\n"
         "| openssl    | Plug-in     | 3.0     |\n"
         "|------------|-------------|---------|\n"},
        {"plug-ins without libraries", {"d", "9"}, {}, {{"fake", "0.1-long-version"}},
         "|------|-------------|------------------|\n"
         "| Name | Type        | Version          |\n"
         "|------|-------------|------------------|\n"
         "| d    | Application | 9                |\n"
         "| fake | Plug-in     | 0.1-long-version |\n"
         "|------|-------------|------------------|\n"},
    };

    // clang-format on
    for (const auto& r : rows) {
        vxVersions versions(true);
        if (!r.app.first.empty()) {
            EXPECT_TRUE(versions.AddApplication("replaced", "0"));
            EXPECT_TRUE(versions.AddApplication(r.app.first, r.app.second));
        }
        for (const auto& [name, version] : r.libraries) {
            EXPECT_TRUE(versions.AddLibraryInfo(name, version));
        }
        for (const auto& [name, version] : r.plugins) {
            EXPECT_TRUE(versions.AddPluginInfo(name, version));
        }
        std::ostringstream out;
        testing::internal::CaptureStdout();
        versions.Display(out);
        const std::string printed = testing::internal::GetCapturedStdout();
        EXPECT_EQ(printed, r.expected) << r.title;
        EXPECT_EQ(out.str(), "") << r.title;
    }
    EXPECT_FALSE(vxBase::HaveStackTrace());
}

} // namespace
