// Two real ends of a loopback connection: a server listening on 127.0.0.1 on a port the system
// picks, a client connected to it, and the handshake run at both ends at once.
#pragma once

#include "vxNetClient.h"
#include "vxNetServer.h"
#include "vxTest.h"

#include <string>

namespace vxtest {

/** The port a bound socket got, as text. */
std::string boundPort(int fd);

/** Whether `fd` becomes readable within `seconds`. */
bool readableWithin(int fd, int seconds);

/** Opens `server` with the two modes and binds and listens on 127.0.0.1, port 0; `port` is the
 *  port the system picked. */
bool listenOnLoopback(testFrame& frame, veltrix::vxNetServer& server, const std::string& cipher,
                      const std::string& hash, std::string& port);

/** Opens `client`, connects it to `port` on 127.0.0.1 and opens its encrypted socket. */
bool connectOnLoopback(testFrame& frame, veltrix::vxNetClient& client, const std::string& port,
                       const std::string& cipher, const std::string& hash);

/** Runs the server's accept and handshake on a second thread and the client's on this one;
 *  true when both succeeded. The new connection is the server's last managed one. */
bool handshakeBoth(veltrix::vxNetServer& server, veltrix::vxNetClient& client,
                   const std::string& serverSecret, const std::string& clientSecret);

/** Closes an object if it is open, under the protocol. */
void closeIfOpen(veltrix::vxBase& object);

/** Closes a client's encrypted socket and then the client, whichever is open. */
void closeClient(veltrix::vxNetClient& end);

} // namespace vxtest
