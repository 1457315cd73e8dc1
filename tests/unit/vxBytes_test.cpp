// The byte buffer and hexadecimal text.
#include "vxTest.h"

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using veltrix::hexString;
using veltrix::vxBase;
using veltrix::vxBytes;
using vxBytesTest = vxtest::vxTest;
using byteVector = std::vector<unsigned char>;

const char* const unable = "Unable to continue from previous error";

vxBytes bufferOf(const byteVector& bytes)
{
    vxBytes buffer;
    buffer.bytes = bytes;
    return buffer;
}

void latchByFailure()
{
    vxBytes bytes;
    EXPECT_FALSE(bytes.PostOpen(1));
    ASSERT_TRUE(vxtest::latched());
}

TEST_F(vxBytesTest, BytesOperationsClearOrAppend)
{
    const vxBytes source = bufferOf({5, 6, 7});
    const unsigned char raw[] = {5, 6, 7};

    struct row
    {
        const char* title;
        byteVector initial;
        std::function<bool(vxBytes&)> op;
        byteVector expected;
    };

    // clang-format off
    const std::vector<row> rows = {
        {"ImportFromC replaces", {1, 2}, [&](vxBytes& b) { return b.ImportFromC(3, raw); }, {5, 6, 7}},
        {"ImportFromC of nothing empties", {1, 2}, [&](vxBytes& b) { return b.ImportFromC(0, raw); }, {}},
        {"ImportFromV replaces", {1, 2}, [](vxBytes& b) { return b.ImportFromV({9}); }, {9}},
        {"ImportFromV of nothing empties", {1, 2}, [](vxBytes& b) { return b.ImportFromV({}); }, {}},
        {"Replace takes the characters", {1, 2, 3}, [](vxBytes& b) { return b.Replace(std::string("A\0z", 3)); }, {'A', 0, 'z'}},
        {"CopyBack appends", {1, 2}, [&](vxBytes& b) { return b.CopyBack(source); }, {1, 2, 5, 6, 7}},
        {"CopyBack of empty", {1, 2}, [](vxBytes& b) { return b.CopyBack(vxBytes()); }, {1, 2}},
        {"CopyOffsets(0, 1) appends one byte", {9}, [&](vxBytes& b) { return b.CopyOffsets(0, 1, source); }, {9, 5}},
        {"CopyOffsets(1, 3) appends to the end", {9}, [&](vxBytes& b) { return b.CopyOffsets(1, 3, source); }, {9, 6, 7}},
        {"raw CopyOffsets(0, 1) appends one byte", {9}, [&](vxBytes& b) { return b.CopyOffsets(0, 1, raw); }, {9, 5}},
        {"raw CopyOffsets(1, 3) appends to the end", {9}, [&](vxBytes& b) { return b.CopyOffsets(1, 3, raw); }, {9, 6, 7}},
    };
    // clang-format on
    for (const row& r : rows) {
        vxBytes buffer = bufferOf(r.initial);
        EXPECT_TRUE(r.op(buffer)) << r.title;
        EXPECT_EQ(buffer.bytes, r.expected) << r.title;
    }
    EXPECT_FALSE(vxBase::HaveStackTrace());
    EXPECT_FALSE(vxtest::latched());
}

TEST_F(vxBytesTest, BytesScrubEmptiesAndKeepsCapacity)
{
    const std::vector<byteVector> rows = {{}, {0x00}, {1, 2, 3, 4, 5, 6, 7, 8}};
    for (const byteVector& initial : rows) {
        vxBytes buffer = bufferOf(initial);
        const size_t capacity = buffer.bytes.capacity();
        buffer.Scrub();
        EXPECT_EQ(buffer.bytes.size(), 0U) << initial.size();
        EXPECT_EQ(buffer.bytes.capacity(), capacity) << initial.size();
    }
}

TEST_F(vxBytesTest, BytesExportToStringAppendsPrintables)
{
    struct row
    {
        byteVector bytes;
        std::string initial;
        std::string expected;
    };

    const std::vector<row> rows = {
        {{0x41, 0x00, 0x42}, "", "AB"},
        {{0x41, 0x00, 0x42}, "x", "xAB"},
        {{0x20, 0x7E, 0x7F, 0x0A, 0x09}, "", " ~"},
        {{0xC3, 0xA9, 0x80, 0xFF}, "", ""},
        {{}, "kept", "kept"},
    };
    for (const row& r : rows) {
        vxBytes buffer = bufferOf(r.bytes);
        std::string out = r.initial;
        EXPECT_TRUE(buffer.ExportToString(out));
        EXPECT_EQ(out, r.expected) << vxtest::toHex(r.bytes);
    }
}

TEST_F(vxBytesTest, BytesExportToCBound)
{
    struct row
    {
        size_t size;
        uint32_t maxSize;
        bool ok;
    };

    const std::vector<row> rows = {
        {4, 4, true}, {4, 3, false}, {4, 100, true}, {0, 0, true}, {1, 0, false},
    };
    for (const row& r : rows) {
        vxBase::lvxClearLastError();
        byteVector data(r.size);
        for (size_t i = 0; i < r.size; ++i) {
            data[i] = static_cast<unsigned char>(i + 1);
        }
        const vxBytes buffer = bufferOf(data);
        byteVector out(8, 0xAA);
        if (!r.ok) {
            EXPECT_FAILS_WITH(buffer.ExportToC(r.maxSize, out.data()), "bytes.size() <= maxSize");
            EXPECT_EQ(out, byteVector(8, 0xAA)) << r.size << " into " << r.maxSize;
            continue;
        }
        EXPECT_TRUE(buffer.ExportToC(r.maxSize, out.data())) << r.size << " into " << r.maxSize;
        byteVector expected = data;
        expected.resize(8, 0xAA);
        EXPECT_EQ(out, expected);
        EXPECT_FALSE(vxBase::HaveStackTrace());
    }
}

TEST_F(vxBytesTest, BytesCopyOffsetsNeedsAnIncreasingRange)
{
    const vxBytes source = bufferOf({1, 2, 3, 4, 5});

    struct row
    {
        uint32_t offset1;
        uint32_t offset2;
    };

    const std::vector<row> rows = {{3, 3}, {4, 2}, {0, 0}};
    for (const row& r : rows) {
        for (const bool raw : {false, true}) {
            vxBase::lvxClearLastError();
            vxBytes target = bufferOf({9});
            const bool ok = raw ? target.CopyOffsets(r.offset1, r.offset2, source.bytes.data())
                                : target.CopyOffsets(r.offset1, r.offset2, source);
            SCOPED_TRACE(std::to_string(r.offset1) + "," + std::to_string(r.offset2) +
                         (raw ? " raw" : ""));
            EXPECT_FALSE(ok);
            EXPECT_TRUE(vxtest::latched());
            EXPECT_EQ(vxtest::trailMessages(), std::vector<std::string>{"offset2 > offset1"});
            EXPECT_EQ(target.bytes, byteVector{9});
        }
    }
}

TEST_F(vxBytesTest, BytesCopyOffsetsPastSourceThrows)
{
    const vxBytes source = bufferOf({1, 2, 3});

    struct row
    {
        uint32_t offset1;
        uint32_t offset2;
    };

    const std::vector<row> rows = {{1, 4}, {3, 4}, {5, 9}};
    for (const row& r : rows) {
        vxBytes target = bufferOf({9});
        EXPECT_THROW((void)target.CopyOffsets(r.offset1, r.offset2, source), std::out_of_range)
            << r.offset1 << "," << r.offset2;
        EXPECT_EQ(target.bytes, byteVector{9});
    }
    // A programming error, not a recorded failure.
    EXPECT_FALSE(vxtest::latched());
    EXPECT_FALSE(vxBase::HaveStackTrace());
}

TEST_F(vxBytesTest, BytesGuardedOperationsRefuseWhileLatched)
{
    latchByFailure();
    const vxBytes source = bufferOf({1, 2, 3});
    byteVector out(4, 0xAA);
    vxBytes target = bufferOf({9});
    EXPECT_FALSE(source.ExportToC(4, out.data()));
    EXPECT_FALSE(target.CopyOffsets(0, 2, source));
    EXPECT_FALSE(target.CopyOffsets(0, 2, source.bytes.data()));
    EXPECT_EQ(out, byteVector(4, 0xAA));
    EXPECT_EQ(target.bytes, byteVector{9});
    const std::vector<std::string> messages = vxtest::trailMessages();
    EXPECT_EQ(std::vector<std::string>(messages.begin() + 1, messages.end()),
              std::vector<std::string>(3, unable));
    EXPECT_EQ(vxGlobal.stackTrace.events.size(), 4U);
}

TEST_F(vxBytesTest, BytesUnguardedOperationsRunWhileLatched)
{
    latchByFailure();
    const size_t before = vxGlobal.stackTrace.events.size();
    vxBytes buffer;
    EXPECT_TRUE(buffer.Replace("ab"));
    EXPECT_TRUE(buffer.CopyBack(bufferOf({'c'})));
    std::string text;
    EXPECT_TRUE(buffer.ExportToString(text));
    EXPECT_EQ(text, "abc");
    const unsigned char raw[] = {7};
    EXPECT_TRUE(buffer.ImportFromC(1, raw));
    EXPECT_EQ(buffer.bytes, byteVector{7});
    EXPECT_EQ(vxGlobal.stackTrace.events.size(), before);
}

TEST(hexText, FromBytes)
{
    struct row
    {
        byteVector bytes;
        std::string text;
    };

    const std::vector<row> rows = {
        {{0x00, 0xFF}, "00FF"},
        {{10}, "0A"},
        {{}, ""},
        {{0xAB, 0x01, 0xc4}, "AB01C4"},
    };
    for (const row& r : rows) {
        const hexString hex(r.bytes);
        EXPECT_TRUE(hex.valid);
        EXPECT_FALSE(hex.flag);
        EXPECT_EQ(hex.text, r.text);
        EXPECT_EQ(hex.bytes, r.bytes);
    }
}

TEST(hexText, FromText)
{
    struct row
    {
        std::string text;
        bool valid;
        byteVector bytes;
    };

    // clang-format off
    const std::vector<row> rows = {
        {"00FF", true, {0x00, 0xFF}},
        {"0a1B", true, {0x0A, 0x1B}},
        {"", true, {}},
        {" 1", true, {0x01}},
        {"1 ", true, {0x01}},
        {"  ", true, {0x00}},
        {"ff 1  a ", true, {0xFF, 0x01, 0x00, 0x0A}},
        {"0a1", false, {}},
        {"0g", false, {}},
        {"0x10", false, {}},
        {"-1", false, {}},
        {"A", false, {}},
        {"0g1", false, {}},
    };
    // clang-format on
    for (const row& r : rows) {
        const hexString hex(r.text);
        EXPECT_EQ(hex.valid, r.valid) << '"' << r.text << '"';
        EXPECT_EQ(hex.bytes, r.bytes) << '"' << r.text << '"';
        EXPECT_EQ(hex.text, r.valid ? r.text : "") << '"' << r.text << '"';
        EXPECT_FALSE(hex.flag);
    }
}

} // namespace
