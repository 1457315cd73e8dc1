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

TEST_F(vxTraceTest, TraceLineFormat)
{
    const std::vector<std::string> messages = {"text", "", "100% %s %n done", "two  blanks "};
    for (const std::string& message : messages) {
        testing::internal::CaptureStderr();
        const bool ok = vxGlobal.traceLog.AddMessage(message);
        const std::string written = testing::internal::GetCapturedStderr();
        EXPECT_TRUE(ok);
        EXPECT_TRUE(std::regex_match(written, traceLine(message))) << '"' << written << '"';
    }
    EXPECT_FALSE(vxBase::HaveStackTrace());
}

TEST_F(vxTraceTest, TraceLineWrittenWhileLatched)
{
    veltrix::vxBytes bytes;
    ASSERT_FALSE(bytes.PostOpen(1));
    ASSERT_TRUE(vxtest::latched());
    const size_t before = vxGlobal.stackTrace.events.size();
    testing::internal::CaptureStderr();
    const bool ok = vxGlobal.traceLog.AddMessage("still here");
    const std::string written = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(ok);
    EXPECT_TRUE(std::regex_match(written, traceLine("still here"))) << written;
    EXPECT_EQ(vxGlobal.stackTrace.events.size(), before);
}

TEST_F(vxTraceTest, SysLogAndTraceFlagsSucceed)
{
    // A message is never taken as a format.
    EXPECT_TRUE(vxGlobal.traceLog.SysLog("libveltrix unit test %s%s%s%n"));
    EXPECT_TRUE(vxGlobal.traceLog.SysLog(""));
    for (const char* flag : {"", "net", "any name at all"}) {
        EXPECT_TRUE(vxGlobal.traceLog.RegisterTraceFlag(flag));
        EXPECT_TRUE(vxGlobal.traceLog.EnableTraceFlag(flag));
        EXPECT_TRUE(vxGlobal.traceLog.DisableTraceFlag(flag));
    }
    EXPECT_FALSE(vxBase::HaveStackTrace());
}

TEST_F(vxTraceTest, VersionTableDisplay)
{
    using pairs = std::vector<std::pair<std::string, std::string>>;

    struct row
    {
        const char* title;
        std::pair<std::string, std::string> app; ///< empty name: not added
        pairs libraries;
        pairs plugins;
        std::string expected;
    };

    const std::vector<row> rows = {
        {"application only",
         {"demo", "1.2"},
         {},
         {},
         "|------|-------------|---------|\n"
         "| Name | Type        | Version |\n"
         "|------|-------------|---------|\n"
         "| demo | Application | 1.2     |\n"
         "|------|-------------|---------|\n"},
        {"no application set",
         {"", ""},
         {},
         {},
         "|------|-------------|---------|\n"
         "| Name | Type        | Version |\n"
         "|------|-------------|---------|\n"
         "|      | Application |         |\n"
         "|------|-------------|---------|\n"},
        {"groups follow without a rule; duplicates kept",
         {"demo", "1.2"},
         {{"libveltrix", "2.0"}, {"libz", "1.3.1"}},
         {{"openssl", "3.0"}, {"openssl", "3.0"}},
         "|------------|-------------|---------|\n"
         "| Name       | Type        | Version |\n"
         "|------------|-------------|---------|\n"
         "| demo       | Application | 1.2     |\n"
         "| libveltrix | Library     | 2.0     |\n"
         "| libz       | Library     | 1.3.1   |\n"
         "| openssl    | Plug-in     | 3.0     |\n"
         "| openssl    | Plug-in     | 3.0     |\n"
         "|------------|-------------|---------|\n"},
        {"plug-ins without libraries",
         {"d", "9"},
         {},
         {{"fake", "0.1-long-version"}},
         "|------|-------------|------------------|\n"
         "| Name | Type        | Version          |\n"
         "|------|-------------|------------------|\n"
         "| d    | Application | 9                |\n"
         "| fake | Plug-in     | 0.1-long-version |\n"
         "|------|-------------|------------------|\n"},
    };
    for (const row& r : rows) {
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
