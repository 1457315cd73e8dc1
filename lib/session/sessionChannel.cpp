// One session's transport, step by step: the handshake, then packets in two halves.
#include "sessionChannel.h"

#include "modeNames.h"
#include "network.h"
#include "vxGlobal.h"

#include <utility>

namespace veltrix::session::detail {

namespace {

constexpr size_t kMessage = 16;
/** The disconnect command: the size field of a command packet carries kCommandMark's upper
 *  half and the code, rounded up to a multiple of 16, below it. */
constexpr uint32_t kDisconnect = 1;

constexpr const char* kNotShared = "the peer's answer to this end's challenge is wrong: the two "
                                   "ends hold different secrets or use different modes";

} // namespace

std::mutex& libraryLock()
{
    static std::mutex lock;
    return lock;
}

anchor::anchor()
{
    LVX_INIT_OBJECT();
}

anchor::~anchor()
{
    LVX_DESTRUCT();
}

void expect(bool ok, cause why, const std::string& what)
{
    if (ok) {
        return;
    }
    std::string text = what + ": " + engine::trailReason();
    vxBase::lvxClearLastError();
    throw error(why, text);
}

void checkPayloadSize(size_t size)
{
    if (size == 0 || size > maxPayload) {
        throw error(cause::payloadSize, "a message carries 1 to " + std::to_string(maxPayload) +
                                            " bytes, not " + std::to_string(size) +
                                            ": nothing was sent");
    }
}

void checkModes(const modes& chosen)
{
    if (engine::kCipherModes.count(chosen.cipher) == 0) {
        throw error(cause::setup, "unknown cipher mode \"" + chosen.cipher + "\": use " +
                                      engine::kCipherModeList);
    }
    if (engine::kHandshakeHashModes.count(chosen.hash) == 0) {
        throw error(cause::setup, "hash mode \"" + chosen.hash +
                                      "\" cannot be used for a session: use " +
                                      engine::kHandshakeHashModeList);
    }
}

channel::channel(bool serverEnd, const modes& chosen, const bytes& key, std::string peer)
    : server(serverEnd), peerName(std::move(peer)),
      awaiting(serverEnd ? step::challengeResponse : step::version), need(kMessage)
{
    const std::lock_guard<std::mutex> hold(libraryLock());
    try {
        anchor& parent = owner();
        const std::string failed = "cannot set up a session with " + peerName;
        expect(parent.openChild(socket, server), cause::system, failed);
        pipe = std::make_unique<engine::packetPipe>(socket.sockFd);
        expect(parent.openChild(encrypted, chosen.cipher, chosen.hash, &socket), cause::setup,
               failed);
        handshake = std::make_unique<vxNetPSKChallengeResponse>();
        expect(parent.openChild(*handshake, encrypted.cipherId, encrypted.hashId, server),
               cause::setup, failed);
        vxBytes material;
        material.bytes = key;
        const bool taken = handshake->SetSecret(material);
        material.Scrub();
        expect(taken, cause::setup, failed);
        if (server) {
            expect(handshake->SendProtocolVersion(socket) &&
                       handshake->GenerateChallengeRequest() &&
                       handshake->SendChallengeRequest(socket),
                   cause::system, failed);
            pipe->drain(outbound);
        }
    } catch (const engine::failure& broken) {
        release();
        throw error(cause::system, broken.what());
    } catch (...) {
        release();
        throw;
    }
}

channel::~channel()
{
    const std::lock_guard<std::mutex> hold(libraryLock());
    release();
}

void channel::release() noexcept
{
    for (vxBase* object : {static_cast<vxBase*>(handshake.get()), static_cast<vxBase*>(&encrypted),
                           static_cast<vxBase*>(&socket)}) {
        if (object != nullptr && object->opened) {
            (void)anchor::closeChild(*object);
        }
    }
    handshake.reset();
    pipe.reset(); // its close ends the library's descriptor too
    vxBase::lvxClearLastError();
}

bool channel::take(const unsigned char* data)
{
    return locked([&] {
        switch (awaiting) {
        case step::version:
        case step::challengeRequest:
        case step::challengeResponse:
            handshakeStep(data);
            return false;
        case step::header:
            headerStep(data);
            return false;
        case step::body:
            return bodyStep(data);
        }
        return false;
    });
}

void channel::handshakeStep(const unsigned char* data)
{
    const std::string failed = "the handshake with " + peerName + " failed";
    pipe->feed(data, kMessage);
    switch (awaiting) {
    case step::version:
        expect(handshake->RecvProtocolVersion(socket), cause::protocol, failed);
        awaiting = step::challengeRequest;
        break;
    case step::challengeRequest:
        expect(handshake->RecvChallengeRequest(socket) && handshake->GenerateChallengeResponse() &&
                   handshake->SendChallengeResponse(socket),
               cause::protocol, failed);
        if (server) {
            finishHandshake();
            break;
        }
        expect(handshake->GenerateChallengeRequest() && handshake->SendChallengeRequest(socket),
               cause::system, failed);
        answerSent = true;
        awaiting = step::challengeResponse;
        break;
    case step::challengeResponse:
        expect(handshake->RecvChallengeResponse(socket), cause::protocol, failed);
        if (!handshake->ValidateChallengeResponse()) {
            vxBase::lvxClearLastError();
            throw error(cause::wrongSecretOrModes, failed + ": " + kNotShared);
        }
        if (server) {
            awaiting = step::challengeRequest;
            break;
        }
        finishHandshake();
        break;
    default:
        break;
    }
    pipe->drain(outbound);
}

void channel::finishHandshake()
{
    pipe->drain(outbound); // the last message leaves before this end keys itself
    expect(handshake->SeedInitialKeys(encrypted) && anchor::closeChild(*handshake), cause::system,
           "the handshake with " + peerName + " failed");
    handshake.reset();
    awaiting = step::header;
    need = VX_HEADER_WIRE_SIZE;
}

void channel::headerStep(const unsigned char* data)
{
    pipe->feed(data, VX_HEADER_WIRE_SIZE);
    vxNetTransportHeader& header = encrypted.header;
    header.Clear();
    expect(header.ReadFromWire(encrypted.keys, &socket), cause::protocol,
           "a packet header from " + peerName +
               " fails its check: it was altered, lost or reordered");
    const uint32_t padded = header.sizeWithPadding;
    if ((padded >> 16U) == (kCommandMark >> 16U)) {
        const uint32_t code = (padded - 15U) & 0xFFFFU;
        if (code != kDisconnect) {
            throw error(cause::protocol, peerName + " sent command " + std::to_string(code) +
                                             ", which a session does not take");
        }
        peerLeft = true;
        need = 0;
        return;
    }
    if (padded == 0 || padded > maxPayload) {
        throw error(cause::payloadSize,
                    peerName + " sent a message of " + std::to_string(header.payloadSize) +
                        " bytes: a message carries 1 to " + std::to_string(maxPayload));
    }
    awaiting = step::body;
    need = padded;
}

bool channel::bodyStep(const unsigned char* data)
{
    vxNetTransportHeader& header = encrypted.header;
    wire.bytes.assign(data, data + need);
    plain.bytes.clear();
    magic.bytes.clear();
    expect(encrypted.keys.Decrypt(wire, plain) && encrypted.keys.chain.GetMagic(magic) &&
               header.ValidateHmacBody(magic, plain),
           cause::protocol,
           "a message from " + peerName + " fails its check: it was altered, lost or reordered");
    (void)encrypted.stats.UpdateRecvStats(need);
    received.assign(plain.bytes.begin(), plain.bytes.begin() + header.payloadSize);
    awaiting = step::header;
    need = VX_HEADER_WIRE_SIZE;
    return true;
}

void channel::seal(const void* data, size_t size)
{
    checkPayloadSize(size);
    const auto* first = static_cast<const unsigned char*>(data);
    locked([&] {
        outgoing.bytes.assign(first, first + size);
        expect(encrypted.SendEncrypted(outgoing), cause::system,
               "cannot send a message to " + peerName);
        pipe->drain(outbound);
    });
}

void channel::sealDisconnect()
{
    locked([&] {
        expect(encrypted.SendClientDisconnect(), cause::system,
               "cannot send the disconnect command to " + peerName);
        pipe->drain(outbound);
    });
}

} // namespace veltrix::session::detail
