// What the two example programs share: their options, the application frame they derive from,
// and the conversions between text and the library's byte buffer.
#pragma once

#include <getopt.h>
#include <veltrix/vxBytes.h>
#include <veltrix/vxMain.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

namespace example {

/** The command line of either end. The modes and the secret must be the same at both ends. */
struct settings
{
    std::string pluginDir; ///< empty: the library's default search path
    std::string cipherMode = "aes256";
    std::string hashMode = "md5";
    std::string address = "127.0.0.1";
    /** The pre-shared secret. Both ends fall back to this text when no secret file is given. */
    std::string secret = "the example secret both ends were given beforehand";
    std::vector<std::string> operands; ///< the arguments after the options
};

/** Exit status of a command line that cannot be used. */
constexpr int usageStatus = 2;

inline const char* const commonOptionsHelp =
    "options:\n"
    "  -d, --plugin-dir DIR     directory of libveltrix_openssl.so (default: the library's\n"
    "                           search path, which includes /usr/local/lib/secure)\n"
    "  -c, --cipher MODE        none, aes128, aes192 or aes256 (default aes256)\n"
    "  -H, --hash MODE          md5 or sha256-128 (default md5)\n"
    "  -a, --address ADDR       numeric IPv4 or IPv6 address (default 127.0.0.1)\n"
    "  -s, --secret-file FILE   the pre-shared secret: the file's content without one trailing\n"
    "                           line feed (default: a built-in example secret)\n"
    "  -h, --help               this text\n";

/** The secret in `path`, without one trailing line feed; false when the file cannot be read. */
inline bool readSecret(const std::string& path, std::string& secret)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return false;
    }
    secret.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    if (file.bad()) {
        return false;
    }
    if (!secret.empty() && secret.back() == '\n') {
        secret.pop_back();
    }
    return true;
}

/** What makes the settings unusable; empty when they can be used. The modes are checked before
 *  anything is opened: an unknown cipher mode would only fail when the server accepts, and every
 *  hash mode but the two with a 16-byte digest fails the handshake. */
inline std::string problemWith(const settings& chosen)
{
    const std::string& cipher = chosen.cipherMode;
    const std::string& hash = chosen.hashMode;
    if (cipher != "none" && cipher != "aes128" && cipher != "aes192" && cipher != "aes256") {
        return "unknown cipher mode " + cipher + " (none, aes128, aes192 or aes256)";
    }
    if (hash != "md5" && hash != "sha256-128") {
        return "the handshake needs hash mode md5 or sha256-128, not " + hash;
    }
    if (chosen.secret.empty()) {
        return "the secret is empty";
    }
    return "";
}

/** Parses the options of both programs into `chosen`; prints `usage` and exits on --help (0) or
 *  on a command line that cannot be used (2). */
inline settings parseOptions(int argc, char** argv, const char* usage)
{
    static const option longOptions[] = {{"plugin-dir", required_argument, nullptr, 'd'},
                                         {"cipher", required_argument, nullptr, 'c'},
                                         {"hash", required_argument, nullptr, 'H'},
                                         {"address", required_argument, nullptr, 'a'},
                                         {"secret-file", required_argument, nullptr, 's'},
                                         {"help", no_argument, nullptr, 'h'},
                                         {nullptr, 0, nullptr, 0}};
    settings chosen;
    int letter = 0;
    while ((letter = getopt_long(argc, argv, "d:c:H:a:s:h", longOptions, nullptr)) != -1) {
        switch (letter) {
        case 'd':
            chosen.pluginDir = optarg;
            break;
        case 'c':
            chosen.cipherMode = optarg;
            break;
        case 'H':
            chosen.hashMode = optarg;
            break;
        case 'a':
            chosen.address = optarg;
            break;
        case 's':
            if (!readSecret(optarg, chosen.secret)) {
                std::cerr << argv[0] << ": cannot read the secret file " << optarg << "\n";
                std::exit(usageStatus);
            }
            break;
        case 'h':
            std::cout << usage << commonOptionsHelp;
            std::exit(0);
        default:
            std::cerr << usage << commonOptionsHelp;
            std::exit(usageStatus);
        }
    }
    const std::string problem = problemWith(chosen);
    if (!problem.empty()) {
        std::cerr << argv[0] << ": " << problem << "\n";
        std::exit(usageStatus);
    }
    chosen.operands.assign(argv + optind, argv + argc);
    return chosen;
}

inline veltrix::vxBytes bytesOf(const std::string& text)
{
    veltrix::vxBytes bytes;
    (void)bytes.Replace(text);
    return bytes;
}

inline std::string textOf(const veltrix::vxBytes& bytes)
{
    return std::string(bytes.bytes.begin(), bytes.bytes.end());
}

/** The application frame of both programs: the library's objects are opened under it, and it
 *  loads the crypto plug-in. */
class exampleEnd : public veltrix::vxMain
{
public:
    explicit exampleEnd(settings chosen) : config(std::move(chosen)) {}

protected:
    bool loadPlugin()
    {
        if (!config.pluginDir.empty()) {
            api.setSearchPath(config.pluginDir);
        }
        return LoadPlugin("openssl");
    }

    settings config;
};

/** ADDR:PORT, or [ADDR]:PORT for an IPv6 address. */
inline std::string endpoint(const std::string& address, const std::string& port)
{
    return (address.find(':') == std::string::npos ? address : "[" + address + "]") + ":" + port;
}

/** The process's exit status; on failure, prints the library's error trail first. */
inline int finish(bool ok, const char* program)
{
    if (!ok) {
        std::cerr << program << ": failed; the error trail:\n";
        veltrix::vxBase::DumpStackTrace(std::cerr);
    }
    return ok ? 0 : 1;
}

} // namespace example
