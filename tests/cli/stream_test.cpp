// The stream protocol's cells as the program cuts and checks them (stream.h), without a
// connection: how the sender cuts data into cells that fill what it announced, and every cell the
// receiver refuses, with its message.
#include "stream.h"

#include "cliFrame.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace {

using vxcli::stream::receiver;
using vxcli::stream::sender;
using bytes = std::vector<unsigned char>;

/** A cell as the sender should make it: the data it carries and the blocks it announces. */
struct expectedCell
{
    size_t data;
    uint32_t next;
};

/** Bytes handed to a fresh sender in one piece, as the relay hands it one read. */
struct cutCase
{
    size_t size;
    std::vector<expectedCell> cells;
};

const cutCase kCuts[] = {
    {1, {{1, 1}}},
    // A first packet has one block: 16 bytes, 3 of them the cell's own.
    {13, {{13, 1}}},
    {14, {{13, 1}, {1, 1}}},
    // The rest of the data is in hand, so the first cell announces a packet that fits it.
    {16381, {{13, 1024}, {16368, 1}}},
    {16382, {{13, 1024}, {16369, 1}}},
    {65537, {{13, 1024}, {16381, 1024}, {16381, 1024}, {16381, 1024}, {16381, 1}}},
};

bytes dataOf(size_t size)
{
    bytes data(size);
    for (size_t i = 0; i < size; ++i) {
        data[i] = static_cast<unsigned char>(i * 7 + i / 251);
    }
    return data;
}

/** The cells a sender makes of `data` handed to it in one piece. */
std::vector<bytes> cutAll(sender& cells, const bytes& data)
{
    std::vector<bytes> out;
    for (size_t at = 0; at < data.size();) {
        const size_t take = cells.take(data.size() - at);
        EXPECT_GT(take, 0U);
        bytes cell;
        cells.data(data.data() + at, take, data.size() - at - take, cell);
        out.push_back(cell);
        at += take;
    }
    return out;
}

uint32_t announcement(const bytes& cell)
{
    return (static_cast<uint32_t>(cell.at(1)) << 8U) | cell.at(2);
}

/** The body blocks of the packet that carries `cell`: the payload rounded up to 16 bytes. */
uint32_t blocksOf(const bytes& cell)
{
    return static_cast<uint32_t>((cell.size() + vxcli::stream::kBlock - 1) / vxcli::stream::kBlock);
}

/** `step` throws failure with exactly `text`. */
void expectBroken(const std::function<void()>& step, const std::string& text)
{
    try {
        step();
        ADD_FAILURE() << "accepted; expected: " << text;
    } catch (const vxcli::failure& error) {
        EXPECT_EQ(std::string(error.what()), text);
    }
}

TEST(streamSizes, MatchTheLibrarysLargestPayload)
{
    EXPECT_EQ(vxcli::stream::kMaxBlocks, 1024U);
    EXPECT_EQ(vxcli::stream::kMaxData, 16381U);
    EXPECT_EQ(vxcli::stream::wireSize(vxcli::stream::kFirstBlocks), 64U);
    EXPECT_EQ(vxcli::stream::wireSize(vxcli::stream::kMaxBlocks), 48U + 16384U);
    EXPECT_EQ(vxcli::stream::wireSize(0), 48U); // the disconnect command
    EXPECT_EQ(vxcli::stream::blocksFor(13), 1U);
    EXPECT_EQ(vxcli::stream::blocksFor(14), 2U);
    EXPECT_EQ(vxcli::stream::blocksFor(16381), 1024U);
}

TEST(streamSender, CutsEachSizeIntoCellsThatFillWhatWasAnnounced)
{
    for (const cutCase& cut : kCuts) {
        SCOPED_TRACE(std::to_string(cut.size) + " bytes");
        sender cells;
        const bytes data = dataOf(cut.size);
        const std::vector<bytes> made = cutAll(cells, data);
        ASSERT_EQ(made.size(), cut.cells.size());
        uint32_t announced = vxcli::stream::kFirstBlocks;
        size_t at = 0;
        for (size_t i = 0; i < made.size(); ++i) {
            const bytes& cell = made[i];
            ASSERT_GE(cell.size(), 3U);
            EXPECT_EQ(cell[0], vxcli::stream::kindData);
            EXPECT_EQ(cell.size() - 3, cut.cells[i].data) << "cell " << i;
            EXPECT_EQ(announcement(cell), cut.cells[i].next) << "cell " << i;
            EXPECT_EQ(blocksOf(cell), announced) << "cell " << i << " does not fill its packet";
            EXPECT_TRUE(std::equal(cell.begin() + 3, cell.end(), data.begin() + at));
            at += cell.size() - 3;
            announced = announcement(cell);
        }
        EXPECT_EQ(at, cut.size);
        bytes end;
        cells.end(end);
        EXPECT_EQ(end, (bytes{vxcli::stream::kindEnd, 0, 0}));
    }
}

TEST(streamSender, DataArrivingInPiecesStartsEachPieceInTheOneBlockItAnnounced)
{
    // A piece's last cell cannot know what comes next, so it announces one block: up to 13 bytes
    // of the next piece go in a 64-byte packet.
    sender cells;
    const std::vector<bytes> first = cutAll(cells, dataOf(5));
    const std::vector<bytes> second = cutAll(cells, dataOf(20));
    ASSERT_EQ(first.size(), 1U);
    EXPECT_EQ(first[0].size(), 3U + 5U);
    EXPECT_EQ(announcement(first[0]), 1U);
    ASSERT_EQ(second.size(), 2U);
    EXPECT_EQ(second[0].size(), 3U + 13U);
    EXPECT_EQ(announcement(second[0]), vxcli::stream::blocksFor(7));
    EXPECT_EQ(second[1].size(), 3U + 7U);
    EXPECT_EQ(announcement(second[1]), 1U);
}

TEST(streamReceiver, TakesEveryCellTheSenderMakesAndExpectsWhatItAnnounced)
{
    for (const cutCase& cut : kCuts) {
        SCOPED_TRACE(std::to_string(cut.size) + " bytes");
        sender out;
        receiver in;
        EXPECT_EQ(in.packetSize(), 64U);
        std::vector<bytes> made = cutAll(out, dataOf(cut.size));
        made.emplace_back();
        out.end(made.back());
        size_t received = 0;
        for (const bytes& cell : made) {
            EXPECT_EQ(in.packetSize(), vxcli::stream::wireSize(blocksOf(cell)));
            EXPECT_NO_THROW(in.checkSize(static_cast<uint32_t>(16 * blocksOf(cell))));
            EXPECT_FALSE(in.ended());
            received += in.take(cell);
            if (cell[0] == vxcli::stream::kindData) {
                EXPECT_EQ(in.packetSize(), vxcli::stream::wireSize(announcement(cell)));
            }
        }
        EXPECT_EQ(received, cut.size);
        EXPECT_TRUE(in.ended());
        EXPECT_EQ(in.packetSize(), 48U) << "only the disconnect command may follow";
    }
}

TEST(streamReceiver, TakesTheLargestAnnouncement)
{
    receiver in;
    EXPECT_EQ(in.take({vxcli::stream::kindData, 4, 0, 'x'}), 1U);
    EXPECT_EQ(in.packetSize(), 48U + 16384U);
}

/** A first cell the receiver must refuse, and its message. */
struct refusedCell
{
    const char* name;
    bytes cell;
    const char* message;
};

const refusedCell kRefused[] = {
    {"a kind beyond end",
     {2, 0, 1, 'x'},
     "the peer broke the stream protocol: a cell of an unknown kind"},
    {"the largest kind",
     {0xFF, 0, 1, 'x'},
     "the peer broke the stream protocol: a cell of an unknown kind"},
    {"a cell shorter than its own bytes",
     {0, 0},
     "the peer broke the stream protocol: a cell of an unknown kind"},
    {"an empty payload", {}, "the peer broke the stream protocol: a cell of an unknown kind"},
    {"an end cell with data",
     {1, 0, 0, 'x'},
     "the peer broke the stream protocol: an end cell that carries data or announces a packet"},
    {"an end cell announcing a packet",
     {1, 0, 1},
     "the peer broke the stream protocol: an end cell that carries data or announces a packet"},
    {"a data cell without data",
     {0, 0, 1},
     "the peer broke the stream protocol: a data cell without data or with an announcement of 1 blocks"},
    {"an announcement of 0 after data",
     {0, 0, 0, 'x'},
     "the peer broke the stream protocol: a data cell without data or with an announcement of 0 blocks"},
    {"an announcement of 1025",
     {0, 4, 1, 'x'},
     "the peer broke the stream protocol: a data cell without data or with an announcement of 1025 blocks"},
    {"the largest announcement",
     {0, 0xFF, 0xFF, 'x'},
     "the peer broke the stream protocol: a data cell without data or with an announcement of 65535 blocks"},
};

/** What a broken first cell adds: an end sending bare payloads breaks the protocol at once. */
const std::string kRawHint = " (if it runs with --raw: run both ends with --raw, or neither)";

TEST(streamReceiver, RefusesEachBrokenCellWithItsMessage)
{
    for (const refusedCell& refused : kRefused) {
        SCOPED_TRACE(refused.name);
        receiver first;
        expectBroken([&] { (void)first.take(refused.cell); }, refused.message + kRawHint);
        // After a good cell the peer speaks the protocol: no hint.
        receiver later;
        (void)later.take({vxcli::stream::kindData, 0, 1, 'x'});
        expectBroken([&] { (void)later.take(refused.cell); }, refused.message);
    }
}

TEST(streamReceiver, RefusesACellAfterTheEnd)
{
    for (const bytes& late : {bytes{0, 0, 1, 'x'}, bytes{1, 0, 0}}) {
        receiver in;
        EXPECT_EQ(in.take({vxcli::stream::kindEnd, 0, 0}), 0U);
        expectBroken([&] { (void)in.take(late); },
                     "the peer broke the stream protocol: a cell after the end of the stream");
    }
}

TEST(streamReceiver, RefusesABodyOtherThanTheAnnouncedOne)
{
    receiver in;
    expectBroken([&] { in.checkSize(32); },
                 "the peer broke the stream protocol: a packet declares a body of 32 bytes where "
                 "16 were announced" +
                     kRawHint);
    EXPECT_NO_THROW(in.checkSize(16));
    (void)in.take({vxcli::stream::kindData, 0, 2, 'x'});
    expectBroken([&] { in.checkSize(16); },
                 "the peer broke the stream protocol: a packet declares a body of 16 bytes where "
                 "32 were announced");
    expectBroken([&] { in.checkSize(5008); },
                 "the peer broke the stream protocol: a packet declares a body of 5008 bytes where "
                 "32 were announced");
    (void)in.take({vxcli::stream::kindData, 0, 1, 'y', 'y', 'y', 'y', 'y', 'y', 'y', 'y', 'y', 'y',
                   'y', 'y', 'y', 'y'});
    (void)in.take({vxcli::stream::kindEnd, 0, 0});
    expectBroken([&] { in.checkSize(16); },
                 "the peer broke the stream protocol: a packet declares a body of 16 bytes where 0 "
                 "were announced");
}

} // namespace
