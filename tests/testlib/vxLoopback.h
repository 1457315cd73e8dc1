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

/** Opens `serverEnd` (origin) and `clientEnd` on the two ends of a new socket pair. */
bool openOnSocketPair(testFrame& frame, veltrix::vxNetSocket& serverEnd,
                      veltrix::vxNetSocket& clientEnd);

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

/** A server and a client over 127.0.0.1, the client closed and then the server when the case
 *  ends. */
class loopbackTest : public vxCryptoTest
{
protected:
    static constexpr const char* kSecret = "the secret both ends share";

    void TearDown() override;

    /** Opens the server with the two modes and listens on a port the system picks. */
    bool listen(const std::string& cipher, const std::string& hash)
    {
        return listenOnLoopback(frame, server, cipher, hash, port);
    }

    /** Connects `end` with the two modes and runs both handshakes, the server with kSecret and
     *  `end` with `secret`; the new connection is then the server's last. */
    bool session(veltrix::vxNetClient& end, const std::string& cipher, const std::string& hash,
                 const std::string& secret = kSecret)
    {
        return connectOnLoopback(frame, end, port, cipher, hash) &&
               handshakeBoth(server, end, kSecret, secret);
    }

    veltrix::vxNetServer server;
    veltrix::vxNetClient client;
    std::string port;
};

} // namespace vxtest
