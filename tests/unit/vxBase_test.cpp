// The object protocol, the error trail and its printed form.
#include "cryptoapi.h"
#include "vxNetSocket.h"
#include "vxTest.h"
#include "vxThread.h"
#include "vxVersions.h"

#include <cerrno>
#include <cstdint>
#include <functional>
#include <iomanip>
#include <regex>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using veltrix::vxBase;
using veltrix::vxBytes;
using veltrix::vxHashId;
using veltrix::vxMutex;
using vxtest::latchByFailure;
using vxBaseTest = vxtest::vxTest;

size_t eventCount()
{
    return vxGlobal.stackTrace.events.size();
}

TEST_F(vxBaseTest, DumpPrintsARowPerLineAndASeparatorBetweenEventsOfSeveralLines)
{
    vxBytes object;
    // Two lines: the first falls back to the event's file and line, the second has its own.
    object.addHistory("bool first()", "/src/deep/file1.cpp", 12);
    object.addMessage("first");
    object.addMessage(std::string("sub/other.h"), 7, "second %d", 2);
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
    EXPECT_EQ(eventCount(), 4U) << "printing does not consume the trail";
    std::ostringstream caller;
    vxBase::DumpStackTrace(caller);
    caller.str("");
    caller << std::setw(6) << 42;
    EXPECT_EQ(caller.str(), "    42") << "the caller's adjustment and fill are back";
    EXPECT_FALSE(vxtest::latched());
}

TEST_F(vxBaseTest, ALineWithoutItsOwnFileOrLineTakesTheEvents)
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

TEST_F(vxBaseTest, ClearingEmptiesTheTrailAndTheDumpIsTheHeaderAlone)
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

TEST(vxHistory, CleanupFilenameKeepsLastComponent)
{
    // clang-format off
    const struct { const char* path; const char* expected; } rows[] = {
        {"/x", ""}, {"file.cpp", "file.cpp"}, {"dir/", ""}, {"../../a/b/c.cpp", "c.cpp"}, {"/usr/src/x.h", "x.h"}, {"", ""}};

    // clang-format on
    for (const auto& r : rows) {
        const veltrix::vxHistoryEvent event("bool f()", r.path, 1);
        EXPECT_EQ(event.file, r.expected) << "event: " << r.path;
        veltrix::vxHistoryLine line;
        line.file = r.path;
        line.CleanupFilename();
        EXPECT_EQ(line.file, r.expected) << "line: " << r.path;
    }
}

TEST_F(vxBaseTest, MessageWithoutEventIsDroppedErrnoTextIsAppendedAndLongTextIsCut)
{
    vxBytes object;
    object.addMessage("%s", "nowhere to go");
    object.addMessage(std::string("file.cpp"), 3, "%s", "nor here");
    errno = ENOENT;
    object.addMessageWithErrno("%s", "open() failed: ");
    EXPECT_FALSE(vxBase::HaveStackTrace());
    EXPECT_FALSE(vxtest::latched());
    object.addHistory("bool f()", "f.cpp", 1);
    errno = ENOENT;
    object.addMessageWithErrno("open(%s) failed: ", "key");
    EXPECT_EQ(vxtest::trailMessages(),
              std::vector<std::string>{"open(key) failed: No such file or directory"});

    // Messages are cut at 1023 characters.
    // clang-format off
    const struct { size_t length; size_t kept; } rows[] = {{1022, 1022}, {1023, 1023}, {1024, 1023}, {5000, 1023}};

    // clang-format on
    for (const auto& r : rows) {
        vxBase::lvxClearLastError();
        std::string text;
        for (size_t i = 0; i < r.length; ++i) {
            text.push_back(static_cast<char>('a' + i % 26));
        }
        object.addHistory("bool f()", "f.cpp", 1);
        object.addMessage("%s", text.c_str());
        object.addMessage(std::string("f.cpp"), 2, "%s", text.c_str());
        EXPECT_EQ(vxtest::trailMessages(), std::vector<std::string>(2, text.substr(0, r.kept)))
            << r.length;
    }
}

TEST_F(vxBaseTest, FormattedCallWithANumberIsNotTakenForTheFileAndLineForm)
{
    vxBytes object;
    object.addHistory("bool f()", "f.cpp", 1);
    object.addMessage("%d of %s", 3, "x");
    object.addMessage(std::string("dir/g.cpp"), 4, "%u of %s", 5U, "y");
    const auto& lines = vxGlobal.stackTrace.events.back().lines;
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].message, "3 of x");
    EXPECT_EQ(lines[0].file, "");
    EXPECT_EQ(lines[0].line, "");
    EXPECT_EQ(lines[1].message, "5 of y");
    EXPECT_EQ(lines[1].file, "g.cpp");
    EXPECT_EQ(lines[1].line, "4");
}

template <class... T>
constexpr bool copyable = ((std::is_copy_constructible_v<T> && std::is_copy_assignable_v<T>)&&...);
template <class... T>
constexpr bool notCopyable = ((!std::is_copy_constructible_v<T> &&
                               !std::is_copy_assignable_v<T>)&&...);

// Values may be copied; a copy of an owner of plug-in state, a descriptor or children would
// release them a second time.
static_assert(copyable<vxBytes, vxHashId, veltrix::vxCipherId, veltrix::vxSequence>);
static_assert(notCopyable<veltrix::vxMd, veltrix::vxHmacMd, veltrix::vxCipher, veltrix::vxRand,
                          veltrix::vxRsa, veltrix::vxApi, vxMutex, veltrix::vxMain,
                          veltrix::vxNetSocket, veltrix::vxNetEncryptedSocket>);

TEST_F(vxBaseTest, CopiesTakeTheValueButNeverTheOpenStateOrTheLinks)
{
    vxHashId open;
    ASSERT_TRUE(frame.openChild(open, vxHashId::sha256));
    {
        vxHashId copy(open);
        vxHashId moved(std::move(copy));
        for (const vxHashId* id : {&copy, &moved}) {
            EXPECT_EQ(id->value, vxHashId::sha256);
            EXPECT_FALSE(id->opened);
            EXPECT_EQ(id->parent, nullptr);
            EXPECT_EQ(id->depth, 0U);
            EXPECT_EQ(id->openLine, 0U);
        }
        EXPECT_EQ(moved.name, open.name);
        ASSERT_TRUE(frame.openChild(moved, vxHashId::md5)) << "a copy opens under any parent";
        vxHashId closed;
        closed = open;
        EXPECT_EQ(closed.value, vxHashId::sha256);
        EXPECT_FALSE(closed.opened) << "assignment keeps the target's state";
        open = moved;
        EXPECT_EQ(open.value, vxHashId::md5);
        EXPECT_TRUE(open.opened);
        EXPECT_EQ(open.parent, &frame);
        EXPECT_TRUE(vxtest::testFrame::closeChild(moved));
    }
    EXPECT_FALSE(vxtest::latched()) << vxtest::dumpTrail();
    EXPECT_FALSE(vxBase::HaveStackTrace());
    EXPECT_TRUE(vxtest::testFrame::closeChild(open));
}

TEST_F(vxBaseTest, PreOpenLinkageViolations)
{
    // child -> owner (a vxMutex at depth 2) -> grand (a vxBytes) -> frame or nothing.
    const std::string byMutex = "Opened by: veltrix::vxMutex";

    // clang-format off
    const struct { const char* title; bool grandNamed; uint32_t grandDepth; bool grandUnderFrame; std::vector<std::string> expected; } rows[] = {
        {"sound", true, 1, true, {}}, // empty: the linkage is sound
        {"unnamed", false, 1, true, {"Object protocol violation:  Unnamed object.", byMutex, "Protocol violation -- Unknown object name."}},
        {"depth mismatch", true, 3, true, {"Object protocol violation.  Linkage depth mismatch.", byMutex, "Opened by: veltrix::vxBytes"}},
        {"not found", true, 1, false, {"Object protocol violation:  Linkage to parent not found.", byMutex, "Opened by: veltrix::vxBytes"}},
    };

    // clang-format on
    for (const auto& r : rows) {
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
        EXPECT_EQ(ok, r.expected.empty());
        EXPECT_EQ(vxtest::latched(), !r.expected.empty());
        if (r.expected.empty()) {
            EXPECT_FALSE(vxBase::HaveStackTrace());
            continue;
        }
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

TEST_F(vxBaseTest, AnOpenObjectRefusesPreOpenAndQuietlyPostOpen)
{
    vxBytes object;
    ASSERT_TRUE(frame.openChild(object));
    EXPECT_TRUE(object.opened);
    EXPECT_EQ(object.depth, 1U);
    EXPECT_EQ(object.parent, &frame);
    ASSERT_NE(object.initLine, 0);
    ASSERT_NE(object.openLine, 0U);
    EXPECT_FALSE(object.PostOpen(1));
    EXPECT_FALSE(vxtest::latched());
    EXPECT_FALSE(vxBase::HaveStackTrace());
    const std::string expected =
        "Object in incorrect state:  Expected closed, Inited: " + std::to_string(object.initLine) +
        ",  Opened: " + std::to_string(object.openLine);
    EXPECT_FAILS_WITH(object.PreOpen("again.cpp", 5, &frame), expected);
    EXPECT_EQ(eventCount(), 1U);
    // The open check comes before the latch check: PostOpen is quiet even while latched.
    EXPECT_FALSE(object.PostOpen(1));
    EXPECT_EQ(eventCount(), 1U);
    EXPECT_TRUE(object.opened);
    vxBase::lvxClearLastError();
    ASSERT_TRUE(vxtest::testFrame::closeChild(object));
}

TEST_F(vxBaseTest, CloseKeepsTheLinksAndAClosedObjectOpensAgain)
{
    vxBytes object;
    ASSERT_TRUE(frame.openChild(object));
    const uint32_t openLine = object.openLine;
    ASSERT_TRUE(vxtest::testFrame::closeChild(object));
    EXPECT_FALSE(object.opened);
    EXPECT_EQ(object.openLine, openLine);
    EXPECT_EQ(object.depth, 1U);
    EXPECT_EQ(object.parent, &frame);
    ASSERT_TRUE(frame.openChild(object)) << "a closed object opens again";
    EXPECT_TRUE(object.opened);
    EXPECT_TRUE(vxtest::testFrame::closeChild(object));
    EXPECT_FALSE(vxBase::HaveStackTrace());
}

TEST_F(vxBaseTest, TheStepsOfANeverOpenedObject)
{
    vxBytes closedObject;
    EXPECT_FALSE(closedObject.PostClose()) << "never opened: quietly false";
    EXPECT_FALSE(vxtest::latched());
    EXPECT_FALSE(vxBase::HaveStackTrace());
    EXPECT_FAILS_WITH(closedObject.PreClose(), vxtest::kExpectedOpen);
    vxBase::lvxClearLastError();
    EXPECT_FAILS_WITH(closedObject.PostOpen(1),
                      "Object Protocol Violation -- : Use LVX_CALL_OPEN().");
    EXPECT_FALSE(closedObject.opened);
}

template <class Object>
void expectUnclosedReport(vxtest::testFrame& frame, const std::string& readable)
{
    vxBase::lvxClearLastError();
    {
        Object object;
        ASSERT_TRUE(frame.openChild(object));
    }
    EXPECT_TRUE(vxtest::latched());
    EXPECT_EQ(vxtest::trailMessages(),
              (std::vector<std::string>{"Object ( " + readable +
                                            " ) was not closed before going out of scope. ",
                                        "Opened by: " + readable}));
    ASSERT_EQ(eventCount(), 1U);
    // The "Opened by" line names where the frame opened the object.
    EXPECT_EQ(vxGlobal.stackTrace.events.front().lines[1].file, "vxBase.h");
}

/** Derives from vxBase without a destructor check of its own. */
class bareObject : public vxBase
{
};

TEST_F(vxBaseTest, TheLatchRefusesEveryGuardedStep)
{
    vxBytes closed;
    vxBytes open;
    ASSERT_TRUE(frame.openChild(open));
    vxBytes source;
    source.bytes = {1, 2, 3};
    unsigned char out[4] = {};

    // clang-format off
    const struct { const char* title; std::function<bool()> op; } rows[] = {
        {"PreOpen", [&] { return closed.PreOpen("f.cpp", 1, &frame); }},
        {"PostOpen", [&] { return closed.PostOpen(1); }},
        {"PreClose", [&] { return open.PreClose(); }},
        {"PostClose", [&] { return open.PostClose(); }},
        {"open through the frame", [&] { return frame.openChild(closed); }},
        {"ExportToC", [&] { return source.ExportToC(4, out); }},
        {"CopyOffsets", [&] { return closed.CopyOffsets(0, 1, source); }},
    };

    // clang-format on
    latchByFailure();
    for (const auto& r : rows) {
        const size_t before = eventCount();
        EXPECT_FALSE(r.op()) << r.title;
        EXPECT_TRUE(vxtest::latched()) << r.title;
        ASSERT_EQ(eventCount(), before + 1) << r.title;
        const veltrix::vxHistoryEvent& event = vxGlobal.stackTrace.events.back();
        ASSERT_EQ(event.lines.size(), 1U) << r.title;
        EXPECT_EQ(event.lines[0].message, vxtest::kRefusal) << r.title;
    }
    for (const std::string& message : vxtest::trailMessages()) {
        EXPECT_NE(message, "Boolean return value failed.");
    }
    EXPECT_TRUE(open.opened);
    EXPECT_FALSE(closed.opened);
    EXPECT_TRUE(closed.bytes.empty());
    vxBase::lvxClearLastError();
    EXPECT_TRUE(vxtest::testFrame::closeChild(open));
}

TEST_F(vxBaseTest, AnOpenObjectGoingOutOfScopeIsReportedOnceUnlessLatched)
{
    expectUnclosedReport<vxBytes>(frame, "veltrix::vxBytes");
    expectUnclosedReport<vxMutex>(frame, "veltrix::vxMutex");
    {
        vxBytes object; // still latched: adds nothing
        object.opened = true;
    }
    EXPECT_EQ(eventCount(), 1U);
    EXPECT_EQ(vxtest::trailMessages().size(), 2U);
}

TEST_F(vxBaseTest, AnObjectWithoutAScopeCheckIsReportedByItsAddress)
{
    vxBytes recorder;
    recorder.addHistory("bool f()", "f.cpp", 1);
    auto* object = new bareObject;
    ASSERT_TRUE(frame.openChild(*object));
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
