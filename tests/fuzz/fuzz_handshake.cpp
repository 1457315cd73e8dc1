// The receive steps of the handshake at either end. The victim, a server's connected client or a
// client, runs its whole handshake against bytes of the input's choosing: either raw, or 16-byte
// blocks sealed with the keys both ends derive from the shared secret, so that the victim decrypts
// exactly the messages the input holds (a version anywhere, any challenge, any answer). No input
// can know the answer to the victim's fresh random challenge, so every handshake must fail, with
// a trail, and nothing may crash or hang.
#include "fuzzChannel.h"
#include "vxGlobal.h"
#include "vxNetClient.h"
#include "vxNetServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

constexpr size_t kMessage = 16;
constexpr size_t kLongestScript = 8 * kMessage;

const std::string& hashFor(uint8_t choice)
{
    // The 16-byte digests complete a handshake; a longer one fails at validation.
    static const std::array<std::string, 3> modes = {"md5", "sha256-128", "sha1"};
    return modes.at(choice % modes.size());
}

uint32_t cipherIdOf(const std::string& name)
{
#define VX_FUZZ_CIPHER_ID(identifier, id, text, bytes) \
    if (name == (text)) {                              \
        return id;                                     \
    }
    VX_CIPHER_ALGORITHMS(VX_FUZZ_CIPHER_ID)
#undef VX_FUZZ_CIPHER_ID
    std::abort();
}

/** The input's messages sealed as the peer of `victimIsServer` would send them. */
vxfuzz::byteStream seal(const vxfuzz::byteStream& plain, const veltrix::vxBytes& secret,
                        const veltrix::vxCipherId& cipher, bool victimIsServer)
{
    veltrix::vxNetPSKChallengeResponse peer;
    veltrix::vxBytes clear;
    veltrix::vxBytes sealed;
    clear.bytes = plain;
    clear.bytes.resize((plain.size() + kMessage - 1) / kMessage * kMessage);
    if (!vxfuzz::fuzzFrame::get().openChild(peer, cipher, !victimIsServer) ||
        !peer.SetSecret(secret) || !peer.keys.Encrypt(clear, sealed)) {
        std::abort();
    }
    vxfuzz::fuzzFrame::close(peer);
    return sealed.bytes;
}

/** No script answers a fresh challenge: every handshake fails, and leaves the trail. */
void checkFailure(bool done)
{
    if (done || !::vxGlobal.stackTrace.errorLatch) {
        std::abort();
    }
}

/** The victim's end of the handshake over `fd`, exactly as the endpoints run it; the victim's
 *  socket closes `fd`. */
bool handshake(int fd, bool asServer, const std::string& cipher, const std::string& hash,
               const veltrix::vxBytes& secret)
{
    vxfuzz::fuzzFrame& frame = vxfuzz::fuzzFrame::get();
    if (asServer) {
        veltrix::vxNetConnectedClient connected;
        if (!frame.openChild(connected, cipher, hash)) {
            std::abort();
        }
        const bool done = connected.SetSocketFd(fd) && connected.PerformKeyExchange(secret);
        checkFailure(done);
        vxfuzz::fuzzFrame::finish(connected);
        return done;
    }
    veltrix::vxNetClient client;
    if (!frame.openChild(client)) {
        std::abort();
    }
    client.socket.sockFd = fd;
    if (!frame.openChild(client.encryptedSocket, cipher, hash, &client.socket)) {
        std::abort();
    }
    const bool done = client.PerformKeyExchange(secret);
    checkFailure(done);
    vxfuzz::fuzzFrame::finish(client.encryptedSocket);
    vxfuzz::fuzzFrame::finish(client);
    return done;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    vxfuzz::inputReader input(data, size);
    const uint8_t modes = input.byte();
    const bool asServer = (modes & 1U) != 0;
    const bool sealed = (modes & 2U) != 0;
    const std::string& cipher = vxfuzz::cipherFor(static_cast<uint8_t>(modes >> 2U));
    const std::string& hash = hashFor(static_cast<uint8_t>(modes >> 4U));
    veltrix::vxBytes secret;
    vxfuzz::fuzzFrame& frame = vxfuzz::fuzzFrame::get();
    veltrix::vxCipherId cipherId;
    int fds[2] = {-1, -1};
    if (!secret.Replace("a secret both ends hold") ||
        !frame.openChild(cipherId, cipherIdOf(cipher)) ||
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
        std::abort();
    }
    const vxfuzz::byteStream script = input.bytes(kLongestScript);
    const vxfuzz::byteStream wire = sealed ? seal(script, secret, cipherId, asServer) : script;
    vxfuzz::fuzzFrame::close(cipherId);
    // The victim's own messages wait unread in the socket buffer; its peer's end after the
    // script, so no receive can wait for more.
    if (write(fds[1], wire.data(), wire.size()) != static_cast<ssize_t>(wire.size()) ||
        shutdown(fds[1], SHUT_WR) != 0) {
        std::abort();
    }
    (void)handshake(fds[0], asServer, cipher, hash, secret);
    (void)close(fds[1]);
    return 0;
}
