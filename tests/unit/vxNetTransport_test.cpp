// The secure transport: byte order, entangled pairs, key expansion and the re-seeded keys against
// known answers, the IV mask and the hidden length, and the packet header exchanged in lock-step
// by two ends over a socket pair: every length, thousands of packets both ways, command packets.
// Altered, replayed and swapped packets are the hostile peers' (vxNetHostile_test), on the
// encrypted socket's own receive path.

#include "vxTest.h"
#include "vxTransportPair.h"

#include <sys/socket.h>

#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

using veltrix::vxBytes;
using veltrix::vxCipherId;
using veltrix::vxHashId;
using veltrix::vxMd;
using veltrix::vxNetByteOrder;
using veltrix::vxNetEntangledObj;
using veltrix::vxNetTransportAntiCrib;
using veltrix::vxNetTransportHeader;
using veltrix::vxNetTransportHmacIV;
using veltrix::vxNetTransportKeyExpander;
using veltrix::vxNetTransportKeys;
using vxbench::transportEnd;
using vxbench::transportPair;
using vxtest::filled;
using vxtest::fromHex;
using vxtest::hexOf;
using vxtest::payload;
using vxtest::testFrame;

class vxNetTransportTest : public vxtest::vxCryptoTest
{
protected:
    void TearDown() override
    {
        veltrix::vxBase::lvxClearLastError();
        pair.close();
        vxtest::vxCryptoTest::TearDown();
    }

    /** `count` round trips each way, alternating, every payload checked. */
    void exchange(int count, size_t size)
    {
        for (int i = 0; i < count; ++i) {
            const vxBytes sent = payload(size, static_cast<uint32_t>(i));
            vxBytes got;
            ASSERT_TRUE(pair.client.send(sent) && pair.server.receive(got)) << vxtest::dumpTrail();
            ASSERT_EQ(got.bytes, sent.bytes);
            ASSERT_TRUE(pair.server.send(sent) && pair.client.receive(got)) << vxtest::dumpTrail();
            ASSERT_EQ(got.bytes, sent.bytes);
        }
    }

    transportPair pair;
};

// ---- byte order and entangled pairs ----

TEST_F(vxNetTransportTest, ByteOrderRefusesPartialWordsAndAnEmptyFormQuietly)
{
    vxNetByteOrder order;
    vxBytes out;
    EXPECT_FALSE(order.GetNative(out));
    EXPECT_FALSE(order.SetNative(fromHex("010203040506")));
    EXPECT_TRUE(order.native.bytes.empty());
    EXPECT_QUIET();
}

TEST_F(vxNetTransportTest, ByteOrderReversesEachWordAndConvertsOnlyIntoAnEmptyForm)
{
    vxNetByteOrder order;
    vxBytes out;
    ASSERT_TRUE(order.SetNative(fromHex("0102030405060708")));
    ASSERT_TRUE(order.GetNetwork(out));
    EXPECT_EQ(hexOf(out), "0403020108070605");
    ASSERT_TRUE(order.SetNative(fromHex("AABBCCDD")));
    ASSERT_TRUE(order.GetNetwork(out));
    EXPECT_EQ(hexOf(out), "0403020108070605") << "a stale form survives until Clear";
    order.Clear();
    ASSERT_TRUE(order.SetNative(fromHex("AABBCCDD")));
    ASSERT_TRUE(order.GetNetwork(out));
    EXPECT_EQ(hexOf(out), "DDCCBBAA");

    const vxBytes header = payload(48, 7);
    order.Clear();
    ASSERT_TRUE(order.SetNative(header.bytes.data(), 48));
    ASSERT_TRUE(order.GetNative(out));
    EXPECT_EQ(out.bytes, header.bytes) << "the header's round trip is the identity";
    order.Clear();
    ASSERT_TRUE(order.SetNetwork(fromHex("0A0B0C0D")));
    ASSERT_TRUE(order.GetNative(out));
    EXPECT_EQ(hexOf(out), "0D0C0B0A");
    EXPECT_QUIET();
}

TEST_F(vxNetTransportTest, ByteOrderRefusesWhileLatched)
{
    vxNetByteOrder order;
    vxBytes out;
    vxtest::latchByFailure();
    EXPECT_REFUSED(order.SetNetwork(fromHex("01020304")));
    EXPECT_REFUSED(order.GetNative(out));
}

TEST_F(vxNetTransportTest, EntangledPairsOpenedWithOppositeSidesNameTheSameMemberFromBothEnds)
{
    vxNetEntangledObj one;
    vxNetEntangledObj two;
    ASSERT_TRUE(frame.openChild(one, true));
    ASSERT_TRUE(frame.openChild(two, false));
    vxBytes out = filled(3, 0xEE);
    ASSERT_TRUE(one.SetMagic(fromHex("1111")));
    EXPECT_EQ(hexOf(one.magicOne), "1111");
    ASSERT_TRUE(one.GetInverseMagic(out));
    EXPECT_TRUE(out.bytes.empty()) << "the inverse is the other member, empty here";
    ASSERT_TRUE(two.SetMagic(fromHex("2222")));
    EXPECT_EQ(hexOf(two.magicTwo), "2222");

    two.magicOne = one.magicOne;
    one.magicTwo = two.magicTwo;
    vxBytes theirs;
    for (const bool inverse : {false, true}) {
        ASSERT_TRUE(inverse ? one.GetInverseMagic(out) : one.GetMagic(out));
        ASSERT_TRUE(inverse ? two.GetMagic(theirs) : two.GetInverseMagic(theirs));
        EXPECT_EQ(out.bytes, theirs.bytes);
    }
    testFrame::closeAll(one, two);
}

// ---- key expansion and keys: known answers ----

TEST_F(vxNetTransportTest, KeyExpansionMatchesKnownAnswers)
{
    int checked = 0;
    for (const auto& kat : vxtest::readKat("transport.vec")) {
        if (kat.algorithm != "expand") {
            continue;
        }
        vxNetTransportKeyExpander expander;
        ASSERT_TRUE(
            frame.openChild(expander, static_cast<uint32_t>(std::stoul(kat.fields.at("Size")))));
        vxBytes eb = fromHex(kat.fields.at("In"));
        ASSERT_TRUE(expander.ExpandBytes(eb)) << vxtest::dumpTrail();
        EXPECT_EQ(hexOf(eb), kat.fields.at("Out")) << "in " << kat.fields.at("In");
        testFrame::closeAll(expander);
        ++checked;
    }
    EXPECT_EQ(checked, 6);
}

TEST_F(vxNetTransportTest, KeyExpansionNeedsAnOpenExpander)
{
    vxNetTransportKeyExpander expander;
    vxBytes eb = filled(5, 1);
    EXPECT_FAILS_WITH(expander.ExpandBytes(eb), vxtest::kExpectedOpen);
}

TEST_F(vxNetTransportTest, KeyExpansionToASizeNoCipherHasFailsItsFinalCheck)
{
    vxNetTransportKeyExpander expander;
    ASSERT_TRUE(frame.openChild(expander, 20U));
    vxBytes eb = filled(5, 1);
    EXPECT_FAILS_WITH(expander.ExpandBytes(eb), "eb.bytes.size() == TargetSize");
    veltrix::vxBase::lvxClearLastError();
    testFrame::closeAll(expander);
}

TEST_F(vxNetTransportTest, ReSeededKeysMatchKnownAnswersForEveryCipher)
{
    const auto kats = vxtest::readKat("transport.vec");
    const auto& kat = kats.back();
    ASSERT_EQ(kat.algorithm, "reseed");
    for (const auto& [name, number] : vxtest::ciphers()) {
        vxCipherId id;
        vxNetTransportKeys keys;
        ASSERT_TRUE(frame.openChild(id, number)) << name << vxtest::dumpTrail();
        ASSERT_TRUE(frame.openChild(keys, id, true)) << vxtest::dumpTrail();
        ASSERT_TRUE(keys.ReSeed(fromHex(kat.fields.at("Seed0")), fromHex(kat.fields.at("Seed1"))))
            << vxtest::dumpTrail();
        EXPECT_EQ(hexOf(keys.chain.magicOne), kat.fields.at("MagicOne"));
        EXPECT_EQ(hexOf(keys.chain.magicTwo), kat.fields.at("MagicTwo"));
        EXPECT_EQ(hexOf(keys.ciphers.ivA.iv), kat.fields.at("IvA"));
        EXPECT_EQ(hexOf(keys.ciphers.ivB.iv), kat.fields.at("IvB"));
        vxBytes out;
        const bool twoBlocks = number == vxCipherId::none;
        ASSERT_TRUE(keys.Encrypt(filled(twoBlocks ? 32 : 16, 0), out));
        EXPECT_EQ(hexOf(out), kat.fields.at(twoBlocks ? "NoneTwoBlocks" : name)) << name;
        testFrame::closeAll(keys, id);
    }
}

// ---- IV mask and hidden length ----

TEST_F(vxNetTransportTest, MaskAndUnmaskAgreeAndBothMasksAdvanceAlike)
{
    vxNetTransportHmacIV sender;
    vxNetTransportHmacIV receiver;
    vxNetTransportHmacIV empty;
    ASSERT_TRUE(frame.openChild(sender, 16U) && frame.openChild(receiver, 16U) &&
                frame.openChild(empty, 0U));
    const vxBytes iv0 = payload(16, 1);
    ASSERT_TRUE(sender.SetIV(iv0) && receiver.SetIV(iv0) && empty.SetIV(iv0));
    for (uint32_t i = 0; i < 50; ++i) {
        const vxBytes cipherOutput = payload(16, 100 + i);
        vxBytes block = cipherOutput;
        ASSERT_TRUE(sender.Mutate(block));
        EXPECT_NE(block.bytes, cipherOutput.bytes);
        ASSERT_TRUE(receiver.Restore(block));
        EXPECT_EQ(block.bytes, cipherOutput.bytes);
        EXPECT_EQ(sender.iv.bytes, receiver.iv.bytes);
    }
    vxBytes block = payload(16, 9);
    ASSERT_TRUE(empty.Mutate(block));
    EXPECT_TRUE(block.bytes.empty()) << "a mask of size 0 keeps no byte";
    EXPECT_NE(empty.iv.bytes, iv0.bytes) << "and still advances";

    vxBytes shortBlock = filled(15, 0);
    EXPECT_THROW((void)sender.Mutate(shortBlock), std::out_of_range);
    testFrame::closeAll(sender, receiver, empty);
}

TEST_F(vxNetTransportTest, HiddenValuesAreFoundAtTheSameOffsetsPacketAfterPacket)
{
    vxNetTransportAntiCrib hider;
    vxNetTransportAntiCrib finder;
    ASSERT_TRUE(frame.openChild(hider, 12U) && frame.openChild(finder, 12U));
    // The sequence's first offset from its opening state is 0; the hidden value is big-endian.
    vxBytes haystack = filled(17, 0xAA);
    ASSERT_TRUE(hider.Hide(0x10, haystack));
    EXPECT_EQ(hexOf(haystack), "00000010AAAAAAAAAAAAAAAAAAAAAAAA");
    uint32_t found = 0;
    ASSERT_TRUE(finder.Find(fromHex("01020304")) && finder.GetValue(found));
    EXPECT_EQ(found, 0x01020304U);
    ASSERT_TRUE(finder.Find(fromHex("01020304")) && finder.GetValue(found));
    EXPECT_EQ(found, 0U) << "the second offset, 6, lies in the zero-filled part";

    std::set<uint32_t> offsets;
    for (uint32_t i = 0; i < 1000; ++i) {
        haystack = filled(16, 0);
        ASSERT_TRUE(hider.Seed(payload(16, i)) && finder.Seed(payload(16, i)));
        ASSERT_TRUE(hider.Hide(0xFFFFFFFFU - i, haystack));
        for (size_t at = 0; at < 16; ++at) {
            if (haystack.bytes[at] != 0) {
                offsets.insert(static_cast<uint32_t>(at));
                break;
            }
        }
        ASSERT_TRUE(finder.Find(haystack) && finder.GetValue(found));
        ASSERT_EQ(found, 0xFFFFFFFFU - i);
    }
    EXPECT_EQ(offsets.size(), 12U) << "offsets 0 to 11 all occur";
    EXPECT_EQ(*offsets.rbegin(), 11U);

    vxBytes shortHaystack = filled(15, 0);
    EXPECT_THROW((void)hider.Hide(1, shortHaystack), std::out_of_range);
    testFrame::closeAll(hider, finder);
}

TEST_F(vxNetTransportTest, FindRefusesHaystacksOfTheWrongLength)
{
    const std::vector<std::pair<size_t, const char*>> cases = {
        {0, "(haystack.bytes.size() > 1 )"},
        {1, "(haystack.bytes.size() > 1 )"},
        {17, "(haystack.bytes.size() <= 16)"}};
    vxNetTransportAntiCrib finder;
    ASSERT_TRUE(frame.openChild(finder, 12U));
    for (const auto& [size, text] : cases) {
        SCOPED_TRACE(size);
        EXPECT_FAILS_WITH(finder.Find(filled(size, 1)), text);
        veltrix::vxBase::lvxClearLastError();
    }
    testFrame::closeAll(finder);
}

// ---- ciphers and keys in both directions ----

TEST_F(vxNetTransportTest, KeysOfOppositeSidesDecryptEachOthersBlocksAndDropPartialBlocks)
{
    ASSERT_TRUE(pair.open(frame, vxCipherId::aes256)) << vxtest::dumpTrail();
    vxNetTransportKeys& server = pair.server.keys;
    vxNetTransportKeys& client = pair.client.keys;
    vxBytes sealed;
    vxBytes opened;
    for (uint32_t i = 0; i < 300; ++i) {
        const vxBytes plain = payload(16 * (1 + i % 5), i);
        vxNetTransportKeys& from = i % 3 == 0 ? client : server;
        vxNetTransportKeys& to = i % 3 == 0 ? server : client;
        ASSERT_TRUE(from.Encrypt(plain, sealed) && to.Decrypt(sealed, opened));
        ASSERT_EQ(opened.bytes, plain.bytes) << i;
    }
    const vxBytes block = filled(16, 0x5A);
    vxBytes first;
    ASSERT_TRUE(server.Encrypt(block, first) && server.Encrypt(&block, sealed));
    EXPECT_NE(first.bytes, sealed.bytes) << "the same block twice is never the same ciphertext";

    ASSERT_TRUE(server.Encrypt(filled(15, 1), sealed));
    EXPECT_TRUE(sealed.bytes.empty());
    ASSERT_TRUE(server.Encrypt(filled(40, 1), sealed));
    EXPECT_EQ(sealed.bytes.size(), 32U);
    EXPECT_QUIET();
}

TEST_F(vxNetTransportTest, ReSeedingWithTheSeedsSwappedGivesKeysThatDoNotMatch)
{
    ASSERT_TRUE(pair.open(frame, vxCipherId::aes128));
    const vxBytes seed0 = payload(16, 1);
    const vxBytes seed1 = payload(16, 2);
    ASSERT_TRUE(pair.server.keys.ReSeed(seed0, seed1) && pair.client.keys.ReSeed(seed1, seed0));
    EXPECT_NE(pair.server.keys.chain.magicOne.bytes, pair.client.keys.chain.magicOne.bytes);
    const vxBytes plain = filled(16, 3);
    vxBytes sealed;
    vxBytes opened;
    ASSERT_TRUE(pair.server.keys.Encrypt(plain, sealed) &&
                pair.client.keys.Decrypt(sealed, opened));
    EXPECT_NE(opened.bytes, plain.bytes);

    EXPECT_FAILS_WITH(pair.server.keys.ReSeed(vxBytes(), seed1), "( seed0.bytes.size() > 0 )");
    veltrix::vxBase::lvxClearLastError();
    EXPECT_FAILS_WITH(pair.server.keys.ReSeed(seed0, vxBytes()), "( seed1.bytes.size() > 0 )");
}

TEST_F(vxNetTransportTest, EntropyPoolsAreLeftEmptyByEveryUpdate)
{
    ASSERT_TRUE(pair.open(frame, vxCipherId::aes128));
    vxNetTransportKeys& keys = pair.server.keys;
    EXPECT_EQ(keys.entropy.magicOne.bytes.size(), 16U) << "ReSeed fills both pools";
    ASSERT_TRUE(keys.UpdateEntropyPoolOne(filled(16, 1)));
    EXPECT_TRUE(keys.entropy.magicOne.bytes.empty());
    EXPECT_EQ(keys.entropy.magicTwo.bytes.size(), 16U);
    ASSERT_TRUE(keys.UpdateEntropyPoolTwo(filled(16, 1)));
    EXPECT_TRUE(keys.entropy.magicTwo.bytes.empty());
}

// ---- packets ----

TEST_F(vxNetTransportTest, PayloadsOfEveryLengthCrossInBothDirectionsPaddedToWholeBlocks)
{
    ASSERT_TRUE(pair.open(frame, vxCipherId::aes256));
    const std::vector<std::pair<uint32_t, uint32_t>> sizes = {
        {0, 48},  {1, 64},      {15, 64},       {16, 64},
        {17, 80}, {1000, 1056}, {16368, 16416}, {16384, 16432}};
    for (const auto& [size, onWire] : sizes) {
        for (transportEnd* from : {&pair.client, &pair.server}) {
            transportEnd& to = from == &pair.client ? pair.server : pair.client;
            const vxBytes sent = payload(size, size);
            uint32_t wireSize = 0;
            vxBytes got;
            ASSERT_TRUE(from->send(sent, wireSize) && to.receive(got)) << vxtest::dumpTrail();
            EXPECT_EQ(wireSize, onWire) << size;
            EXPECT_EQ(got.bytes, sent.bytes) << size;
            uint32_t padded = 0;
            ASSERT_TRUE(to.header.GetSizeWithPadding(padded));
            EXPECT_EQ(padded, onWire - 48);
        }
    }
}

/** Counts every digest the plug-in finishes while it is installed: one per Final, two per pair
 *  of digests computed side by side. With `optional` false the plug-in's optional entry points
 *  (the digest pair, the cipher runs) are hidden, as for a plug-in that offers none of them. */
class digestCounter
{
public:
    explicit digestCounter(bool optional)
        : registry(*veltrix::cryptoRegistry), final(registry.vxPluginMdFinal),
          pair(registry.vxPluginMdDigestPair), encryptRun(registry.vxPluginCipherEncryptBlocks),
          decryptRun(registry.vxPluginCipherDecryptBlocks)
    {
        count = 0;
        pairs = 0;
        realFinal = final;
        realPair = pair;
        registry.vxPluginMdFinal = countFinal;
        registry.vxPluginMdDigestPair = optional ? countPair : nullptr;
        registry.vxPluginCipherEncryptBlocks = optional ? encryptRun : nullptr;
        registry.vxPluginCipherDecryptBlocks = optional ? decryptRun : nullptr;
    }

    digestCounter(const digestCounter&) = delete;
    digestCounter& operator=(const digestCounter&) = delete;
    digestCounter(digestCounter&&) = delete;
    digestCounter& operator=(digestCounter&&) = delete;

    ~digestCounter()
    {
        registry.vxPluginMdFinal = final;
        registry.vxPluginMdDigestPair = pair;
        registry.vxPluginCipherEncryptBlocks = encryptRun;
        registry.vxPluginCipherDecryptBlocks = decryptRun;
    }

    static inline unsigned long count = 0;
    static inline unsigned long pairs = 0;

private:
    static bool countFinal(veltrix::vxPluginStorage* st)
    {
        ++count;
        return realFinal(st);
    }

    static bool countPair(veltrix::vxPluginStorage* first, const unsigned char* firstData,
                          uint32_t firstLength, veltrix::vxPluginStorage* second,
                          const unsigned char* secondData, uint32_t secondLength)
    {
        count += 2;
        ++pairs;
        return realPair(first, firstData, firstLength, second, secondData, secondLength);
    }

    static inline veltrix::vxPluginMdFinal_t realFinal = nullptr;
    static inline veltrix::vxPluginMdDigestPair_t realPair = nullptr;
    veltrix::vxReg& registry;
    veltrix::vxPluginMdFinal_t final;
    veltrix::vxPluginMdDigestPair_t pair;
    veltrix::vxPluginCipherEncryptBlocks_t encryptRun;
    veltrix::vxPluginCipherDecryptBlocks_t decryptRun;
};

/** What a session of packets both ways puts on the wire, and how many digests it took. */
struct sessionTrace
{
    std::vector<unsigned char> wire;
    unsigned long digests = 0;
    unsigned long pairs = 0;
};

sessionTrace traceSession(testFrame& frame, bool optional)
{
    sessionTrace trace;
    const digestCounter counter(optional);
    transportPair ends;
    if (!ends.open(frame, vxCipherId::aes256)) {
        return trace;
    }
    for (transportEnd* end : {&ends.client, &ends.server}) {
        (void)end->header.rand.SetTestMode(); // the same padding and haystacks in both runs
    }
    for (const uint32_t size : {0U, 5U, 16U, 1000U, 16384U, 17U}) {
        for (transportEnd* from : {&ends.client, &ends.server}) {
            transportEnd& to = from == &ends.client ? ends.server : ends.client;
            vxBytes got;
            const vxBytes sent = payload(size, size);
            if (!from->send(sent) || !to.receive(got) || got.bytes != sent.bytes) {
                return {};
            }
            for (const vxBytes* part : {&from->sealedHeader, &from->wire}) {
                trace.wire.insert(trace.wire.end(), part->bytes.begin(), part->bytes.end());
            }
        }
    }
    ends.close(); // the last outer digests of each direction are computed here
    trace.digests = digestCounter::count;
    trace.pairs = digestCounter::pairs;
    return trace;
}

TEST_F(vxNetTransportTest, TheOptionalEntryPointsChangeNeitherTheWireNorTheNumberOfDigests)
{
    // With them, the digests run in pairs and each packet's blocks go through the cipher in one
    // call; without them, one digest and one block at a time.
    const sessionTrace twoLanes = traceSession(frame, true);
    const sessionTrace oneLane = traceSession(frame, false);
    ASSERT_FALSE(twoLanes.wire.empty()) << vxtest::dumpTrail();
    EXPECT_EQ(twoLanes.wire, oneLane.wire);
    EXPECT_EQ(twoLanes.digests, oneLane.digests);
    EXPECT_EQ(oneLane.pairs, 0U);
    // 12 headers of 3 blocks and the padded bodies, each way. Every block advances the mask of
    // its sender and of its receiver; each of the four masks pairs every inner digest but its
    // first with the outer digest of the block before.
    const unsigned long blocks = 12 * 3 + 2 * (0 + 16 + 16 + 1008 + 16384 + 32) / 16;
    EXPECT_EQ(twoLanes.pairs, 2 * blocks - 4);
    EXPECT_GE(twoLanes.digests, 4 * blocks);

    // One mask on its own: an inner and an outer digest per block, the last outer one at Close.
    for (const bool sideBySide : {true, false}) {
        const digestCounter counter(sideBySide);
        vxNetTransportHmacIV mask;
        ASSERT_TRUE(frame.openChild(mask, 16U) && mask.SetIV(payload(16, 1)));
        for (uint32_t i = 0; i < 10; ++i) {
            vxBytes block = payload(16, i);
            ASSERT_TRUE(mask.Mutate(block));
        }
        EXPECT_EQ(digestCounter::count, 19U);
        testFrame::closeAll(mask);
        EXPECT_EQ(digestCounter::count, 20U);
        EXPECT_EQ(digestCounter::pairs, sideBySide ? 9U : 0U);
    }
}

TEST_F(vxNetTransportTest, ThousandsOfPacketsInterleavedBothWaysStayInStepForEveryCipher)
{
    for (const auto& [name, number] : vxtest::ciphers()) {
        transportPair ends;
        ASSERT_TRUE(ends.open(frame, number)) << name;
        std::mt19937 generator(number);
        std::vector<vxBytes> inFlight;
        for (uint32_t i = 0; i < 1000; ++i) {
            // A burst of one to three packets one way, then the other end reads them all.
            const bool fromClient = generator() % 2 == 0;
            transportEnd& from = fromClient ? ends.client : ends.server;
            transportEnd& to = fromClient ? ends.server : ends.client;
            inFlight.clear();
            for (uint32_t burst = 1 + generator() % 3; burst > 0; --burst) {
                inFlight.push_back(payload(generator() % 2048, i * 3 + burst));
                ASSERT_TRUE(from.send(inFlight.back())) << vxtest::dumpTrail();
            }
            for (const vxBytes& sent : inFlight) {
                vxBytes got;
                ASSERT_TRUE(to.receive(got)) << name << " packet " << i << vxtest::dumpTrail();
                ASSERT_EQ(got.bytes, sent.bytes) << name << " packet " << i;
            }
        }
        ends.close();
    }
}

TEST_F(vxNetTransportTest, ACommandPacketIsAHeaderAloneWhoseBodyHmacCoversTheChainKey)
{
    ASSERT_TRUE(pair.open(frame, vxCipherId::aes128));
    exchange(3, 20);
    vxBytes chainKey; // K of the client's sending direction, before the packet
    ASSERT_TRUE(pair.client.keys.chain.GetInverseMagic(chainKey));
    ASSERT_TRUE(pair.client.header.CreateCmdMessage(5, pair.client.keys, &pair.client.socket))
        << vxtest::dumpTrail();

    vxBytes got = filled(1, 0);
    ASSERT_TRUE(pair.server.receive(got)) << vxtest::dumpTrail();
    EXPECT_TRUE(got.bytes.empty());
    uint32_t value = 0;
    ASSERT_TRUE(pair.server.header.GetPayloadSize(value));
    EXPECT_EQ(value, 0xC0DE0005U);
    ASSERT_TRUE(pair.server.header.GetSizeWithPadding(value));
    EXPECT_EQ(value, 0xC0DE0010U);
    unsigned char extra = 0;
    EXPECT_EQ(recv(pair.server.socket.sockFd, &extra, 1, MSG_DONTWAIT), -1)
        << "nothing follows the 48-byte header";

    // The body HMAC is the keyed digest of K under K' = the ratcheted key: MD5((K' xor 0x36) || K).
    vxBytes ratcheted;
    ASSERT_TRUE(pair.server.keys.chain.GetMagic(ratcheted));
    vxHashId id;
    vxMd md;
    ASSERT_TRUE(frame.openChild(id, vxHashId::md5) && frame.openChild(md, id));
    vxBytes pad = ratcheted;
    for (unsigned char& byte : pad.bytes) {
        byte ^= 0x36U;
    }
    vxBytes expected;
    ASSERT_TRUE(md.Init() && md.Update(pad) && md.Update(chainKey) && md.Final() &&
                md.GetBytes(expected));
    EXPECT_EQ(hexOf(pair.server.header.hMacBody), hexOf(expected));
    testFrame::closeAll(md, id);

    exchange(3, 100); // both directions carry on in step after a command
}

TEST_F(vxNetTransportTest, CommandCodesArriveMarkedAndRoundedUpToSixteen)
{
    ASSERT_TRUE(pair.open(frame, vxCipherId::aes256));
    // code sent, padded size found by the receiver
    const std::vector<std::pair<uint32_t, uint32_t>> cases = {
        {1, 0xC0DE0010U},  {2, 0xC0DE0010U},       {16, 0xC0DE0010U}, {17, 0xC0DE0020U},
        {20, 0xC0DE0020U}, {0xFFF0U, 0xC0DEFFF0U}, {0, 0xC0DE0000U},  {0xFFFFU, 0xC0DF0000U}};
    for (const auto& [code, padded] : cases) {
        for (transportEnd* from : {&pair.client, &pair.server}) {
            transportEnd& to = from == &pair.client ? pair.server : pair.client;
            ASSERT_TRUE(from->header.CreateCmdMessage(code, from->keys, &from->socket));
            ASSERT_TRUE(to.header.ReadFromWire(to.keys, &to.socket)) << vxtest::dumpTrail();
            uint32_t value = 0;
            ASSERT_TRUE(to.header.GetPayloadSize(value));
            EXPECT_EQ(value, 0xC0DE0000U | code);
            ASSERT_TRUE(to.header.GetSizeWithPadding(value));
            EXPECT_EQ(value, padded) << code;
        }
    }
    exchange(2, 16);
}

TEST_F(vxNetTransportTest, TheSamePayloadTwiceLooksDifferentOnTheWire)
{
    ASSERT_TRUE(pair.open(frame, vxCipherId::aes128));
    const vxBytes payload = filled(17, 0x42);
    std::vector<std::vector<unsigned char>> headers;
    std::vector<std::vector<unsigned char>> bodies;
    for (int i = 0; i < 2; ++i) {
        vxBytes got;
        ASSERT_TRUE(pair.client.send(payload) && pair.server.receive(got));
        vxBytes header;
        ASSERT_TRUE(pair.client.header.GetEncryptedHeader(header));
        headers.push_back(header.bytes);
        bodies.push_back(pair.client.wire.bytes);
    }
    EXPECT_NE(headers[0], headers[1]);
    EXPECT_NE(bodies[0], bodies[1]);
}

TEST_F(vxNetTransportTest, ThePaddedSizeRoundsUpUnlessRoundingWouldOverflow)
{
    vxNetTransportHeader header;
    ASSERT_TRUE(frame.openChild(header, true));
    const std::vector<std::pair<uint32_t, uint32_t>> cases = {{0, 0},
                                                              {1, 16},
                                                              {15, 16},
                                                              {16, 16},
                                                              {17, 32},
                                                              {0xFFFFFFEFU, 0xFFFFFFF0U},
                                                              {0xFFFFFFF0U, 0xFFFFFFF0U},
                                                              {0xFFFFFFFFU, 0xFFFFFFF0U}};
    for (const auto& [size, padded] : cases) {
        header.SetPaddingSize(size);
        EXPECT_EQ(header.payloadSize, size);
        EXPECT_EQ(header.sizeWithPadding, padded) << size;
    }
    header.Clear();
    EXPECT_EQ(header.sizeWithPadding, 0U);
    testFrame::closeAll(header);
}

TEST_F(vxNetTransportTest, HeaderOperationsNeedAnOpenHeader)
{
    vxNetTransportHeader header;
    vxNetTransportKeys keys;
    EXPECT_FAILS_WITH(header.CreateFromPayload(keys, vxBytes()), vxtest::kExpectedOpen);
}

} // namespace
