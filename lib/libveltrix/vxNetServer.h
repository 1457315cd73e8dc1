/// @file
/// The listening end: accepted connections, their handshakes, the options they inherit, pruning.
#pragma once

#include "vxNetAuth.h"
#include "vxNetSocket.h"

#include <cstdint>
#include <list>
#include <memory>
#include <string>

namespace veltrix {

/** The server's record of one accepted connection: its socket, encrypted socket and handshake,
 *  and an optional client id. Send and receive through `encryptedSocket`; the connection is over
 *  when `socket.doDisconnect` is set (the peer sent the disconnect command or closed). */
class VX_API vxNetConnectedClient : public vxBase
{
public:
    // NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): its public name
    bool __clientIdSet = false;           ///< set by SetClientId
    uint32_t clientId = 0;                ///< the id given by SetClientId
    vxNetSocket socket;                   ///< the accepted connection
    vxNetEncryptedSocket encryptedSocket; ///< the connection's messages
    vxNetPSKChallengeResponse handshake;  ///< opened and closed inside PerformKeyExchange

    vxNetConnectedClient();
    LVX_NOT_COPYABLE(vxNetConnectedClient);
    ~vxNetConnectedClient() override;

    using vxBase::Open;
    /** Opens the socket (server side) and the encrypted socket on it with the two mode names;
     *  an unknown name fails here. */
    [[nodiscard]] bool Open(const std::string& cipherMode, const std::string& hashMode);
    /** The same with hash mode "md5". */
    [[nodiscard]] bool Open(const std::string& cipherMode);
    /** Closes the handshake when a failure left it open, the encrypted socket, then the
     *  socket. */
    [[nodiscard]] bool Close() override;

    /** Once only: a second call fails with "__clientIdSet == false". */
    [[nodiscard]] bool SetClientId(const uint32_t& id);
    /** Fails with "__clientIdSet == true" when no id was set. */
    [[nodiscard]] bool GetClientId(uint32_t& id);
    /** Adopts a descriptor accepted elsewhere and switches on TCP_NODELAY for it, as Accept does
     *  for its own; a descriptor that refuses the option (not TCP) is adopted all the same. */
    [[nodiscard]] bool SetSocketFd(int32_t& fd);
    /** The socket's descriptor into `fd`; runs the standard guard. */
    [[nodiscard]] bool GetSocketFd(int32_t& fd);
    /** The server's side of the handshake with `secret`. */
    [[nodiscard]] bool PerformKeyExchange(const vxBytes& secret);
};

/** Accepts connections on `socket` and runs their handshakes with the cipher and hash modes set
 *  here. The application binds: it sets port and address on `socket` and calls its
 *  BindAndListen. The listening descriptor is non-blocking, so accept only once it is readable
 *  (an accept with nothing pending fails and latches). No lock guards the lists: accept,
 *  receive and prune on one thread. Any failure latches the whole process. */
class VX_API vxNetServer : public vxBase
{
public:
    uint8_t keyExchangeMode = 0; ///< set by SetKeyExchangeMode; shown by the dump only
    uint32_t nextClientId = 0;   ///< the last id handed out by updateNextClientId
    std::string cipherMode;      ///< for the connections acceptNewManagedClient opens
    std::string hashMode;        ///< for the connections acceptNewManagedClient opens
    /** The managed connections, in order of acceptance; owned. */
    std::list<std::unique_ptr<vxNetConnectedClient>> connectedClients;
    /** Options applied to every accepted descriptor, in order of creation; owned. */
    std::list<std::unique_ptr<vxNetSockoptProperties>> inheritedProperties;
    vxNetSocket socket; ///< the listening socket

    vxNetServer();
    LVX_NOT_COPYABLE(vxNetServer);
    /** Closes and destroys the connections still managed. */
    ~vxNetServer() override;

    /** Opens the listening socket (server side); binding is the application's. */
    [[nodiscard]] bool Open() override;
    /** Closes the listening socket; managed connections stay as they are until pruned or the
     *  server is destroyed. */
    [[nodiscard]] bool Close() override;

    /** Kept for the dump. */
    [[nodiscard]] bool SetKeyExchangeMode(const uint8_t& mode);
    /** Stored unchecked: an unknown name fails at the next accept. */
    [[nodiscard]] bool SetCipherMode(const std::string& mode);
    /** Stored unchecked, as SetCipherMode. */
    [[nodiscard]] bool SetHashMode(const std::string& mode);
    /** Keeps an option (setsockopt level, name and value bytes) for every accepted connection. */
    [[nodiscard]] bool CreateSockoptProperty(int32_t level, int32_t optionName, const void* value,
                                             uint32_t len);
    /** Applies the kept options to `fd` in order of creation. */
    [[nodiscard]] bool ApplyInheritedProperties(int32_t fd);
    /** Opens `cc` with the two mode names. */
    [[nodiscard]] bool func_LVX_CALL_OPENP(vxNetConnectedClient* cc, std::string cipher,
                                           std::string hash);
    /** Accepts a connection into the open record `cc` (or, when `fd` is not -1, adopts that
     *  descriptor, as SetSocketFd), gives its receives a first-readiness time-out of `timeout`
     *  seconds unless 0, applies the kept options and runs the handshake. The record stays the
     *  caller's. With `fd` -1 this is the unambiguous way to accept with a time-out:
     *  `acceptNewClient(secret, cc, -1, 30)` waits at most 30 seconds per first readiness. */
    [[nodiscard]] bool acceptNewClient(const vxBytes& secret, vxNetConnectedClient* cc, int32_t fd,
                                       uint32_t timeout);
    /** The same, accepting a new connection, without a time-out. Adding a time-out as a
     *  plain third argument, `acceptNewClient(secret, cc, 30)`, adopts descriptor 30 instead
     *  (see below): write `30U` or use the four-argument form with `fd` -1. */
    [[nodiscard]] bool acceptNewClient(const vxBytes& secret, vxNetConnectedClient* cc);
    /** The same, accepting a new connection with a time-out of `timeout` seconds. Chosen only
     *  for an unsigned argument (`30U`, a uint32_t variable): `acceptNewClient(secret, cc, 30)`,
     *  or any `int` there, calls the overload below and adopts descriptor 30 instead. Write
     *  `acceptNewClient(secret, cc, 30U)` or `acceptNewClient(secret, cc, -1, 30)`. */
    [[nodiscard]] bool acceptNewClient(const vxBytes& secret, vxNetConnectedClient* cc,
                                       uint32_t timeout);
    /** The same, adopting `fd`, without a time-out. Beware: this is the overload a plain `int`
     *  third argument picks, so `acceptNewClient(secret, cc, 30)`, meant as a 30-second
     *  time-out, adopts descriptor 30 and runs the handshake on whatever it is. For a time-out
     *  pass an unsigned value (`30U`) or use the four-argument form with `fd` -1. */
    [[nodiscard]] bool acceptNewClient(const vxBytes& secret, vxNetConnectedClient* cc, int32_t fd);
    /** Accepts and handshakes a new connection that the server then owns and lists; on failure
     *  nothing is listed. */
    [[nodiscard]] bool acceptNewManagedClient(const vxBytes& secret);
    /** True when no managed connection has client id `id`. Every managed connection must have an
     *  id: one without fails with "__clientIdSet == true". */
    [[nodiscard]] bool testClientId(uint32_t id);
    /** Advances `nextClientId` to the next id no managed connection uses (the first is 1). Fails
     *  when a managed connection has no id, so call it before accepting, and give the new
     *  connection `nextClientId` once it is accepted. */
    [[nodiscard]] bool updateNextClientId();
    /** Not implemented: does nothing and returns false. */
    [[nodiscard]] bool DisconnectClient(uint32_t id);
    /** Closes and destroys every managed connection marked disconnected. Always false. */
    [[nodiscard]] bool pruneCClist();
    /** Closes and destroys the first managed connection marked disconnected; false when there
     *  is none. */
    [[nodiscard]] bool pruneCClistSub();
    /** Modes, next client id and the number of connections on standard output. */
    [[nodiscard]] bool DumpvxNetServerInfo();
};

} // namespace veltrix
