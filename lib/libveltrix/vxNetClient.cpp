// The connecting end of a session.
#include "vxNetClient.h"

#include "vxGuard.h"

namespace veltrix {

LVX_DEFINE_LIFECYCLE(vxNetClient)

bool vxNetClient::Open()
{
    LVX_CALL_OPEN(socket, false);
    return true;
}

bool vxNetClient::Close()
{
    // A failed handshake leaves its object open, holding the secret: closed (and wiped) here, so
    // that the client does not report it, and latch again, when it is destroyed.
    if (handshake.opened) {
        LVX_CALL_CLOSE(handshake);
    }
    LVX_CALL_CLOSE(socket);
    return true;
}

bool vxNetClient::Connect()
{
    LVX_GUARD();
    return connectSocket();
}

bool vxNetClient::Connect(const std::string& address, const std::string& port)
{
    LVX_GUARD();
    LVX_CHECK(socket.setAddress(address));
    LVX_CHECK(socket.setPort(port));
    return connectSocket();
}

bool vxNetClient::connectSocket()
{
    if (socket.Connect()) {
        return true;
    }
    if (LVX_LATCHED()) {
        LVX_FAIL("%s", LVX_MSG_BOOL_FAILED);
    }
    return false; // quiet: a connect time-out leaves the latch clear, and so does this
}

bool vxNetClient::PerformKeyExchange(const vxBytes& secret)
{
    LVX_GUARD();
    LVX_CALL_OPEN(handshake, encryptedSocket.cipherId, encryptedSocket.hashId, false);
    LVX_CHECK(handshake.SetSecret(secret));
    LVX_CHECK(handshake.RecvProtocolVersion(socket));
    LVX_CHECK(handshake.RecvChallengeRequest(socket));
    LVX_CHECK(handshake.GenerateChallengeResponse());
    LVX_CHECK(handshake.SendChallengeResponse(socket));
    LVX_CHECK(handshake.GenerateChallengeRequest());
    LVX_CHECK(handshake.SendChallengeRequest(socket));
    LVX_CHECK(handshake.RecvChallengeResponse(socket));
    LVX_CHECK(handshake.ValidateChallengeResponse());
    LVX_CHECK(handshake.SeedInitialKeys(encryptedSocket));
    LVX_CALL_CLOSE(handshake);
    return true;
}

bool vxNetClient::SendClientDisconnect()
{
    LVX_GUARD();
    LVX_CHECK(encryptedSocket.SendClientDisconnect());
    return true;
}

} // namespace veltrix
