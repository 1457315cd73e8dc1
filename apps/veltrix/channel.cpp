// Addresses, secrets, listening, connecting and handshakes for the tunnel and cat.
#include "channel.h"

#include "vxGlobal.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
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

const std::set<std::string> kOtherHashes = {"sha1", "sha256", "sha384", "sha512"};

/** The library's reason when the peer's answer to this end's challenge is wrong. */
const char* const kWrongAnswer = "( decrypted == correctResponse )";

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
            throw failure("the handshake with " + peer + " failed: " + kPeerClosed);
        }
        if (!ok && trailReason() == kWrongAnswer) {
            throw failure("the handshake with " + peer + " failed: " + kNotShared);
        }
        require(ok, "the handshake with " + peer + " failed");
    }

private:
    struct sigaction previous = {};
};

/** Connects `socket` to the first address of `where` that takes the connection: a name such as
 *  localhost may stand for an IPv6 and an IPv4 address where a service listens on one. Each
 *  Connect makes a new descriptor, so the socket can try the next address. */
void connectSocket(vxNetSocket& socket, const endpoint& where, unsigned seconds)
{
    const std::vector<socketAddress> addresses = resolve(where);
    const std::string what = "cannot connect to " + where.text();
    for (size_t i = 0; i < addresses.size(); ++i) {
        const endpoint at = parseEndpoint(addressText(addresses[i].address));
        require(socket.setConnectTimeout(seconds) && socket.setPort(at.port) &&
                    socket.setAddress(at.address),
                what);
        const bool last = i + 1 == addresses.size();
        if (!socket.Connect()) {
            if (!vxBase::HaveStackTrace()) {
                throw failure(what + ": no answer within " + std::to_string(seconds) + " s");
            }
            require(!last, what);
            vxBase::lvxClearLastError();
            continue;
        }
        int error = 0;
        socklen_t length = sizeof error;
        if (last ||
            (getsockopt(socket.sockFd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0)) {
            checkConnected(socket.sockFd, where);
            return;
        }
    }
}

/** A server tunnel speaks first: waits for its first bytes and refuses them, unread, when they
 *  are another protocol's (a banner, say), or when none come in time. */
void refuseForeignServer(int fd, const std::string& peer, unsigned seconds)
{
    pollfd first{fd, POLLIN, 0};
    const int ready = poll(&first, 1, static_cast<int>(seconds) * 1000);
    if (ready == 0) {
        throw failure("the handshake with " + peer + " did not finish within " +
                      std::to_string(seconds) +
                      " s: the peer sent nothing (is it a server tunnel?)");
    }
    unsigned char bytes[16];
    const ssize_t got = recv(fd, bytes, sizeof bytes, MSG_PEEK | MSG_DONTWAIT);
    const std::string foreign = foreignProtocol(bytes, got > 0 ? static_cast<size_t>(got) : 0);
    if (!foreign.empty()) {
        throw failure("the handshake with " + peer +
                      " failed: the peer is not a veltrix tunnel: " + foreign);
    }
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

std::vector<socketAddress> resolve(const endpoint& where, bool listening)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | (listening ? AI_PASSIVE : 0);
    addrinfo* found = nullptr;
    const int status = getaddrinfo(where.address.c_str(), where.port.c_str(), &hints, &found);
    if (status != 0) {
        throw failure("cannot resolve " + where.address + ": " +
                      (status == EAI_SYSTEM ? errnoText() : gai_strerror(status)));
    }
    std::vector<socketAddress> addresses;
    for (const addrinfo* one = found; one != nullptr; one = one->ai_next) {
        socketAddress address{};
        std::memcpy(&address.address, one->ai_addr, one->ai_addrlen);
        address.length = one->ai_addrlen;
        addresses.push_back(address);
    }
    freeaddrinfo(found);
    if (addresses.empty()) {
        throw failure("cannot resolve " + where.address + ": no address");
    }
    return addresses;
}

std::string endpoint::text() const
{
    return address.find(':') != std::string::npos ? "[" + address + "]:" + port
                                                  : address + ":" + port;
}

bool endpoint::numeric() const
{
    in6_addr bytes{};
    return inet_pton(AF_INET, address.c_str(), &bytes) == 1 ||
           inet_pton(AF_INET6, address.c_str(), &bytes) == 1;
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
    if (where.numeric()) {
        return where;
    }
    // A host name: letters, digits, '-', '_' and dots between labels.
    const std::string& name = where.address;
    const bool wellFormed =
        name.size() <= 253 &&
        name.find_first_not_of(
            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.") ==
            std::string::npos &&
        name.front() != '.' && name.front() != '-' && name.find("..") == std::string::npos;
    if (!wellFormed) {
        throw failure("\"" + text +
                      "\": the address must be a host name or a numeric IPv4 or IPv6 address");
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

const optionRows<channelOptions>& channelRows()
{
    using row = optionRow<channelOptions>;
    const auto seconds = [](unsigned low, unsigned high, unsigned channelOptions::*field) {
        return [low, high, field](const std::string& text, channelOptions& into) {
            return parseNumber(text, low, high, into.*field);
        };
    };
    const auto limit = [](unsigned high, unsigned relayLimits::*field) {
        return [high, field](const std::string& text, channelOptions& into) {
            return parseNumber(text, 0, high, into.limits.*field);
        };
    };
    static const optionRows<channelOptions> rows = {
        row{"psk-file", "FILE", "file holding the pre-shared secret", "",
            [](const std::string& text, channelOptions& into) {
                into.pskFile = text;
                return text.empty() ? std::string("the secret file's name is empty")
                                    : std::string();
            }},
        row{"cipher", "CIPHER", "none, aes128, aes192 or aes256", "aes256",
            [](const std::string& text, channelOptions& into) {
                into.cipher = text;
                return kCipherModes.count(text) != 0
                           ? std::string()
                           : "unknown cipher \"" + text + "\": use none, aes128, aes192 or aes256";
            }},
        row{"hash", "HASH", "md5 or sha256-128 (the handshake needs a 16-byte digest)", "md5",
            [](const std::string& text, channelOptions& into) {
                into.hash = text;
                if (kHandshakeHashModes.count(text) != 0) {
                    return std::string();
                }
                if (kOtherHashes.count(text) != 0) {
                    return "hash mode \"" + text +
                           "\" cannot key the handshake, which needs a 16-byte digest: use md5 "
                           "or sha256-128";
                }
                return "unknown hash mode \"" + text + "\": use md5 or sha256-128";
            }},
        row{"connect-timeout", "SECONDS", "seconds a TCP connect may take", "10",
            seconds(1, 3600, &channelOptions::connectTimeout)},
        row{"handshake-timeout", "SECONDS", "seconds the whole handshake may take", "10",
            seconds(1, 3600, &channelOptions::handshakeTimeout)},
        row{"receive-timeout", "SECONDS",
            "seconds for the rest of a packet once its first byte arrived (0: no limit)", "10",
            limit(3600, &relayLimits::receive)},
        row{"idle-timeout", "SECONDS",
            "seconds with nothing received or sent that end a connection (0: never)", "0",
            limit(86400, &relayLimits::idle)},
    };
    return rows;
}

channelOptions defaultChannel()
{
    return defaultsOf(channelRows());
}

void listenOn(cliFrame& frame, vxNetSocket& listener, const endpoint& where,
              const warningSink& warn)
{
    // The library leaves the bind log alone when another user planted something in its place;
    // the operator hears of it here, as the library says nothing.
    struct stat status = {};
    if (lstat(VX_SOCKET_LOG_PATH, &status) == 0 &&
        (!S_ISREG(status.st_mode) || (status.st_uid != geteuid() && status.st_uid != 0))) {
        warn(std::string("the bind log ") + VX_SOCKET_LOG_PATH +
             " is not a regular file of this user or root: nothing is written to it");
    }
    frame.open(listener, "cannot open a socket", true);
    const endpoint at = parseEndpoint(addressText(resolve(where, true).front().address));
    require(listener.setPort(at.port) && listener.setAddress(at.address) &&
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
    refuseForeignServer(client.socket.sockFd, where.text(), options.handshakeTimeout);
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

const char* const kNotShared =
    "the peer does not share this end's secret, cipher and hash (compare --psk-file, --cipher "
    "and --hash on both ends)";
const char* const kRefusedAnswer =
    "the server tunnel refused this end's answer: the two ends do not share the same secret, "
    "cipher and hash (compare --psk-file, --cipher and --hash on both ends)";
const char* const kPeerClosed =
    "the peer closed the connection (a veltrix tunnel does so when the client does not share its "
    "secret, cipher and hash: compare --psk-file, --cipher and --hash on both ends)";

std::string foreignProtocol(const unsigned char* bytes, size_t count)
{
    if (count >= 2 && bytes[0] == 0x16 && bytes[1] == 0x03) {
        return "it speaks TLS";
    }
    // 16 random bytes are all printable once in about ten million handshakes.
    constexpr size_t kShown = 24;
    std::string shown;
    for (size_t i = 0; i < count; ++i) {
        const unsigned char byte = bytes[i];
        if (byte == '\r' || byte == '\n' || byte == '\t') {
            shown += byte == '\r' ? "\\r" : byte == '\n' ? "\\n" : "\\t";
        } else if (byte >= 0x20 && byte < 0x7f) {
            shown += static_cast<char>(byte);
        } else {
            return {};
        }
    }
    if (count < 4) {
        return {};
    }
    const bool cut = shown.size() > kShown;
    return "it sent plain text \"" + shown.substr(0, kShown) + (cut ? "\"..." : "\"");
}

} // namespace vxcli
