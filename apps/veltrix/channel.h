// The pieces of an encrypted connection that the tunnel and cat share: addresses and their
// resolution, the secret file, the channel's options, listening, connecting with a time-out, the
// handshake under a deadline, and what a failed handshake means.
#pragma once

#include "cliFrame.h"
#include "modeNames.h"
#include "optionTable.h"
#include "secretFile.h"
#include "vxBytes.h"
#include "vxNetClient.h"
#include "vxNetServer.h"
#include "vxNetSocket.h"

#include <sys/socket.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace vxcli {

/** A host (a name, or a numeric IPv4 or IPv6 address) and a port, as given: "127.0.0.1:5000",
 *  "[::1]:5000", "gateway.example:5000". */
struct endpoint
{
    std::string address;
    std::string port;
    [[nodiscard]] std::string text() const;
    /** Whether the host is a numeric IPv4 or IPv6 address, which needs no lookup. */
    [[nodiscard]] bool numeric() const;
};

/** Splits "ADDR:PORT"; throws failure for a malformed text. */
endpoint parseEndpoint(const std::string& text);

/** Checks "ADDR:PORT" while the command line is parsed, so that a bad one is a usage error. */
CLI::Validator endpointValidator();

/** One socket address that a host name or a numeric address stands for. */
struct socketAddress
{
    sockaddr_storage address;
    socklen_t length;
};

/** The addresses `where` stands for, in the order the resolver prefers (numeric ones without a
 *  lookup); throws failure "cannot resolve NAME: why". `listening`: addresses to bind. */
std::vector<socketAddress> resolve(const endpoint& where, bool listening = false);

/** How long a relay waits on its peer, in seconds; 0 = no limit. */
struct relayLimits
{
    unsigned receive{}; ///< for the rest of a packet once its first byte arrived
    unsigned idle{};    ///< with nothing arriving from the peer and nothing sent to it
};

/** What the encrypted connections of a command are made with. */
struct channelOptions
{
    std::string pskFile;
    std::string cipher;
    std::string hash;
    unsigned connectTimeout{};   ///< seconds
    unsigned handshakeTimeout{}; ///< seconds
    relayLimits limits{};
};

/** --psk-file, --cipher, --hash, --connect-timeout, --handshake-timeout, --receive-timeout and
 *  --idle-timeout: an unknown cipher, or a hash the handshake cannot use, is refused. */
const optionRows<channelOptions>& channelRows();

/** The channel options with their defaults. */
channelOptions defaultChannel();

/** A TCP socket bound to `where` and listening (non-blocking); a bind log the library must
 *  leave alone is reported through `warn`. */
void listenOn(cliFrame& frame, veltrix::vxNetSocket& listener, const endpoint& where,
              const warningSink& warn);

/** A socket address as "ADDR:PORT". */
std::string addressText(const sockaddr_storage& peer);

/** The peer of a connected descriptor as "ADDR:PORT". */
std::string peerText(int fd);

/** Throws failure naming `where` when the connect on `fd` failed (a refused connection shows
 *  only in the socket's pending error). */
void checkConnected(int fd, const endpoint& where);

/** A plain TCP connection to `where`, waiting at most `seconds`; throws failure naming it. */
void connectPlain(cliFrame& frame, veltrix::vxNetSocket& socket, const endpoint& where,
                  unsigned seconds);

/** The client end: connects to `where` and runs the handshake; its encrypted socket is keyed. */
void connectEncrypted(cliFrame& frame, veltrix::vxNetClient& client, const endpoint& where,
                      const channelOptions& options, const veltrix::vxBytes& secret);

/** The server end: runs the handshake on the accepted descriptor `fd` into `record`. */
void acceptEncrypted(cliFrame& frame, veltrix::vxNetServer& server,
                     veltrix::vxNetConnectedClient& record, int fd, const channelOptions& options,
                     const veltrix::vxBytes& secret);

/** Why a handshake failed when the peer's answer to this end's challenge was wrong, when the
 *  server tunnel closed the connection on this end's answer, and when the peer closed the
 *  connection before the handshake finished: each tells what to compare on both ends. */
extern const char* const kNotShared;
extern const char* const kRefusedAnswer;
extern const char* const kPeerClosed;

/** What the first bytes of a peer show when they are not the handshake of a tunnel: "it sent
 *  plain text \"GET / HTTP/1.1\"", "it speaks TLS"; empty when they could be. */
std::string foreignProtocol(const unsigned char* bytes, size_t count);

} // namespace vxcli
