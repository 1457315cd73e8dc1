// The transport of one session as a machine fed with bytes: the handshake one 16-byte message at
// a time, then each packet's header and body once all of it is there. It never reads from or
// writes to the network itself, so whoever drives it (a client waiting on its one connection, a
// server's loop over many) decides every wait, and no call into the library can wait on a peer.
#pragma once

#include "eventLoop.h"
#include "packetPipe.h"
#include "session.h"
#include "vxNetAuth.h"
#include "vxNetSocket.h"

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

namespace veltrix::session::detail {

/** Held around every call into the library: its error latch is the whole process's, so a failing
 *  call and the clearing of the latch must not let another thread's call in between. */
std::mutex& libraryLock();

/** Runs `action` under libraryLock(). A failing local socket pair (engine::failure) becomes
 *  error(system), with the latch cleared before the lock is released. */
template <class Action> auto locked(const Action& action) -> decltype(action())
{
    const std::lock_guard<std::mutex> hold(libraryLock());
    try {
        return action();
    } catch (const engine::failure& broken) {
        vxBase::lvxClearLastError();
        throw error(cause::system, broken.what());
    }
}

/** Opens and closes library objects under the object protocol, as the owner of every object
 *  the session layer makes. */
class anchor : public vxBase
{
public:
    anchor();
    LVX_NOT_COPYABLE(anchor);
    ~anchor() override;
};

/** The anchor of the loaded context; throws error(setup) when there is none. */
anchor& owner();

/** Throws error(why, "<what>: <the library's newest trail message>") when `ok` is false, after
 *  clearing the latch. The caller holds libraryLock(). */
void expect(bool ok, cause why, const std::string& what);

/** Throws error(payloadSize) unless 1 <= size <= maxPayload. */
void checkPayloadSize(size_t size);

/** Throws error(setup) for a cipher or hash mode a session cannot use. */
void checkModes(const modes& chosen);

class channel
{
public:
    /** Opens the library's objects for one end (`serverEnd`) with `chosen` modes and `key`; the
     *  server end's first handshake messages are queued at once. `peer` names the other end in
     *  errors. */
    channel(bool serverEnd, const modes& chosen, const bytes& key, std::string peer);
    LVX_NOT_COPYABLE(channel);
    ~channel();

    /** The bytes the next step takes: 16 in the handshake, then 48 for a header and the body's
     *  size after it; 0 once the peer sent the disconnect command. */
    [[nodiscard]] size_t wanted() const { return need; }

    /** Takes the wanted() bytes at `data`; true when they completed a message, now in
     *  message(). Throws error naming the cause. */
    bool take(const unsigned char* data);

    /** The message the last take() completed. */
    [[nodiscard]] const bytes& message() const { return received; }

    /** The handshake is done. */
    [[nodiscard]] bool keyed() const { return !handshake; }

    /** The peer sent the disconnect command. */
    [[nodiscard]] bool disconnected() const { return peerLeft; }

    /** This client end sent its answer and waits for the server's verdict. */
    [[nodiscard]] bool answered() const { return answerSent; }

    /** Queues one message of 1 to maxPayload bytes for the peer (the handshake must be done). */
    void seal(const void* data, size_t size);
    /** Queues the disconnect command. */
    void sealDisconnect();

    /** What the peer has not been sent yet. */
    engine::byteQueue outbound;

private:
    enum class step
    {
        version,
        challengeRequest,
        challengeResponse,
        header,
        body
    };

    void handshakeStep(const unsigned char* data);
    void finishHandshake();
    void headerStep(const unsigned char* data);
    bool bodyStep(const unsigned char* data);
    void release() noexcept;

    bool server;
    std::string peerName;
    vxNetSocket socket;
    vxNetEncryptedSocket encrypted;
    std::unique_ptr<vxNetPSKChallengeResponse> handshake;
    std::unique_ptr<engine::packetPipe> pipe;
    step awaiting;
    size_t need;
    bool answerSent = false;
    bool peerLeft = false;
    vxBytes wire;  ///< a received body
    vxBytes plain; ///< the body deciphered
    vxBytes magic; ///< the chain key it is checked under
    vxBytes outgoing;
    bytes received;
};

} // namespace veltrix::session::detail
