#include "directHandshake.h"

#include "directDigest.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>

namespace vxdirect {

namespace {

constexpr uint32_t kProtocolVersion = 1;

/** One end of the handshake: the secret's digest and the keys its messages travel under. */
struct handshakeEnd
{
    block secretDigest{};
    referenceEnd keys;
};

template <class Digest>
bool start(handshakeEnd& end, const cipherChoice& cipher, bool isServer, const bytes& secret)
{
    digest<Digest>({of(secret)}, end.secretDigest.data());
    return end.keys.openForSecret(cipher, isServer, secret);
}

bool randomBlock(block& out)
{
    return RAND_bytes(out.data(), kBlock) == 1;
}

/** The server hides the protocol version in random bytes and encrypts them; the client
 *  decrypts them and finds it. */
bool versionMessage(handshakeEnd& server, handshakeEnd& client)
{
    block message{};
    if (!randomBlock(message)) {
        return false;
    }
    offsetSequence hide;
    hide.seed(server.secretDigest.data());
    putLength(kProtocolVersion, message.data() + hide.next());
    if (!server.keys.sealMessage(message) || !client.keys.openMessage(message)) {
        return false;
    }
    offsetSequence find;
    find.seed(client.secretDigest.data());
    return getLength(message.data() + find.next()) == kProtocolVersion;
}

/** `asker` sends a fresh challenge; `answerer` returns its keyed digest under the secret's
 *  digest; `asker` checks the answer against its own. */
template <class Digest> bool challenge(handshakeEnd& asker, handshakeEnd& answerer, block& sent)
{
    if (!randomBlock(sent)) {
        return false;
    }
    block expected{};
    keyed<Digest>(asker.secretDigest.data(), {{sent.data(), kBlock}}, expected.data());
    block message = sent;
    if (!asker.keys.sealMessage(message) || !answerer.keys.openMessage(message)) {
        return false;
    }
    block answer{};
    keyed<Digest>(answerer.secretDigest.data(), {{message.data(), kBlock}}, answer.data());
    return answerer.keys.sealMessage(answer) && asker.keys.openMessage(answer) &&
           CRYPTO_memcmp(answer.data(), expected.data(), kBlock) == 0;
}

template <class Digest>
bool handshakeWith(const cipherChoice& cipher, const bytes& secret, referenceEnd& serverSession,
                   referenceEnd& clientSession)
{
    handshakeEnd server;
    handshakeEnd client;
    block serverChallenge{};
    block clientChallenge{};
    if (!start<Digest>(server, cipher, true, secret) ||
        !start<Digest>(client, cipher, false, secret) || !versionMessage(server, client) ||
        !challenge<Digest>(server, client, serverChallenge) ||
        !challenge<Digest>(client, server, clientChallenge)) {
        return false;
    }
    // Both ends seed their session with the server's challenge first.
    const bytes first(serverChallenge.begin(), serverChallenge.end());
    const bytes second(clientChallenge.begin(), clientChallenge.end());
    return serverSession.open(cipher, true, first, second) &&
           clientSession.open(cipher, false, first, second) && serverSession.mirrors(clientSession);
}

} // namespace

bool findHandshakeDigest(const std::string& mode, handshakeDigest& digest)
{
    if (mode == "md5") {
        digest = handshakeDigest::md5;
        return true;
    }
    if (mode == "sha256-128") {
        digest = handshakeDigest::sha256x128;
        return true;
    }
    return false;
}

bool directHandshake(const cipherChoice& cipher, handshakeDigest digest, const bytes& secret,
                     referenceEnd& serverSession, referenceEnd& clientSession)
{
    return digest == handshakeDigest::md5
               ? handshakeWith<md5Digest>(cipher, secret, serverSession, clientSession)
               : handshakeWith<sha256x128Digest>(cipher, secret, serverSession, clientSession);
}

} // namespace vxdirect
