// Shared test support: a frame that opens objects under the protocol, a fixture that starts every
// case with an empty trail, trail accessors, hex helpers, the plug-in and known-answer files.
#pragma once

#include "vxGlobal.h"
#include "vxMain.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace vxtest {

/** The whole DumpStackTrace output. */
std::string dumpTrail();

/** The root of a test's object tree; opens and closes objects as an owner would. */
class testFrame : public veltrix::vxMain
{
public:
    bool main(int /*argc*/, char** /*argv*/) override { return mainResult; }

    template <class Child, class... Args> bool open(Child& child, Args&&... args)
    {
        LVX_CALL_OPEN(child, std::forward<Args>(args)...);
        return true;
    }

    /** PreClose, Close, PostClose; false at the first step that fails. */
    static bool close(veltrix::vxBase& child)
    {
        return child.PreClose() && child.Close() && child.PostClose();
    }

    /** Closes each object in turn, expecting every close to succeed. */
    template <class... Objects> static void closeAll(Objects&... objects)
    {
        (closeExpected(objects), ...);
    }

    static void closeExpected(veltrix::vxBase& child) { EXPECT_TRUE(close(child)) << dumpTrail(); }

    bool mainResult = true;
};

/** Every case starts with a clear latch and an empty trail, under its own frame. */
class vxTest : public ::testing::Test
{
protected:
    void SetUp() override { veltrix::vxBase::lvxClearLastError(); }

    void TearDown() override { veltrix::vxBase::lvxClearLastError(); }

    testFrame frame;
};

/** A fixture whose cases also need the crypto plug-in loaded. */
class vxCryptoTest : public vxTest
{
protected:
    void SetUp() override;
};

bool latched();
/** Sets the latch through a real failure, leaving its one event in the trail. */
void latchByFailure();
/** Every message line of the trail, oldest first. */
std::vector<std::string> trailMessages();
/** The first line of the oldest event: the innermost failure. */
std::string firstMessage();

/** Loads the OpenSSL plug-in from the build tree once per process. */
void ensurePlugin();

std::string toHex(const std::vector<unsigned char>& bytes);
veltrix::vxBytes bytesOf(const std::string& text);

/** Hex to bytes, bytes to upper-case hex, and upper-casing, all independent of the library. */
std::vector<unsigned char> unhex(const std::string& hex);
std::string hexUpper(const std::string& bytes);
std::string upper(std::string text);
/** A whole file as bytes, and a file (re)written with `bytes`. */
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& bytes);

/** Runs a shell command and returns its standard output; fails the test on a nonzero status. */
std::string run(const std::string& command);

/** A fresh directory under the system temporary directory, removed by the destructor. */
class tempDir
{
public:
    tempDir();
    tempDir(const tempDir&) = delete;
    tempDir& operator=(const tempDir&) = delete;
    tempDir(tempDir&&) = delete;
    tempDir& operator=(tempDir&&) = delete;
    ~tempDir();

    std::string path(const std::string& name) const { return dir + "/" + name; }

    const std::string& str() const { return dir; }

private:
    std::string dir;
};

/** One known-answer case of a .vec file: its fields (Key, In, Out, ...) as raw text. */
struct katCase
{
    std::string algorithm;
    std::map<std::string, std::string> fields;
};

/** Reads tests/kat/<file>: "#" comments, "[algorithm]" headers, "Name = value" lines; a blank line
 *  ends a case. */
std::vector<katCase> readKat(const std::string& file);

} // namespace vxtest

/** `op` returns false, the latch is set and the innermost failure reads exactly `text`. */
#define EXPECT_FAILS_WITH(op, text)                \
    do {                                           \
        EXPECT_FALSE(op);                          \
        EXPECT_TRUE(vxtest::latched());            \
        EXPECT_EQ(vxtest::firstMessage(), (text)); \
    } while (0)

/** Nothing was recorded: the latch is clear and the trail holds no message. */
#define EXPECT_QUIET()                                \
    do {                                              \
        EXPECT_FALSE(vxtest::latched());              \
        EXPECT_TRUE(vxtest::trailMessages().empty()); \
    } while (0)

/** `op` returns false and the newest trail line is the latch refusal. */
#define EXPECT_REFUSED(op)                                                                   \
    do {                                                                                     \
        EXPECT_FALSE(op);                                                                    \
        EXPECT_EQ(vxtest::trailMessages().back(), "Unable to continue from previous error"); \
    } while (0)
