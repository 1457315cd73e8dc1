// veltrix key: RSA key files. Generates a private key file, prints a key's fingerprint, derives
// the public key file, signs and verifies files, and exports the public key as PEM so that other
// tools can check the signatures.
#include "commands.h"
#include "cryptoapi.h"
#include "digestKeyFiles.h"
#include "vxGlobal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <utility>

namespace vxcli {

using namespace veltrix;

namespace {

/** The options of every key subcommand; each uses the ones it declares. */
struct keyOptions
{
    std::string keyFile;
    std::string file;
    std::string signatureFile;
    std::string output;
    uint32_t bits = 2048;
    bool force = false;
};

/** Throws "cannot read <what><path>: <reason>" when `error` (an errno) is not 0. */
void checkRead(int error, const std::string& what, const std::string& path)
{
    if (error != 0) {
        throw failure("cannot read " + what + path + ": " + std::strerror(error));
    }
}

/** The whole content of `path` ("-": standard input); `what` names the file in a failure. */
vxBytes readInput(const std::string& path, const std::string& what = "")
{
    vxBytes content;
    checkRead(readChunks(path,
                         [&content](const char* data, size_t size) {
                             content.bytes.insert(content.bytes.end(), data, data + size);
                         }),
              what, path);
    return content;
}

/** Writes `content` to `path`, replacing the file; "-" or no name: standard output. */
void writeOutput(const std::string& path, const std::string& content)
{
    if (path.empty() || path == "-") {
        std::cout << content << std::flush;
        return;
    }
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    if (!out) {
        throw failure("cannot write " + path + ": " + errnoText());
    }
}

bool errorLatched()
{
    return ::vxGlobal.stackTrace.errorLatch;
}

/** Opens `key` under the frame and reads the key file `path` into it. */
void readKey(cliFrame& frame, vxRsa& key, const std::string& path)
{
    frame.open(key, "cannot set up an RSA key for " + path);
    // The key reader does not say why a file cannot be read; a read through first does.
    checkRead(readChunks(path, [](const char*, size_t) {}), "the key file ", path);
    bool read = false;
    try {
        read = key.ReadKeyFromDisk(path);
    } catch (const std::out_of_range&) {
        // A body that decodes to a line without any word.
    }
    if (!read) {
        throw failure("cannot read the key file " + path + ": " +
                      (errorLatched() ? trailReason() : "not an RSA key file"));
    }
    // A private key others can read is as good as published: refuse it, like a secret file.
    struct stat status = {};
    if (key.IsPrivate() && stat(path.c_str(), &status) == 0) {
        const std::string problem = sharedFileProblem("key file", path, status.st_mode);
        if (!problem.empty()) {
            throw failure(problem);
        }
    }
}

/** Writes `key` into the key file `path`. */
void writeKey(vxRsa& key, const std::string& path)
{
    errno = 0;
    if (!key.WriteKeyToDisk(path)) {
        throw failure("cannot write the key file " + path + ": " +
                      (errorLatched() ? trailReason() : errnoText()));
    }
}

/** Creates `path` empty with mode 0600 whatever the umask, so that the private key written into
 *  it next is never readable by others; an existing file is refused unless `replace`. */
void createPrivateFile(const std::string& path, bool replace)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (replace ? O_TRUNC : O_EXCL),
                        S_IRUSR | S_IWUSR);
    // An existing file keeps its mode through open, and the umask may have narrowed a new one.
    const bool made = fd >= 0 && fchmod(fd, S_IRUSR | S_IWUSR) == 0;
    const std::string reason = made ? "" : errnoText();
    if (fd >= 0) {
        (void)close(fd);
    }
    if (!made) {
        throw failure("cannot create the key file " + path + ": " + reason);
    }
}

void printFingerprint(vxRsa& key)
{
    std::string fingerprint;
    (void)key.GetFingerprint(fingerprint); // always succeeds
    std::cout << fingerprint << '\n';
}

int generateKey(cliFrame& frame, const keyOptions& options)
{
    frame.loadPlugin();
    struct stat existing = {};
    // Refused before the slow generation; the creation below refuses again if the file appears.
    if (!options.force && lstat(options.keyFile.c_str(), &existing) == 0) {
        throw failure(options.keyFile + " already exists (--force replaces it)");
    }
    vxRsa key;
    const closeOnExit keyClosed(key);
    frame.open(key, "cannot set up an RSA key");
    require(key.GeneratePrivate(options.bits),
            "cannot generate a " + std::to_string(options.bits) + "-bit key");
    createPrivateFile(options.keyFile, options.force);
    writeKey(key, options.keyFile);
    printFingerprint(key);
    return exitOk;
}

int showFingerprint(cliFrame& frame, const keyOptions& options)
{
    frame.loadPlugin();
    vxRsa key;
    const closeOnExit keyClosed(key);
    readKey(frame, key, options.keyFile);
    printFingerprint(key);
    return exitOk;
}

int writePublicKey(cliFrame& frame, const keyOptions& options)
{
    frame.loadPlugin();
    vxRsa key;
    vxRsa copy;
    const closeOnExit keyClosed(key);
    const closeOnExit copyClosed(copy);
    readKey(frame, key, options.keyFile);
    if (!key.IsPrivate()) {
        throw failure(options.keyFile + " is a public key already");
    }
    frame.open(copy, "cannot set up an RSA key for " + options.output);
    require(key.SpawnPublicCopy(copy), "cannot derive the public key of " + options.keyFile);
    writeKey(copy, options.output);
    return exitOk;
}

int signFile(cliFrame& frame, const keyOptions& options)
{
    frame.loadPlugin();
    vxRsa key;
    const closeOnExit keyClosed(key);
    readKey(frame, key, options.keyFile);
    if (!key.IsPrivate()) {
        throw failure(options.keyFile + " is a public key: signing needs the private key file");
    }
    vxBytes signature;
    require(key.Sign(readInput(options.file), signature), "cannot sign " + options.file);
    const std::string output =
        options.signatureFile.empty() ? options.file + ".sig" : options.signatureFile;
    writeOutput(output, std::string(signature.bytes.begin(), signature.bytes.end()));
    return exitOk;
}

int verifyFile(cliFrame& frame, const keyOptions& options)
{
    frame.loadPlugin();
    vxRsa key;
    const closeOnExit keyClosed(key);
    readKey(frame, key, options.keyFile);
    const vxBytes message = readInput(options.file);
    const vxBytes signature = readInput(options.signatureFile, "the signature file ");
    if (key.Verify(message, signature)) {
        std::cout << "Verified OK\n";
        return exitOk;
    }
    // A signature that does not match latches the library's error like any failure. It is this
    // command's answer, not a fault, so the latch is cleared and the key closes normally.
    vxBase::lvxClearLastError();
    std::cout << "Verification failure\n";
    return exitFailure;
}

// The public key as PEM: SubjectPublicKeyInfo (RFC 5280) holding an RSAPublicKey (RFC 8017),
// DER-encoded, in base64 lines of 64 characters.

/** Bytes of a non-negative number given as hex text, most significant first, no leading zeros. */
std::string numberBytes(const std::string& hex)
{
    if (hex.empty() || hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        throw failure("the key's number \"" + hex + "\" is not hex text");
    }
    const std::string digits = (hex.size() % 2 != 0 ? "0" : "") + hex;
    std::string bytes;
    for (size_t at = 0; at < digits.size(); at += 2) {
        bytes += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
    }
    return bytes.substr(std::min(bytes.find_first_not_of('\0'), bytes.size()));
}

/** A DER element: the tag, the definite length, the content. A length below 128 is its own byte;
 *  a longer one is its big-endian bytes after a byte of 0x80 plus their count. */
std::string der(unsigned char tag, const std::string& content)
{
    std::string length(1, static_cast<char>(content.size()));
    if (content.size() >= 0x80) {
        length.clear();
        for (size_t rest = content.size(); rest > 0; rest >>= 8) {
            length.insert(length.begin(), static_cast<char>(rest & 0xff));
        }
        length.insert(length.begin(), static_cast<char>(0x80 | length.size()));
    }
    return static_cast<char>(tag) + length + content;
}

std::string derInteger(const std::string& hex)
{
    std::string bytes = numberBytes(hex);
    // DER integers are signed: a leading zero keeps a set top bit positive, and zero is one byte.
    if (bytes.empty() || (static_cast<unsigned char>(bytes[0]) & 0x80) != 0) {
        bytes.insert(bytes.begin(), '\0');
    }
    return der(0x02, bytes);
}

std::string subjectPublicKeyInfo(const std::string& modulus, const std::string& exponent)
{
    // OBJECT IDENTIFIER 1.2.840.113549.1.1.1 (rsaEncryption), then NULL parameters.
    static const std::string rsaEncryption("\x06\x09\x2a\x86\x48\x86\xf7\x0d\x01\x01\x01\x05\x00",
                                           13);
    const std::string publicKey = der(0x30, derInteger(modulus) + derInteger(exponent));
    // The BIT STRING starts with its count of unused bits, 0.
    return der(0x30, der(0x30, rsaEncryption) + der(0x03, std::string(1, '\0') + publicKey));
}

/** Base64 (RFC 4648) with "=" padding, a line feed after every 64 characters and at the end. */
std::string base64Lines(const std::string& bytes)
{
    static const char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (size_t at = 0; at < bytes.size(); at += 3) {
        const size_t count = std::min<size_t>(3, bytes.size() - at);
        uint32_t group = 0;
        for (size_t i = 0; i < 3; ++i) {
            group = group << 8 | (i < count ? static_cast<unsigned char>(bytes[at + i]) : 0U);
        }
        for (size_t i = 0; i < 4; ++i) {
            text += i <= count ? alphabet[(group >> (18 - 6 * i)) & 0x3f] : '=';
        }
    }
    std::string lines;
    for (size_t at = 0; at < text.size(); at += 64) {
        lines += text.substr(at, 64) + '\n';
    }
    return lines;
}

int exportPem(cliFrame& frame, const keyOptions& options)
{
    frame.loadPlugin();
    vxRsa key;
    const closeOnExit keyClosed(key);
    readKey(frame, key, options.keyFile);
    std::string n;
    std::string e;
    std::string p;
    std::string q;
    std::string d;
    require(key.GetExponents(n, e, p, q, d), "cannot read the numbers of " + options.keyFile);
    writeOutput(options.output, "-----BEGIN PUBLIC KEY-----\n" +
                                    base64Lines(subjectPublicKeyInfo(n, e)) +
                                    "-----END PUBLIC KEY-----\n");
    return exitOk;
}

using keyBody = int (*)(cliFrame&, const keyOptions&);

/** Adds the key subcommand `name` with its own options; once they parse, it becomes the chosen
 *  command. */
std::pair<CLI::App*, keyOptions*> addKeySubcommand(CLI::App& key, selection& chosen,
                                                   const std::string& name,
                                                   const std::string& description, keyBody run)
{
    auto options = std::make_shared<keyOptions>();
    CLI::App* command = key.add_subcommand(name, description);
    command->callback([&chosen, name, run, options] {
        chosen = {"key " + name, [run, options](cliFrame& frame) { return run(frame, *options); }};
    });
    return {command, options.get()};
}

void addGenerateCommand(CLI::App& key, selection& chosen)
{
    const auto [command, options] =
        addKeySubcommand(key, chosen, "generate", "write a new private key file", generateKey);
    command->add_option("KEYFILE", options->keyFile, "the key file to write")->required();
    command->add_option("--bits", options->bits, "the key size")
        ->check(CLI::IsMember({2048, 4096}))
        ->capture_default_str();
    command->add_flag("--force", options->force, "replace an existing file");
}

void addFingerprintCommand(CLI::App& key, selection& chosen)
{
    const auto [command, options] = addKeySubcommand(
        key, chosen, "fingerprint", "print a key file's fingerprint", showFingerprint);
    command->add_option("KEYFILE", options->keyFile, "the key file")->required();
}

void addPublicCommand(CLI::App& key, selection& chosen)
{
    const auto [command, options] = addKeySubcommand(
        key, chosen, "public", "write the public key file of a private key", writePublicKey);
    command->add_option("KEYFILE", options->keyFile, "the private key file")->required();
    command->add_option("OUTFILE", options->output, "the public key file to write")->required();
}

void addSignCommand(CLI::App& key, selection& chosen)
{
    const auto [command, options] = addKeySubcommand(
        key, chosen, "sign", "sign a file (RSASSA-PKCS1-v1_5 with SHA-256)", signFile);
    command->add_option("-k,--key", options->keyFile, "the private key file")->required();
    command->add_option("FILE", options->file, "the file to sign")->required();
    command->add_option("-o,--output", options->signatureFile, "the signature file (FILE.sig)");
}

void addVerifyCommand(CLI::App& key, selection& chosen)
{
    const auto [command, options] =
        addKeySubcommand(key, chosen, "verify", "check a file's signature", verifyFile);
    command->add_option("-k,--key", options->keyFile, "the key file")->required();
    command->add_option("FILE", options->file, "the signed file")->required();
    command->add_option("SIGFILE", options->signatureFile, "the signature file")->required();
}

void addExportPemCommand(CLI::App& key, selection& chosen)
{
    const auto [command, options] =
        addKeySubcommand(key, chosen, "export-pem", "print the public key as PEM", exportPem);
    command->add_option("-k,--key", options->keyFile, "the key file")->required();
    command->add_option("-o,--output", options->output, "the PEM file (standard output)");
}

} // namespace

void addKeyCommand(CLI::App& program, selection& chosen)
{
    CLI::App* key = program.add_subcommand(
        "key", "RSA key files: generate, fingerprint, public, sign, verify, export-pem");
    key->require_subcommand(1);
    addGenerateCommand(*key, chosen);
    addFingerprintCommand(*key, chosen);
    addPublicCommand(*key, chosen);
    addSignCommand(*key, chosen);
    addVerifyCommand(*key, chosen);
    addExportPemCommand(*key, chosen);
}

} // namespace vxcli
