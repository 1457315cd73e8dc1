// RSA keys through vxRsa: life cycle and protocol cases, key generation and import, the
// fingerprint, signatures and encryption (also against the openssl command line tool in both
// directions), and the key files. Expected fingerprints and file texts are computed here from
// the key numbers with coreutils and a few lines of independent code.

#include "cryptoapi.h"
#include "vxTest.h"

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using veltrix::vxBytes;
using veltrix::vxRsa;
using vxtest::testFrame;

using byteVector = std::vector<unsigned char>;

// A fixed 1024-bit key made once with "openssl genpkey -algorithm RSA -pkeyopt
// rsa_keygen_bits:1024"; numbers in upper-case hex without leading zero bytes, E as whole bytes.
const std::string fixedN =
    "CCF2D063ACA63101ADB11F2F5DB52DCDF82B2DD6B0D415C85DEF2DD3FF548DB81155BE4441656734A92D07502F6457"
    "DBAEB3713F575B035AE1191935B1DA0D94CBABA6B3280318D23C8EBA705E818806BFBF4D3E059701E54CDA5AFFC9F0"
    "9BB4744BFA4E041AEB5EEC4268CB4A47E9AA3525D8919490A466663683D0CCB5FAAD";
const std::string fixedE = "010001";
const std::string fixedP =
    "F7C6554863AD6796BAFE80D091765A724D452444C6A993F0A2732AA23BF1693DCEF16AAE1B83A7189114FB5B6577128D"
    "4C8E58B92E49A31CD5A88F89C10FF781";
const std::string fixedQ =
    "D3C087B54852EBE46EB2CD5A95BE47C9EF3F621A0AA83ECB9DF6AB194CB86D7BABA2B9AC317DEC42172F8F6F61E0D408"
    "8AABC56B41D86D21830D123802ABF92D";
const std::string fixedD =
    "BE969B45E5DB12BDBDD975E7A55C044183241C57874F6306569C42E0DF93B0CAD88C0509124B8B634463D46633FC3B"
    "5BD6A5968DD1DD984C1E022A186DD11A48769CBF5B5EFC70A99DA87DB40C4E1D6F6B03F0C6C6A403CC477E27E02657"
    "FA7C6E570FC6B9A1FEE0D09DB7A2802154ABCEFF94F94424F4F01E46997263E5AA01";

const char* const refused = "Unable to continue from previous error";
const char* const notOpen = "storage.isopen == true";

/** The fingerprint of a modulus text: the first 32 digest bytes as hex pairs joined by ":". */
std::string fingerprintOf(const std::string& modulus, const std::string& tool = "sha256sum")
{
    const std::string digest = vxtest::upper(vxtest::run("printf %s " + modulus + " | " + tool));
    std::string out;
    for (size_t i = 0; i < 64; i += 2) {
        out += digest.substr(i, 2) + (i < 62 ? ":" : "");
    }
    return out;
}

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

/** The body lines of a key file (everything that does not start with "-"). */
std::vector<std::string> bodyLines(const std::string& file)
{
    std::vector<std::string> body;
    for (const std::string& line : linesOf(file)) {
        if (!line.empty() && line[0] != '-') {
            body.push_back(line);
        }
    }
    return body;
}

std::string decodedBody(const std::string& file)
{
    std::string hex;
    for (const std::string& line : bodyLines(file)) {
        hex += line;
    }
    const auto bytes = vxtest::unhex(hex);
    return std::string(bytes.begin(), bytes.end());
}

/** A key file as the format describes it, built from a body text. */
std::string keyFileText(const std::string& header, const std::string& fingerprint,
                        const std::string& body)
{
    const std::string hex = vxtest::hexUpper(body);
    std::string file = "---- BEGIN KEYSEAL " + header + " KEY ----\n";
    file += "---- FINGERPRINT    " + fingerprint + "\n";
    for (size_t i = 0; i < hex.size(); i += 80) {
        file += hex.substr(i, 80) + "\n";
    }
    return file + "---- END KEYSEAL " + header + " KEY ---- \n";
}

struct keyNumbers
{
    std::string n, e, p, q, d;

    std::vector<std::string> all() const { return {n, e, p, q, d}; }
};

/** The numbers of a PEM key as "openssl rsa -text" prints them, in upper-case hex. */
keyNumbers cliNumbers(const std::string& pem)
{
    const std::string text = vxtest::run("openssl rsa -in " + pem + " -text -noout");
    const auto section = [&text](const std::string& label) {
        std::string hex;
        const auto lines = linesOf(text);
        for (size_t i = 0; i < lines.size(); ++i) {
            if (lines[i] != label + ":") {
                continue;
            }
            for (++i; i < lines.size() && !lines[i].empty() && lines[i][0] == ' '; ++i) {
                for (const char c : lines[i]) {
                    if (c != ' ' && c != ':') {
                        hex += c;
                    }
                }
            }
            break;
        }
        while (hex.compare(0, 2, "00") == 0) {
            hex.erase(0, 2);
        }
        return vxtest::upper(hex);
    };
    keyNumbers numbers;
    numbers.n = section("modulus");
    numbers.p = section("prime1");
    numbers.q = section("prime2");
    numbers.d = section("privateExponent");
    const auto open = text.find("publicExponent: ");
    const auto from = text.find("(0x", open) + 3;
    numbers.e = vxtest::upper(text.substr(from, text.find(')', from) - from));
    return numbers;
}

class vxRsaTest : public vxtest::vxCryptoTest
{
protected:
    /** Opens `key` and loads the fixed key, or only its public half. */
    bool openFixed(vxRsa& key, bool withPrivate = true)
    {
        return frame.open(key) &&
               key.MakeKeyFromExps(fixedN, fixedE, withPrivate ? fixedP : "",
                                   withPrivate ? fixedQ : "", withPrivate ? fixedD : "");
    }

    static void closeKey(vxRsa& key) { EXPECT_TRUE(testFrame::close(key)) << vxtest::dumpTrail(); }

    static keyNumbers numbersOf(vxRsa& key)
    {
        keyNumbers numbers;
        EXPECT_TRUE(key.GetExponents(numbers.n, numbers.e, numbers.p, numbers.q, numbers.d));
        return numbers;
    }

    static std::string fingerprintOf(vxRsa& key)
    {
        std::string text;
        EXPECT_TRUE(key.GetFingerprint(text));
        return text;
    }

    static std::string fixedBody()
    {
        return "N: " + fixedN + "\nE: " + fixedE + "\nP: " + fixedP + "\nQ: " + fixedQ +
               "\nD: " + fixedD + "\n";
    }

    vxtest::tempDir dir;
};

// ---- life cycle ----

TEST_F(vxRsaTest, FreshKeyHasTheDefaultFingerprint)
{
    vxRsa key;
    std::string expected = "de:ad:c0:de";
    for (int i = 1; i < 8; ++i) {
        expected += ":de:ad:c0:de";
    }
    EXPECT_EQ(fingerprintOf(key), expected);
    ASSERT_TRUE(frame.open(key));
    EXPECT_EQ(fingerprintOf(key), expected) << "opening makes no key";
    closeKey(key);
}

TEST_F(vxRsaTest, OpenTwiceFailsAndOpenWhileLatchedIsRefused)
{
    vxRsa key;
    ASSERT_TRUE(frame.open(key));
    EXPECT_FAILS_WITH(key.Open(), "storage.isopen == false");
    veltrix::vxBase::lvxClearLastError();
    closeKey(key);
    vxRsa other;
    vxGlobal.stackTrace.errorLatch = true;
    EXPECT_FALSE(other.Open());
    EXPECT_EQ(vxtest::firstMessage(), refused);
    EXPECT_FALSE(other.storage.isopen);
}

TEST_F(vxRsaTest, OperationsOnAnUnopenedKey)
{
    vxRsa key;
    std::string n, e, p, q, d;
    for (const std::function<bool()>& op : std::vector<std::function<bool()>>{
             [&] { return key.GeneratePrivate(1024); }, [&] { return key.BlindingOff(); },
             [&] { return key.GetExponents(n, e, p, q, d); },
             [&] { return key.WriteKeyToDisk(dir.path("never.key")); }}) {
        EXPECT_FAILS_WITH(op(), notOpen);
        veltrix::vxBase::lvxClearLastError();
    }
    // The others fail quietly.
    vxRsa target;
    ASSERT_TRUE(frame.open(target));
    uint32_t size = 7;
    EXPECT_FALSE(key.GetKeySize(size));
    EXPECT_EQ(size, 7U);
    EXPECT_FALSE(key.SpawnPublicCopy(target) || key.IsPublic() || key.IsPrivate() ||
                 key.KeyCheck() || key.BlindingOn());
    EXPECT_FALSE(vxtest::latched());
    EXPECT_TRUE(vxtest::trailMessages().empty());
    closeKey(target);
}

// ---- keys ----

TEST_F(vxRsaTest, GeneratePrivate2048)
{
    vxRsa key;
    ASSERT_TRUE(frame.open(key));
    ASSERT_TRUE(key.GeneratePrivate(2048)) << vxtest::dumpTrail();
    uint32_t size = 0;
    EXPECT_TRUE(key.GetKeySize(size));
    EXPECT_EQ(size, 256U);
    EXPECT_TRUE(key.IsPrivate() && key.IsPublic() && key.KeyCheck());
    const keyNumbers numbers = numbersOf(key);
    EXPECT_EQ(numbers.n.size(), 512U);
    EXPECT_EQ(numbers.e, "010001");
    EXPECT_FALSE(numbers.p.empty() || numbers.q.empty() || numbers.d.empty());
    EXPECT_EQ(fingerprintOf(key), ::fingerprintOf(numbers.n));
    closeKey(key);
}

TEST_F(vxRsaTest, GeneratePrivate4096TakesItsFingerprintFromSha512)
{
    vxRsa key;
    ASSERT_TRUE(frame.open(key));
    ASSERT_TRUE(key.GeneratePrivate(4096)) << vxtest::dumpTrail();
    uint32_t size = 0;
    EXPECT_TRUE(key.GetKeySize(size));
    EXPECT_EQ(size, 512U);
    const keyNumbers numbers = numbersOf(key);
    const std::string fingerprint = fingerprintOf(key);
    EXPECT_EQ(fingerprint.size(), 95U);
    EXPECT_EQ(fingerprint, ::fingerprintOf(numbers.n, "sha512sum"));
    EXPECT_NE(fingerprint, ::fingerprintOf(numbers.n, "sha256sum"));
    ASSERT_TRUE(key.WriteKeyToDisk(dir.path("big.key")));
    EXPECT_EQ(linesOf(vxtest::readFile(dir.path("big.key"))).front(),
              "---- BEGIN KEYSEAL 4096 BIT PRIVATE KEY ----");
    closeKey(key);
}

TEST_F(vxRsaTest, MakeKeyFromExpsPrivateAndPublic)
{
    vxRsa key;
    ASSERT_TRUE(openFixed(key));
    EXPECT_TRUE(key.IsPrivate());
    EXPECT_TRUE(key.KeyCheck());
    EXPECT_EQ(numbersOf(key).all(), (keyNumbers{fixedN, fixedE, fixedP, fixedQ, fixedD}.all()));
    EXPECT_EQ(fingerprintOf(key), ::fingerprintOf(fixedN));

    vxRsa publicKey;
    ASSERT_TRUE(openFixed(publicKey, false));
    EXPECT_FALSE(publicKey.IsPrivate());
    EXPECT_TRUE(publicKey.IsPublic());
    uint32_t size = 0;
    EXPECT_TRUE(publicKey.GetKeySize(size));
    EXPECT_EQ(size, 128U);
    EXPECT_EQ(numbersOf(publicKey).all(), (keyNumbers{fixedN, fixedE, "", "", ""}.all()));
    EXPECT_EQ(fingerprintOf(publicKey), fingerprintOf(key));
    closeKey(key);
    closeKey(publicKey);
}

TEST_F(vxRsaTest, MakeKeyFromExpsRejectsBadNumbers)
{
    vxRsa key;
    ASSERT_TRUE(frame.open(key));
    EXPECT_FAILS_WITH(key.MakeKeyFromExps("XYZ", fixedE, "", "", ""),
                      "Boolean return value failed.");
    EXPECT_REFUSED(key.MakeKeyFromExps(fixedN, fixedE, "", "", ""));
    veltrix::vxBase::lvxClearLastError();
    closeKey(key);
}

TEST_F(vxRsaTest, SpawnPublicCopy)
{
    vxRsa key;
    vxRsa copy;
    vxRsa second;
    ASSERT_TRUE(openFixed(key));
    ASSERT_TRUE(frame.open(copy));
    ASSERT_TRUE(frame.open(second));
    EXPECT_TRUE(key.SpawnPublicCopy(copy)) << vxtest::dumpTrail();
    EXPECT_FALSE(copy.IsPrivate());
    EXPECT_TRUE(copy.IsPublic());
    EXPECT_EQ(fingerprintOf(copy), fingerprintOf(key));
    EXPECT_EQ(numbersOf(copy).n, fixedN);
    EXPECT_FALSE(copy.SpawnPublicCopy(second)) << "a public key has no public copy to give";
    EXPECT_FALSE(vxtest::latched());
    EXPECT_TRUE(vxtest::trailMessages().empty());
    EXPECT_FALSE(second.IsPublic());
    closeKey(key);
    closeKey(copy);
    closeKey(second);
}

// ---- signatures and encryption ----

TEST_F(vxRsaTest, SignAndVerify)
{
    vxRsa key;
    vxRsa copy;
    ASSERT_TRUE(openFixed(key));
    ASSERT_TRUE(frame.open(copy));
    ASSERT_TRUE(key.SpawnPublicCopy(copy));
    const vxBytes message = vxtest::bytesOf("a message to sign");
    vxBytes signature;
    ASSERT_TRUE(key.Sign(message, signature));
    EXPECT_EQ(signature.bytes.size(), 128U);
    EXPECT_TRUE(key.Verify(message, signature));
    EXPECT_TRUE(copy.Verify(message, signature));
    vxBytes again;
    ASSERT_TRUE(key.Sign(message, again));
    EXPECT_EQ(again.bytes, signature.bytes) << "PKCS #1 v1.5 signatures are deterministic";
    EXPECT_FAILS_WITH(copy.Sign(message, again), "Boolean return value failed.");
    veltrix::vxBase::lvxClearLastError();
    closeKey(key);
    closeKey(copy);
}

TEST_F(vxRsaTest, VerifyOfAWrongSignatureLatches)
{
    vxRsa key;
    ASSERT_TRUE(openFixed(key));
    const vxBytes message = vxtest::bytesOf("a message to sign");
    vxBytes signature;
    ASSERT_TRUE(key.Sign(message, signature));
    signature.bytes[10] ^= 0x01U;
    EXPECT_FAILS_WITH(key.Verify(message, signature), "Boolean return value failed.");
    signature.bytes[10] ^= 0x01U;
    EXPECT_REFUSED(key.Verify(message, signature));
    EXPECT_REFUSED(key.Sign(message, signature));
    veltrix::vxBase::lvxClearLastError();
    EXPECT_FAILS_WITH(key.Verify(vxtest::bytesOf("another message"), signature),
                      "Boolean return value failed.");
    veltrix::vxBase::lvxClearLastError();
    closeKey(key);
}

TEST_F(vxRsaTest, BlindingSwitches)
{
    vxRsa key;
    ASSERT_TRUE(openFixed(key));
    EXPECT_TRUE(key.BlindingOff());
    vxBytes signature;
    EXPECT_TRUE(key.Sign(vxtest::bytesOf("m"), signature));
    EXPECT_TRUE(key.BlindingOn());
    EXPECT_TRUE(key.Verify(vxtest::bytesOf("m"), signature));
    vxBytes blinded;
    EXPECT_TRUE(key.Sign(vxtest::bytesOf("m"), blinded));
    EXPECT_EQ(blinded.bytes, signature.bytes) << "blinding does not change the signature";
    vxGlobal.stackTrace.errorLatch = true;
    EXPECT_TRUE(key.BlindingOn()) << "BlindingOn has no guard";
    EXPECT_FALSE(key.BlindingOff());
    EXPECT_EQ(vxtest::firstMessage(), refused);
    veltrix::vxBase::lvxClearLastError();
    closeKey(key);
}

TEST_F(vxRsaTest, PublicEncryptPrivateDecrypt)
{
    vxRsa key;
    vxRsa copy;
    ASSERT_TRUE(openFixed(key));
    ASSERT_TRUE(frame.open(copy));
    ASSERT_TRUE(key.SpawnPublicCopy(copy));
    const std::string secret = "sixteen byte key and some more";
    byteVector cipher(128);
    byteVector plain(128, 0xEE);
    ASSERT_TRUE(copy.PublicEncrypt(static_cast<uint32_t>(secret.size()),
                                   reinterpret_cast<const unsigned char*>(secret.data()),
                                   cipher.data()));
    ASSERT_TRUE(key.PrivateDecrypt(cipher.data(), plain.data()));
    EXPECT_EQ(std::string(plain.begin(), plain.begin() + 30), secret);
    EXPECT_FALSE(copy.PrivateDecrypt(cipher.data(), plain.data())) << "no private key";
    cipher[5] ^= 0x01U;
    EXPECT_FALSE(key.PrivateDecrypt(cipher.data(), plain.data()));
    // OAEP with SHA-1 holds at most 128 - 42 bytes in a 1024-bit block.
    const byteVector tooLong(87, 0x41);
    EXPECT_FALSE(key.PublicEncrypt(87, tooLong.data(), cipher.data()));
    EXPECT_FALSE(vxtest::latched()) << "encryption failures are not recorded";
    closeKey(key);
    closeKey(copy);
}

TEST_F(vxRsaTest, InteroperatesWithTheOpensslCommandLine)
{
    const std::string pem = dir.path("k.pem");
    const std::string pub = dir.path("pub.pem");
    (void)vxtest::run("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out " + pem +
                      " 2>/dev/null");
    (void)vxtest::run("openssl rsa -in " + pem + " -pubout -out " + pub + " 2>/dev/null");
    const keyNumbers numbers = cliNumbers(pem);
    ASSERT_EQ(numbers.n.size(), 512U);

    vxRsa key;
    vxRsa copy;
    ASSERT_TRUE(frame.open(key));
    ASSERT_TRUE(frame.open(copy));
    ASSERT_TRUE(key.MakeKeyFromExps(numbers.n, numbers.e, numbers.p, numbers.q, numbers.d))
        << vxtest::dumpTrail();
    ASSERT_TRUE(key.SpawnPublicCopy(copy));
    EXPECT_TRUE(key.KeyCheck());
    EXPECT_EQ(fingerprintOf(key), ::fingerprintOf(numbers.n));
    const keyNumbers back = numbersOf(key);
    EXPECT_EQ(back.n, numbers.n);
    EXPECT_EQ(back.d, numbers.d);

    // Library signature, command line verification.
    const vxBytes message = vxtest::bytesOf("interoperable message\n");
    vxtest::writeFile(dir.path("msg.bin"), "interoperable message\n");
    vxBytes signature;
    ASSERT_TRUE(key.Sign(message, signature));
    vxtest::writeFile(dir.path("sig.bin"),
                      std::string(signature.bytes.begin(), signature.bytes.end()));
    EXPECT_EQ(vxtest::run("openssl dgst -sha256 -verify " + pub + " -signature " +
                          dir.path("sig.bin") + " " + dir.path("msg.bin")),
              "Verified OK\n");

    // Command line signature, library verification (also by the public half); the same bytes.
    (void)vxtest::run("openssl dgst -sha256 -sign " + pem + " -out " + dir.path("cli.sig") + " " +
                      dir.path("msg.bin"));
    vxBytes cliSignature = vxtest::bytesOf(vxtest::readFile(dir.path("cli.sig")));
    EXPECT_TRUE(key.Verify(message, cliSignature)) << vxtest::dumpTrail();
    EXPECT_TRUE(copy.Verify(message, cliSignature)) << vxtest::dumpTrail();
    EXPECT_EQ(cliSignature.bytes, signature.bytes);

    // Command line encryption, library decryption.
    const std::string secret = "a session key of some length";
    vxtest::writeFile(dir.path("plain.bin"), secret);
    (void)vxtest::run("openssl pkeyutl -encrypt -pubin -inkey " + pub +
                      " -pkeyopt rsa_padding_mode:oaep -in " + dir.path("plain.bin") + " -out " +
                      dir.path("cli.enc"));
    const std::string cliCipher = vxtest::readFile(dir.path("cli.enc"));
    ASSERT_EQ(cliCipher.size(), 256U);
    byteVector plain(256, 0);
    ASSERT_TRUE(
        key.PrivateDecrypt(reinterpret_cast<const unsigned char*>(cliCipher.data()), plain.data()));
    EXPECT_EQ(std::string(plain.begin(), plain.begin() + 28), secret);

    // Library encryption, command line decryption.
    byteVector cipher(256, 0);
    ASSERT_TRUE(key.PublicEncrypt(static_cast<uint32_t>(secret.size()),
                                  reinterpret_cast<const unsigned char*>(secret.data()),
                                  cipher.data()));
    vxtest::writeFile(dir.path("lib.enc"), std::string(cipher.begin(), cipher.end()));
    EXPECT_EQ(vxtest::run("openssl pkeyutl -decrypt -inkey " + pem +
                          " -pkeyopt rsa_padding_mode:oaep -in " + dir.path("lib.enc")),
              secret);
    closeKey(key);
    closeKey(copy);
}

// ---- key files ----

TEST_F(vxRsaTest, PrivateKeyFileIsExactlyTheDocumentedText)
{
    vxRsa key;
    ASSERT_TRUE(openFixed(key));
    ASSERT_TRUE(key.WriteKeyToDisk(dir.path("fixed.key")));
    const std::string expected =
        keyFileText("1024 BIT PRIVATE", ::fingerprintOf(fixedN), fixedBody());
    EXPECT_EQ(vxtest::readFile(dir.path("fixed.key")), expected);
    // Writing again replaces the file rather than appending to it.
    ASSERT_TRUE(key.WriteKeyToDisk(dir.path("fixed.key")));
    EXPECT_EQ(vxtest::readFile(dir.path("fixed.key")), expected);
    closeKey(key);
}

TEST_F(vxRsaTest, PrivateKeyFileRoundTrip)
{
    vxRsa key;
    ASSERT_TRUE(frame.open(key));
    ASSERT_TRUE(key.GeneratePrivate(2048));
    ASSERT_TRUE(key.WriteKeyToDisk(dir.path("private.key")));
    const std::vector<std::string> lines = linesOf(vxtest::readFile(dir.path("private.key")));
    EXPECT_EQ(lines.front(), "---- BEGIN KEYSEAL 2048 BIT PRIVATE KEY ----");
    EXPECT_EQ(lines[1], "---- FINGERPRINT    " + fingerprintOf(key));
    EXPECT_EQ(lines.back(), "---- END KEYSEAL 2048 BIT PRIVATE KEY ---- ");
    const auto body = bodyLines(vxtest::readFile(dir.path("private.key")));
    ASSERT_GT(body.size(), 1U);
    for (size_t i = 0; i + 1 < body.size(); ++i) {
        EXPECT_EQ(body[i].size(), 80U) << i;
    }
    EXPECT_LE(body.back().size(), 80U);
    EXPECT_GT(body.back().size(), 0U);

    vxRsa loaded;
    ASSERT_TRUE(frame.open(loaded));
    ASSERT_TRUE(loaded.ReadKeyFromDisk(dir.path("private.key"))) << vxtest::dumpTrail();
    EXPECT_TRUE(loaded.IsPrivate());
    EXPECT_TRUE(loaded.KeyCheck());
    EXPECT_EQ(fingerprintOf(loaded), fingerprintOf(key));
    EXPECT_EQ(numbersOf(loaded).all(), numbersOf(key).all());
    closeKey(key);
    closeKey(loaded);
}

TEST_F(vxRsaTest, PublicKeyFileHoldsTwoBodyLines)
{
    vxRsa key;
    vxRsa copy;
    ASSERT_TRUE(openFixed(key));
    ASSERT_TRUE(frame.open(copy));
    ASSERT_TRUE(key.SpawnPublicCopy(copy));
    ASSERT_TRUE(copy.WriteKeyToDisk(dir.path("public.key")));
    const std::string file = vxtest::readFile(dir.path("public.key"));
    EXPECT_EQ(decodedBody(file), "N: " + fixedN + "\nE: " + fixedE + "\n");
    EXPECT_EQ(file, keyFileText("1024 BIT PUBLIC", ::fingerprintOf(fixedN),
                                "N: " + fixedN + "\nE: " + fixedE + "\n"));

    vxRsa loaded;
    ASSERT_TRUE(frame.open(loaded));
    ASSERT_TRUE(loaded.ReadKeyFromDisk(dir.path("public.key"))) << vxtest::dumpTrail();
    EXPECT_FALSE(loaded.IsPrivate());
    EXPECT_TRUE(loaded.IsPublic());
    EXPECT_EQ(fingerprintOf(loaded), fingerprintOf(key));
    closeKey(key);
    closeKey(copy);
    closeKey(loaded);
}

TEST_F(vxRsaTest, BodyOfHundredHexCharactersIsWrappedAtEighty)
{
    // A 144-bit public key: "N: " + 36 digits + "\n" and "E: 010001\n" are 50 bytes, 100 hex digits.
    const std::string smallN = "C3F2D063ACA63101ADB11F2F5DB52DCDF82B";
    vxRsa key;
    ASSERT_TRUE(frame.open(key));
    ASSERT_TRUE(key.MakeKeyFromExps(smallN, fixedE, "", "", "")) << vxtest::dumpTrail();
    ASSERT_TRUE(key.WriteKeyToDisk(dir.path("small.key")));
    const std::string file = vxtest::readFile(dir.path("small.key"));
    const auto body = bodyLines(file);
    ASSERT_EQ(body.size(), 2U);
    EXPECT_EQ(body[0].size(), 80U);
    EXPECT_EQ(body[1].size(), 20U);
    EXPECT_EQ(file, keyFileText("144 BIT PUBLIC", ::fingerprintOf(smallN),
                                "N: " + smallN + "\nE: " + fixedE + "\n"));
    closeKey(key);
}

TEST_F(vxRsaTest, ReaderRulesForBodyLines)
{
    const std::string NPQD = "\nP: " + fixedP + "\nQ: " + fixedQ + "\nD: " + fixedD + "\n";
    const std::string fp = ::fingerprintOf(fixedN);
    std::string spaced = keyFileText("1024 BIT PRIVATE", fp, fixedBody());
    spaced.insert(spaced.find('\n', spaced.find("FINGERPRINT")) + 1, "\n    \n");
    spaced.insert(spaced.rfind("---- END"), " \n\n"); // blank and space-only lines are skipped

    // clang-format off
    const struct { const char* what; std::string file; bool isPrivate; } cases[] = {
        {"the fingerprint, the bit count and the marker words are not read",
         keyFileText("9999 BIT PUBLIC", std::string(95, '0'), fixedBody()), true},
        {"only the first letter of a label counts",
         keyFileText("1024 BIT PRIVATE", fp, "Nmodulus: " + fixedN + "\nExponent: " + fixedE + "\nPrime: " + fixedP + "\nQ2: " + fixedQ + "\nDee: " + fixedD + "\n"), true},
        {"an unknown label ends the body",
         keyFileText("1024 BIT PRIVATE", fp, "N: " + fixedN + "\nE: " + fixedE + "\nX: 01" + NPQD), false},
        {"a later line with the same letter wins",
         keyFileText("1024 BIT PRIVATE", fp, "N: 0BAD\nE: 03\n" + fixedBody()), true},
        {"any order, tabs as separators",
         keyFileText("1024 BIT PRIVATE", fp, "D:\t" + fixedD + "\nQ: " + fixedQ + "\nP: " + fixedP + "\nE: " + fixedE + "\nN: " + fixedN + "\n"), true},
        {"blank and space-only lines are skipped", spaced, true},
    };

    // clang-format on

    for (const auto& c : cases) {
        vxtest::writeFile(dir.path("rules.key"), c.file);
        vxRsa key;
        ASSERT_TRUE(frame.open(key));
        EXPECT_TRUE(key.ReadKeyFromDisk(dir.path("rules.key"))) << c.what << "\n"
                                                                << vxtest::dumpTrail();
        EXPECT_EQ(key.IsPrivate(), c.isPrivate) << c.what;
        EXPECT_EQ(numbersOf(key).n, fixedN) << c.what;
        EXPECT_EQ(numbersOf(key).d, c.isPrivate ? fixedD : "") << c.what;
        EXPECT_EQ(fingerprintOf(key), fp) << c.what;
        closeKey(key);
    }
}

TEST_F(vxRsaTest, LeadingSpacesSpoilTheHexAndTheReadFailsQuietly)
{
    const std::string good = keyFileText("1024 BIT PRIVATE", ::fingerprintOf(fixedN), fixedBody());
    const size_t firstBody = good.find('\n', good.find("FINGERPRINT")) + 1;
    const size_t secondBody = good.find('\n', firstBody) + 1;

    // clang-format off
    const struct { const char* what; size_t at; const char* spaces; } cases[] = {
        {"one space: odd length, no bytes at all", firstBody, " "},
        {"two spaces: a zero byte before the first label", firstBody, "  "},
        {"two spaces: a zero byte inside the modulus", secondBody, "  "}};

    // clang-format on
    for (const auto& c : cases) {
        std::string file = good;
        file.insert(c.at, c.spaces);
        vxtest::writeFile(dir.path("spoilt.key"), file);
        vxRsa key;
        ASSERT_TRUE(frame.open(key));
        EXPECT_FALSE(key.ReadKeyFromDisk(dir.path("spoilt.key"))) << c.what;
        EXPECT_FALSE(key.storage.isopen) << c.what;
        EXPECT_FALSE(vxtest::latched()) << c.what;
        EXPECT_TRUE(vxtest::trailMessages().empty()) << c.what;
        EXPECT_FALSE(key.IsPublic()) << c.what;
        closeKey(key);
    }
}

TEST_F(vxRsaTest, BodyLineWithoutAWordThrows)
{
    for (const std::string& body : {std::string("\n"), "N: " + fixedN + "\n\nE: " + fixedE + "\n",
                                    "N: " + fixedN + "\n \n"}) {
        vxtest::writeFile(dir.path("empty-line.key"), keyFileText("1024 BIT PUBLIC", "", body));
        vxRsa key;
        ASSERT_TRUE(frame.open(key));
        EXPECT_THROW((void)key.ReadKeyFromDisk(dir.path("empty-line.key")), std::out_of_range);
        closeKey(key);
    }
}

TEST_F(vxRsaTest, MissingKeyFile)
{
    const std::string path = dir.path("no-such.key");
    vxRsa key;
    ASSERT_TRUE(frame.open(key));
    EXPECT_FAILS_WITH(key.ReadKeyFromDisk(path), "Unable to locate key: " + path);
    EXPECT_EQ(vxtest::trailMessages().size(), 1U);
    EXPECT_REFUSED(key.ReadKeyFromDisk(path)); // while latched, only the refusal
    veltrix::vxBase::lvxClearLastError();
    closeKey(key);
}

TEST_F(vxRsaTest, UnwritableKeyFileFailsQuietlyAndWriteRefusesWhileLatched)
{
    vxRsa key;
    ASSERT_TRUE(openFixed(key));
    EXPECT_FALSE(key.WriteKeyToDisk(dir.path("no-such-dir/key")));
    EXPECT_FALSE(vxtest::latched());
    EXPECT_TRUE(vxtest::trailMessages().empty());
    vxGlobal.stackTrace.errorLatch = true;
    EXPECT_FALSE(key.WriteKeyToDisk(dir.path("latched.key")));
    EXPECT_EQ(vxtest::firstMessage(), refused);
    EXPECT_EQ(vxtest::readFile(dir.path("latched.key")), "") << "nothing written";
    veltrix::vxBase::lvxClearLastError();
    closeKey(key);
}

} // namespace
