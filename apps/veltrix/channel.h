// The pieces of an encrypted connection that the tunnel and cat share: addresses, the secret
// file, cipher and hash modes, listening, connecting with a time-out, the handshake under a
// deadline, and the log of one connection.
#pragma once

#include "cliFrame.h"
#include "vxBytes.h"
#include "vxNetClient.h"
#include "vxNetServer.h"
#include "vxNetSocket.h"

#include <sys/socket.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>

namespace vxcli {

/** A numeric address and a port, as given on the command line: "127.0.0.1:5000",
 *  "[::1]:5000". */
struct endpoint
{
    std::string address;
    std::string port;
    [[nodiscard]] std::string text() const;
};

/** Splits "ADDR:PORT"; throws failure for a malformed text. */
endpoint parseEndpoint(const std::string& text);

/** Checks "ADDR:PORT" while the command line is parsed, so that a bad one is a usage error. */
CLI::Validator endpointValidator();

/** How long a relay waits on its peer, in seconds; 0 = no limit. */
struct relayLimits
{
    unsigned receive = 10; ///< for the rest of a packet once its first byte arrived
    unsigned idle = 0;     ///< with nothing arriving from the peer and nothing sent to it
};

/** What the encrypted connections of a command are made with. */
struct channelOptions
{
    std::string pskFile;
    std::string cipher = "aes256";
    std::string hash = "md5";
    unsigned connectTimeout = 10;   ///< seconds
    unsigned handshakeTimeout = 10; ///< seconds
    relayLimits limits;
};

/** Adds --psk-file, --cipher, --hash, --connect-timeout, --handshake-timeout, --receive-timeout
 *  and --idle-timeout; an unknown cipher, or a hash the handshake cannot use, is a usage
 *  error. */
void addChannelOptions(CLI::App& command, channelOptions& options);

/** The secret in `path`: its content without one trailing line feed. Refused when the file is
 *  open to group or others, or empty. */
veltrix::vxBytes readSecret(const std::string& path);

/** A TCP socket bound to `where` and listening (non-blocking). */
void listenOn(cliFrame& frame, veltrix::vxNetSocket& listener, const endpoint& where);

/** A socket address as "ADDR:PORT". */
std::string addressText(const sockaddr_storage& peer);

/** The peer of a connected descriptor as "ADDR:PORT". */
std::string peerText(int fd);

/** Throws failure naming `where` when the connect on `fd` failed (a refused connection shows
 *  only in the socket's pending error). */
void checkConnected(int fd, const endpoint& where);

/** `where` as a socket address; its length. */
socklen_t socketAddress(const endpoint& where, sockaddr_storage& address);

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

/** Log lines of one connection (or of the program), prefixed; to the trace log on standard
 *  error when `toStderr`, and always to syslog. */
class connectionLog
{
public:
    connectionLog(std::string linePrefix, bool alsoStderr);
    void line(const std::string& text) const;

private:
    std::string prefix;
    bool toStderr;
};

} // namespace vxcli
