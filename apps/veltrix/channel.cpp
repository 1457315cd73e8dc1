// Addresses, secrets, listening, connecting and handshakes for the tunnel and cat.
#include "channel.h"

#include "vxGlobal.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <set>

namespace vxcli {

using namespace veltrix;

namespace {

const std::set<std::string> kCiphers = {"none", "aes128", "aes192", "aes256"};
/** The handshake needs a 16-byte digest; the other hash modes fail its validation. */
const std::set<std::string> kHandshakeHashes = {"md5", "sha256-128"};
const std::set<std::string> kOtherHashes = {"sha1", "sha256", "sha384", "sha512"};

/** The descriptor the handshake deadline shuts down, and whether it fired. */
volatile sig_atomic_t deadlineFd = -1;
volatile sig_atomic_t deadlinePassed = 0;

extern "C" void onDeadline(int /*signo*/)
{
    deadlinePassed = 1;
    // shutdown() is async-signal-safe: the blocked receive of the handshake returns at once.
    (void)shutdown(deadlineFd, SHUT_RDWR);
}

/** Whether the peer ended its side of `fd` and nothing it sent is left to read. */
bool peerEnded(int fd)
{
    char next = 0;
    return recv(fd, &next, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

/** While it lives, the connection on `fd` is shut down after `seconds`: a peer that stalls the
 *  handshake cannot hold the process. */
class handshakeDeadline
{
public:
    handshakeDeadline(int fd, unsigned seconds)
    {
        deadlineFd = fd;
        deadlinePassed = 0;
        struct sigaction action = {};
        action.sa_handler = onDeadline;
        (void)sigemptyset(&action.sa_mask);
        (void)sigaction(SIGALRM, &action, &previous);
        (void)alarm(seconds);
    }

    LVX_NOT_COPYABLE(handshakeDeadline);

    ~handshakeDeadline()
    {
        (void)alarm(0);
        (void)sigaction(SIGALRM, &previous, nullptr);
        deadlineFd = -1;
    }

    /** Throws failure for a handshake that failed on `fd`, saying so when the deadline ended
     *  it or the peer had closed. */
    static void check(bool ok, int fd, const std::string& peer, unsigned seconds)
    {
        if (!ok && deadlinePassed != 0) {
            throw failure("the handshake with " + peer + " did not finish within " +
                          std::to_string(seconds) + " s");
        }
        // The library reports a message cut short by the peer's close with no text of its own.
        if (!ok && peerEnded(fd)) {
            throw failure("the handshake with " + peer + " failed: the peer closed the connection");
        }
        require(ok, "the handshake with " + peer + " failed");
    }

private:
    struct sigaction previous = {};
};

void connectSocket(vxNetSocket& socket, const endpoint& where, unsigned seconds)
{
    const std::string what = "cannot connect to " + where.text();
    require(socket.setConnectTimeout(seconds) && socket.setPort(where.port) &&
                socket.setAddress(where.address),
            what);
    if (!socket.Connect()) {
        require(!vxBase::HaveStackTrace(), what);
        throw failure(what + ": no answer within " + std::to_string(seconds) + " s");
    }
    checkConnected(socket.sockFd, where);
}

} // namespace

void checkConnected(int fd, const endpoint& where)
{
    int error = 0;
    socklen_t length = sizeof error;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
        errno = error != 0 ? error : errno;
        throw failure("cannot connect to " + where.text() + ": " + errnoText());
    }
}

socklen_t socketAddress(const endpoint& where, sockaddr_storage& address)
{
    address = {};
    const auto port = static_cast<uint16_t>(std::stoul(where.port));
    auto& six = reinterpret_cast<sockaddr_in6&>(address);
    if (inet_pton(AF_INET6, where.address.c_str(), &six.sin6_addr) == 1) {
        six.sin6_family = AF_INET6;
        six.sin6_port = htons(port);
        return sizeof six;
    }
    auto& four = reinterpret_cast<sockaddr_in&>(address);
    if (inet_pton(AF_INET, where.address.c_str(), &four.sin_addr) != 1) {
        throw failure("\"" + where.text() +
                      "\": the address must be a numeric IPv4 or IPv6 address");
    }
    four.sin_family = AF_INET;
    four.sin_port = htons(port);
    return sizeof four;
}

std::string endpoint::text() const
{
    return address.find(':') != std::string::npos ? "[" + address + "]:" + port
                                                  : address + ":" + port;
}

endpoint parseEndpoint(const std::string& text)
{
    const std::string::size_type colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) {
        throw failure("\"" + text + "\" is not ADDR:PORT");
    }
    endpoint where{text.substr(0, colon), text.substr(colon + 1)};
    if (where.address.front() == '[' && where.address.back() == ']') {
        where.address = where.address.substr(1, where.address.size() - 2);
    }
    if (where.port.find_first_not_of("0123456789") != std::string::npos || where.port.size() > 5 ||
        std::stoul(where.port) > 65535) {
        throw failure("\"" + text + "\": the port must be a number from 0 to 65535");
    }
    in6_addr numeric{};
    if (inet_pton(AF_INET, where.address.c_str(), &numeric) != 1 &&
        inet_pton(AF_INET6, where.address.c_str(), &numeric) != 1) {
        throw failure("\"" + text + "\": the address must be a numeric IPv4 or IPv6 address");
    }
    return where;
}

CLI::Validator endpointValidator()
{
    return {[](const std::string& text) {
                try {
                    (void)parseEndpoint(text);
                } catch (const failure& error) {
                    return std::string(error.what());
                }
                return std::string();
            },
            "ADDR:PORT"};
}

void addChannelOptions(CLI::App& command, channelOptions& options)
{
    command.add_option("--psk-file", options.pskFile, "file holding the pre-shared secret")
        ->required();
    command.add_option("--cipher", options.cipher, "none, aes128, aes192 or aes256")
        ->capture_default_str()
        ->check(CLI::IsMember(kCiphers));
    command
        .add_option("--hash", options.hash,
                    "md5 or sha256-128 (the handshake needs a 16-byte digest)")
        ->capture_default_str()
        ->check(CLI::Validator(
            [](const std::string& mode) {
                if (kHandshakeHashes.count(mode) != 0) {
                    return std::string();
                }
                if (kOtherHashes.count(mode) != 0) {
                    return "hash mode \"" + mode +
                           "\" cannot key the handshake, which needs a 16-byte digest: use md5 "
                           "or sha256-128";
                }
                return "unknown hash mode \"" + mode + "\": use md5 or sha256-128";
            },
            "HASH"));
    command.add_option("--connect-timeout", options.connectTimeout, "seconds")
        ->capture_default_str()
        ->check(CLI::Range(1U, 3600U));
    command.add_option("--handshake-timeout", options.handshakeTimeout, "seconds")
        ->capture_default_str()
        ->check(CLI::Range(1U, 3600U));
    command
        .add_option("--receive-timeout", options.limits.receive,
                    "seconds for the rest of a packet once its first byte arrived (0: no limit)")
        ->capture_default_str()
        ->check(CLI::Range(0U, 3600U));
    command
        .add_option("--idle-timeout", options.limits.idle,
                    "seconds with nothing received or sent that end a connection (0: never)")
        ->capture_default_str()
        ->check(CLI::Range(0U, 86400U));
}

vxBytes readSecret(const std::string& path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        throw failure("cannot open the secret file " + path + ": " + errnoText());
    }
    struct stat status = {};
    vxBytes secret;
    std::string problem;
    if (fstat(fd, &status) != 0) {
        problem = "cannot read the secret file " + path + ": " + errnoText();
    } else {
        problem = sharedFileProblem("secret file", path, status.st_mode);
    }
    if (problem.empty()) {
        // Room for the whole file up front, so that no reallocation leaves a copy of the
        // secret behind in freed memory; the chunk is wiped after use for the same reason.
        secret.bytes.reserve(static_cast<size_t>(std::max<off_t>(status.st_size, 0)) + 1);
        unsigned char chunk[4096];
        ssize_t got = 0;
        while ((got = read(fd, chunk, sizeof chunk)) > 0) {
            secret.bytes.insert(secret.bytes.end(), chunk, chunk + got);
        }
        if (got < 0) {
            problem = "cannot read the secret file " + path + ": " + errnoText();
        }
        explicit_bzero(chunk, sizeof chunk);
    }
    (void)close(fd);
    if (!secret.bytes.empty() && secret.bytes.back() == '\n') {
        secret.bytes.pop_back();
    }
    if (problem.empty() && secret.bytes.empty()) {
        problem = "the secret file " + path + " is empty";
    }
    if (!problem.empty()) {
        throw failure(problem);
    }
    return secret;
}

void listenOn(cliFrame& frame, vxNetSocket& listener, const endpoint& where)
{
    frame.open(listener, "cannot open a socket", true);
    require(listener.setPort(where.port) && listener.setAddress(where.address) &&
                listener.BindAndListen(),
            "cannot listen on " + where.text());
}

std::string addressText(const sockaddr_storage& peer)
{
    char address[INET6_ADDRSTRLEN] = "?";
    if (peer.ss_family == AF_INET6) {
        const auto& six = reinterpret_cast<const sockaddr_in6&>(peer);
        (void)inet_ntop(AF_INET6, &six.sin6_addr, address, sizeof address);
        return endpoint{address, std::to_string(ntohs(six.sin6_port))}.text();
    }
    const auto& four = reinterpret_cast<const sockaddr_in&>(peer);
    (void)inet_ntop(AF_INET, &four.sin_addr, address, sizeof address);
    return endpoint{address, std::to_string(ntohs(four.sin_port))}.text();
}

std::string peerText(int fd)
{
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0) {
        return "an unknown peer";
    }
    return addressText(peer);
}

void connectPlain(cliFrame& frame, vxNetSocket& socket, const endpoint& where, unsigned seconds)
{
    frame.open(socket, "cannot open a socket", false);
    connectSocket(socket, where, seconds);
}

void connectEncrypted(cliFrame& frame, vxNetClient& client, const endpoint& where,
                      const channelOptions& options, const vxBytes& secret)
{
    frame.open(client, "cannot open the client");
    connectSocket(client.socket, where, options.connectTimeout);
    frame.open(client.encryptedSocket, "cannot open the encrypted socket", options.cipher,
               options.hash, &client.socket);
    const handshakeDeadline deadline(client.socket.sockFd, options.handshakeTimeout);
    handshakeDeadline::check(client.PerformKeyExchange(secret), client.socket.sockFd, where.text(),
                             options.handshakeTimeout);
}

void acceptEncrypted(cliFrame& frame, vxNetServer& server, vxNetConnectedClient& record, int fd,
                     const channelOptions& options, const vxBytes& secret)
{
    frame.open(server, "cannot open the server");
    require(server.SetCipherMode(options.cipher) && server.SetHashMode(options.hash),
            "cannot set the modes");
    frame.open(record, "cannot open the connection", options.cipher, options.hash);
    const std::string peer = peerText(fd);
    const handshakeDeadline deadline(fd, options.handshakeTimeout);
    // No receive time-out of the library's own: the deadline bounds the whole handshake, and
    // the relay afterwards only receives what has arrived.
    handshakeDeadline::check(server.acceptNewClient(secret, &record, fd, 0U), fd, peer,
                             options.handshakeTimeout);
}

connectionLog::connectionLog(std::string linePrefix, bool alsoStderr)
    : prefix(std::move(linePrefix)), toStderr(alsoStderr)
{}

void connectionLog::line(const std::string& text) const
{
    const std::string message = prefix + text;
    if (toStderr) {
        (void)vxGlobal.traceLog.AddMessage(message);
    }
    // Without a syslog socket every line would cost a failed connect to it.
    static const bool syslogThere = access("/dev/log", W_OK) == 0;
    if (syslogThere) {
        (void)vxGlobal.traceLog.SysLog(message);
    }
}

} // namespace vxcli
