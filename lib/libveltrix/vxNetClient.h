/// @file
/// The connecting end of a session.
#pragma once

#include "vxNetAuth.h"
#include "vxNetSocket.h"

#include <string>

namespace veltrix {

/** Connects to a server, runs the client side of the handshake and ends the session with the
 *  disconnect command. The application sets the port and address on `socket`, opens and closes
 *  `encryptedSocket` itself (Open(cipherMode, hashMode, &client.socket) after the connect, Close
 *  before the client's), and sends and receives through it:
 *
 *      client.socket.setPort("5000"); client.socket.setAddress("127.0.0.1"); client.Connect();
 *      open encryptedSocket; client.PerformKeyExchange(secret); SendEncrypted / RecvEncrypted;
 *      client.SendClientDisconnect(); close encryptedSocket; close the client.
 *
 *  After the disconnect command, close the client at once: the server reads 16 bytes more after
 *  the command and waits in that read until this socket closes. Any failure latches the process:
 *  the client cannot be used further. A client serves one session: its handshake and encrypted
 *  socket cannot be opened a second time. */
class VX_API vxNetClient : public vxBase
{
public:
    vxNetPSKChallengeResponse handshake;  ///< opened and closed inside PerformKeyExchange
    vxNetSocket socket;                   ///< opened by Open, closed by Close
    vxNetEncryptedSocket encryptedSocket; ///< opened and closed by the application

    vxNetClient();
    LVX_NOT_COPYABLE(vxNetClient);
    ~vxNetClient() override;

    /** Opens the socket (as the client's end). */
    [[nodiscard]] bool Open() override;
    /** Closes the socket, and the handshake when a failure left it open; the encrypted socket is
     *  left as it is. */
    [[nodiscard]] bool Close() override;

    /** Connects the socket to the port and address set on it. A connect time-out (see
     *  vxNetSocket::setConnectTimeout) is a quiet false that leaves the latch clear. */
    [[nodiscard]] bool Connect();
    /** setAddress(address), then setPort(port), then Connect, in that order: the address is
     *  resolved with the port set before, so on a fresh client this fails with "The port must be
     *  set before the address.", and the connection goes to the earlier port, never to `port`. */
    [[nodiscard]] bool Connect(const std::string& address, const std::string& port);
    /** The client's side of the handshake with `secret`; on success `encryptedSocket` is keyed
     *  for the session. */
    [[nodiscard]] bool PerformKeyExchange(const vxBytes& secret);
    /** Sends the disconnect command through the encrypted socket. */
    [[nodiscard]] bool SendClientDisconnect();

private:
    /** socket.Connect, quiet when it timed out. */
    [[nodiscard]] VX_NO_EXPORT bool connectSocket();
};

} // namespace veltrix
