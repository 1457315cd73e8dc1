// The block cipher vxCipher: AES known answers, the identity cipher and its one-shot life.

#include "cryptoapi.h"
#include "vxTest.h"

#include <cstdint>
#include <string>

namespace {

using veltrix::vxBytes;
using veltrix::vxCipher;
using veltrix::vxCipherId;
using vxtest::fromHex;

class vxCipherTest : public vxtest::vxCryptoTest
{
protected:
    /** Opens `opened` on `value`; a cipher opens once, so each needs an object of its own. */
    bool openCipher(vxCipherId& onId, vxCipher& opened, uint32_t value)
    {
        return frame.openChild(onId, value) && frame.openChild(opened, onId);
    }

    /** Opens the fixture's cipher, which the case's end closes. */
    bool openCipher(uint32_t value)
    {
        closeAtEnd = {&cipher, &id};
        return openCipher(id, cipher, value);
    }

    static uint32_t blockSize(vxCipher& opened)
    {
        uint32_t size = 0;
        EXPECT_TRUE(opened.GetBlockSize(size));
        return size;
    }

    static uint32_t keySize(vxCipher& opened)
    {
        uint32_t size = 0;
        EXPECT_TRUE(opened.GetKeySize(size));
        return size;
    }

    vxCipherId id;
    vxCipher cipher;
};

TEST_F(vxCipherTest, AesMatchesFips197InBothDirectionsAndANewKeyReplacesTheOld)
{
    const auto cases = vxtest::readKat("aes.vec");
    ASSERT_EQ(cases.size(), 3U);
    for (const auto& kat : cases) {
        SCOPED_TRACE(kat.algorithm);
        vxCipherId aesId;
        vxCipher aes;
        ASSERT_TRUE(openCipher(aesId, aes, vxtest::idOf(vxtest::ciphers(), kat.algorithm)));
        const vxBytes key = fromHex(kat.fields.at("Key"));
        const vxBytes plain = fromHex(kat.fields.at("In"));
        const vxBytes expected = fromHex(kat.fields.at("Out"));
        EXPECT_EQ(blockSize(aes), 16U);
        EXPECT_EQ(keySize(aes), key.bytes.size());
        ASSERT_TRUE(aes.SetKey(fromHex(std::string(2 * key.bytes.size(), 'F'))));
        vxBytes out;
        ASSERT_TRUE(aes.Encrypt(plain, out));
        EXPECT_NE(out.bytes, expected.bytes);
        ASSERT_TRUE(aes.SetKey(key)) << vxtest::dumpTrail();
        EXPECT_TRUE(aes.Encrypt(plain, out));
        EXPECT_EQ(out.bytes, expected.bytes);
        vxBytes back;
        EXPECT_TRUE(aes.Decrypt(expected, back));
        EXPECT_EQ(back.bytes, plain.bytes);
        vxtest::testFrame::closeAll(aes, aesId);
    }
    EXPECT_FALSE(vxtest::latched());
}

TEST_F(vxCipherTest, NoneIsTheIdentityOnBlocksOfSixteen)
{
    ASSERT_TRUE(openCipher(vxCipherId::none));
    EXPECT_EQ(blockSize(cipher), 16U);
    ASSERT_TRUE(cipher.SetKey(fromHex(std::string(2 * keySize(cipher), '5'))));
    const vxBytes block = fromHex("000102030405060708090A0B0C0D0EFF");
    vxBytes out;
    vxBytes back;
    EXPECT_TRUE(cipher.Encrypt(block, out) && cipher.Decrypt(block, back));
    EXPECT_EQ(out.bytes, block.bytes);
    EXPECT_EQ(back.bytes, block.bytes);
}

TEST_F(vxCipherTest, AnOpenCipherIsNotOpenedAgain)
{
    ASSERT_TRUE(openCipher(vxCipherId::aes128));
    EXPECT_FAILS_WITH(cipher.Open(id), "storage.isopen == false");
}

TEST_F(vxCipherTest, AnUnsetIdentifierOpensNoCipher)
{
    vxCipherId unset; // value 0
    EXPECT_FAILS_WITH(frame.openChild(cipher, unset), "storage.isopen == true");
    EXPECT_FALSE(cipher.opened);
}

TEST_F(vxCipherTest, AnUnopenedCipherRefusesItsOperations)
{
    EXPECT_FAILS_WITH(cipher.SetKey(fromHex("000102030405060708090A0B0C0D0E0F")),
                      vxtest::kExpectedOpen);
    veltrix::vxBase::lvxClearLastError();
    uint32_t size = 7;
    EXPECT_FAILS_WITH(cipher.GetBlockSize(size), vxtest::kExpectedOpen);
    veltrix::vxBase::lvxClearLastError();
    EXPECT_FAILS_WITH(cipher.GetKeySize(size), vxtest::kExpectedOpen);
    EXPECT_EQ(size, 7U);
}

TEST_F(vxCipherTest, OpenRefusesWhileLatched)
{
    ASSERT_TRUE(frame.openChild(id, vxCipherId::aes128));
    closeAtEnd = {&id};
    vxGlobal.stackTrace.errorLatch = true;
    EXPECT_FALSE(cipher.Open(id));
    EXPECT_EQ(vxtest::firstMessage(), vxtest::kRefusal);
    EXPECT_FALSE(cipher.storage.isopen);
}

TEST_F(vxCipherTest, AKeyOfTheWrongSizeFailsInThePlugIn)
{
    ASSERT_TRUE(openCipher(vxCipherId::aes128));
    EXPECT_FAILS_WITH(cipher.SetKey(fromHex("0102030405")), "Plugin layer SetKey failed");
}

TEST_F(vxCipherTest, WhileLatchedTheGuardedStepsRefuseAndAClosePartlyHappens)
{
    const auto kat = vxtest::readKat("aes.vec").front();
    ASSERT_TRUE(openCipher(vxCipherId::aes128));
    ASSERT_TRUE(cipher.SetKey(fromHex(kat.fields.at("Key"))));
    vxGlobal.stackTrace.errorLatch = true;
    EXPECT_REFUSED(cipher.SetKey(fromHex("000102030405060708090A0B0C0D0E0F")));
    uint32_t size = 0;
    EXPECT_REFUSED(cipher.GetBlockSize(size));
    EXPECT_REFUSED(cipher.GetKeySize(size));
    vxBytes out;
    ASSERT_TRUE(cipher.Encrypt(fromHex(kat.fields.at("In")), out)) << "Encrypt has no guard";
    EXPECT_REFUSED(cipher.Close());
    EXPECT_TRUE(cipher.cipherId.opened) << "the identifier is not closed while latched";
    EXPECT_FALSE(cipher.Encrypt(fromHex(kat.fields.at("In")), out)) << "the plug-in state is gone";
}

TEST_F(vxCipherTest, AClosedCipherDoesNotOpenAgain)
{
    ASSERT_TRUE(openCipher(vxCipherId::aes256));
    ASSERT_TRUE(vxtest::testFrame::closeChild(cipher));
    EXPECT_TRUE(cipher.storage.isopen) << "Close leaves the storage flag set";
    EXPECT_FALSE(cipher.cipherId.opened);
    EXPECT_FAILS_WITH(frame.openChild(cipher, id), "storage.isopen == false");
    EXPECT_FALSE(cipher.opened);
}

} // namespace
