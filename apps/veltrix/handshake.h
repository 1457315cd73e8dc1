// The handshake of an encrypted connection under a deadline, at either end, and what a failed
// one tells the operator: which settings to compare, or that the peer speaks another protocol.
#pragma once

#include "channelOptions.h"
#include "endpoint.h"
#include "vxBytes.h"
#include "vxNetClient.h"
#include "vxNetServer.h"

#include <cstddef>
#include <string>

namespace vxcli {

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
