// RSA keys through vxRsa: life cycle, generation and import, fingerprint, signatures and encryption
// (also against the openssl command line tool both ways) and the key files. Expected fingerprints
// and file texts are computed here with coreutils and a few lines of independent code.

#include "cryptoapi.h"
#include "vxTest.h"

#include <sys/stat.h>

#include <cstdint>
#include <functional>
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

    std::string body() const
    {
        return "N: " + n + "\nE: " + e + "\n" +
               (p.empty() ? "" : "P: " + p + "\nQ: " + q + "\nD: " + d + "\n");
    }
};

/** The numbers of a PEM key as "openssl rsa -text" prints them, in upper-case hex. */
keyNumbers cliNumbers(const std::string& pem)
{
    const std::string text = vxtest::run("openssl rsa -in " + pem + " -text -noout");
    const auto section = [&text](const std::string& label) { // indented "xx:xx:" lines
        std::string hex;
        for (size_t at = text.find('\n', text.find("\n" + label + ":\n") + 1) + 1;
             at < text.size() && text[at] == ' '; at = text.find('\n', at) + 1) {
            for (size_t i = at; text[i] != '\n'; ++i) {
                hex += text[i] == ' ' || text[i] == ':' ? "" : std::string(1, text[i]);
            }
        }
        while (hex.compare(0, 2, "00") == 0) {
            hex.erase(0, 2);
        }
        return vxtest::upper(hex);
    };
    const auto from = text.find("(0x", text.find("publicExponent: ")) + 3;
    return {section("modulus"), vxtest::upper(text.substr(from, text.find(')', from) - from)),
            section("prime1"), section("prime2"), section("privateExponent")};
}

const keyNumbers fixedKey{fixedN, fixedE, fixedP, fixedQ, fixedD};

/** The permission bits of the file at `path`; 07777 when it cannot be examined. */
mode_t permissionsOf(const std::string& path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? (status.st_mode & 07777) : 07777;
}

/** Sets the process's umask for the life of the object. */
class scopedUmask
{
public:
    explicit scopedUmask(mode_t mask) : saved(umask(mask)) {}

    scopedUmask(const scopedUmask&) = delete;
    scopedUmask& operator=(const scopedUmask&) = delete;

    ~scopedUmask() { (void)umask(saved); }

private:
    mode_t saved;
};

class vxRsaTest : public vxtest::vxCryptoTest
{
protected:
    /** Opens `key` and loads the fixed key, or only its public half. */
    bool openFixed(vxRsa& key, bool withPrivate = true)
    {
        return frame.openChild(key) &&
               key.MakeKeyFromExps(fixedN, fixedE, withPrivate ? fixedP : "",
                                   withPrivate ? fixedQ : "", withPrivate ? fixedD : "");
    }

    /** Opens `key` and `copy` and makes `copy` the public half of the fixed key. */
    bool openFixedPair(vxRsa& key, vxRsa& copy)
    {
        return openFixed(key) && frame.openChild(copy) && key.SpawnPublicCopy(copy);
    }

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

    vxtest::tempDir dir;
};

TEST_F(vxRsaTest, WithoutAKeyTheFingerprintIsTheDeadCodeOpenOrNot)
{
    std::string deadCode = "de:ad:c0:de";
    for (int i = 1; i < 8; ++i) {
        deadCode += ":de:ad:c0:de";
    }
    vxRsa key;
    EXPECT_EQ(fingerprintOf(key), deadCode);
    ASSERT_TRUE(frame.openChild(key));
    EXPECT_EQ(fingerprintOf(key), deadCode) << "opening makes no key";
    EXPECT_FAILS_WITH(key.Open(), "storage.isopen == false");
    veltrix::vxBase::lvxClearLastError();
    testFrame::closeAll(key);
}

TEST_F(vxRsaTest, AnUnopenedKeyFailsSomeOperationsAndTheOthersQuietly)
{
    vxRsa key;
    std::string n, e, p, q, d;
    for (const std::function<bool()>& op : std::vector<std::function<bool()>>{
             [&] { return key.GeneratePrivate(1024); }, [&] { return key.BlindingOff(); },
             [&] { return key.GetExponents(n, e, p, q, d); },
             [&] { return key.WriteKeyToDisk(dir.path("never.key")); }}) {
        EXPECT_FAILS_WITH(op(), "storage.isopen == true");
        veltrix::vxBase::lvxClearLastError();
    }
    uint32_t size = 7;
    EXPECT_FALSE(key.GetKeySize(size));
    EXPECT_EQ(size, 7U);
    vxRsa target;
    EXPECT_FALSE(key.SpawnPublicCopy(target) || key.IsPublic() || key.IsPrivate() ||
                 key.KeyCheck() || key.BlindingOn());
    EXPECT_QUIET();
}

TEST_F(vxRsaTest, OpenRefusesWhileLatched)
{
    vxRsa key;
    vxGlobal.stackTrace.errorLatch = true;
    EXPECT_FALSE(key.Open());
    EXPECT_EQ(vxtest::firstMessage(), vxtest::kRefusal);
    EXPECT_FALSE(key.storage.isopen);
}

TEST_F(vxRsaTest, WritingToAMissingDirectoryFailsQuietlyAndWhileLatchedWritesNothing)
{
    vxRsa fixed;
    ASSERT_TRUE(openFixed(fixed));
    EXPECT_FALSE(fixed.WriteKeyToDisk(dir.path("no-such-dir/key")));
    EXPECT_QUIET();
    vxGlobal.stackTrace.errorLatch = true;
    EXPECT_FALSE(fixed.WriteKeyToDisk(dir.path("latched.key")));
    EXPECT_EQ(vxtest::firstMessage(), vxtest::kRefusal);
    EXPECT_EQ(vxtest::readFile(dir.path("latched.key")), "") << "nothing written";
    veltrix::vxBase::lvxClearLastError();
    testFrame::closeAll(fixed);
}

TEST_F(vxRsaTest, AMissingKeyFileIsNamedAndWhileLatchedOnlyRefused)
{
    vxRsa fixed;
    ASSERT_TRUE(openFixed(fixed));
    const std::string path = dir.path("no-such.key");
    EXPECT_FAILS_WITH(fixed.ReadKeyFromDisk(path), "Unable to locate key: " + path);
    EXPECT_EQ(vxtest::trailMessages().size(), 1U);
    EXPECT_REFUSED(fixed.ReadKeyFromDisk(path));
    veltrix::vxBase::lvxClearLastError();
    testFrame::closeAll(fixed);
}

TEST_F(vxRsaTest, GeneratePrivate2048RoundTripAnd4096TakesItsFingerprintFromSha512)
{
    vxRsa key;
    vxRsa loaded;
    ASSERT_TRUE(frame.openChild(key) && frame.openChild(loaded));
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
    ASSERT_TRUE(key.WriteKeyToDisk(dir.path("private.key")));
    EXPECT_EQ(vxtest::readFile(dir.path("private.key")),
              keyFileText("2048 BIT PRIVATE", fingerprintOf(key), numbers.body()));
    ASSERT_TRUE(loaded.ReadKeyFromDisk(dir.path("private.key"))) << vxtest::dumpTrail();
    EXPECT_TRUE(loaded.IsPrivate() && loaded.KeyCheck());
    EXPECT_EQ(fingerprintOf(loaded), fingerprintOf(key));
    EXPECT_EQ(numbersOf(loaded).all(), numbers.all());
    testFrame::closeAll(key, loaded);
    vxRsa big;
    ASSERT_TRUE(frame.openChild(big));
    ASSERT_TRUE(big.GeneratePrivate(4096)) << vxtest::dumpTrail();
    uint32_t bigSize = 0;
    EXPECT_TRUE(big.GetKeySize(bigSize));
    EXPECT_EQ(bigSize, 512U);
    const keyNumbers bigNumbers = numbersOf(big);
    EXPECT_EQ(fingerprintOf(big), ::fingerprintOf(bigNumbers.n, "sha512sum"));
    EXPECT_NE(fingerprintOf(big), ::fingerprintOf(bigNumbers.n, "sha256sum"));
    ASSERT_TRUE(big.WriteKeyToDisk(dir.path("big.key")));
    const std::string bigFile = vxtest::readFile(dir.path("big.key"));
    EXPECT_EQ(bigFile.substr(0, bigFile.find('\n')),
              "---- BEGIN KEYSEAL 4096 BIT PRIVATE KEY ----");
    testFrame::closeAll(big);
}

TEST_F(vxRsaTest, MakeKeyFromExpsAndSpawnPublicCopy)
{
    vxRsa key;
    vxRsa publicKey;
    vxRsa copy;
    vxRsa second;
    ASSERT_TRUE(openFixed(key) && openFixed(publicKey, false));
    ASSERT_TRUE(frame.openChild(copy) && frame.openChild(second));
    EXPECT_TRUE(key.IsPrivate() && key.KeyCheck());
    EXPECT_EQ(numbersOf(key).all(), fixedKey.all());
    EXPECT_EQ(fingerprintOf(key), ::fingerprintOf(fixedN));
    EXPECT_TRUE(key.SpawnPublicCopy(copy)) << vxtest::dumpTrail();
    for (vxRsa* half : {&publicKey, &copy}) {
        EXPECT_FALSE(half->IsPrivate());
        EXPECT_TRUE(half->IsPublic());
        uint32_t size = 0;
        EXPECT_TRUE(half->GetKeySize(size));
        EXPECT_EQ(size, 128U);
        EXPECT_EQ(numbersOf(*half).all(), (keyNumbers{fixedN, fixedE, "", "", ""}.all()));
        EXPECT_EQ(fingerprintOf(*half), fingerprintOf(key));
    }
    EXPECT_FALSE(copy.SpawnPublicCopy(second)) << "a public key has no public copy to give";
    EXPECT_QUIET();
    EXPECT_FALSE(second.IsPublic());
    testFrame::closeAll(key, publicKey, copy, second);
    vxRsa bad;
    ASSERT_TRUE(frame.openChild(bad));
    EXPECT_FAILS_WITH(bad.MakeKeyFromExps("XYZ", fixedE, "", "", ""),
                      "Boolean return value failed.");
    EXPECT_REFUSED(bad.MakeKeyFromExps(fixedN, fixedE, "", "", ""));
    veltrix::vxBase::lvxClearLastError();
    testFrame::closeAll(bad);
}

TEST_F(vxRsaTest, ThePublicHalfEncryptsForThePrivateKeyWithinTheOaepBound)
{
    vxRsa key;
    vxRsa copy;
    ASSERT_TRUE(openFixedPair(key, copy));
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
    testFrame::closeAll(key, copy);
}

TEST_F(vxRsaTest, SignaturesAreDeterministicAndAnyChangeFailsTheirCheck)
{
    vxRsa key;
    vxRsa copy;
    ASSERT_TRUE(openFixedPair(key, copy));
    const vxBytes message = vxtest::bytesOf("a message to sign");
    vxBytes signature;
    vxBytes again;
    ASSERT_TRUE(key.Sign(message, signature));
    EXPECT_EQ(signature.bytes.size(), 128U);
    EXPECT_TRUE(key.Verify(message, signature) && copy.Verify(message, signature));
    ASSERT_TRUE(key.Sign(message, again));
    EXPECT_EQ(again.bytes, signature.bytes) << "PKCS #1 v1.5 signatures are deterministic";
    EXPECT_FAILS_WITH(copy.Sign(message, again), "Boolean return value failed.");
    veltrix::vxBase::lvxClearLastError();
    signature.bytes[10] ^= 0x01U;
    EXPECT_FAILS_WITH(key.Verify(message, signature), "Boolean return value failed.");
    signature.bytes[10] ^= 0x01U;
    EXPECT_REFUSED(key.Verify(message, signature));
    EXPECT_REFUSED(key.Sign(message, signature));
    veltrix::vxBase::lvxClearLastError();
    EXPECT_FAILS_WITH(key.Verify(vxtest::bytesOf("another message"), signature),
                      "Boolean return value failed.");
    veltrix::vxBase::lvxClearLastError();
    testFrame::closeAll(key, copy);
}

TEST_F(vxRsaTest, BlindingChangesNoSignatureAndOnlyBlindingOffIsGuarded)
{
    vxRsa key;
    ASSERT_TRUE(openFixed(key));
    vxBytes signature;
    vxBytes again;
    EXPECT_TRUE(key.BlindingOff());
    ASSERT_TRUE(key.Sign(vxtest::bytesOf("m"), signature));
    EXPECT_TRUE(key.BlindingOn());
    EXPECT_TRUE(key.Verify(vxtest::bytesOf("m"), signature));
    ASSERT_TRUE(key.Sign(vxtest::bytesOf("m"), again));
    EXPECT_EQ(again.bytes, signature.bytes) << "blinding does not change the signature";
    vxGlobal.stackTrace.errorLatch = true;
    EXPECT_TRUE(key.BlindingOn()) << "BlindingOn has no guard";
    EXPECT_FALSE(key.BlindingOff());
    EXPECT_EQ(vxtest::firstMessage(), vxtest::kRefusal);
    veltrix::vxBase::lvxClearLastError();
    testFrame::closeAll(key);
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
    ASSERT_TRUE(frame.openChild(key) && frame.openChild(copy));
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
    testFrame::closeAll(key, copy);
}

TEST_F(vxRsaTest, KeyFilesAreExactlyTheDocumentedTextRoundTripAndWrapAtEighty)
{
    vxRsa key;
    vxRsa copy;
    vxRsa loaded;
    ASSERT_TRUE(openFixedPair(key, copy) && frame.openChild(loaded));
    ASSERT_TRUE(copy.WriteKeyToDisk(dir.path("public.key")));
    EXPECT_EQ(vxtest::readFile(dir.path("public.key")),
              keyFileText("1024 BIT PUBLIC", ::fingerprintOf(fixedN),
                          keyNumbers{fixedN, fixedE, "", "", ""}.body()));
    ASSERT_TRUE(loaded.ReadKeyFromDisk(dir.path("public.key"))) << vxtest::dumpTrail();
    EXPECT_FALSE(loaded.IsPrivate());
    EXPECT_TRUE(loaded.IsPublic());
    EXPECT_EQ(fingerprintOf(loaded), fingerprintOf(key));
    // A 144-bit key: "N: " + 36 digits + "\n" and "E: 010001\n" are 100 hex digits, 80 + 20.
    const std::string smallN = "C3F2D063ACA63101ADB11F2F5DB52DCDF82B";
    vxRsa small;
    ASSERT_TRUE(frame.openChild(small));
    ASSERT_TRUE(small.MakeKeyFromExps(smallN, fixedE, "", "", "")) << vxtest::dumpTrail();
    ASSERT_TRUE(small.WriteKeyToDisk(dir.path("small.key")));
    EXPECT_EQ(vxtest::readFile(dir.path("small.key")),
              keyFileText("144 BIT PUBLIC", ::fingerprintOf(smallN),
                          keyNumbers{smallN, fixedE, "", "", ""}.body()));
    testFrame::closeAll(key, copy, loaded, small);
    vxRsa golden;
    ASSERT_TRUE(openFixed(golden));
    const std::string expected =
        keyFileText("1024 BIT PRIVATE", ::fingerprintOf(fixedN), fixedKey.body());
    for (int round = 0; round < 2; ++round) { // writing again replaces the file
        ASSERT_TRUE(golden.WriteKeyToDisk(dir.path("fixed.key")));
        EXPECT_EQ(vxtest::readFile(dir.path("fixed.key")), expected) << round;
    }
    testFrame::closeAll(golden);
}

TEST_F(vxRsaTest, PrivateKeyFilesAreForTheOwnerOnlyPublicOnesFollowTheUmask)
{
    vxRsa key;
    vxRsa copy;
    ASSERT_TRUE(openFixedPair(key, copy));
    // The usual umask, then none at all: a private key's file is 0600 under either.
    for (const mode_t mask : {mode_t{022}, mode_t{0}}) {
        const scopedUmask umaskFor(mask);
        const std::string tag = std::to_string(mask);
        ASSERT_TRUE(key.WriteKeyToDisk(dir.path("private" + tag + ".key")));
        EXPECT_EQ(permissionsOf(dir.path("private" + tag + ".key")), 0600U) << mask;
        ASSERT_TRUE(copy.WriteKeyToDisk(dir.path("public" + tag + ".key")));
        EXPECT_EQ(permissionsOf(dir.path("public" + tag + ".key")), 0666U & ~mask) << mask;
    }
    // An existing readable file loses its group and other bits when a private key replaces it.
    const std::string old = dir.path("old.key");
    vxtest::writeFile(old, "an older, longer text that the key replaces entirely\n");
    ASSERT_EQ(chmod(old.c_str(), 0644), 0);
    ASSERT_TRUE(key.WriteKeyToDisk(old));
    EXPECT_EQ(permissionsOf(old), 0600U);
    EXPECT_EQ(vxtest::readFile(old),
              keyFileText("1024 BIT PRIVATE", ::fingerprintOf(fixedN), fixedKey.body()));
    // A public key replacing a file leaves its mode alone, as any rewrite does.
    ASSERT_EQ(chmod(old.c_str(), 0640), 0);
    ASSERT_TRUE(copy.WriteKeyToDisk(old));
    EXPECT_EQ(permissionsOf(old), 0640U);
    testFrame::closeAll(key, copy);
}

TEST_F(vxRsaTest, ReaderRulesLeadingSpacesAndBodyLineWithoutAWord)
{
    const std::string NPQD = "\nP: " + fixedP + "\nQ: " + fixedQ + "\nD: " + fixedD + "\n";
    const std::string fp = ::fingerprintOf(fixedN);
    std::string spaced = keyFileText("1024 BIT PRIVATE", fp, fixedKey.body());
    spaced.insert(spaced.find('\n', spaced.find("FINGERPRINT")) + 1, "\n    \n");
    spaced.insert(spaced.rfind("---- END"), " \n\n");

    // clang-format off
    const struct { const char* what; std::string file; bool isPrivate; } cases[] = {
        {"the fingerprint, the bit count and the marker words are not read",
         keyFileText("9999 BIT PUBLIC", std::string(95, '0'), fixedKey.body()), true},
        {"only the first letter of a label counts",
         keyFileText("1024 BIT PRIVATE", fp, "Nmodulus: " + fixedN + "\nExponent: " + fixedE + "\nPrime: " + fixedP + "\nQ2: " + fixedQ + "\nDee: " + fixedD + "\n"), true},
        {"an unknown label ends the body",
         keyFileText("1024 BIT PRIVATE", fp, "N: " + fixedN + "\nE: " + fixedE + "\nX: 01" + NPQD), false},
        {"a later line with the same letter wins",
         keyFileText("1024 BIT PRIVATE", fp, "N: 0BAD\nE: 03\n" + fixedKey.body()), true},
        {"any order, tabs as separators",
         keyFileText("1024 BIT PRIVATE", fp, "D:\t" + fixedD + "\nQ: " + fixedQ + "\nP: " + fixedP + "\nE: " + fixedE + "\nN: " + fixedN + "\n"), true},
        {"blank and space-only lines are skipped", spaced, true},
    };

    // clang-format on
    for (const auto& c : cases) {
        vxtest::writeFile(dir.path("rules.key"), c.file);
        vxRsa key;
        ASSERT_TRUE(frame.openChild(key));
        EXPECT_TRUE(key.ReadKeyFromDisk(dir.path("rules.key"))) << c.what << "\n"
                                                                << vxtest::dumpTrail();
        EXPECT_EQ(key.IsPrivate(), c.isPrivate) << c.what;
        EXPECT_EQ(numbersOf(key).n, fixedN) << c.what;
        EXPECT_EQ(numbersOf(key).d, c.isPrivate ? fixedD : "") << c.what;
        EXPECT_EQ(fingerprintOf(key), fp) << c.what;
        testFrame::closeAll(key);
    }
    const std::string good =
        keyFileText("1024 BIT PRIVATE", ::fingerprintOf(fixedN), fixedKey.body());
    const size_t firstBody = good.find('\n', good.find("FINGERPRINT")) + 1;
    const size_t secondBody = good.find('\n', firstBody) + 1;

    // clang-format off
    const struct { const char* what; size_t at; const char* spaces; } spoilt[] = {
        {"one space: odd length, no bytes at all", firstBody, " "},
        {"two spaces: a zero byte before the first label", firstBody, "  "},
        {"two spaces: a zero byte inside the modulus", secondBody, "  "}};

    // clang-format on
    for (const auto& c : spoilt) {
        std::string file = good;
        file.insert(c.at, c.spaces);
        vxtest::writeFile(dir.path("spoilt.key"), file);
        vxRsa key;
        ASSERT_TRUE(frame.openChild(key));
        EXPECT_FALSE(key.ReadKeyFromDisk(dir.path("spoilt.key"))) << c.what;
        EXPECT_FALSE(key.storage.isopen) << c.what;
        EXPECT_QUIET();
        EXPECT_FALSE(key.IsPublic()) << c.what;
        testFrame::closeAll(key);
    }
    for (const std::string& body : {std::string("\n"), "N: " + fixedN + "\n\nE: " + fixedE + "\n",
                                    "N: " + fixedN + "\n \n"}) {
        vxtest::writeFile(dir.path("empty-line.key"), keyFileText("1024 BIT PUBLIC", "", body));
        vxRsa key;
        ASSERT_TRUE(frame.openChild(key));
        EXPECT_THROW((void)key.ReadKeyFromDisk(dir.path("empty-line.key")), std::out_of_range);
        testFrame::closeAll(key);
    }
}

} // namespace
