/// @file
/// The pre-shared-key handshake that opens every connection.
#pragma once

#include "cryptoapi.h"
#include "vxBytes.h"
#include "vxNetTransport.h"

#include <cstdint>

namespace veltrix {

class vxNetSocket;
class vxNetEncryptedSocket;

/** One handshake, at one end, over a connected plain socket: the server announces the protocol
 *  version, then each end answers the other's random challenge with a keyed digest of it under
 *  the digest of the shared secret, and both ends seed their encrypted socket from the two
 *  challenges (the server's first). Every message is 16 bytes, encrypted with keys derived from
 *  the raw secret.
 *
 *  The answers are 16 bytes on the wire, so the handshake completes only with a 16-byte digest
 *  ("md5" or "sha256-128"); with a longer one the validation fails. A wrong secret fails with
 *  "( decrypted == correctResponse )" at the end that validates first, the server. The object
 *  holds the secret and its digest until Close, and serves one handshake. */
class VX_API vxNetPSKChallengeResponse : public vxBase
{
public:
    bool isServer = false;        ///< the end this object plays, as Open was told
    uint32_t protocolVersion = 0; ///< as received; never compared
    vxHashId hashId;              ///< the digest of the secret and of the answers
    vxHmacMd hmac;                ///< the keyed digest of the answers
    vxNetTransportKeys keys;      ///< the handshake's own keys
    vxBytes workBytes;            ///< a message before encryption
    vxBytes decrypted;            ///< the last received message, decrypted
    vxBytes wireBytes;            ///< the last message as sent or received
    vxBytes secretDigest;         ///< the secret's digest: the answers' key, the version's seed
    vxBytes secret;               ///< the secret, as SetSecret collected it
    vxBytes localChallenges;      ///< the challenges this end sent
    vxBytes peerChallenges;       ///< the challenges received from the peer
    vxBytes correctResponse;      ///< the answer expected to this end's challenge
    vxBytes receivedChallenge;    ///< the peer's challenge

    vxNetPSKChallengeResponse();
    LVX_NOT_COPYABLE(vxNetPSKChallengeResponse);
    ~vxNetPSKChallengeResponse() override;

    using vxBase::Open;
    /** Opens the digest `hashValue`, the keyed digest on it, the keys with `cipher` and
     *  `server`, and the buffers. */
    [[nodiscard]] bool Open(const vxCipherId& cipher, uint32_t hashValue, bool server);
    /** The same with the digest of `hash`: the form the endpoints use. */
    [[nodiscard]] bool Open(const vxCipherId& cipher, const vxHashId& hash, bool server);
    /** The same with MD5. */
    [[nodiscard]] bool Open(const vxCipherId& cipher, bool server);
    /** Wipes and closes everything. */
    [[nodiscard]] bool Close() override;

    /** Appends `value` to the secret (a second call extends it), digests the whole secret and
     *  sets the handshake keys' IVs and keys from the raw secret. */
    [[nodiscard]] bool SetSecret(const vxBytes& value);
    /** Server: 16 random bytes with the version 1 hidden in them. */
    [[nodiscard]] bool SendProtocolVersion(vxNetSocket& socket);
    /** Client: receives the version into `protocolVersion`. A message that does not decrypt to 16
     *  bytes is reported on standard output ("RecvProtocolVersion : error receiving protocol::
     *  encrypted size=..., decrypted size=...") and the call goes on. */
    [[nodiscard]] bool RecvProtocolVersion(vxNetSocket& socket);
    /** A new random challenge, encrypted for sending, and the answer expected to it. */
    [[nodiscard]] bool GenerateChallengeRequest();
    /** Sends the challenge that GenerateChallengeRequest prepared. */
    [[nodiscard]] bool SendChallengeRequest(vxNetSocket& socket);
    /** Receives the peer's challenge into `receivedChallenge` and adds it to `peerChallenges`. */
    [[nodiscard]] bool RecvChallengeRequest(vxNetSocket& socket);
    /** The answer to the received challenge, encrypted for sending. */
    [[nodiscard]] bool GenerateChallengeResponse();
    /** Sends the answer that GenerateChallengeResponse prepared. */
    [[nodiscard]] bool SendChallengeResponse(vxNetSocket& socket);
    /** Receives the peer's answer into `decrypted`, for ValidateChallengeResponse. */
    [[nodiscard]] bool RecvChallengeResponse(vxNetSocket& socket);
    /** Fails with "( decrypted == correctResponse )" unless the received answer is the expected
     *  one. */
    [[nodiscard]] bool ValidateChallengeResponse();
    /** Re-seeds `encSocket`'s keys with the server's challenge first and the client's second. */
    [[nodiscard]] bool SeedInitialKeys(vxNetEncryptedSocket& encSocket);
    /** Appends `b` to `peerChallenges` when `fromPeer`, else to `localChallenges`; true. */
    [[nodiscard]] bool UpdateEntropyPool(bool fromPeer, const vxBytes& b);

private:
    /** 16 bytes from a fresh random source. */
    [[nodiscard]] VX_NO_EXPORT bool randomBlock(vxBytes& out);
    /** HMAC(key `secretDigest`, `data`) into `out`. */
    [[nodiscard]] VX_NO_EXPORT bool answer(const vxBytes& data, vxBytes& out);
    /** A 16-byte message into `wireBytes`, then `decrypted`. */
    [[nodiscard]] VX_NO_EXPORT bool receiveMessage(vxNetSocket& socket, vxBytes& plain);
};

} // namespace veltrix
