// The capture reader (capture.h) on files the tests write: every link type in pcap and pcapng,
// IPv4 and IPv6, and TCP connections whose segments arrive in order, again, overlapping, out of
// order, cut short or not at all; what it reports for each, frame by frame.
#include "capture.h"

#include "captureWriter.h"
#include "cliFrame.h"
#include "cliRun.h"
#include "vxTest.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

using namespace vxclitest;
using vxcli::capture::captureSummary;
using vxcli::capture::frameInfo;
using vxcli::capture::kHoldLimit;
using vxcli::capture::peerAddress;
using vxcli::capture::streamEnd;

namespace {

constexpr direction up = direction::toServer;
constexpr direction down = direction::toClient;
/** The first report of the one connection most cases write, from its first frame. */
const std::string kStart = "start 1 10.0.0.1:40000 10.0.0.2:5000 #1";

const char* arrow(direction way)
{
    return way == up ? ">" : "<";
}

const char* endName(streamEnd how)
{
    switch (how) {
    case streamEnd::fin:
        return "fin";
    case streamEnd::reset:
        return "reset";
    default:
        return "captureEnd";
    }
}

/** Records what the reader reports as one line per call ("data 1 > 0+5 #4": connection 1, to
 *  the server, 5 bytes at offset 0, frame 4), and each direction's stream with its gaps shown
 *  as "[gap N]". Fails the test on a call out of turn: bytes that do not follow on, anything
 *  after a direction's end, a second end. */
class recordingSink : public vxcli::capture::streamSink
{
public:
    void started(unsigned id, const peerAddress& client, const peerAddress& server,
                 const frameInfo& at) override
    {
        EXPECT_EQ(id, ways.size() / 2 + 1) << "connections are numbered in the order they start";
        ways[{id, up}];
        ways[{id, down}];
        log("start " + std::to_string(id) + " " + client.text() + " " + server.text(), at);
    }

    void data(unsigned id, direction way, uint64_t offset, const unsigned char* bytes, size_t count,
              const frameInfo& at) override
    {
        EXPECT_GT(count, 0U);
        advance(id, way, offset, count);
        ways[{id, way}].bytes.append(reinterpret_cast<const char*>(bytes), count);
        log("data " + label(id, way) + " " + std::to_string(offset) + "+" + std::to_string(count),
            at);
    }

    void gap(unsigned id, direction way, uint64_t offset, uint64_t count,
             const frameInfo& at) override
    {
        EXPECT_GT(count, 0U);
        advance(id, way, offset, count);
        ways[{id, way}].bytes.append("[gap " + std::to_string(count) + "]");
        log("gap " + label(id, way) + " " + std::to_string(offset) + "+" + std::to_string(count),
            at);
    }

    void ended(unsigned id, direction way, streamEnd how, const frameInfo& at) override
    {
        const auto found = ways.find({id, way});
        ASSERT_NE(found, ways.end()) << "the end of a connection that never started";
        EXPECT_FALSE(found->second.ended) << "a second end of " << label(id, way);
        found->second.ended = true;
        log(std::string("end ") + label(id, way) + " " + endName(how), at);
    }

    void withoutStart(const peerAddress& first, const peerAddress& second,
                      const frameInfo& at) override
    {
        log("without " + first.text() + " " + second.text(), at);
    }

    /** Every direction of every connection ended. */
    void expectAllEnded() const
    {
        for (const auto& [key, way] : ways) {
            EXPECT_TRUE(way.ended) << label(key.first, key.second) << " never ended";
        }
    }

    /** A direction's bytes, gaps shown. */
    std::string stream(unsigned id, direction way) const
    {
        const auto found = ways.find({id, way});
        return found == ways.end() ? "(no such connection)" : found->second.bytes;
    }

    std::vector<std::string> events;
    std::vector<frameInfo> frames; ///< where each event happened

private:
    struct wayState
    {
        uint64_t next = 0;
        bool ended = false;
        std::string bytes;
    };

    static std::string label(unsigned id, direction way)
    {
        return std::to_string(id) + " " + arrow(way);
    }

    void advance(unsigned id, direction way, uint64_t offset, uint64_t count)
    {
        const auto found = ways.find({id, way});
        ASSERT_NE(found, ways.end()) << "bytes of a connection that never started";
        EXPECT_FALSE(found->second.ended) << "bytes after the end of " << label(id, way);
        EXPECT_EQ(offset, found->second.next) << "bytes out of turn in " << label(id, way);
        found->second.next = offset + count;
    }

    void log(const std::string& line, const frameInfo& at)
    {
        events.push_back(line + " #" + std::to_string(at.number));
        frames.push_back(at);
    }

    std::map<std::pair<unsigned, direction>, wayState> ways;
};

class captureTest : public ::testing::Test
{
protected:
    /** Reads the capture, checks that every direction ended, and returns the summary. */
    captureSummary read(uint16_t port = 0)
    {
        const captureSummary summary = vxcli::capture::readCapture(path, port, sink);
        sink.expectAllEnded();
        return summary;
    }

    /** A capture of one connection from 10.0.0.1:40000 to 10.0.0.2:5000: its handshake, then
     *  what `segments` writes. */
    void writeFlow(const std::function<void(tcpFlow&)>& segments)
    {
        writeWithoutHandshake([&](tcpFlow& flow) {
            flow.handshake();
            segments(flow);
        });
    }

    /** The same connection as only `segments` writes it: how it starts is up to them. */
    void writeWithoutHandshake(const std::function<void(tcpFlow&)>& segments)
    {
        captureWriter out(path);
        tcpFlow flow(out, {});
        segments(flow);
    }

    /** The reader's failure message for the capture. */
    std::string failure()
    {
        try {
            (void)vxcli::capture::readCapture(path, 0, sink);
        } catch (const vxcli::failure& failed) {
            return failed.what();
        }
        return "no failure";
    }

    vxtest::tempDir dir;
    std::string path = dir.path("test.pcap");
    recordingSink sink;
};

// ---------------------------------------------------------------------------------------------
// Link types and file formats

struct linkCase
{
    const char* name;
    captureFormat format;
    bool ipv6;
    bool ipExtras;
};

captureFormat formatOf(int linkType, bool pcapng = false)
{
    captureFormat format;
    format.linkType = linkType;
    format.pcapng = pcapng;
    return format;
}

captureFormat withVlanTags(unsigned tags)
{
    captureFormat format;
    format.vlanTags = tags;
    return format;
}

captureFormat withNanoseconds()
{
    captureFormat format;
    format.nanoseconds = true;
    return format;
}

const linkCase kLinks[] = {
    {"ethernet", formatOf(DLT_EN10MB), false, false},
    {"ethernetIpv6", formatOf(DLT_EN10MB), true, false},
    {"ethernetIpv4Options", formatOf(DLT_EN10MB), false, true},
    {"ethernetIpv6ExtensionHeaders", formatOf(DLT_EN10MB), true, true},
    {"ethernet8021Q", withVlanTags(1), false, false},
    {"ethernetQinQ", withVlanTags(2), true, false},
    {"linuxCooked", formatOf(DLT_LINUX_SLL), false, false},
    {"linuxCookedIpv6", formatOf(DLT_LINUX_SLL), true, false},
    {"linuxCooked2", formatOf(DLT_LINUX_SLL2), false, false},
    {"linuxCooked2Ipv6", formatOf(DLT_LINUX_SLL2), true, true},
    {"bsdNull", formatOf(DLT_NULL), false, false},
    {"bsdNullIpv6", formatOf(DLT_NULL), true, false},
    {"bsdLoop", formatOf(DLT_LOOP), false, false},
    {"bsdLoopIpv6", formatOf(DLT_LOOP), true, false},
    {"raw", formatOf(DLT_RAW), false, false},
    {"rawIpv6", formatOf(DLT_RAW), true, true},
    {"ipv4", formatOf(DLT_IPV4), false, false},
    {"ipv6", formatOf(DLT_IPV6), true, false},
    {"pcapngEthernet", formatOf(DLT_EN10MB, true), false, false},
    {"pcapngEthernetIpv6", formatOf(DLT_EN10MB, true), true, true},
    {"pcapngLinuxCooked2", formatOf(DLT_LINUX_SLL2, true), false, false},
    {"pcapngRaw", formatOf(DLT_RAW, true), true, false},
    {"pcapngBsdNull", formatOf(DLT_NULL, true), false, false},
    {"nanosecondPcap", withNanoseconds(), false, false},
};

class captureLinkTest : public captureTest, public ::testing::WithParamInterface<linkCase>
{
};

TEST_P(captureLinkTest, AConnectionIsReadBackWithItsFramesAndTimes)
{
    const linkCase& test = GetParam();
    flowSetup setup;
    if (test.ipv6) {
        setup.client = {"fe80::1", 40000};
        setup.server = {"2001:db8::2", 443};
    }
    setup.ipExtras = test.ipExtras;
    {
        captureWriter out(path, test.format);
        tcpFlow flow(out, setup);
        flow.handshake();
        flow.send(up, 0, "hello");
        flow.send(down, 0, "world!");
        flow.fin(up);
        flow.fin(down);
        flow.ack(up, 7);
    }
    const captureSummary summary = read();
    const std::string client = test.ipv6 ? "[fe80::1]:40000" : "10.0.0.1:40000";
    const std::string server = test.ipv6 ? "[2001:db8::2]:443" : "10.0.0.2:5000";
    EXPECT_EQ(sink.events, (std::vector<std::string>{"start 1 " + client + " " + server + " #1",
                                                     "data 1 > 0+5 #4", "data 1 < 0+6 #5",
                                                     "end 1 > fin #6", "end 1 < fin #7"}));
    EXPECT_EQ(sink.stream(1, up), "hello");
    EXPECT_EQ(sink.stream(1, down), "world!");
    for (const frameInfo& at : sink.frames) {
        EXPECT_EQ(at.microseconds,
                  kFirstFrameTime + static_cast<int64_t>(at.number - 1) * kFrameStep)
            << "frame " << at.number;
    }
    EXPECT_EQ(summary.frames, 8U);
    EXPECT_EQ(summary.tcpSegments, 8U);
    EXPECT_EQ(summary.skipped, 0U);
    EXPECT_EQ(summary.truncated, "");
}

INSTANTIATE_TEST_SUITE_P(links, captureLinkTest, ::testing::ValuesIn(kLinks), caseName());

TEST_F(captureTest, ABsdNullHeaderIsReadInEitherByteOrder)
{
    {
        captureWriter out(path, formatOf(DLT_NULL));
        tcpFlow flow(out, {});
        // The family as a big-endian host writes it, then as a little-endian one.
        byteVector syn{0, 0, 0, 2};
        const byteVector packet = flow.packet(up, 1000, 0, tcpFlags::syn, "");
        syn.insert(syn.end(), packet.begin(), packet.end());
        out.writeFrame(syn);
        flow.synAck();
    }
    read();
    EXPECT_EQ(sink.events,
              (std::vector<std::string>{kStart, "end 1 > captureEnd #2", "end 1 < captureEnd #2"}));
}

TEST_F(captureTest, AnUnsupportedLinkTypeIsRefusedByNumberAndName)
{
    {
        captureWriter out(path, formatOf(DLT_IEEE802_11));
        out.writeFrame(byteVector(30, 0));
    }
    EXPECT_EQ(failure(),
              "the capture " + path + " has link type 105 (IEEE802_11), which is not supported");
    EXPECT_TRUE(sink.events.empty());
}

TEST_F(captureTest, AFileThatIsNoCaptureIsRefused)
{
    std::ofstream(path) << "GET / HTTP/1.1\r\nHost: example\r\n\r\n";
    EXPECT_EQ(failure(), "cannot read the capture " + path + ": unknown file format");
    path = dir.path("missing.pcap");
    EXPECT_EQ(failure(), "cannot read the capture " + path + ": No such file or directory");
}

TEST_F(captureTest, AnOpenFileIsReadAndNamedInMessages)
{
    writeFlow([&](tcpFlow& flow) { flow.send(up, 0, "over a FILE"); });
    (void)vxcli::capture::readCapture(std::fopen(path.c_str(), "rb"), "standard input", 0, sink);
    EXPECT_EQ(sink.stream(1, up), "over a FILE");
    std::ofstream(path) << "not a capture";
    try {
        (void)vxcli::capture::readCapture(std::fopen(path.c_str(), "rb"), "standard input", 0,
                                          sink);
        ADD_FAILURE() << "no failure";
    } catch (const vxcli::failure& failed) {
        EXPECT_STREQ(failed.what(), "cannot read the capture standard input: unknown file format");
    }
}

// ---------------------------------------------------------------------------------------------
// Reassembly

TEST_F(captureTest, InOrderSegmentsArriveFromTheirOwnFramesByteForByte)
{
    const std::string request = pattern(10000, 1);
    const std::string response = pattern(7777, 2);
    std::vector<uint64_t> upFrames;
    std::vector<uint64_t> downFrames;
    writeFlow([&](tcpFlow& flow) {
        upFrames = flow.sendAll(up, request, 1000);
        downFrames = flow.sendAll(down, response, 1448);
    });
    read();
    EXPECT_EQ(sink.stream(1, up), request);
    EXPECT_EQ(sink.stream(1, down), response);
    EXPECT_EQ(sink.events[1], "data 1 > 0+1000 #" + std::to_string(upFrames[0]));
    EXPECT_EQ(sink.events[10], "data 1 > 9000+1000 #" + std::to_string(upFrames[9]));
    EXPECT_EQ(sink.events[11], "data 1 < 0+1448 #" + std::to_string(downFrames[0]));
    EXPECT_EQ(sink.events[16], "data 1 < 7240+537 #" + std::to_string(downFrames[5]));
}

/** The segments of one connection after its handshake, and how the reader reports them. */
struct flowCase
{
    const char* name;
    std::function<void(tcpFlow&)> segments;
    std::string up;                  ///< the client's stream as read back, gaps shown
    std::string down;                ///< the server's
    std::vector<std::string> events; ///< every report after the start
};

const flowCase kFlows[] = {
    {"ARetransmissionAddsNothingAndTheFirstCopyWins",
     [](tcpFlow& flow) {
         flow.send(up, 0, "first copy");
         flow.send(up, 0, "other copy");
         flow.send(up, 10, "!");
     },
     "first copy!",
     "",
     {"data 1 > 0+10 #4", "data 1 > 10+1 #6", "end 1 > captureEnd #6", "end 1 < captureEnd #6"}},
    {"AnOverlappingSegmentAddsOnlyItsNewBytes",
     [](tcpFlow& flow) {
         flow.send(up, 0, "abcdef");
         flow.send(up, 3, "XYZghi");
     },
     "abcdefghi",
     "",
     {"data 1 > 0+6 #4", "data 1 > 6+3 #5", "end 1 > captureEnd #5", "end 1 < captureEnd #5"}},
    {"OutOfOrderSegmentsWaitForTheBytesBeforeThem",
     [](tcpFlow& flow) {
         flow.send(up, 20, "-held-overlapping-");
         flow.send(up, 10, "held first");
         flow.send(up, 15, std::string(36, 'X')); // held already but for its last 13 bytes
         flow.send(up, 0, "0123456789");
     },
     "0123456789held first-held-overlapping-" + std::string(13, 'X'),
     "",
     {"data 1 > 0+10 #7", "data 1 > 10+10 #7", "data 1 > 20+31 #7", "end 1 > captureEnd #7",
      "end 1 < captureEnd #7"}},
    {"TheAckOfBytesTheCaptureMissedMakesThemAGap",
     [](tcpFlow& flow) {
         flow.send(up, 0, std::string(100, 'a'));
         flow.send(up, 200, std::string(100, 'c')); // 100..199 never captured
         flow.ack(down, 150);                       // the server had half of them
         flow.ack(down, 250);                       // and all of them
         flow.send(up, 300, "d");
     },
     std::string(100, 'a') + "[gap 50][gap 50]" + std::string(100, 'c') + "d",
     "",
     {"data 1 > 0+100 #4", "gap 1 > 100+50 #6", "gap 1 > 150+50 #7", "data 1 > 200+100 #7",
      "data 1 > 300+1 #8", "end 1 > captureEnd #8", "end 1 < captureEnd #8"}},
    {"TheAckOfBytesNeverCapturedIsAGapEvenWithNothingHeld",
     [](tcpFlow& flow) {
         flow.send(up, 0, "seen");
         flow.ack(down, 1004);
         flow.send(up, 1004, "after");
     },
     "seen[gap 1000]after",
     "",
     {"data 1 > 0+4 #4", "gap 1 > 4+1000 #5", "data 1 > 1004+5 #6", "end 1 > captureEnd #6",
      "end 1 < captureEnd #6"}},
    {"AFinAfterAHoleWaitsForTheRetransmission",
     [](tcpFlow& flow) {
         flow.send(up, 0, "aaaa");
         flow.send(up, 8, "cccc");
         flow.fin(up);
         flow.pinAck(down, 4);
         flow.send(down, 0, "dup ack"); // acknowledges only what came before the hole
         flow.send(up, 4, "bbbb");
     },
     "aaaabbbbcccc",
     "dup ack",
     {"data 1 > 0+4 #4", "data 1 < 0+7 #7", "data 1 > 4+4 #8", "data 1 > 8+4 #8", "end 1 > fin #8",
      "end 1 < captureEnd #8"}},
    {"AHoleBeforeAFinBecomesAGapWhenTheFinIsAcknowledged",
     [](tcpFlow& flow) {
         flow.send(up, 0, "aaaa");
         flow.send(up, 8, "cccc");
         flow.fin(up);
         flow.ack(down, 13);
     },
     "aaaa[gap 4]cccc",
     "",
     {"data 1 > 0+4 #4", "gap 1 > 4+4 #7", "data 1 > 8+4 #7", "end 1 > fin #7",
      "end 1 < captureEnd #7"}},
    {"TheEndOfTheFileDeclaresTheHolesBeforeWhatItHolds",
     [](tcpFlow& flow) {
         flow.pinAck(down, 2);
         flow.send(up, 0, "aa");
         flow.send(up, 4, "cc"); // held after a hole
         flow.send(up, 8, "ee"); // held after another
         flow.send(down, 0, "x");
         flow.send(down, 10, "", tcpFlags::fin | tcpFlags::ack); // after bytes never captured
         flow.pinAck(up, 0);
         flow.send(up, 100, ""); // an empty segment far ahead tells nothing
     },
     "aa[gap 2]cc[gap 2]ee",
     "x[gap 9]",
     {"data 1 > 0+2 #4", "data 1 < 0+1 #7", "gap 1 > 2+2 #9", "data 1 > 4+2 #9", "gap 1 > 6+2 #9",
      "data 1 > 8+2 #9", "end 1 > captureEnd #9", "gap 1 < 1+9 #9", "end 1 < fin #9"}},
    {"UnseenBytesAfterTheLastOneCapturedAreNotReported",
     [](tcpFlow& flow) {
         flow.pinAck(down, 9);
         flow.send(up, 0, "only this");
         flow.send(up, 50, ""); // its sequence number says bytes 9..49 were sent
         flow.ack(down, 9);     // but nobody acknowledged them
     },
     "only this",
     "",
     {"data 1 > 0+9 #4", "end 1 > captureEnd #6", "end 1 < captureEnd #6"}},
    {"TheFirstFinCountsAndBytesPastItAreDropped",
     [](tcpFlow& flow) {
         flow.send(up, 0, "aaaa");
         flow.send(up, 8, "cccc");
         flow.fin(up);
         flow.send(up, 12, "past the end", tcpFlags::fin | tcpFlags::ack);
         flow.send(up, 4, "bbbb");
     },
     "aaaabbbbcccc",
     "",
     {"data 1 > 0+4 #4", "data 1 > 4+4 #8", "data 1 > 8+4 #8", "end 1 > fin #8",
      "end 1 < captureEnd #8"}},
    {"AResetAfterAFinEndsOnlyTheOpenDirection",
     [](tcpFlow& flow) {
         flow.send(up, 0, "bye");
         flow.fin(up);
         flow.rst(down);
     },
     "bye",
     "",
     {"data 1 > 0+3 #4", "end 1 > fin #5", "end 1 < reset #6"}},
};

class captureFlowTest : public captureTest, public ::testing::WithParamInterface<flowCase>
{
};

TEST_P(captureFlowTest, IsReportedAsItArrives)
{
    writeFlow(GetParam().segments);
    read();
    EXPECT_EQ(sink.stream(1, up), GetParam().up);
    EXPECT_EQ(sink.stream(1, down), GetParam().down);
    std::vector<std::string> expected{kStart};
    expected.insert(expected.end(), GetParam().events.begin(), GetParam().events.end());
    EXPECT_EQ(sink.events, expected);
}

INSTANTIATE_TEST_SUITE_P(flows, captureFlowTest, ::testing::ValuesIn(kFlows), caseName());

TEST_F(captureTest, AResetEndsBothDirectionsAfterTheirHeldBytes)
{
    writeFlow([&](tcpFlow& flow) {
        flow.pinAck(down, 0);
        flow.send(up, 0, "ab");
        flow.send(up, 5, "fg");
        flow.rst(down);
        flow.send(up, 2, "cde"); // after the end: nothing
    });
    const captureSummary summary = read();
    EXPECT_EQ(sink.stream(1, up), "ab[gap 3]fg");
    EXPECT_EQ(sink.events, (std::vector<std::string>{kStart, "data 1 > 0+2 #4", "gap 1 > 2+3 #6",
                                                     "data 1 > 5+2 #6", "end 1 > reset #6",
                                                     "end 1 < reset #6"}));
    EXPECT_EQ(summary.tcpSegments, 7U);
}

TEST_F(captureTest, PastTheHoldLimitTheHoleBecomesAGap)
{
    const size_t segment = 1400;
    const std::string held = pattern(kHoldLimit + 4 * segment, 3);
    std::vector<uint64_t> frames;
    writeFlow([&](tcpFlow& flow) {
        flow.pinAck(down, 0);
        frames = flow.sendAll(up, held, segment, 1000); // bytes 0..999 are never captured
    });
    read();
    EXPECT_EQ(sink.stream(1, up), "[gap 1000]" + held);
    ASSERT_GE(sink.events.size(), 2U);
    const std::string gap = sink.events[1];
    EXPECT_EQ(gap.substr(0, gap.find('#')), "gap 1 > 0+1000 ");
    // Reported once the bytes held passed the limit, not before half of it, not at the end.
    const uint64_t at = sink.frames[1].number;
    EXPECT_GT(at, frames[kHoldLimit / 2 / segment]);
    EXPECT_LE(at, frames[kHoldLimit / segment + 1]);
}

TEST_F(captureTest, BelowTheHoldLimitNothingIsGivenUpBeforeTheEnd)
{
    const std::string held = pattern(kHoldLimit / 2, 4);
    writeFlow([&](tcpFlow& flow) {
        flow.pinAck(down, 0);
        flow.sendAll(up, held, 1400, 1000);
        flow.send(up, 0, std::string(1000, '!'));
    });
    read();
    EXPECT_EQ(sink.stream(1, up), std::string(1000, '!') + held);
}

TEST_F(captureTest, SequenceNumbersWrapAround)
{
    const std::string request = pattern(3000, 5);
    const std::string response = pattern(2000, 6);
    flowSetup setup;
    setup.clientIsn = 0xFFFFFF00U;
    setup.serverIsn = 0xFFFFFFFFU;
    {
        captureWriter out(path);
        tcpFlow flow(out, setup);
        flow.handshake();
        flow.send(up, 1000, request.substr(1000)); // across the wrap, out of order
        flow.sendAll(up, request.substr(0, 1000), 100);
        flow.sendAll(down, response, 300);
        flow.fin(up);
        flow.fin(down);
    }
    read();
    EXPECT_EQ(sink.stream(1, up), request);
    EXPECT_EQ(sink.stream(1, down), response);
    EXPECT_EQ(sink.events.back().substr(0, 12), "end 1 < fin ");
}

TEST_F(captureTest, ASynPayloadIsTheStreamsFirstBytes)
{
    writeWithoutHandshake([](tcpFlow& flow) {
        flow.syn("early");
        flow.synAck();
        flow.send(up, 2, "rly data");
    });
    read();
    EXPECT_EQ(sink.stream(1, up), "early data");
    EXPECT_EQ(sink.events[1], "data 1 > 0+5 #1");
}

// ---------------------------------------------------------------------------------------------
// Connections

TEST_F(captureTest, WithOnlyTheSynAckTheClientIsItsReceiver)
{
    writeWithoutHandshake([](tcpFlow& flow) {
        flow.synAck();
        flow.send(up, 0, "request");
        flow.send(down, 0, "response");
    });
    read();
    EXPECT_EQ(sink.events[0], kStart);
    EXPECT_EQ(sink.stream(1, up), "request");
    EXPECT_EQ(sink.stream(1, down), "response");
}

TEST_F(captureTest, WithoutTheSynAckTheClientsAckGivesTheServersSequence)
{
    writeWithoutHandshake([](tcpFlow& flow) {
        flow.syn();
        flow.send(up, 0, "hi");
        flow.send(down, 0, "there");
    });
    read();
    EXPECT_EQ(sink.stream(1, up), "hi");
    EXPECT_EQ(sink.stream(1, down), "there");
}

TEST_F(captureTest, AConnectionWithoutItsStartIsReportedOnceAndIgnored)
{
    flowSetup setup;
    setup.clientIsn = 5000;
    {
        captureWriter out(path);
        tcpFlow old(out, {});
        old.send(down, 10, "middle of something");
        old.send(up, 20, "more of it");
        old.fin(up);
        tcpFlow fresh(out, setup); // the same ports, started over
        fresh.handshake();
        fresh.send(up, 0, "new");
    }
    const captureSummary summary = read();
    EXPECT_EQ(sink.events, (std::vector<std::string>{"without 10.0.0.2:5000 10.0.0.1:40000 #1",
                                                     "start 1 10.0.0.1:40000 10.0.0.2:5000 #4",
                                                     "data 1 > 0+3 #7", "end 1 > captureEnd #7",
                                                     "end 1 < captureEnd #7"}));
    EXPECT_EQ(summary.tcpSegments, 7U);
}

TEST_F(captureTest, ARetransmittedSynStartsNothingNew)
{
    writeWithoutHandshake([](tcpFlow& flow) {
        flow.syn();
        flow.syn();
        flow.synAck();
        flow.synAck();
        flow.send(up, 0, "x");
    });
    read();
    EXPECT_EQ(sink.events,
              (std::vector<std::string>{kStart, "data 1 > 0+1 #5", "end 1 > captureEnd #5",
                                        "end 1 < captureEnd #5"}));
}

TEST_F(captureTest, ASynWithAnotherSequenceNumberStartsANewConnection)
{
    flowSetup second;
    second.clientIsn = 90000;
    flowSetup third;
    third.clientIsn = 123456;
    {
        captureWriter out(path);
        tcpFlow first(out, {});
        first.handshake();
        first.send(up, 0, "one");
        first.fin(up);
        first.fin(down);
        first.syn(); // a late copy of the first start: ignored
        tcpFlow again(out, second);
        again.handshake(); // the ports are free again
        again.send(up, 0, "two");
        tcpFlow over(out, third);
        over.syn(); // the client starts over while the second is open
        over.send(up, 0, "three");
    }
    read();
    EXPECT_EQ(sink.events, (std::vector<std::string>{
                               kStart, "data 1 > 0+3 #4", "end 1 > fin #5", "end 1 < fin #6",
                               "start 2 10.0.0.1:40000 10.0.0.2:5000 #8", "data 2 > 0+3 #11",
                               "end 2 > captureEnd #12", "end 2 < captureEnd #12",
                               "start 3 10.0.0.1:40000 10.0.0.2:5000 #12", "data 3 > 0+5 #13",
                               "end 3 > captureEnd #13", "end 3 < captureEnd #13"}));
}

TEST_F(captureTest, InterleavedConnectionsAreNumberedInTheOrderTheyStart)
{
    flowSetup first;
    first.client = {"192.168.1.10", 50000};
    flowSetup second;
    second.client = {"192.168.1.11", 50000};
    {
        captureWriter out(path);
        tcpFlow a(out, first);
        tcpFlow b(out, second);
        b.syn();
        a.syn();
        a.synAck();
        b.synAck();
        a.send(up, 0, "A1");
        b.send(up, 0, "B1");
        a.send(up, 2, "A2");
        b.fin(up);
        a.fin(up);
    }
    read();
    EXPECT_EQ(sink.events,
              (std::vector<std::string>{"start 1 192.168.1.11:50000 10.0.0.2:5000 #1",
                                        "start 2 192.168.1.10:50000 10.0.0.2:5000 #2",
                                        "data 2 > 0+2 #5", "data 1 > 0+2 #6", "data 2 > 2+2 #7",
                                        "end 1 > fin #8", "end 2 > fin #9", "end 1 < captureEnd #9",
                                        "end 2 < captureEnd #9"}));
}

TEST_F(captureTest, ThePortFilterKeepsConnectionsWithThatPortAtEitherEnd)
{
    flowSetup web;
    web.server.port = 80;
    flowSetup other;
    other.client.port = 80;
    other.server.port = 9999;
    {
        captureWriter out(path);
        tcpFlow kept(out, web);
        tcpFlow dropped(out, {});
        tcpFlow keptToo(out, other);
        kept.handshake();
        dropped.handshake();
        dropped.send(up, 0, "not this");
        kept.send(up, 0, "GET /");
        keptToo.syn();
        dropped.send(down, 5, "nor this, without its start");
    }
    const captureSummary summary = read(80);
    EXPECT_EQ(sink.events,
              (std::vector<std::string>{"start 1 10.0.0.1:40000 10.0.0.2:80 #1", "data 1 > 0+5 #8",
                                        "start 2 10.0.0.1:80 10.0.0.2:9999 #9",
                                        "end 1 > captureEnd #10", "end 1 < captureEnd #10",
                                        "end 2 > captureEnd #10", "end 2 < captureEnd #10"}));
    EXPECT_EQ(summary.frames, 10U);
    EXPECT_EQ(summary.tcpSegments, 5U);
    EXPECT_EQ(summary.skipped, 0U);
}

// ---------------------------------------------------------------------------------------------
// Frames that are cut, foreign or damaged

TEST_F(captureTest, BytesCutByTheSnapLengthAreAGapAndCountAsSeen)
{
    captureFormat format;
    format.snapLength = 14 + 20 + 20 + 6; // Ethernet, IPv4, TCP and 6 payload bytes
    {
        captureWriter out(path, format);
        tcpFlow flow(out, {});
        flow.handshake();
        flow.send(up, 20, "ABCDEFGHIJ");                    // out of order, cut after ABCDEF
        flow.send(up, 0, "abcdefghijklmnop");               // then the start, cut after abcdef
        flow.send(up, 0, "012345678901234567890123456789"); // cut after 012345
        flow.send(up, 30, "!");
    }
    read();
    EXPECT_EQ(sink.stream(1, up), "abcdef[gap 10][gap 4]ABCDEF[gap 4]!");
    EXPECT_EQ(sink.events, (std::vector<std::string>{
                               kStart, "data 1 > 0+6 #5", "gap 1 > 6+10 #5", "gap 1 > 16+4 #6",
                               "data 1 > 20+6 #6", "gap 1 > 26+4 #6", "data 1 > 30+1 #7",
                               "end 1 > captureEnd #7", "end 1 < captureEnd #7"}));
}

TEST_F(captureTest, FramesThatAreNotTcpOverIpAreSkipped)
{
    {
        captureWriter out(path);
        tcpFlow flow(out, {});
        flow.handshake();
        const byteVector data =
            flow.packet(up, flow.seqOf(up, 0), flow.seqOf(down, 0), tcpFlags::ack, "spoiled");
        byteVector udp = data;
        udp[9] = 17;
        byteVector fragment = data;
        fragment[6] = 0x20; // more fragments
        byteVector later = data;
        later[7] = 0x10; // a fragment offset
        byteVector shortHeader = data;
        shortHeader[0] = 0x44; // a 16-byte IPv4 header
        byteVector badOffset = data;
        badOffset[20 + 12] = 0x40; // a 16-byte TCP header
        byteVector pastTheEnd = data;
        pastTheEnd[20 + 12] = 0xF0; // a 60-byte TCP header in a 27-byte segment
        byteVector longer = data;
        longer[3] = 0xFF; // a total length past the frame's end
        for (const byteVector& packet :
             {udp, fragment, later, shortHeader, badOffset, pastTheEnd, longer}) {
            out.writePacket(packet);
        }
        byteVector arp(60, 0);
        arp[12] = 0x08;
        arp[13] = 0x06;
        out.writeFrame(arp);
        out.writeFrame(byteVector(10, 0)); // shorter than an Ethernet header
        flowSetup v6;
        v6.client = {"fe80::1", 40000};
        v6.server = {"fe80::2", 5000};
        tcpFlow flow6(out, v6);
        byteVector fragment6 = flow6.packet(up, 1, 0, tcpFlags::syn, "");
        fragment6[6] = 44; // a fragment header next
        out.writePacket(fragment6);
        byteVector beyond = flow6.packet(up, 1, 0, tcpFlags::syn, "");
        beyond[6] = 0;     // a hop-by-hop header next
        beyond[40] = 6;    // then TCP
        beyond[41] = 0xFF; // but the header claims 2 KiB
        out.writePacket(beyond);
        flow.send(up, 0, "fine");
    }
    const captureSummary summary = read();
    EXPECT_EQ(sink.stream(1, up), "fine");
    EXPECT_EQ(summary.frames, 15U);
    EXPECT_EQ(summary.skipped, 11U);
    EXPECT_EQ(summary.tcpSegments, 4U);
}

TEST_F(captureTest, AnIpLengthOf0MeansTheRestOfTheFrame)
{
    flowSetup v6;
    v6.client = {"fe80::1", 40000};
    v6.server = {"fe80::2", 5000};
    {
        captureWriter out(path, formatOf(DLT_RAW));
        for (const flowSetup& setup : {flowSetup{}, v6}) {
            tcpFlow flow(out, setup);
            flow.handshake();
            byteVector offloaded =
                flow.packet(up, flow.seqOf(up, 0), flow.seqOf(down, 0), tcpFlags::ack, "large");
            // Segmentation offload on the capturing host leaves the length to the NIC.
            offloaded[setup.client.address == "fe80::1" ? 4 : 2] = 0;
            offloaded[setup.client.address == "fe80::1" ? 5 : 3] = 0;
            out.writePacket(offloaded);
        }
    }
    read();
    EXPECT_EQ(sink.stream(1, up), "large");
    EXPECT_EQ(sink.stream(2, up), "large");
}

struct truncationCase
{
    const char* name;
    bool pcapng;
    size_t into; ///< bytes of the cut frame left in the file
};

class captureTruncationTest : public captureTest,
                              public ::testing::WithParamInterface<truncationCase>
{
};

TEST_P(captureTruncationTest, AFileCutInAFrameIsReadUpToIt)
{
    const truncationCase& test = GetParam();
    uint64_t cutAt = 0;
    {
        captureWriter out(path, formatOf(DLT_EN10MB, test.pcapng));
        tcpFlow flow(out, {});
        flow.handshake();
        flow.send(up, 0, "kept");
        flow.send(down, 0, "kept too");
        cutAt = out.size() + test.into;
        flow.send(up, 4, "lost with the end of the file");
    }
    std::filesystem::resize_file(path, cutAt);
    const captureSummary summary = read();
    EXPECT_EQ(summary.truncated, "the file ends in the middle of frame 6");
    EXPECT_EQ(summary.frames, 5U);
    EXPECT_EQ(sink.events,
              (std::vector<std::string>{kStart, "data 1 > 0+4 #4", "data 1 < 0+8 #5",
                                        "end 1 > captureEnd #5", "end 1 < captureEnd #5"}));
}

const truncationCase kTruncations[] = {
    {"pcapInTheRecordHeader", false, 7},
    {"pcapInTheFrame", false, 40},
    {"pcapngInTheBlockHeader", true, 5},
    {"pcapngInTheFrame", true, 50},
};

INSTANTIATE_TEST_SUITE_P(truncations, captureTruncationTest, ::testing::ValuesIn(kTruncations),
                         caseName());

} // namespace
