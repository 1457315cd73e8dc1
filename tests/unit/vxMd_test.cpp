// Message digests through vxMd and the algorithm identifiers: published known answers, agreement
// with the coreutils tools, the protocol of every operation, stream output and vxDebug's trace.

#include "cryptoapi.h"
#include "vxTest.h"

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using veltrix::vxBytes;
using veltrix::vxCipherId;
using veltrix::vxHashId;
using veltrix::vxMd;
using vxtest::testFrame;

/** The message of a known-answer case: In repeated Repeat times. */
std::string messageOf(const vxtest::katCase& kat)
{
    const std::vector<unsigned char> unit = vxtest::unhex(kat.fields.at("In"));
    const auto repeat = kat.fields.find("Repeat");
    const size_t times = repeat == kat.fields.end() ? 1 : std::stoul(repeat->second);
    std::string message;
    for (size_t i = 0; i < times; ++i) {
        message.append(unit.begin(), unit.end());
    }
    return message;
}

/** The five forms of Update, by index: pointer and size, const text, moved text, text pointer,
 *  bytes. */
bool feed(vxMd& md, const std::string& part, size_t form)
{
    // clang-format off
    switch (form) {
    case 0: return md.Update(part.data(), static_cast<uint32_t>(part.size()));
    case 1: return md.Update(part);
    case 2: return md.Update(std::string(part));
    case 3: return md.Update(&part);
    default: return md.Update(vxtest::bytesOf(part));
    }
    // clang-format on
}

constexpr size_t pointerAndSize = 0;
constexpr size_t allForms[] = {0, 1, 2, 3, 4};
constexpr size_t bytesForm = 4;

bool endsWith(const std::string& text, const std::string& tail)
{
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

class vxMdTest : public vxtest::vxCryptoTest
{
protected:
    bool openDigest(vxHashId& id, vxMd& md, uint32_t value)
    {
        return frame.openChild(id, value) && frame.openChild(md, id);
    }

    static void closeDigest(vxHashId& id, vxMd& md) { testFrame::closeAll(md, id); }

    /** Opens the fixture's SHA-1 digest and starts a message; closed when the case ends. */
    bool openSha1()
    {
        closeAtEnd = {&sha1, &sha1Id};
        return openDigest(sha1Id, sha1, vxHashId::sha1) && sha1.Init();
    }

    static uint32_t lengthOf(vxMd& md)
    {
        uint32_t size = 99;
        EXPECT_TRUE(md.GetLength(size));
        return size;
    }

    /** Hex digest of `message` fed in pieces of at most `piece` bytes through `form`. */
    std::string digestOf(uint32_t value, const std::string& message, size_t form,
                         size_t piece = SIZE_MAX)
    {
        vxHashId id;
        vxMd md;
        std::string text;
        EXPECT_TRUE(openDigest(id, md, value)) << vxtest::dumpTrail();
        EXPECT_TRUE(md.Init());
        for (size_t at = 0; at < message.size(); at += piece) {
            EXPECT_TRUE(feed(md, message.substr(at, piece), form));
        }
        EXPECT_TRUE(md.Final());
        EXPECT_TRUE(md.GetString(text)) << vxtest::dumpTrail();
        closeDigest(id, md);
        return text;
    }

    vxHashId sha1Id;
    vxMd sha1;
};

TEST_F(vxMdTest, PublishedVectorsThroughEveryUpdateFormAndTheCoreutilsTools)
{
    const auto cases = vxtest::readKat("digests.vec");
    ASSERT_EQ(cases.size(), 28U); // MD5 eight, each SHA five
    for (const auto& kat : cases) {
        const std::string message = messageOf(kat);
        const std::string expected = vxtest::upper(kat.fields.at("Out"));
        // The million-byte messages go in 1000-byte pieces; the form matters less than the total.
        const size_t piece = message.size() > 100000 ? 1000 : SIZE_MAX;
        for (const size_t form : allForms) {
            EXPECT_EQ(
                digestOf(vxtest::idOf(vxtest::digests(), kat.algorithm), message, form, piece),
                expected)
                << kat.algorithm << " In=" << kat.fields.at("In") << " form=" << form;
        }
        if (kat.algorithm == "sha256") { // the truncated digest: the first sixteen bytes
            EXPECT_EQ(digestOf(vxHashId::sha256_128, message, bytesForm, 4096),
                      expected.substr(0, 32));
        }
    }
    EXPECT_EQ(digestOf(vxHashId::sha256, "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
                       pointerAndSize, 1),
              "248D6A61D20638B8E5C026930C3E6039A33CE45964FF2167F6ECEDD419DB06C1")
        << "a byte at a time";
    EXPECT_FALSE(vxtest::latched());
    const vxtest::tempDir dir;

    // clang-format off
    const struct { uint32_t id; const char* tool; } tools[] = {{vxHashId::md5, "md5sum"}, {vxHashId::sha1, "sha1sum"}, {vxHashId::sha256, "sha256sum"}, {vxHashId::sha384, "sha384sum"}, {vxHashId::sha512, "sha512sum"}};

    // clang-format on
    uint32_t generator = 0x2545F491U; // xorshift32 with a fixed start: the same files every run
    for (const size_t size : std::vector<size_t>{0, 1, 55, 64, 1000, 100000}) {
        std::string content(size, '\0');
        for (char& c : content) {
            generator ^= generator << 13U;
            generator ^= generator >> 17U;
            generator ^= generator << 5U;
            c = static_cast<char>(generator & 0xFFU);
        }
        const std::string path = dir.path("random" + std::to_string(size) + ".bin");
        std::ofstream(path, std::ios::binary) << content;
        for (const auto& tool : tools) {
            const std::string line = vxtest::run(std::string(tool.tool) + " " + path);
            EXPECT_EQ(digestOf(tool.id, content, bytesForm, 777),
                      vxtest::upper(line.substr(0, line.find(' '))))
                << tool.tool << " on " << size << " bytes";
        }
    }
}

/** A refused value keeps the old one; neither records anything. */
template <class Id> void expectAccepted(uint32_t old, uint32_t value, bool accepted)
{
    Id id;
    ASSERT_TRUE(id.Open(old));
    EXPECT_EQ(id.Open(value), accepted) << value;
    uint32_t now = 0;
    EXPECT_TRUE(id.GetValue(now));
    EXPECT_EQ(now, accepted ? value : old) << value;
}

TEST_F(vxMdTest, IdentifiersTakeOnlyKnownValuesAndARefusedValueKeepsTheOld)
{
    // clang-format off
    const std::pair<uint32_t, bool> hashCases[] = {{0, false}, {1, true}, {2, true}, {3, true}, {4, true}, {5, true}, {6, false}, {7, false}, {18, false}, {19, true}, {20, false}, {255, false}, {0x10003U, false}, {0xFFFFFFFFU, false}};
    const std::pair<uint32_t, bool> cipherCases[] = {{0, false}, {1, true}, {2, true}, {3, true}, {4, true}, {5, false}, {19, false}};
    // clang-format on
    for (const auto& [value, accepted] : hashCases) {
        expectAccepted<vxHashId>(vxHashId::sha384, value, accepted);
    }
    for (const auto& [value, accepted] : cipherCases) {
        expectAccepted<vxCipherId>(vxCipherId::aes192, value, accepted);
    }
    EXPECT_QUIET();
    uint32_t value = 99;
    EXPECT_TRUE(vxHashId().GetValue(value));
    EXPECT_EQ(value, 0U);
    value = 99;
    EXPECT_TRUE(vxCipherId().GetValue(value));
    EXPECT_EQ(value, 0U);
}

TEST_F(vxMdTest, AnUnsetIdentifierOpensNoDigestQuietly)
{
    const vxHashId neverSet; // value 0
    vxMd md;
    EXPECT_FALSE(md.Open(neverSet));
    EXPECT_FALSE(md.storage.isopen);
    vxBytes digest = vxtest::bufferOf({7});
    EXPECT_FALSE(md.GetBytes(digest)) << "an unopened digest is quiet too";
    EXPECT_EQ(digest.bytes, std::vector<unsigned char>{7});
    EXPECT_QUIET();
}

TEST_F(vxMdTest, OpenRefusesWhileLatched)
{
    vxHashId id;
    ASSERT_TRUE(id.Open(vxHashId::md5));
    vxMd md;
    vxGlobal.stackTrace.errorLatch = true;
    EXPECT_FALSE(md.Open(id));
    EXPECT_EQ(vxtest::firstMessage(), vxtest::kRefusal);
    EXPECT_FALSE(md.storage.isopen);
}

TEST_F(vxMdTest, GetStringBeforeFinalFailsAndLeavesTheText)
{
    ASSERT_TRUE(openSha1() && sha1.Update(std::string("abc")));
    std::string text = "unchanged";
    EXPECT_FAILS_WITH(sha1.GetString(text), "( finalized == true )");
    EXPECT_EQ(text, "unchanged");
}

TEST_F(vxMdTest, GetBytesReplacesTheBufferAndUpdateAfterFinalFails)
{
    ASSERT_TRUE(openSha1() && sha1.Update(std::string("abc")) && sha1.Final());
    vxBytes digest = vxtest::bufferOf({1, 2, 3});
    EXPECT_TRUE(sha1.GetBytes(digest));
    EXPECT_EQ(vxtest::hexOf(digest), "A9993E364706816ABA3E25717850C26C9CD0D89D");
    EXPECT_FAILS_WITH(sha1.Update(std::string("c")), "finalized == false");
    // Latched: every guarded form refuses.
    for (const size_t form : allForms) {
        EXPECT_REFUSED(feed(sha1, "c", form));
    }
    std::string text;
    EXPECT_FALSE(sha1.GetString(text));
}

TEST_F(vxMdTest, InitDropsWhatCameBefore)
{
    ASSERT_TRUE(openSha1() && sha1.Update(std::string("some earlier message")));
    ASSERT_TRUE(sha1.Init() && sha1.Final());
    std::string text;
    EXPECT_TRUE(sha1.GetString(text));
    EXPECT_EQ(text, "DA39A3EE5E6B4B0D3255BFEF95601890AFD80709");
}

TEST_F(vxMdTest, AClosedDigestHasNoBytes)
{
    ASSERT_TRUE(openSha1() && sha1.Final());
    closeDigest(sha1Id, sha1);
    EXPECT_FALSE(sha1.storage.isopen);
    EXPECT_FALSE(sha1.opened);
    vxBytes digest;
    EXPECT_FALSE(sha1.GetBytes(digest));
    EXPECT_QUIET();
}

TEST_F(vxMdTest, GetBytesBeforeFinalHasTheDigestsSizeAndGetLengthCountsSinceInit)
{
    for (const auto& c : vxtest::kDigestSizes) {
        SCOPED_TRACE(c.id);
        vxHashId id;
        vxMd md;
        ASSERT_TRUE(openDigest(id, md, c.id) && md.Init());
        EXPECT_EQ(lengthOf(md), 0U);
        ASSERT_TRUE(md.Update("abc", 3));
        vxBytes digest;
        EXPECT_TRUE(md.GetBytes(digest)) << "before Final";
        EXPECT_EQ(digest.bytes.size(), c.size);
        ASSERT_TRUE(md.Update(vxtest::bytesOf("defgh")));
        EXPECT_EQ(lengthOf(md), 8U);
        ASSERT_TRUE(md.Final());
        EXPECT_EQ(lengthOf(md), 8U);
        ASSERT_TRUE(md.Init()); // a new message starts from zero
        EXPECT_EQ(lengthOf(md), 0U);
        closeDigest(id, md);
    }
    EXPECT_FALSE(vxtest::latched());
}

TEST_F(vxMdTest, AStreamGetsTheHexDigestAndTheDigestCanBeWrittenAgain)
{
    vxHashId id;
    vxMd md;
    ASSERT_TRUE(openDigest(id, md, vxHashId::md5) && md.Init() &&
                md.Update(std::string("message digest")) && md.Final());
    std::ostringstream out;
    out << md << md;
    EXPECT_EQ(out.str(), "F96B697D7CB7938D525A2F31AAF161D0F96B697D7CB7938D525A2F31AAF161D0");
    EXPECT_FALSE(vxtest::latched());
    closeDigest(id, md);
}

TEST_F(vxMdTest, AnUnfinishedDigestWritesAProtocolErrorAndLatches)
{
    ASSERT_TRUE(openSha1());
    std::ostringstream unfinished;
    unfinished << sha1;
    EXPECT_EQ(unfinished.str(), "Object protocol error");
    EXPECT_TRUE(vxtest::latched());
    EXPECT_EQ(vxtest::firstMessage(), "( finalized == true )");
}

/** The process's debug object, closed and unlinked from the case's frame when the case ends. */
class vxMdTraceTest : public vxMdTest
{
protected:
    void TearDown() override
    {
        veltrix::vxBase::lvxClearLastError();
        if (vxGlobal.debug.opened) {
            EXPECT_TRUE(testFrame::closeChild(vxGlobal.debug));
        }
        // A closed object keeps its links; the frame goes at the end of the case, so that a later
        // case does not walk to a frame that no longer exists.
        vxGlobal.debug.parent = nullptr;
        vxGlobal.debug.depth = 0;
        vxMdTest::TearDown();
    }

    /** What `action` writes on standard error. */
    template <class Action> static std::string stderrOf(const Action& action)
    {
        testing::internal::CaptureStderr();
        action();
        return testing::internal::GetCapturedStderr();
    }
};

TEST_F(vxMdTraceTest, TraceMdFailsOnAClosedDebugObjectWritingNothing)
{
    ASSERT_FALSE(vxGlobal.debug.opened);
    EXPECT_EQ(stderrOf([] {
                  EXPECT_FALSE(vxGlobal.debug.TraceMd(vxtest::bytesOf("abc"), "never written"));
              }),
              "");
    EXPECT_TRUE(vxtest::latched());
}

TEST_F(vxMdTraceTest, TraceMdWritesOneLineEndingInTheMd5OfTheData)
{
    ASSERT_TRUE(frame.openChild(vxGlobal.debug));
    std::string written = stderrOf([] {
        EXPECT_TRUE(vxGlobal.debug.TraceMd(vxtest::bytesOf("abc"), "block %d of %s", 7, "key"))
            << vxtest::dumpTrail();
    });
    EXPECT_TRUE(endsWith(written, "block 7 of key : 900150983CD24FB0D6963F7D28E17F72\n"))
        << written;
    EXPECT_EQ(written.find('\n'), written.size() - 1) << "one line";
    written = stderrOf([] { EXPECT_TRUE(vxGlobal.debug.TraceMd(vxBytes(), "empty")); });
    EXPECT_TRUE(endsWith(written, "empty : D41D8CD98F00B204E9800998ECF8427E\n")) << written;
    EXPECT_FALSE(vxtest::latched());
}

TEST_F(vxMdTraceTest, TraceMdRefusesWhileLatchedWritingNothing)
{
    ASSERT_TRUE(frame.openChild(vxGlobal.debug));
    vxGlobal.stackTrace.errorLatch = true;
    EXPECT_EQ(stderrOf([] {
                  EXPECT_FALSE(vxGlobal.debug.TraceMd(vxtest::bytesOf("abc"), "never written"));
              }),
              "");
    EXPECT_EQ(vxtest::firstMessage(), vxtest::kRefusal);
}

TEST(vxDebug, DumpVecPrintsEachByteInLowerCaseHexWithoutLeadingZeros)
{
    // clang-format off
    const struct { std::vector<unsigned char> data; const char* printed; } dumps[] = {{{0x0A, 0xFF, 0x00}, "a ff 0 \n"}, {{}, "\n"}, {{0x10, 0x01, 0xAB}, "10 1 ab \n"}};

    // clang-format on
    for (const auto& d : dumps) {
        testing::internal::CaptureStdout();
        veltrix::vxDebug::dumpVec(d.data);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), d.printed);
    }
}

} // namespace
