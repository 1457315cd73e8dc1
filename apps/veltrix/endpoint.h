// Where the encrypted connections of the tunnel and cat go: addresses as given, their resolution,
// listening, and plain TCP connects with a time-out.
#pragma once

#include "cliFrame.h"
#include "secretFile.h"
#include "vxNetSocket.h"

#include <sys/socket.h>

#include <CLI/CLI.hpp>
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

/** A socket address as "ADDR:PORT". */
std::string addressText(const sockaddr_storage& peer);

/** The peer of a connected descriptor as "ADDR:PORT". */
std::string peerText(int fd);

/** A TCP socket bound to `where` and listening (non-blocking); a bind log the library must
 *  leave alone is reported through `warn`. */
void listenOn(cliFrame& frame, veltrix::vxNetSocket& listener, const endpoint& where,
              const warningSink& warn);

/** Throws failure naming `where` when the connect on `fd` failed (a refused connection shows
 *  only in the socket's pending error). */
void checkConnected(int fd, const endpoint& where);

/** Connects the open `socket` to the first address of `where` that takes the connection,
 *  waiting at most `seconds` for each; throws failure naming `where`. */
void connectSocket(veltrix::vxNetSocket& socket, const endpoint& where, unsigned seconds);

/** A plain TCP connection to `where`, waiting at most `seconds`; throws failure naming it. */
void connectPlain(cliFrame& frame, veltrix::vxNetSocket& socket, const endpoint& where,
                  unsigned seconds);

} // namespace vxcli
