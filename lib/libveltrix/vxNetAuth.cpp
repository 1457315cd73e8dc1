// The pre-shared-key handshake: version, challenges and answers, and the seeding of the session.
#include "vxNetAuth.h"

#include "vxGuard.h"
#include "vxNetSocket.h"
#include "vxSecret.h"

#include <iostream>
#include <sstream>

namespace veltrix {

namespace {

constexpr uint32_t kMessageSize = 16;
constexpr uint32_t kProtocolVersion = 1;
/** The largest offset of the hidden version inside its 16 bytes. */
constexpr uint32_t kVersionOffsets = 12;

} // namespace

LVX_DEFINE_LIFECYCLE(vxNetPSKChallengeResponse)

bool vxNetPSKChallengeResponse::Open(const vxCipherId& cipher, uint32_t hashValue, bool server)
{
    LVX_CALL_OPEN(hashId, hashValue);
    LVX_CALL_OPEN(hmac, hashId);
    LVX_CALL_OPEN(keys, cipher, server);
    for (vxBytes* buffer :
         {&workBytes, &decrypted, &wireBytes, &secretDigest, &secret, &localChallenges,
          &peerChallenges, &correctResponse, &receivedChallenge}) {
        LVX_CALL_OPEN(*buffer);
    }
    isServer = server;
    return true;
}

bool vxNetPSKChallengeResponse::Open(const vxCipherId& cipher, const vxHashId& hash, bool server)
{
    uint32_t hashValue = 0;
    LVX_CHECK(hash.GetValue(hashValue));
    return Open(cipher, hashValue, server);
}

bool vxNetPSKChallengeResponse::Open(const vxCipherId& cipher, bool server)
{
    return Open(cipher, vxHashId::md5, server);
}

bool vxNetPSKChallengeResponse::Close()
{
    LVX_CALL_CLOSE(hmac);
    LVX_CALL_CLOSE(keys);
    LVX_CALL_CLOSE(hashId);
    for (vxBytes* buffer :
         {&workBytes, &decrypted, &wireBytes, &secretDigest, &secret, &localChallenges,
          &peerChallenges, &correctResponse, &receivedChallenge}) {
        buffer->Scrub();
        LVX_CALL_CLOSE(*buffer);
    }
    return true;
}

bool vxNetPSKChallengeResponse::SetSecret(const vxBytes& value)
{
    LVX_GUARD();
    LVX_CHECK(secret.CopyBack(value));
    vxMd md;
    LVX_CALL_OPEN(md, hashId);
    LVX_CHECK(md.Init());
    LVX_CHECK(md.Update(secret));
    LVX_CHECK(md.Final());
    LVX_CHECK(md.GetBytes(secretDigest));
    LVX_CALL_CLOSE(md);
    // The messages are enciphered under the raw secret; the answers and the hidden version use
    // its digest.
    LVX_CHECK(keys.SetInitialIV(secret));
    LVX_CHECK(keys.SetInitialKey(secret));
    return true;
}

bool vxNetPSKChallengeResponse::randomBlock(vxBytes& out)
{
    vxRand rand;
    LVX_CALL_OPEN(rand, true);
    LVX_CHECK(rand.Read(kMessageSize));
    LVX_CHECK(rand.GetHashedBytes(out));
    LVX_CALL_CLOSE(rand);
    return true;
}

bool vxNetPSKChallengeResponse::answer(const vxBytes& data, vxBytes& out)
{
    LVX_CHECK(hmac.SetKey(secretDigest));
    LVX_CHECK(hmac.Init());
    LVX_CHECK(hmac.Update(data));
    LVX_CHECK(hmac.Final());
    LVX_CHECK(hmac.GetBytes(out));
    return true;
}

bool vxNetPSKChallengeResponse::receiveMessage(vxNetSocket& socket, vxBytes& plain)
{
    LVX_CHECK(socket.RecvPlaintext(kMessageSize, wireBytes));
    LVX_CHECK(keys.Decrypt(wireBytes, plain));
    return true;
}

bool vxNetPSKChallengeResponse::SendProtocolVersion(vxNetSocket& socket)
{
    LVX_GUARD();
    LVX_CHECK(randomBlock(workBytes));
    vxNetTransportAntiCrib crib;
    LVX_CALL_OPEN(crib, kVersionOffsets);
    LVX_CHECK(crib.Seed(secretDigest));
    LVX_CHECK(crib.Hide(kProtocolVersion, workBytes));
    LVX_CALL_CLOSE(crib);
    LVX_CHECK(keys.Encrypt(workBytes, wireBytes));
    LVX_CHECK(socket.SendPlaintext(wireBytes));
    return true;
}

bool vxNetPSKChallengeResponse::RecvProtocolVersion(vxNetSocket& socket)
{
    LVX_GUARD();
    LVX_CHECK(receiveMessage(socket, decrypted));
    if (wireBytes.bytes.size() != kMessageSize || decrypted.bytes.size() != kMessageSize) {
        // Only a report: the search for the version below decides.
        std::ostringstream report;
        report << LVX_MSG_VERSION_REPORT << wireBytes.bytes.size() << LVX_MSG_VERSION_SIZE2
               << decrypted.bytes.size() << '\n';
        std::cout << report.str() << std::flush;
    }
    vxNetTransportAntiCrib crib;
    LVX_CALL_OPEN(crib, kVersionOffsets);
    LVX_CHECK(crib.Seed(secretDigest));
    LVX_CHECK(crib.Find(decrypted));
    LVX_CHECK(crib.GetValue(protocolVersion));
    LVX_CALL_CLOSE(crib);
    return true;
}

bool vxNetPSKChallengeResponse::GenerateChallengeRequest()
{
    LVX_GUARD();
    vxBytes challenge;
    LVX_CHECK(randomBlock(challenge));
    LVX_CHECK(UpdateEntropyPool(false, challenge));
    LVX_CHECK(keys.Encrypt(challenge, wireBytes));
    LVX_CHECK(answer(challenge, correctResponse));
    return true;
}

bool vxNetPSKChallengeResponse::SendChallengeRequest(vxNetSocket& socket)
{
    LVX_GUARD();
    LVX_CHECK(socket.SendPlaintext(wireBytes));
    return true;
}

bool vxNetPSKChallengeResponse::RecvChallengeRequest(vxNetSocket& socket)
{
    LVX_GUARD();
    LVX_CHECK(receiveMessage(socket, receivedChallenge));
    LVX_CHECK(UpdateEntropyPool(true, receivedChallenge));
    return true;
}

bool vxNetPSKChallengeResponse::GenerateChallengeResponse()
{
    LVX_GUARD();
    LVX_CHECK(answer(receivedChallenge, workBytes));
    LVX_CHECK(keys.Encrypt(workBytes, wireBytes));
    return true;
}

bool vxNetPSKChallengeResponse::SendChallengeResponse(vxNetSocket& socket)
{
    LVX_GUARD();
    LVX_CHECK(socket.SendPlaintext(wireBytes));
    return true;
}

bool vxNetPSKChallengeResponse::RecvChallengeResponse(vxNetSocket& socket)
{
    LVX_GUARD();
    LVX_CHECK(receiveMessage(socket, decrypted));
    return true;
}

bool vxNetPSKChallengeResponse::ValidateChallengeResponse()
{
    LVX_GUARD();
    LVX_ENSURE(constantTimeEqual(decrypted.bytes, correctResponse.bytes), LVX_MSG_BAD_RESPONSE);
    return true;
}

bool vxNetPSKChallengeResponse::SeedInitialKeys(vxNetEncryptedSocket& encSocket)
{
    LVX_GUARD();
    // Both ends pass the server's challenge first.
    if (isServer) {
        LVX_CHECK(encSocket.keys.ReSeed(localChallenges, peerChallenges));
    } else {
        LVX_CHECK(encSocket.keys.ReSeed(peerChallenges, localChallenges));
    }
    return true;
}

bool vxNetPSKChallengeResponse::UpdateEntropyPool(bool fromPeer, const vxBytes& b)
{
    return (fromPeer ? peerChallenges : localChallenges).CopyBack(b);
}

} // namespace veltrix
