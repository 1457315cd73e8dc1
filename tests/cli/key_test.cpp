// veltrix key: key files, fingerprints, signatures, and the PEM export checked with the openssl
// command and the coreutils digests.
#include "cliRun.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <string>
#include <vector>

using namespace vxclitest;

namespace {

unsigned modeOf(const std::string& path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0U;
}

/** The text of a key file's body: its hex lines joined and decoded. */
std::string keyFileBody(const std::string& path)
{
    std::string hex;
    const std::string content = readFile(path);
    for (size_t at = 0; at < content.size(); at = content.find('\n', at) + 1) {
        const std::string line = content.substr(at, content.find('\n', at) - at);
        hex += line.empty() || line[0] == '-' ? "" : line;
    }
    std::string text;
    for (size_t at = 0; at + 1 < hex.size(); at += 2) {
        text += static_cast<char>(std::stoi(hex.substr(at, 2), nullptr, 16));
    }
    return text;
}

/** The modulus text of a key file (the "N: " line of its body). */
std::string modulusText(const std::string& path)
{
    const std::string body = keyFileBody(path);
    const size_t start = body.find("N: ") + 3;
    return body.substr(start, body.find('\n', start) - start);
}

/** A fingerprint as an independent program computes it: the first 32 bytes of the digest of
 *  the modulus text, as upper-case hex pairs joined by ":". */
std::string expectedFingerprint(const std::string& keyFile, const char* sumProgram)
{
    const std::string hex = runProgram({sumProgram}, modulusText(keyFile)).out;
    std::string fingerprint;
    for (size_t at = 0; at < 64; at += 2) {
        fingerprint += (at == 0 ? "" : ":") + hex.substr(at, 2);
    }
    for (char& c : fingerprint) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return fingerprint + "\n";
}

/** Two private keys, their public files and a signed file, made once for the whole suite. */
class keyTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        dir = std::make_unique<scratchDir>();
        for (const char* name : {"alice", "bob"}) {
            const runResult made = runVeltrix({"key", "generate", file(name)});
            ASSERT_EQ(made.status, 0) << made.err;
            ASSERT_EQ(runVeltrix({"key", "public", file(name), file(name) + ".pub"}).status, 0);
        }
        writeFile(file("message"), "the message to sign\n");
        ASSERT_EQ(runVeltrix({"key", "sign", "--key", file("alice"), file("message")}).status, 0);
        ASSERT_EQ(
            runVeltrix({"key", "export-pem", "-k", file("alice"), "-o", file("alice.pem")}).status,
            0);
    }

    static void TearDownTestSuite() { dir.reset(); }

    static std::string file(const std::string& name) { return dir->file(name); }

    static std::unique_ptr<scratchDir> dir;
};

std::unique_ptr<scratchDir> keyTest::dir;

TEST_F(keyTest, generatedKeyIsPrivateToItsOwnerWhateverTheUmask)
{
    for (const mode_t mask : {0000, 0022, 0277}) {
        const std::string key = file("masked" + std::to_string(mask));
        const mode_t saved = umask(mask);
        const runResult made = runVeltrix({"key", "generate", key});
        umask(saved);
        EXPECT_EQ(made.status, 0) << made.err;
        EXPECT_EQ(modeOf(key), 0600U) << "umask " << mask;
        EXPECT_EQ(readFile(key).rfind("---- BEGIN KEYSEAL 2048 BIT PRIVATE KEY ----\n", 0), 0U);
    }
}

TEST_F(keyTest, generateRefusesToOverwriteUnlessForced)
{
    const std::string key = file("existing");
    writeFile(key, "precious", 0644);
    const runResult refused = runVeltrix({"key", "generate", key});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(lineCount(refused.err), 1U);
    EXPECT_NE(refused.err.find("veltrix key generate: " + key), std::string::npos) << refused.err;
    EXPECT_EQ(readFile(key), "precious");
    const runResult forced = runVeltrix({"key", "generate", "--force", key});
    EXPECT_EQ(forced.status, 0) << forced.err;
    EXPECT_EQ(modeOf(key), 0600U);
    EXPECT_EQ(runVeltrix({"key", "fingerprint", key}).out, forced.out);
}

TEST_F(keyTest, privateKeyOpenToOthersIsRefusedPublicKeyIsNot)
{
    const std::string shared = file("shared");
    writeFile(shared, readFile(file("alice")), 0640);
    const runResult refused = runVeltrix({"key", "fingerprint", shared});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "veltrix key fingerprint: the key file " + shared +
                               " is open to group or others (mode 0640); run chmod 600 " + shared +
                               "\n");
    const std::string published = file("published.pub");
    writeFile(published, readFile(file("alice.pub")), 0644);
    EXPECT_EQ(runVeltrix({"key", "fingerprint", published}).status, 0);
}

TEST_F(keyTest, fingerprintIsTheDigestOfTheModulusInKeyAndPublicFile)
{
    const std::string fingerprint = runVeltrix({"key", "fingerprint", file("alice")}).out;
    EXPECT_EQ(fingerprint, expectedFingerprint(file("alice"), "sha256sum"));
    EXPECT_EQ(fingerprint.size(), 96U);
    EXPECT_EQ(runVeltrix({"key", "fingerprint", file("alice.pub")}).out, fingerprint);
    EXPECT_NE(runVeltrix({"key", "fingerprint", file("bob")}).out, fingerprint);
    EXPECT_EQ(readFile(file("alice.pub")).rfind("---- BEGIN KEYSEAL 2048 BIT PUBLIC KEY ----\n", 0),
              0U);
}

TEST_F(keyTest, signatureVerifiesWithThePrivateOrThePublicKey)
{
    EXPECT_EQ(readFile(file("message.sig")).size(), 256U);
    for (const char* key : {"alice", "alice.pub"}) {
        const runResult got =
            runVeltrix({"key", "verify", "--key", file(key), file("message"), file("message.sig")});
        EXPECT_EQ(got.status, 0) << got.err;
        EXPECT_EQ(got.out, "Verified OK\n");
    }
}

TEST_F(keyTest, changedFileOrWrongKeyFailsVerification)
{
    writeFile(file("changed"), "the message to sign.\n");
    const std::vector<std::string> cases[] = {
        {"--key", file("alice.pub"), file("changed"), file("message.sig")},
        {"--key", file("bob.pub"), file("message"), file("message.sig")},
        {"--key", file("bob"), file("message"), file("message.sig")},
        {"--key", file("alice"), file("message"), file("message")}};
    for (std::vector<std::string> args : cases) {
        args.insert(args.begin(), {"key", "verify"});
        const runResult got = runVeltrix(args);
        SCOPED_TRACE(::testing::PrintToString(args));
        EXPECT_EQ(got.status, 1);
        EXPECT_EQ(got.out, "Verification failure\n");
    }
}

TEST_F(keyTest, opensslVerifiesOurSignatureWithTheExportedKey)
{
    const auto verify = [](const std::string& target) {
        return runProgram({"openssl", "dgst", "-sha256", "-verify", file("alice.pem"), "-signature",
                           file("message.sig"), target});
    };
    const runResult good = verify(file("message"));
    EXPECT_EQ(good.status, 0) << good.err;
    EXPECT_EQ(good.out, "Verified OK\n");
    writeFile(file("changed"), "the message to sign!\n");
    EXPECT_EQ(verify(file("changed")).status, 1);
}

TEST_F(keyTest, exportedPemIsTheCanonicalEncodingOfTheModulus)
{
    const std::string pem = readFile(file("alice.pem"));
    const runResult text =
        runProgram({"openssl", "pkey", "-pubin", "-in", file("alice.pem"), "-noout", "-text"});
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_NE(text.out.find("Public-Key: (2048 bit)"), std::string::npos) << text.out;
    // openssl writes the key back in its own encoding: identical bytes mean identical DER.
    EXPECT_EQ(runProgram({"openssl", "pkey", "-pubin", "-in", file("alice.pem"), "-pubout"}).out,
              pem);
    const runResult modulus =
        runProgram({"openssl", "rsa", "-pubin", "-in", file("alice.pem"), "-noout", "-modulus"});
    EXPECT_EQ(modulus.out, "Modulus=" + modulusText(file("alice")) + "\n");
    // Standard output by default, and the public key file exports the same key.
    EXPECT_EQ(runVeltrix({"key", "export-pem", "--key", file("alice")}).out, pem);
    EXPECT_EQ(runVeltrix({"key", "export-pem", "--key", file("alice.pub")}).out, pem);
}

TEST_F(keyTest, largeKeyTakesItsFingerprintFromSha512)
{
    const std::string key = file("large");
    // Finding 2048-bit primes takes a random while: seconds here, up to a minute or more under
    // emulation on a busy machine.
    const runResult made = runVeltrix({"key", "generate", "--bits", "4096", key}, "", 240);
    ASSERT_EQ(made.status, 0) << made.err;
    EXPECT_EQ(made.out, expectedFingerprint(key, "sha512sum"));
    const runResult pem = runVeltrix({"key", "export-pem", "-k", key});
    const runResult text = runProgram({"openssl", "pkey", "-pubin", "-noout", "-text"}, pem.out);
    EXPECT_NE(text.out.find("Public-Key: (4096 bit)"), std::string::npos) << text.err;
}

TEST_F(keyTest, unusableKeyFilesGiveOneLineNamingTheFile)
{
    writeFile(file("text"), "just some text\n");
    writeFile(file("badhex"), "---- BEGIN KEYSEAL 2048 BIT PRIVATE KEY ----\nXYZ\n");
    // Each command that reads a key file, with KEY in place of the file.
    const std::vector<std::string> commands[] = {
        {"key", "fingerprint", "KEY"},
        {"key", "export-pem", "-k", "KEY"},
        {"key", "public", "KEY", file("out.pub")},
        {"key", "sign", "-k", "KEY", file("message"), "-o", file("out.sig")},
        {"key", "verify", "-k", "KEY", file("message"), file("message.sig")}};
    for (const char* name : {"absent", "text", "badhex", ""}) {
        for (std::vector<std::string> args : commands) {
            std::replace(args.begin(), args.end(), std::string("KEY"), file(name));
            const runResult got = runVeltrix(args);
            SCOPED_TRACE(::testing::PrintToString(args));
            EXPECT_EQ(got.status, 1);
            EXPECT_EQ(got.out, "");
            EXPECT_EQ(lineCount(got.err), 1U) << got.err;
            EXPECT_EQ(got.err.rfind("veltrix key " + args[1] + ": ", 0), 0U) << got.err;
            EXPECT_NE(got.err.find(file(name)), std::string::npos) << got.err;
        }
    }
}

TEST_F(keyTest, signingNeedsThePrivateKey)
{
    const runResult got = runVeltrix(
        {"key", "sign", "-k", file("alice.pub"), file("message"), "-o", file("public.sig")});
    EXPECT_EQ(got.status, 1);
    EXPECT_EQ(lineCount(got.err), 1U);
    EXPECT_NE(got.err.find(file("alice.pub")), std::string::npos) << got.err;
}

} // namespace
