// The listening end: accepted connections, their handshakes, the options they inherit, pruning.
#include "vxNetServer.h"

#include "vxGuard.h"
#include "vxNetSocketInternal.h"

#include <iostream>
#include <sstream>
#include <utility>

namespace veltrix {

LVX_DEFINE_LIFECYCLE(vxNetConnectedClient)

bool vxNetConnectedClient::Open(const std::string& cipherMode, const std::string& hashMode)
{
    LVX_CALL_OPEN(socket, true);
    LVX_CALL_OPEN(encryptedSocket, cipherMode, hashMode, &socket);
    return true;
}

bool vxNetConnectedClient::Open(const std::string& cipherMode)
{
    return Open(cipherMode, "md5");
}

bool vxNetConnectedClient::Close()
{
    // A failed handshake leaves its object open, holding the secret: closed (and wiped) here,
    // so that the record does not report it, and latch again, when it is destroyed.
    if (handshake.opened) {
        LVX_CALL_CLOSE(handshake);
    }
    LVX_CALL_CLOSE(encryptedSocket);
    LVX_CALL_CLOSE(socket);
    return true;
}

bool vxNetConnectedClient::SetClientId(const uint32_t& id)
{
    LVX_GUARD();
    LVX_ENSURE(!__clientIdSet, LVX_MSG_ID_SET);
    clientId = id;
    __clientIdSet = true;
    return true;
}

bool vxNetConnectedClient::GetClientId(uint32_t& id)
{
    LVX_GUARD();
    LVX_ENSURE(__clientIdSet, LVX_MSG_ID_UNSET);
    id = clientId;
    return true;
}

bool vxNetConnectedClient::SetSocketFd(int32_t& fd)
{
    LVX_GUARD();
    socket.sockFd = fd;
    // Accepted elsewhere, the descriptor has not had the option the library's own accept sets:
    // without it, each message body waits for the acknowledgement of its header.
    sendSegmentsAtOnce(fd);
    return true;
}

bool vxNetConnectedClient::GetSocketFd(int32_t& fd)
{
    LVX_GUARD();
    LVX_CHECK(socket.GetSocketFd(fd));
    return true;
}

bool vxNetConnectedClient::PerformKeyExchange(const vxBytes& secret)
{
    LVX_GUARD();
    LVX_CALL_OPEN(handshake, encryptedSocket.cipherId, encryptedSocket.hashId, true);
    LVX_CHECK(handshake.SetSecret(secret));
    LVX_CHECK(handshake.SendProtocolVersion(socket));
    LVX_CHECK(handshake.GenerateChallengeRequest());
    LVX_CHECK(handshake.SendChallengeRequest(socket));
    LVX_CHECK(handshake.RecvChallengeResponse(socket));
    LVX_CHECK(handshake.ValidateChallengeResponse());
    LVX_CHECK(handshake.RecvChallengeRequest(socket));
    LVX_CHECK(handshake.GenerateChallengeResponse());
    LVX_CHECK(handshake.SendChallengeResponse(socket));
    LVX_CHECK(handshake.SeedInitialKeys(encryptedSocket));
    LVX_CALL_CLOSE(handshake);
    return true;
}

vxNetServer::vxNetServer()
{
    LVX_INIT_OBJECT();
}

vxNetServer::~vxNetServer()
{
    LVX_DESTRUCT();
    for (const auto& cc : connectedClients) {
        if (cc->opened) {
            (void)closeChild(*cc); // best effort: a destructor has no caller to tell
        }
    }
}

bool vxNetServer::Open()
{
    LVX_CALL_OPEN(socket, true);
    return true;
}

bool vxNetServer::Close()
{
    LVX_CALL_CLOSE(socket);
    return true;
}

bool vxNetServer::SetKeyExchangeMode(const uint8_t& mode)
{
    LVX_GUARD();
    keyExchangeMode = mode;
    return true;
}

bool vxNetServer::SetCipherMode(const std::string& mode)
{
    LVX_GUARD();
    cipherMode = mode;
    return true;
}

bool vxNetServer::SetHashMode(const std::string& mode)
{
    LVX_GUARD();
    hashMode = mode;
    return true;
}

bool vxNetServer::CreateSockoptProperty(int32_t level, int32_t optionName, const void* value,
                                        uint32_t len)
{
    LVX_GUARD();
    auto property = std::make_unique<vxNetSockoptProperties>();
    LVX_CHECK(property->Set(level, optionName, value, len));
    inheritedProperties.push_back(std::move(property));
    return true;
}

bool vxNetServer::ApplyInheritedProperties(int32_t fd)
{
    LVX_GUARD();
    for (const auto& property : inheritedProperties) {
        LVX_CHECK(property->Apply(fd));
    }
    return true;
}

// The mode names are taken by value: the exported signature passes copies, and references
// would change the library's binary interface.
// NOLINTBEGIN(performance-unnecessary-value-param)
bool vxNetServer::func_LVX_CALL_OPENP(vxNetConnectedClient* cc, std::string cipher,
                                      std::string hash)
// NOLINTEND(performance-unnecessary-value-param)
{
    LVX_CALL_OPEN(*cc, cipher, hash);
    return true;
}

bool vxNetServer::acceptNewClient(const vxBytes& secret, vxNetConnectedClient* cc, int32_t fd,
                                  uint32_t timeout)
{
    LVX_GUARD();
    if (fd == -1) {
        LVX_CHECK(socket.Accept(cc->socket));
    } else {
        LVX_CHECK(cc->SetSocketFd(fd));
    }
    if (timeout != 0) {
        LVX_CHECK(cc->socket.setTimeOut(timeout));
    }
    int32_t descriptor = -1;
    LVX_CHECK(cc->GetSocketFd(descriptor));
    LVX_CHECK(ApplyInheritedProperties(descriptor));
    LVX_CHECK(cc->PerformKeyExchange(secret));
    return true;
}

bool vxNetServer::acceptNewClient(const vxBytes& secret, vxNetConnectedClient* cc)
{
    return acceptNewClient(secret, cc, -1, 0);
}

bool vxNetServer::acceptNewClient(const vxBytes& secret, vxNetConnectedClient* cc, uint32_t timeout)
{
    return acceptNewClient(secret, cc, -1, timeout);
}

bool vxNetServer::acceptNewClient(const vxBytes& secret, vxNetConnectedClient* cc, int32_t fd)
{
    return acceptNewClient(secret, cc, fd, 0);
}

bool vxNetServer::acceptNewManagedClient(const vxBytes& secret)
{
    LVX_GUARD();
    // Destroyed on any failure below; listed (and owned by the server) only once handshaken.
    auto cc = std::make_unique<vxNetConnectedClient>();
    LVX_CHECK(func_LVX_CALL_OPENP(cc.get(), cipherMode, hashMode));
    LVX_CHECK(acceptNewClient(secret, cc.get()));
    connectedClients.push_back(std::move(cc));
    return true;
}

bool vxNetServer::testClientId(uint32_t id)
{
    LVX_GUARD();
    for (const auto& cc : connectedClients) {
        uint32_t taken = 0;
        LVX_CHECK(cc->GetClientId(taken));
        if (taken == id) {
            return false; // quiet: the id is in use, which is an answer
        }
    }
    return true;
}

bool vxNetServer::updateNextClientId()
{
    LVX_GUARD();
    for (;;) {
        ++nextClientId;
        if (testClientId(nextClientId)) {
            return true;
        }
        // A connection without an id fails the test for every candidate: stop, do not spin.
        if (LVX_LATCHED()) {
            LVX_FAIL("%s", LVX_MSG_BOOL_FAILED);
        }
    }
}

bool vxNetServer::DisconnectClient(uint32_t /*id*/)
{
    return false; // quiet: disconnecting a client from this side is not implemented
}

bool vxNetServer::pruneCClist()
{
    while (pruneCClistSub()) {
    }
    return false; // quiet: the result carries nothing; the list is pruned
}

bool vxNetServer::pruneCClistSub()
{
    LVX_GUARD();
    vxNetConnectedClient* marked = nullptr;
    for (const auto& cc : connectedClients) {
        if (cc->socket.doDisconnect) {
            marked = cc.get();
            break;
        }
    }
    if (marked == nullptr) {
        return false; // quiet: nothing left to prune
    }
    LVX_CALL_CLOSE(*marked);
    connectedClients.remove_if([marked](const auto& cc) { return cc.get() == marked; });
    return true;
}

bool vxNetServer::DumpvxNetServerInfo()
{
    std::ostringstream out;
    out << " keyExchangeMode: " << static_cast<char>(keyExchangeMode)
        << "\n cipherMode: " << cipherMode << "\n hashMode: " << hashMode
        << "\n nextClientId: " << nextClientId
        << "\n connectedClients size: " << connectedClients.size() << '\n';
    std::cout << out.str() << std::flush;
    return true;
}

} // namespace veltrix
