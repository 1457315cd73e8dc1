// The crypto work of one pre-shared-key handshake, both ends, done directly with OpenSSL 3 in one
// thread: the digest of the secret and the handshake keys derived from it at each end, the
// version message hidden, encrypted, decrypted and found, each end's challenge encrypted,
// answered with a keyed digest of the secret's digest and checked, and finally the session keys
// of both ends derived from the two challenges. No socket, no library object.
#pragma once

#include "directTransport.h"

#include <string>

namespace vxdirect {

/** The 16-byte digests a handshake can use. */
enum class handshakeDigest
{
    md5,
    sha256x128
};

/** The digest of hash mode `mode` ("md5" or "sha256-128"); false for any other. */
bool findHandshakeDigest(const std::string& mode, handshakeDigest& digest);

/** One handshake between a server end and a client end sharing `secret`. True when both
 *  answers check out, the version is found, and `serverSession` and `clientSession` end up as
 *  the two ends of one connection. */
bool directHandshake(const cipherChoice& cipher, handshakeDigest digest, const bytes& secret,
                     referenceEnd& serverSession, referenceEnd& clientSession);

} // namespace vxdirect
