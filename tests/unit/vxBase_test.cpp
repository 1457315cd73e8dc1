// The object protocol, the error trail and its printed form.
#include "vxTest.h"
#include "vxThread.h"
#include "vxVersions.h"

#include <cerrno>
#include <cstdint>
#include <functional>
#include <regex>
#include <string>
#include <vector>

namespace {

using veltrix::vxBase;
using veltrix::vxBytes;
using veltrix::vxMutex;
using vxBaseTest = vxtest::vxTest;

const char* const unable = "Unable to continue from previous error";

size_t eventCount()
{
    return vxGlobal.stackTrace.events.size();
}

/** Sets the latch through a real failure and leaves its event in the trail. */
void latchByFailure()
{
    vxBytes bytes;
    EXPECT_FALSE(bytes.PostOpen(1));
    ASSERT_TRUE(vxtest::latched());
}

// --- The printed trail ---

TEST_F(vxBaseTest, DumpOfEmptyTrailIsHeaderOnly)
{
    EXPECT_EQ(vxtest::dumpTrail(), "|----------|------|---------------|\n"
                                   "| Filename | Line | Message Hints |\n"
                                   "|----------|------|---------------|\n"
                                   "|----------|------|---------------|\n");
}

TEST_F(vxBaseTest, DumpPrintsRowsSeparatorsAndFallbacks)
{
    vxBytes object;
    // Two lines: the first falls back to the event's file and line, the second has its own.
    object.addHistory("bool first()", "/src/deep/file1.cpp", 12);
    object.addMessage("first");
    object.addMessage("sub/other.h", 7, "second %d", 2);
    // No lines: no row at all.
    object.addHistory("bool empty()", "g.cpp", 345);
    // One line each: no separator after either.
    object.addHistory("bool third()", "x/h.cpp", 123456);
    object.addMessage("a rather long message text");
    object.addHistory("bool fourth()", "i.cpp", 9);
    object.addMessage("last");

    EXPECT_EQ(vxtest::dumpTrail(), "|-----------|--------|----------------------------|\n"
                                   "| Filename  | Line   | Message Hints              |\n"
                                   "|-----------|--------|----------------------------|\n"
                                   "| file1.cpp | 12     | first                      |\n"
                                   "| other.h   | 7      | second 2                   |\n"
                                   "|           |        |                            |\n"
                                   "| h.cpp     | 123456 | a rather long message text |\n"
                                   "| i.cpp     | 9      | last                       |\n"
                                   "|-----------|--------|----------------------------|\n");
    // Printing does not consume the trail.
    EXPECT_EQ(eventCount(), 4U);
    EXPECT_FALSE(vxtest::latched());
}

TEST_F(vxBaseTest, DumpFallsBackPerColumn)
{
    vxBytes object;
    object.addHistory("bool f()", "event.cpp", 31);
    veltrix::vxHistoryLine onlyFile;
    onlyFile.message = "own file";
    onlyFile.file = "line.cpp";
    veltrix::vxHistoryLine onlyLine;
    onlyLine.message = "own line";
    onlyLine.line = "8";
    vxGlobal.stackTrace.events.back().lines = {onlyFile, onlyLine};

    EXPECT_EQ(vxtest::dumpTrail(), "|-----------|------|---------------|\n"
                                   "| Filename  | Line | Message Hints |\n"
                                   "|-----------|------|---------------|\n"
                                   "| line.cpp  | 31   | own file      |\n"
                                   "| event.cpp | 8    | own line      |\n"
                                   "|           |      |               |\n"
                                   "|-----------|------|---------------|\n");
}

TEST(vxHistory, CleanupFilenameKeepsLastComponent)
{
    struct row
    {
        const char* path;
        const char* expected;
    };

    const std::vector<row> rows = {
        {"/x", ""},
        {"file.cpp", "file.cpp"},
        {"dir/", ""},
        {"../../a/b/c.cpp", "c.cpp"},
        {"/usr/src/x.h", "x.h"},
        {"", ""},
    };
    for (const row& r : rows) {
        const veltrix::vxHistoryEvent event("bool f()", r.path, 1);
        EXPECT_EQ(event.file, r.expected) << "event: " << r.path;
        veltrix::vxHistoryLine line;
        line.file = r.path;
        line.CleanupFilename();
        EXPECT_EQ(line.file, r.expected) << "line: " << r.path;
    }
}

// --- Messages ---

TEST_F(vxBaseTest, MessageWithoutEventIsDropped)
{
    vxBytes object;
    object.addMessage("%s", "nowhere to go");
    object.addMessage("file.cpp", 3, "%s", "nor here");
    errno = ENOENT;
    object.addMessageWithErrno("%s", "open() failed: ");
    EXPECT_FALSE(vxBase::HaveStackTrace());
    EXPECT_TRUE(vxGlobal.stackTrace.events.empty());
    EXPECT_FALSE(vxtest::latched());
}

TEST_F(vxBaseTest, MessageWithErrnoAppendsErrorText)
{
    vxBytes object;
    object.addHistory("bool f()", "f.cpp", 1);
    errno = ENOENT;
    object.addMessageWithErrno("open(%s) failed: ", "key");
    EXPECT_EQ(vxtest::trailMessages(),
              std::vector<std::string>{"open(key) failed: No such file or directory"});
}

TEST_F(vxBaseTest, MessagesAreCutAt1023Characters)
{
    struct row
    {
        size_t length;
        size_t kept;
    };

    const std::vector<row> rows = {{1022, 1022}, {1023, 1023}, {1024, 1023}, {5000, 1023}};
    vxBytes object;
    for (const row& r : rows) {
        vxBase::lvxClearLastError();
        std::string text;
        for (size_t i = 0; i < r.length; ++i) {
            text.push_back(static_cast<char>('a' + i % 26));
        }
        object.addHistory("bool f()", "f.cpp", 1);
        object.addMessage("%s", text.c_str());
        object.addMessage("f.cpp", 2, "%s", text.c_str());
        EXPECT_EQ(vxtest::trailMessages(), std::vector<std::string>(2, text.substr(0, r.kept)))
            << r.length;
    }
}

TEST_F(vxBaseTest, ClearLastErrorClearsLatchAndTrail)
{
    latchByFailure();
    EXPECT_TRUE(vxBase::HaveStackTrace());
    vxBase::lvxClearLastError();
    EXPECT_FALSE(vxtest::latched());
    EXPECT_FALSE(vxBase::HaveStackTrace());
    EXPECT_EQ(vxtest::dumpTrail(), "|----------|------|---------------|\n"
                                   "| Filename | Line | Message Hints |\n"
                                   "|----------|------|---------------|\n"
                                   "|----------|------|---------------|\n");
}

// --- The open protocol ---

TEST_F(vxBaseTest, PreOpenLinkageViolations)
{
    // child -> owner (a vxMutex at depth 2) -> grand (a vxBytes) -> frame or nothing.
    struct row
    {
        const char* title;
        bool grandNamed;
        uint32_t grandDepth;
        bool grandUnderFrame;
        std::vector<std::string> expected; ///< empty: the linkage is sound
    };

    const std::vector<row> rows = {
        {"sound", true, 1, true, {}},
        {"unnamed",
         false,
         1,
         true,
         {"Object protocol violation:  Unnamed object.", "Opened by: veltrix::vxMutex",
          "Protocol violation -- Unknown object name."}},
        {"depth mismatch",
         true,
         3,
         true,
         {"Object protocol violation.  Linkage depth mismatch.", "Opened by: veltrix::vxMutex",
          "Opened by: veltrix::vxBytes"}},
        {"not found",
         true,
         1,
         false,
         {"Object protocol violation:  Linkage to parent not found.", "Opened by: veltrix::vxMutex",
          "Opened by: veltrix::vxBytes"}},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.title);
        vxBase::lvxClearLastError();
        vxBytes grand;
        grand.depth = r.grandDepth;
        grand.parent = r.grandUnderFrame ? &frame : nullptr;
        grand.openFile = "/src/app/grand.cpp";
        grand.openLine = 21;
        if (!r.grandNamed) {
            grand.name.clear();
        }
        vxMutex owner;
        owner.depth = 2;
        owner.parent = &grand;
        owner.openFile = "/src/app/owner.cpp";
        owner.openLine = 22;
        vxBytes child;

        const bool ok = child.PreOpen("/src/app/caller.cpp", 99, &owner);
        EXPECT_EQ(child.depth, 3U);
        EXPECT_EQ(child.parent, &owner);
        EXPECT_EQ(child.openLine, 99U);
        EXPECT_FALSE(child.opened);
        if (r.expected.empty()) {
            EXPECT_TRUE(ok);
            EXPECT_FALSE(vxtest::latched());
            EXPECT_FALSE(vxBase::HaveStackTrace());
            continue;
        }
        EXPECT_FALSE(ok);
        EXPECT_TRUE(vxtest::latched());
        ASSERT_EQ(eventCount(), 1U);
        const veltrix::vxHistoryEvent& event = vxGlobal.stackTrace.events.front();
        // Reported where the caller opened the object.
        EXPECT_EQ(event.file, "caller.cpp");
        EXPECT_EQ(event.line, "99");
        EXPECT_EQ(vxtest::trailMessages(), r.expected);
        // The owner's "Opened by" line carries the place the owner was opened.
        ASSERT_GE(event.lines.size(), 2U);
        EXPECT_EQ(event.lines[1].file, "owner.cpp");
        EXPECT_EQ(event.lines[1].line, "22");
    }
}

TEST_F(vxBaseTest, PreOpenOfOpenObjectReportsItsLines)
{
    vxBytes object;
    ASSERT_TRUE(frame.open(object));
    ASSERT_NE(object.initLine, 0);
    ASSERT_NE(object.openLine, 0U);
    const std::string expected =
        "Object in incorrect state:  Expected closed, Inited: " + std::to_string(object.initLine) +
        ",  Opened: " + std::to_string(object.openLine);
    EXPECT_FAILS_WITH(object.PreOpen("again.cpp", 5, &frame), expected);
    EXPECT_EQ(eventCount(), 1U);
    vxBase::lvxClearLastError();
    EXPECT_TRUE(vxtest::testFrame::close(object));
}

TEST_F(vxBaseTest, PostOpenWithoutPreOpenIsAViolation)
{
    vxBytes object;
    EXPECT_FAILS_WITH(object.PostOpen(1), "Object Protocol Violation -- : Use LVX_CALL_OPEN().");
    EXPECT_FALSE(object.opened);
}

TEST_F(vxBaseTest, PostOpenOfOpenObjectIsQuietlyFalse)
{
    vxBytes object;
    ASSERT_TRUE(frame.open(object));
    EXPECT_FALSE(object.PostOpen(1));
    EXPECT_FALSE(vxtest::latched());
    EXPECT_FALSE(vxBase::HaveStackTrace());
    // The open check comes before the latch check: quiet even while latched.
    latchByFailure();
    const size_t before = eventCount();
    EXPECT_FALSE(object.PostOpen(1));
    EXPECT_EQ(eventCount(), before);
    EXPECT_TRUE(object.opened);
    vxBase::lvxClearLastError();
    EXPECT_TRUE(vxtest::testFrame::close(object));
}

TEST_F(vxBaseTest, PreCloseOfClosedObjectFails)
{
    vxBytes object;
    EXPECT_FAILS_WITH(object.PreClose(), "Object in incorrect state:  Expected open. ");
}

TEST_F(vxBaseTest, CloseKeepsLinksAndAllowsReopen)
{
    vxBytes object;
    ASSERT_TRUE(frame.open(object));
    EXPECT_TRUE(object.opened);
    EXPECT_EQ(object.depth, 1U);
    EXPECT_EQ(object.parent, &frame);
    const uint32_t openLine = object.openLine;

    ASSERT_TRUE(vxtest::testFrame::close(object));
    EXPECT_FALSE(object.opened);
    EXPECT_EQ(object.openLine, openLine);
    EXPECT_EQ(object.depth, 1U);
    EXPECT_EQ(object.parent, &frame);

    ASSERT_TRUE(frame.open(object));
    EXPECT_TRUE(object.opened);
    EXPECT_TRUE(vxtest::testFrame::close(object));
    EXPECT_FALSE(vxBase::HaveStackTrace());
}

TEST_F(vxBaseTest, PostCloseOfNeverOpenedObjectIsQuietlyFalse)
{
    vxBytes object;
    EXPECT_FALSE(object.PostClose());
    EXPECT_FALSE(vxtest::latched());
    EXPECT_FALSE(vxBase::HaveStackTrace());
}

TEST_F(vxBaseTest, LatchRefusesEveryGuardedStepWithOneEvent)
{
    vxBytes closed;
    vxBytes open;
    ASSERT_TRUE(frame.open(open));
    vxBytes source;
    source.bytes = {1, 2, 3};
    unsigned char out[4] = {};

    struct row
    {
        const char* title;
        std::function<bool()> op;
    };

    const std::vector<row> rows = {
        {"PreOpen", [&] { return closed.PreOpen("f.cpp", 1, &frame); }},
        {"PostOpen", [&] { return closed.PostOpen(1); }},
        {"PreClose", [&] { return open.PreClose(); }},
        {"PostClose", [&] { return open.PostClose(); }},
        {"open through the frame", [&] { return frame.open(closed); }},
        {"ExportToC", [&] { return source.ExportToC(4, out); }},
        {"CopyOffsets", [&] { return closed.CopyOffsets(0, 1, source); }},
    };
    latchByFailure();
    for (const row& r : rows) {
        const size_t before = eventCount();
        EXPECT_FALSE(r.op()) << r.title;
        EXPECT_TRUE(vxtest::latched()) << r.title;
        ASSERT_EQ(eventCount(), before + 1) << r.title;
        const veltrix::vxHistoryEvent& event = vxGlobal.stackTrace.events.back();
        ASSERT_EQ(event.lines.size(), 1U) << r.title;
        EXPECT_EQ(event.lines[0].message, unable) << r.title;
    }
    for (const std::string& message : vxtest::trailMessages()) {
        EXPECT_NE(message, "Boolean return value failed.");
    }
    EXPECT_TRUE(open.opened);
    EXPECT_FALSE(closed.opened);
    EXPECT_TRUE(closed.bytes.empty());
    vxBase::lvxClearLastError();
    EXPECT_TRUE(vxtest::testFrame::close(open));
}

// --- Destroying open objects ---

template <class Object>
void expectUnclosedReport(vxtest::testFrame& frame, const std::string& readable)
{
    {
        Object object;
        ASSERT_TRUE(frame.open(object));
    }
    EXPECT_TRUE(vxtest::latched());
    EXPECT_EQ(vxtest::trailMessages(),
              (std::vector<std::string>{"Object ( " + readable +
                                            " ) was not closed before going out of scope. ",
                                        "Opened by: " + readable}));
    ASSERT_EQ(eventCount(), 1U);
    // The "Opened by" line names where the frame opened the object.
    EXPECT_EQ(vxGlobal.stackTrace.events.front().lines[1].file, "vxTest.h");
}

TEST_F(vxBaseTest, DestroyingOpenBytesIsReported)
{
    expectUnclosedReport<vxBytes>(frame, "veltrix::vxBytes");
}

TEST_F(vxBaseTest, DestroyingOpenMutexIsReported)
{
    expectUnclosedReport<vxMutex>(frame, "veltrix::vxMutex");
}

TEST_F(vxBaseTest, DestroyingOpenObjectWhileLatchedAddsNothing)
{
    latchByFailure();
    const size_t before = eventCount();
    {
        vxBytes object;
        object.opened = true;
    }
    EXPECT_EQ(eventCount(), before);
    EXPECT_EQ(vxtest::trailMessages().size(), 1U);
}

/** Derives from vxBase without a destructor check of its own. */
class bareObject : public vxBase
{
};

TEST_F(vxBaseTest, BaseDestructorReportsAddress)
{
    vxBytes recorder;
    recorder.addHistory("bool f()", "f.cpp", 1);
    auto* object = new bareObject;
    ASSERT_TRUE(frame.open(*object));
    const auto address = reinterpret_cast<std::uintptr_t>(object);
    delete object;

    EXPECT_TRUE(vxtest::latched());
    const std::vector<std::string> messages = vxtest::trailMessages();
    ASSERT_EQ(messages.size(), 1U);
    std::smatch match;
    ASSERT_TRUE(std::regex_match(messages[0], match,
                                 std::regex(R"(Object: \( 0x([0-9a-fA-F]+) \) was not closed\.)")))
        << messages[0];
    EXPECT_EQ(std::stoull(match[1].str(), nullptr, 16), address);
}

// --- Process-wide data ---

TEST(libveltrixInit, IsIdempotentAndRegistersLibraryOnce)
{
    libveltrix_init();
    ASSERT_TRUE(vxGlobal.inited);
    ASSERT_NE(vxGlobal.root, nullptr);
    ASSERT_NE(vxGlobal.versions, nullptr);
    const vxBase* root = vxGlobal.root;
    const veltrix::vxVersions* versions = vxGlobal.versions;
    libveltrix_init();
    libveltrix_init();
    EXPECT_EQ(vxGlobal.root, root);
    EXPECT_EQ(vxGlobal.versions, versions);
    EXPECT_EQ(root->depth, 0U);
    EXPECT_EQ(root->parent, nullptr);
    using entry = std::pair<std::string, std::string>;
    EXPECT_EQ(vxGlobal.versions->libraries, std::vector<entry>{entry("libveltrix", "2.0")});
}

} // namespace
