// The keyed digest vxHmacMd. Its value is H((K xor 0x36) || m): the key is used as it is (neither
// hashed nor padded) and the outer digest is computed but not handed out. Every expected value is
// built independently: the padded input is assembled here and digested by the openssl tool.

#include "cryptoapi.h"
#include "vxTest.h"

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

namespace {

using veltrix::vxBytes;
using veltrix::vxHashId;
using veltrix::vxHmacMd;
using vxtest::bufferOf;
using vxtest::testFrame;

using byteVector = std::vector<unsigned char>;

byteVector bytes(const std::string& text)
{
    return byteVector(text.begin(), text.end());
}

/** Each key byte XORed with 0x36, then the message: the input of the value's digest. */
byteVector innerInput(const byteVector& key, const byteVector& message)
{
    byteVector input;
    for (const unsigned char k : key) {
        input.push_back(static_cast<unsigned char>(k ^ 0x36U));
    }
    input.insert(input.end(), message.begin(), message.end());
    return input;
}

/** The openssl command line digest of `data`, upper-case hex; SHA-256/128 is SHA-256 cut to 16
 *  bytes. */
std::string cliDigest(uint32_t id, const byteVector& data)
{
    const bool truncated = id == vxHashId::sha256_128;
    std::string name = "sha256";
    for (const auto& [known, number] : vxtest::digests()) {
        name = number == id && !truncated ? known : name;
    }
    const vxtest::tempDir dir;
    const std::string path = dir.path("input.bin");
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(data.data()),
               static_cast<std::streamsize>(data.size()));
    const std::string line = vxtest::run("openssl dgst -" + name + " -r " + path);
    const std::string hex = vxtest::upper(line.substr(0, line.find(' ')));
    return truncated ? hex.substr(0, 32) : hex;
}

class vxHmacMdTest : public vxtest::vxCryptoTest
{
protected:
    void SetUp() override
    {
        vxtest::vxCryptoTest::SetUp();
        ASSERT_TRUE(frame.openChild(id, vxHashId::sha1));
        ASSERT_TRUE(frame.openChild(mac, id)) << vxtest::dumpTrail();
        closeAtEnd = {&mac, &id};
    }

    /** One message through SetKey(bytes), Init, Update, Final; the value as hex. */
    static std::string valueOf(vxHmacMd& keyed, const byteVector& key, const byteVector& message)
    {
        EXPECT_TRUE(keyed.SetKey(bufferOf(key)));
        EXPECT_TRUE(keyed.Init());
        EXPECT_TRUE(keyed.Update(bufferOf(message)));
        return finalValue(keyed);
    }

    /** Final, then the value as hex. */
    static std::string finalValue(vxHmacMd& keyed)
    {
        EXPECT_TRUE(keyed.Final());
        vxBytes value;
        EXPECT_TRUE(keyed.GetBytes(value));
        return vxtest::hexOf(value);
    }

    vxHashId id;
    vxHmacMd mac;
};

TEST_F(vxHmacMdTest, ValueIsTheInnerDigestOfThePaddedMessageForEveryIdAndKeyLength)
{
    // 0x6B xor 0x36 = 0x5D, so the value is SHA-1 of 5D 61 62 63; the shell builds those bytes.
    const std::string line = vxtest::run("printf '\\135abc' | sha1sum");
    EXPECT_EQ(valueOf(mac, {0x6B}, bytes("abc")), vxtest::upper(line.substr(0, 40)));
    EXPECT_EQ(valueOf(mac, {0x6B}, bytes("abc")),
              cliDigest(vxHashId::sha1, {0x5D, 0x61, 0x62, 0x63}));
    // The standard HMAC-SHA1 of "abc" under the key "k" differs.
    const std::string standard =
        vxtest::run("printf abc | openssl dgst -sha1 -hmac k -r | cut -d' ' -f1");
    EXPECT_NE(valueOf(mac, bytes("k"), bytes("abc")), vxtest::upper(standard.substr(0, 40)));
    // An empty key gives the plain digest.
    EXPECT_EQ(valueOf(mac, {}, bytes("abc")), "A9993E364706816ABA3E25717850C26C9CD0D89D");
    EXPECT_EQ(valueOf(mac, {}, {}), "DA39A3EE5E6B4B0D3255BFEF95601890AFD80709");

    byteVector longKey(200); // used as it is
    for (size_t i = 0; i < longKey.size(); ++i) {
        longKey[i] = static_cast<unsigned char>(i * 7 + 3);
    }
    const byteVector message = bytes("The quick brown fox jumps over the lazy dog");
    for (const auto& c : vxtest::kDigestSizes) {
        vxHashId otherId;
        vxHmacMd other;
        ASSERT_TRUE(frame.openChild(otherId, c.id) && frame.openChild(other, otherId));
        for (const byteVector& key : {bytes("a shared secret"), longKey}) {
            const std::string value = valueOf(other, key, message);
            EXPECT_EQ(value.size(), 2 * c.size) << c.id;
            EXPECT_EQ(value, cliDigest(c.id, innerInput(key, message))) << c.id;
        }
        testFrame::closeAll(other, otherId);
    }
    EXPECT_FALSE(vxtest::latched());
}

TEST_F(vxHmacMdTest, SetKeyMakesBothPadsFromTheKeyAsItIs)
{
    ASSERT_TRUE(mac.SetKey(bufferOf({0x00, 0x6B, 0xFF})));
    EXPECT_EQ(mac.innerKey.bytes, (byteVector{0x36, 0x5D, 0xC9}));
    EXPECT_EQ(mac.outerKey.bytes, (byteVector{0x5C, 0x37, 0xA3}));
    ASSERT_TRUE(mac.SetKey(bufferOf({})));
    EXPECT_TRUE(mac.innerKey.bytes.empty());
    EXPECT_TRUE(mac.outerKey.bytes.empty());
}

TEST_F(vxHmacMdTest, GetBytesBeforeAnyFinalIsEmpty)
{
    ASSERT_TRUE(mac.SetKey(bufferOf({0x01})) && mac.Init());
    ASSERT_TRUE(mac.Update(vxtest::bytesOf("abc")));
    vxBytes early; // before any Final: empty
    early.bytes = {9, 9};
    EXPECT_TRUE(mac.GetBytes(early));
    EXPECT_TRUE(early.bytes.empty());
}

// Init again reuses the key: the second message below runs without a new SetKey.
TEST_F(vxHmacMdTest, AMessageInPiecesHasTheValueOfTheWhole)
{
    const byteVector key = {0x01, 0x02, 0x03};
    const std::string whole = valueOf(mac, key, bytes("first,second,third"));
    ASSERT_TRUE(mac.Init());
    for (const char* part : {"first,", "", "second,", "third"}) {
        EXPECT_TRUE(mac.Update(vxtest::bytesOf(part)));
    }
    EXPECT_EQ(finalValue(mac), whole);
    EXPECT_EQ(whole, cliDigest(vxHashId::sha1, innerInput(key, bytes("first,second,third"))));
}

TEST_F(vxHmacMdTest, ANewKeyTakesEffectAtTheNextInit)
{
    const byteVector oldKey = bytes("old key");
    const byteVector newKey = bytes("new key");
    const byteVector message = bytes("payload");
    ASSERT_TRUE(mac.SetKey(bufferOf(oldKey)) && mac.Init() && mac.SetKey(bufferOf(newKey)));
    ASSERT_TRUE(mac.Update(bufferOf(message)));
    EXPECT_EQ(finalValue(mac), cliDigest(vxHashId::sha1, innerInput(oldKey, message)));
    ASSERT_TRUE(mac.Init() && mac.Update(bufferOf(message)));
    EXPECT_EQ(finalValue(mac), cliDigest(vxHashId::sha1, innerInput(newKey, message)));
}

TEST_F(vxHmacMdTest, ATextKeyIsItsBytesAndAShorterKeyShrinksThePads)
{
    const std::string fromBytes = valueOf(mac, bytes("text key"), bytes("abc"));
    ASSERT_TRUE(mac.SetKey(std::string("text key")) && mac.Init());
    ASSERT_TRUE(mac.Update(vxtest::bytesOf("abc")));
    EXPECT_EQ(finalValue(mac), fromBytes);
    // A shorter key after a longer one shrinks the pads.
    EXPECT_EQ(valueOf(mac, bytes("k"), bytes("abc")),
              cliDigest(vxHashId::sha1, innerInput(bytes("k"), bytes("abc"))));
}

TEST_F(vxHmacMdTest, UpdateAfterFinalFailsAndGuardedOperationsRefuseWhileLatched)
{
    const std::string before = valueOf(mac, {0x01}, bytes("abc"));
    EXPECT_FAILS_WITH(mac.Update(vxtest::bytesOf("more")), "finalized == false");
    EXPECT_EQ(vxtest::trailMessages().back(), "Boolean return value failed.");
    EXPECT_REFUSED(mac.Init());
    EXPECT_REFUSED(mac.Update(vxtest::bytesOf("x")));
    EXPECT_REFUSED(mac.Final());
    EXPECT_REFUSED(mac.SetKey(std::string("text")));
    EXPECT_REFUSED(mac.Close());
    EXPECT_TRUE(mac.inner.opened) << "a refused Close leaves the digests open";
    // The unguarded operations still work.
    EXPECT_TRUE(mac.SetKey(bufferOf({0x02})));
    vxBytes value;
    EXPECT_TRUE(mac.GetBytes(value));
    EXPECT_EQ(vxtest::hexOf(value), before);
}

TEST_F(vxHmacMdTest, CloseClosesBothDigestsAndOpenWithAnUnsetIdFails)
{
    ASSERT_TRUE(mac.inner.opened && mac.outer.opened && mac.inner.storage.isopen);
    EXPECT_TRUE(testFrame::closeChild(mac));
    EXPECT_FALSE(mac.opened || mac.inner.opened || mac.outer.opened);
    EXPECT_FALSE(mac.inner.storage.isopen || mac.outer.storage.isopen);
    EXPECT_FALSE(vxtest::latched());
    vxHashId unset; // value 0: refused by the plug-in
    vxHmacMd other;
    EXPECT_FAILS_WITH(frame.openChild(other, unset), "Object Open() routine failed.");
    EXPECT_FALSE(other.opened);
    EXPECT_FALSE(other.inner.storage.isopen);
}

} // namespace
