// veltrix key: RSA key files. Generates a private key file or imports one from PEM, prints a
// key's fingerprint, derives the public key file, signs and verifies files, and exports the
// public key as PEM so that other tools can check the signatures. It also writes the random
// pre-shared secrets that tunnel and cat read.
#include "chunkedInput.h"
#include "commands.h"
#include "cryptoapi.h"
#include "pem.h"
#include "secretFile.h"
#include "vxGlobal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

namespace vxcli {

using namespace veltrix;

namespace {

/** The options of every key subcommand; each uses the ones it declares. */
struct keyOptions
{
    std::string keyFile;       ///< after --key, or the first argument
    std::string file;          ///< the file read: signed, to sign, or the PEM to import
    std::string signatureFile; ///< the signature file of sign and verify
    std::string output;        ///< the file written: public key, PEM, secret
    uint32_t bits = 2048;
    uint32_t secretBytes = 32;
    bool force = false;
    /** The arguments as given, before they are told apart: the key file may be the first. */
    std::array<std::string, 3> arguments;
};

/** The largest key file read: a 16384-bit private key file takes about 35 KB. */
constexpr size_t longestKeyFile = size_t{64} * 1024;

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

/** The content of `path` ("-": standard input), refused past `limit` bytes; `what` names the
 *  file in a failure ("the key file "). */
std::string readBounded(const std::string& path, const std::string& what, size_t limit)
{
    std::string content;
    checkRead(readChunks(path,
                         [&](const char* data, size_t size) {
                             if (content.size() + size > limit) {
                                 throw failure("cannot read " + what + path + ": larger than " +
                                               std::to_string(limit) + " bytes, more than " +
                                               "any key needs");
                             }
                             content.append(data, size);
                         }),
              what, path);
    return content;
}

/** "standard input" for "-", else the path itself. */
std::string inputName(const std::string& path)
{
    return path == "-" ? "standard input" : path;
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

/** The line the library writes last into the key file of `key`, without its trailing blank. */
std::string endMarker(vxRsa& key)
{
    uint32_t size = 0;
    (void)key.GetKeySize(size); // an open key always has a size
    return "---- END KEYSEAL " + std::to_string(size * 8U) + " BIT " +
           (key.IsPrivate() ? "PRIVATE" : "PUBLIC") + " KEY ----";
}

/** Whether the last line of `text` that holds anything is `line`, ignoring blanks at its end.
 *  The library writes "<marker> \n"; an editor may have taken the blank or the line feed. */
bool endsWithLine(const std::string& text, const std::string& line)
{
    const size_t end = text.find_last_not_of(" \t\r\n");
    if (end == std::string::npos || end + 1 < line.size()) {
        return false;
    }
    const size_t start = end + 1 - line.size();
    return text.compare(start, line.size(), line) == 0 && (start == 0 || text[start - 1] == '\n');
}

/** Refuses a key file the library's reader took but that cannot be trusted. The reader stops
 *  at whatever the file holds, so a file cut short inside the private exponent D still gives a
 *  key: the end marker shows that nothing was lost. A private key whose numbers do not belong
 *  together (a changed digit) signs wrongly: the plug-in's check of the whole key finds that. */
void checkKeyWhole(vxRsa& key, const std::string& text, const std::string& path)
{
    const std::string marker = endMarker(key);
    if (!endsWithLine(text, marker)) {
        throw failure("the key file " + path + " is damaged: it does not end with \"" + marker +
                      "\"");
    }
    if (key.IsPrivate() && !key.KeyCheck()) {
        throw failure("the key file " + path + " is damaged: its parts do not agree");
    }
}

/** Opens `key` under the frame and reads the key file `path` into it. */
void readKey(cliFrame& frame, vxRsa& key, const std::string& path)
{
    frame.open(key, "cannot set up an RSA key for " + path);
    // The key reader does not say why a file cannot be read; reading it here first does, and
    // keeps its text for the checks below.
    std::string text = readBounded(path, "the key file ", longestKeyFile);
    const wipeOnExit textWiped(text);
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
    checkKeyWhole(key, text, path);
}

/** The key of a subcommand's key file, read with the plug-in loaded; it closes when this goes,
 *  whatever happened. */
class openedKey
{
public:
    openedKey(cliFrame& frame, const std::string& path) : closed(key)
    {
        frame.loadPlugin();
        readKey(frame, key, path);
    }

    LVX_NOT_COPYABLE(openedKey);
    ~openedKey() = default;

    vxRsa key;

private:
    const closeOnExit closed;
};

/** Writes `key` into the key file `path`. */
void writeKey(vxRsa& key, const std::string& path)
{
    errno = 0;
    if (!key.WriteKeyToDisk(path)) {
        throw failure("cannot write the key file " + path + ": " +
                      (errorLatched() ? trailReason() : errnoText()));
    }
}

/** Refuses an existing `path` unless `force`; asked before slow or failing work, and asked
 *  again by the exclusive creation that follows it. */
void refuseExisting(const std::string& path, bool force)
{
    struct stat existing = {};
    if (!force && lstat(path.c_str(), &existing) == 0) {
        throw failure(path + " already exists (--force replaces it)");
    }
}

/** Creates the key file `path` empty, so that the key written into it next is never readable
 *  by others: a private key file gets mode 0600 whatever the umask, a public one 0644 less the
 *  umask. An existing file is refused unless `replace`. */
void createKeyFile(const std::string& path, bool replace, bool isPrivate)
{
    const mode_t mode = isPrivate ? S_IRUSR | S_IWUSR : S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;
    const int fd =
        open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (replace ? O_TRUNC : O_EXCL), mode);
    // An existing file keeps its mode through open, and the umask may have narrowed a new one.
    const bool made = fd >= 0 && (!isPrivate || fchmod(fd, S_IRUSR | S_IWUSR) == 0);
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
    refuseExisting(options.keyFile, options.force);
    vxRsa key;
    const closeOnExit keyClosed(key);
    frame.open(key, "cannot set up an RSA key");
    require(key.GeneratePrivate(options.bits),
            "cannot generate a " + std::to_string(options.bits) + "-bit key");
    createKeyFile(options.keyFile, options.force, true);
    writeKey(key, options.keyFile);
    printFingerprint(key);
    return exitOk;
}

int showFingerprint(cliFrame& frame, const keyOptions& options)
{
    openedKey opened(frame, options.keyFile);
    printFingerprint(opened.key);
    return exitOk;
}

int writePublicKey(cliFrame& frame, const keyOptions& options)
{
    openedKey opened(frame, options.keyFile);
    vxRsa& key = opened.key;
    vxRsa copy;
    const closeOnExit copyClosed(copy);
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
    openedKey opened(frame, options.keyFile);
    vxRsa& key = opened.key;
    if (!key.IsPrivate()) {
        throw failure(options.keyFile + " is a public key: signing needs the private key file");
    }
    const vxBytes message = readInput(options.file);
    vxBytes signature;
    require(key.Sign(message, signature), "cannot sign " + inputName(options.file));
    // Checked before it leaves: a fault in the private-key operation must not hand out a wrong
    // signature, which could also give the key away.
    if (!key.Verify(message, signature)) {
        throw failure("cannot sign " + inputName(options.file) + ": the signature made with " +
                      options.keyFile + " does not verify");
    }
    const std::string output =
        options.signatureFile.empty() ? options.file + ".sig" : options.signatureFile;
    writeOutput(output, std::string(signature.bytes.begin(), signature.bytes.end()));
    return exitOk;
}

int verifyFile(cliFrame& frame, const keyOptions& options)
{
    openedKey opened(frame, options.keyFile);
    vxRsa& key = opened.key;
    const vxBytes message = readInput(options.file);
    const vxBytes signature = readInput(options.signatureFile, "the signature file ");
    if (key.Verify(message, signature)) {
        std::cout << "Verified OK\n";
        return exitOk;
    }
    // A signature that does not match latches the library's error like any failure. It is this
    // command's answer, not a fault, so the latch is cleared and the key closes normally. The
    // answer goes to standard output, as other tools print it, and the reason to standard error.
    vxBase::lvxClearLastError();
    std::cout << "Verification failure" << std::endl;
    throw failure(inputName(options.signatureFile) + " is not a signature of " +
                  inputName(options.file) + " by the key " + options.keyFile);
}

// ---- PEM export and import ----

int exportPem(cliFrame& frame, const keyOptions& options)
{
    openedKey opened(frame, options.keyFile);
    vxRsa& key = opened.key;
    std::string n;
    std::string e;
    std::string p;
    std::string q;
    std::string d;
    require(key.GetExponents(n, e, p, q, d), "cannot read the numbers of " + options.keyFile);
    const wipeOnExit pWiped(p);
    const wipeOnExit qWiped(q);
    const wipeOnExit dWiped(d);
    writeOutput(options.output, publicKeyPem(n, e));
    return exitOk;
}

/** The largest PEM file read: a 16384-bit private key takes about 13 KB. */
constexpr size_t longestPem = size_t{64} * 1024;
/** The key sizes imported: the library's own keys have 2048 or 4096 bits; fewer are too weak,
 *  more than the crypto plug-in works with. */
constexpr size_t fewestKeyBits = 2048;
constexpr size_t mostKeyBits = 16384;

/** The PEM input as a failure names it. */
std::string pemSource(const std::string& path)
{
    return path == "-" ? "the PEM text on standard input" : "the PEM file " + path;
}

/** The number of bits of the number in upper-case hex `hex`. */
size_t bitsOf(const std::string& hex)
{
    const size_t first = hex.find_first_not_of('0');
    if (first == std::string::npos) {
        return 0;
    }
    const int digit = std::stoi(hex.substr(first, 1), nullptr, 16);
    size_t bits = 4 * (hex.size() - first - 1);
    for (int rest = digit; rest > 0; rest >>= 1) {
        ++bits;
    }
    return bits;
}

/** Refuses numbers that cannot be a usable RSA key whatever the rest: a modulus of a size out
 *  of range, or an even public exponent (which has no inverse, so no signature could verify). */
void checkKeySize(const rsaNumbers& numbers)
{
    const size_t bits = bitsOf(numbers.n);
    if (bits < fewestKeyBits || bits > mostKeyBits) {
        throw pemProblem("holds a " + std::to_string(bits) + "-bit RSA key; veltrix uses " +
                         std::to_string(fewestKeyBits) + " to " + std::to_string(mostKeyBits) +
                         " bits");
    }
    const char last = numbers.e.empty() ? '0' : numbers.e.back();
    if (bitsOf(numbers.e) < 2 || std::string("13579BDF").find(last) == std::string::npos) {
        throw pemProblem(
            "is not a usable RSA key: its public exponent is not an odd number above 1");
    }
}

int importPem(cliFrame& frame, const keyOptions& options)
{
    frame.loadPlugin();
    refuseExisting(options.keyFile, options.force);
    const std::string& path = options.file;
    std::string text = readBounded(path, "the PEM file ", longestPem);
    const wipeOnExit textWiped(text);
    vxRsa key;
    const closeOnExit keyClosed(key);
    frame.open(key, "cannot set up an RSA key for " + options.keyFile);
    try {
        const rsaNumbers numbers = readPemKey(text);
        checkKeySize(numbers);
        if (!key.MakeKeyFromExps(numbers.n, numbers.e, numbers.p, numbers.q, numbers.d)) {
            throw pemProblem("holds RSA numbers the crypto plug-in refuses");
        }
    } catch (const pemProblem& problem) {
        throw failure(pemSource(path) + " " + problem.what());
    }
    if (key.IsPrivate() && !key.KeyCheck()) {
        throw failure(pemSource(path) + " holds an RSA private key whose parts do not agree");
    }
    createKeyFile(options.keyFile, options.force, key.IsPrivate());
    writeKey(key, options.keyFile);
    printFingerprint(key);
    return exitOk;
}

// ---- Pre-shared secrets ----

/** Random bytes as lower-case hex text and a line feed: printable, so the file can be copied
 *  by any means, and read back whole by tunnel and cat, which drop the one line end. */
std::string secretText(const vxBytes& random)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * random.bytes.size() + 1);
    for (const unsigned char byte : random.bytes) {
        text += digits[byte >> 4U];
        text += digits[byte & 0xfU];
    }
    text += '\n';
    return text;
}

/** Writes all of `text` to `fd`; false, with errno, when a write fails. */
bool writeAll(int fd, const std::string& text)
{
    for (size_t done = 0; done < text.size();) {
        const ssize_t wrote = write(fd, text.data() + done, text.size() - done);
        if (wrote == 0) {
            errno = EIO; // a file that takes nothing would hold the loop for ever
        }
        if (wrote == 0 || (wrote < 0 && errno != EINTR)) {
            return false;
        }
        done += wrote > 0 ? static_cast<size_t>(wrote) : 0;
    }
    return true;
}

/** Fills the new file `fd` with `text` and closes it. Mode 0600 is set before the first byte:
 *  the creation gave at most that, and the umask may have taken the owner's own rights. On a
 *  failure the file `path` is removed and the reason thrown. */
void fillSecretFile(int fd, const std::string& path, const std::string& text)
{
    bool written = fchmod(fd, S_IRUSR | S_IWUSR) == 0 && writeAll(fd, text) && fsync(fd) == 0;
    std::string reason = written ? "" : errnoText();
    if (close(fd) != 0 && written) {
        written = false;
        reason = errnoText();
    }
    if (!written) {
        (void)unlink(path.c_str());
        throw failure("cannot write the secret file " + path + ": " + reason);
    }
}

/** Writes the secret into `path`, which must not exist: created exclusively with mode 0600, so
 *  there is no moment when another user could open it. */
void createSecretFile(const std::string& path, const std::string& text)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (fd < 0 && errno == EEXIST) {
        throw failure(path + " already exists (--force replaces it)");
    }
    if (fd < 0) {
        throw failure("cannot create the secret file " + path + ": " + errnoText());
    }
    fillSecretFile(fd, path, text);
}

/** Replaces `path` with the secret: written whole into a new file of mode 0600 beside it, which
 *  then takes its name. The old file is never opened (a link is replaced, not followed), and a
 *  reader sees either the old secret or the whole new one. */
void replaceSecretFile(const std::string& path, const std::string& text)
{
    std::string temporary = path + ".XXXXXX";
    const int fd = mkstemp(temporary.data());
    if (fd < 0) {
        throw failure("cannot create a secret file beside " + path + ": " + errnoText());
    }
    fillSecretFile(fd, temporary, text);
    if (rename(temporary.c_str(), path.c_str()) != 0) {
        const std::string reason = errnoText();
        (void)unlink(temporary.c_str());
        throw failure("cannot replace the secret file " + path + ": " + reason);
    }
}

int writeSecret(cliFrame& frame, const keyOptions& options)
{
    frame.loadPlugin();
    vxRand source;
    const closeOnExit sourceClosed(source);
    frame.open(source, "cannot open the random source", false);
    vxBytes random;
    const std::string what = "cannot draw " + std::to_string(options.secretBytes) + " random bytes";
    require(source.Read(options.secretBytes) && source.GetBytes(random), what);
    if (random.bytes.size() != options.secretBytes) {
        throw failure(what + ": the random source gave " + std::to_string(random.bytes.size()));
    }
    std::string text = secretText(random);
    const wipeOnExit textWiped(text);
    explicit_bzero(random.bytes.data(), random.bytes.size());
    if (options.force) {
        replaceSecretFile(options.output, text);
    } else {
        createSecretFile(options.output, text);
    }
    return exitOk;
}

// ---- The subcommands and their arguments ----

using keyBody = int (*)(cliFrame&, const keyOptions&);

/** An argument of a key subcommand after its key file. */
struct operand
{
    const char* name; ///< as the help and the usage errors show it: "FILE"
    const char* description;
    std::string keyOptions::*field;
};

/** A key subcommand. Every one that works on a key file takes it the same way: after -k/--key,
 *  or as its first argument. */
struct keySubcommand
{
    const char* name;
    const char* description;
    const char* keyFile; ///< what its key file is; nullptr: it has none
    std::vector<operand> operands;
    keyBody run;
    void (*addOptions)(CLI::App&, keyOptions&); ///< its own options, if any
};

void addGenerateOptions(CLI::App& command, keyOptions& options)
{
    command.add_option("--bits", options.bits, "the key size")
        ->check(CLI::IsMember({2048, 4096}))
        ->capture_default_str();
    command.add_flag("--force", options.force, "replace an existing file");
}

void addSignOptions(CLI::App& command, keyOptions& options)
{
    command.add_option("-o,--output", options.signatureFile, "the signature file (FILE.sig)");
}

void addExportOptions(CLI::App& command, keyOptions& options)
{
    command.add_option("-o,--output", options.output, "the PEM file (standard output)");
}

void addImportOptions(CLI::App& command, keyOptions& options)
{
    command.add_flag("--force", options.force, "replace an existing key file");
}

void addSecretOptions(CLI::App& command, keyOptions& options)
{
    command.add_option("--bytes", options.secretBytes, "random bytes, written as hex digits")
        ->check(CLI::Range(16, 1024))
        ->capture_default_str();
    command.add_flag("--force", options.force, "replace an existing file");
}

const std::vector<keySubcommand>& keySubcommands()
{
    static const std::vector<keySubcommand> table = {
        {"generate",
         "write a new private key file",
         "the key file to write",
         {},
         generateKey,
         addGenerateOptions},
        {"fingerprint",
         "print a key file's fingerprint",
         "the key file",
         {},
         showFingerprint,
         nullptr},
        {"public",
         "write the public key file of a private key",
         "the private key file",
         {{"OUTFILE", "the public key file to write", &keyOptions::output}},
         writePublicKey,
         nullptr},
        {"sign",
         "sign a file (RSASSA-PKCS1-v1_5 with SHA-256)",
         "the private key file",
         {{"FILE", "the file to sign (-: standard input)", &keyOptions::file}},
         signFile,
         addSignOptions},
        {"verify",
         "check a file's signature",
         "the key file",
         {{"FILE", "the signed file (-: standard input)", &keyOptions::file},
          {"SIGFILE", "the signature file", &keyOptions::signatureFile}},
         verifyFile,
         nullptr},
        {"export-pem",
         "print the public key as PEM",
         "the key file",
         {},
         exportPem,
         addExportOptions},
        {"import-pem",
         "write a key file from an RSA key in PEM",
         "the key file to write",
         {{"PEMFILE", "the PEM file (-: standard input)", &keyOptions::file}},
         importPem,
         addImportOptions},
        {"psk",
         "write a new random pre-shared secret for --psk-file",
         nullptr,
         {{"FILE", "the secret file to write", &keyOptions::output}},
         writeSecret,
         addSecretOptions},
    };
    return table;
}

/** The usage error for a key file given neither way. With some arguments given, the first may
 *  have been meant as the key file or as the subcommand's own first argument: the error says
 *  what is missing either way. */
CLI::RequiredError missingKeyFile(const keySubcommand& command,
                                  const std::vector<std::string>& given)
{
    const std::string otherwise =
        given.empty() ? std::string("KEYFILE is required as the first argument")
                      : "with " + given.front() + " as KEYFILE, " +
                            command.operands[given.size() - 1].name + " is required";
    return {"--key is required, or " + otherwise, CLI::ExitCodes::RequiredError};
}

/** Puts the arguments of `command` where its body reads them. Without --key the first argument
 *  is the key file; with it every argument is the subcommand's own. */
void placeArguments(const keySubcommand& command, keyOptions& options, bool keyGiven, size_t count)
{
    std::vector<std::string> given(options.arguments.begin(), options.arguments.begin() + count);
    const size_t own = command.operands.size();
    if (keyGiven && given.size() > own) {
        throw CLI::ValidationError("the key file is given twice: --key " + options.keyFile +
                                   " and the first argument " + given.front());
    }
    if (command.keyFile != nullptr && !keyGiven) {
        if (given.size() <= own) {
            throw missingKeyFile(command, given);
        }
        options.keyFile = given.front();
        given.erase(given.begin());
    }
    if (given.size() < own) {
        throw CLI::RequiredError(command.operands[given.size()].name);
    }
    for (size_t i = 0; i < own; ++i) {
        options.*(command.operands[i].field) = given[i];
    }
}

/** Adds the key subcommand `command` with its arguments and options; once they parse and are
 *  placed, it becomes the chosen command. */
void addKeySubcommand(CLI::App& key, selection& chosen, const keySubcommand& command)
{
    auto options = std::make_shared<keyOptions>();
    CLI::App* app = key.add_subcommand(command.name, command.description);
    CLI::Option* keyOption = nullptr;
    // The arguments fill these in order; which one is the key file is known only once all are
    // counted.
    std::vector<CLI::Option*> slots;
    if (command.keyFile != nullptr) {
        keyOption = app->add_option("-k,--key", options->keyFile,
                                    std::string(command.keyFile) + " (or KEYFILE)");
        slots.push_back(
            app->add_option("KEYFILE", options->arguments[0],
                            std::string(command.keyFile) + ", when --key is not given"));
    }
    for (const operand& each : command.operands) {
        slots.push_back(
            app->add_option(each.name, options->arguments.at(slots.size()), each.description));
        // Without a key file the arguments are the subcommand's own, and the parser can tell
        // when one is missing; with one, placeArguments tells once it has counted them.
        slots.back()->required(command.keyFile == nullptr);
    }
    if (command.keyFile != nullptr) {
        app->footer(std::string("KEYFILE is the first argument, or follows -k/--key (not both)") +
                    (command.operands.empty() ? "." : "; the arguments after it are required."));
    }
    if (command.addOptions != nullptr) {
        command.addOptions(*app, *options);
    }
    app->callback([&chosen, &command, options, keyOption, slots] {
        const auto count = static_cast<size_t>(std::count_if(
            slots.begin(), slots.end(), [](const CLI::Option* slot) { return slot->count() > 0; }));
        placeArguments(command, *options, keyOption != nullptr && keyOption->count() > 0, count);
        chosen = {std::string("key ") + command.name,
                  [options, run = command.run](cliFrame& frame) { return run(frame, *options); }};
    });
}

} // namespace

void addKeyCommand(CLI::App& program, selection& chosen)
{
    std::string names;
    for (const keySubcommand& command : keySubcommands()) {
        names += (names.empty() ? "" : ", ") + std::string(command.name);
    }
    CLI::App* key = program.add_subcommand("key", "RSA key files and pre-shared secrets: " + names);
    key->require_subcommand(1);
    for (const keySubcommand& command : keySubcommands()) {
        addKeySubcommand(*key, chosen, command);
    }
}

} // namespace vxcli
