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
using vxtest::bufferOf;

TEST_F(vxBytesTest, EachOperationChangesTheBytesAsItsNameSays)
{
    const vxBytes source = bufferOf({5, 6, 7});
    const unsigned char raw[] = {5, 6, 7};

    // clang-format off
    const struct { const char* title; byteVector initial; std::function<bool(vxBytes&)> op; byteVector expected; } rows[] = {
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
    for (const auto& r : rows) {
        vxBytes buffer = bufferOf(r.initial);
        EXPECT_TRUE(r.op(buffer)) << r.title;
        EXPECT_EQ(buffer.bytes, r.expected) << r.title;
    }
    EXPECT_QUIET();
}

TEST_F(vxBytesTest, ScrubEmptiesAndKeepsTheCapacity)
{
    for (const byteVector& initial :
         {byteVector{}, byteVector{0x00}, byteVector{1, 2, 3, 4, 5, 6, 7, 8}}) {
        vxBytes buffer = bufferOf(initial);
        const size_t capacity = buffer.bytes.capacity();
        buffer.Scrub();
        EXPECT_EQ(buffer.bytes.size(), 0U) << "Scrub empties";
        EXPECT_EQ(buffer.bytes.capacity(), capacity) << "and keeps the capacity";
    }
}

TEST_F(vxBytesTest, ExportToCWritesAtMostTheBoundOrNothing)
{
    // clang-format off
    const struct { size_t size; uint32_t maxSize; bool ok; } bounds[] = {{4, 4, true}, {4, 3, false}, {4, 100, true}, {0, 0, true}, {1, 0, false}};

    // clang-format on
    for (const auto& row : bounds) {
        vxBase::lvxClearLastError();
        byteVector data(row.size);
        for (size_t i = 0; i < row.size; ++i) {
            data[i] = static_cast<unsigned char>(i + 1);
        }
        byteVector out(8, 0xAA);
        if (!row.ok) {
            EXPECT_FAILS_WITH(bufferOf(data).ExportToC(row.maxSize, out.data()),
                              "bytes.size() <= maxSize");
            EXPECT_EQ(out, byteVector(8, 0xAA)) << row.size << " into " << row.maxSize;
            continue;
        }
        EXPECT_TRUE(bufferOf(data).ExportToC(row.maxSize, out.data()))
            << row.size << " into " << row.maxSize;
        data.resize(8, 0xAA);
        EXPECT_EQ(out, data);
        EXPECT_FALSE(vxBase::HaveStackTrace());
    }
}

TEST_F(vxBytesTest, ExportToStringAppendsThePrintableCharacters)
{
    // clang-format off
    const struct { byteVector bytes; std::string initial; std::string expected; } stringRows[] = {
        {{0x41, 0x00, 0x42}, "", "AB"}, {{0x41, 0x00, 0x42}, "x", "xAB"}, {{0x20, 0x7E, 0x7F, 0x0A, 0x09}, "", " ~"},
        {{0xC3, 0xA9, 0x80, 0xFF}, "", ""}, {{}, "kept", "kept"}};

    // clang-format on
    for (const auto& t : stringRows) {
        vxBytes printable = bufferOf(t.bytes);
        std::string text = t.initial;
        EXPECT_TRUE(printable.ExportToString(text));
        EXPECT_EQ(text, t.expected) << vxtest::toHex(t.bytes);
    }
}

TEST_F(vxBytesTest, CopyOffsetsRefusesAnEmptyOrReversedRange)
{
    const vxBytes source = bufferOf({1, 2, 3, 4, 5});
    for (const auto& [offset1, offset2] : {std::pair<uint32_t, uint32_t>{3, 3}, {4, 2}, {0, 0}}) {
        for (const bool raw : {false, true}) {
            vxBase::lvxClearLastError();
            vxBytes target = bufferOf({9});
            SCOPED_TRACE(std::to_string(offset1) + "," + std::to_string(offset2) +
                         (raw ? " raw" : ""));
            EXPECT_FAILS_WITH(raw ? target.CopyOffsets(offset1, offset2, source.bytes.data())
                                  : target.CopyOffsets(offset1, offset2, source),
                              "offset2 > offset1");
            EXPECT_EQ(vxtest::trailMessages().size(), 1U);
            EXPECT_EQ(target.bytes, byteVector{9});
        }
    }
}

TEST_F(vxBytesTest, CopyOffsetsPastTheSourceThrowsWithoutRecording)
{
    const vxBytes shorter = bufferOf({1, 2, 3});
    for (const auto& [offset1, offset2] : {std::pair<uint32_t, uint32_t>{1, 4}, {3, 4}, {5, 9}}) {
        vxBytes target = bufferOf({9});
        EXPECT_THROW((void)target.CopyOffsets(offset1, offset2, shorter), std::out_of_range)
            << offset1 << "," << offset2;
        EXPECT_EQ(target.bytes, byteVector{9});
    }
    // Past the source is a programming error, not a recorded failure.
    EXPECT_QUIET();
}

TEST_F(vxBytesTest, OnlyTheBoundedCopiesRefuseWhileLatched)
{
    vxtest::latchByFailure();
    const vxBytes three = bufferOf({1, 2, 3});
    byteVector out(4, 0xAA);
    vxBytes guarded = bufferOf({9});
    EXPECT_FALSE(three.ExportToC(4, out.data()));
    EXPECT_FALSE(guarded.CopyOffsets(0, 2, three));
    EXPECT_FALSE(guarded.CopyOffsets(0, 2, three.bytes.data()));
    EXPECT_EQ(out, byteVector(4, 0xAA));
    EXPECT_EQ(guarded.bytes, byteVector{9});
    const std::vector<std::string> messages = vxtest::trailMessages();
    EXPECT_EQ(std::vector<std::string>(messages.begin() + 1, messages.end()),
              std::vector<std::string>(3, vxtest::kRefusal));
    EXPECT_EQ(vxGlobal.stackTrace.events.size(), 4U);
    vxBytes buffer;
    EXPECT_TRUE(buffer.Replace("ab"));
    EXPECT_TRUE(buffer.CopyBack(bufferOf({'c'})));
    std::string text;
    EXPECT_TRUE(buffer.ExportToString(text));
    EXPECT_EQ(text, "abc");
    const unsigned char raw[] = {7};
    EXPECT_TRUE(buffer.ImportFromC(1, raw));
    EXPECT_EQ(buffer.bytes, byteVector{7});
    EXPECT_EQ(vxGlobal.stackTrace.events.size(), 4U);
}

TEST(hexText, FromBytesAndFromText)
{
    // clang-format off
    const struct { byteVector bytes; std::string text; } rows[] = {{{0x00, 0xFF}, "00FF"}, {{10}, "0A"}, {{}, ""}, {{0xAB, 0x01, 0xc4}, "AB01C4"}};

    // clang-format on
    for (const auto& r : rows) {
        const hexString hex(r.bytes);
        EXPECT_TRUE(hex.valid);
        EXPECT_FALSE(hex.flag);
        EXPECT_EQ(hex.text, r.text);
        EXPECT_EQ(hex.bytes, r.bytes);
    }

    // clang-format off
    const struct { std::string text; bool valid; byteVector bytes; } textRows[] = {
        {"00FF", true, {0x00, 0xFF}}, {"0a1B", true, {0x0A, 0x1B}}, {"", true, {}}, {" 1", true, {0x01}}, {"1 ", true, {0x01}},
        {"  ", true, {0x00}}, {"ff 1  a ", true, {0xFF, 0x01, 0x00, 0x0A}}, {"0a1", false, {}}, {"0g", false, {}},
        {"0x10", false, {}}, {"-1", false, {}}, {"A", false, {}}, {"0g1", false, {}}};

    // clang-format on
    for (const auto& t : textRows) {
        const hexString fromText(t.text);
        EXPECT_EQ(fromText.valid, t.valid) << '"' << t.text << '"';
        EXPECT_EQ(fromText.bytes, t.bytes) << '"' << t.text << '"';
        EXPECT_EQ(fromText.text, t.valid ? t.text : "") << '"' << t.text << '"';
        EXPECT_FALSE(fromText.flag);
    }
}

} // namespace
