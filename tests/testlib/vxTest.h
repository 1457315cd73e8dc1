// Shared test support: a frame that opens objects under the protocol, a fixture that starts every
// case with an empty trail, trail accessors, hex helpers, the plug-in and known-answer files.
#pragma once

#include "vxGlobal.h"
#include "vxMain.h"

#include <gtest/gtest.h>

#include <cstdint>
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

    /** Closes each object in turn, expecting every close to succeed. */
    template <class... Objects> static void closeAll(Objects&... objects)
    {
        (closeExpected(objects), ...);
    }

    static void closeExpected(veltrix::vxBase& child)
    {
        EXPECT_TRUE(closeChild(child)) << dumpTrail();
    }

    bool mainResult = true;
};

/** Every case starts with a clear latch and an empty trail, under its own frame. */
class vxTest : public ::testing::Test
{
protected:
    void SetUp() override { veltrix::vxBase::lvxClearLastError(); }

    /** Clears the latch, which refuses a close, then closes whatever of `closeAtEnd` is open, in
     *  order, expecting each close to succeed. */
    void TearDown() override;

    testFrame frame;
    /** The fixture's objects, closed by TearDown however the case left them. */
    std::vector<veltrix::vxBase*> closeAtEnd;
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

/** A name and the id the library's table gives it. */
using namedId = std::pair<std::string, uint32_t>;
/** Every cipher and every digest, by name and id, as the library's tables list them. */
std::vector<namedId> ciphers();
std::vector<namedId> digests();
/** The id of the cipher or digest named `name`; a test failure and 0 for an unknown name. */
uint32_t idOf(const std::vector<namedId>& table, const std::string& name);

/** A digest's id and the size of its value, written out apart from the library's table. */
struct digestSize
{
    uint32_t id;
    size_t size;
};

extern const std::vector<digestSize> kDigestSizes;

/** Loads the OpenSSL plug-in from the build tree once per process. */
void ensurePlugin();

/** The trail's refusal of every guarded step while the latch is set. */
inline constexpr const char* kRefusal = "Unable to continue from previous error";
/** The failure of an operation on an object that is not open. */
inline constexpr const char* kExpectedOpen = "Object in incorrect state:  Expected open. ";

std::string toHex(const std::vector<unsigned char>& bytes);
/** A buffer's bytes as upper-case hex. */
std::string hexOf(const veltrix::vxBytes& data);
veltrix::vxBytes bytesOf(const std::string& text);
veltrix::vxBytes bufferOf(const std::vector<unsigned char>& bytes);
/** Hex text as a buffer. */
veltrix::vxBytes fromHex(const std::string& hex);
/** `size` bytes of `value`. */
veltrix::vxBytes filled(size_t size, unsigned char value);
/** `size` bytes that differ with `seed`: byte i is i * 7 + seed. */
veltrix::vxBytes payload(size_t size, unsigned seed);

/** Hex to bytes, bytes to upper-case hex, and upper-casing, all independent of the library. */
std::vector<unsigned char> unhex(const std::string& hex);
std::string hexUpper(const std::string& bytes);
std::string upper(std::string text);
/** A whole file as bytes, and a file (re)written with `bytes`. */
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& bytes);

/** Runs a shell command and returns its standard output; fails the test on a nonzero status. */
std::string run(const std::string& command);

/** The directory of the library's bind log, moved aside while the object lives and put back
 *  after, with whatever a case left in its place removed. The path is shared by every process on
 *  the machine: the cases that bind run one at a time. */
class bindLogAside
{
public:
    static constexpr const char* kDir = "/tmp/fw/log";
    static constexpr const char* kFile = "/tmp/fw/log/vxNetSocket.log";

    bindLogAside();
    LVX_NOT_COPYABLE(bindLogAside);
    ~bindLogAside();

    /** Creates the directory, so that binds write the log. */
    static void create();

private:
    std::string saved;
};

/** A fresh directory under the system temporary directory, removed by the destructor. */
class tempDir
{
public:
    tempDir();
    LVX_NOT_COPYABLE(tempDir);
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
#define EXPECT_REFUSED(op)                                           \
    do {                                                             \
        EXPECT_FALSE(op);                                            \
        EXPECT_EQ(vxtest::trailMessages().back(), vxtest::kRefusal); \
    } while (0)
