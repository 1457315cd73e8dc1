// Handshakes under a deadline for the tunnel and cat, and the reasons a failed one gives.
#include "handshake.h"

#include "vxGlobal.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>

namespace vxcli {

using namespace veltrix;

namespace {

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
