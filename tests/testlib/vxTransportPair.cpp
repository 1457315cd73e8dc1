#include "vxTransportPair.h"

#include <sys/socket.h>

namespace vxtest {

namespace {

constexpr uint32_t kCommandMark = 0xC0DE0000U;
constexpr uint32_t kMarkMask = 0xFFFF0000U;

veltrix::vxBytes counting(uint32_t size, unsigned char start)
{
    veltrix::vxBytes out;
    for (uint32_t i = 0; i < size; ++i) {
        out.bytes.push_back(static_cast<unsigned char>(start + i));
    }
    return out;
}

} // namespace

bool transportEnd::open(testFrame& frame, uint32_t cipher, bool side, int fd)
{
    if (!frame.open(id, cipher) || !frame.open(keys, id, side) || !frame.open(header, side) ||
        !frame.open(socket, side)) {
        return false;
    }
    socket.sockFd = fd;
    return true;
}

void transportEnd::close()
{
    for (veltrix::vxBase* object :
         std::initializer_list<veltrix::vxBase*>{&socket, &header, &keys, &id}) {
        if (object->opened) {
            (void)testFrame::close(*object);
        }
    }
}

bool transportEnd::send(const veltrix::vxBytes& payload, uint32_t& wireSize)
{
    if (!header.CreateFromPayload(keys, payload)) {
        return false;
    }
    body.bytes = payload.bytes;
    if (!header.GetBodyPadding(padding) || !body.CopyBack(padding) || !keys.Encrypt(body, wire) ||
        !header.GetEncryptedHeader(sealedHeader) || !socket.SendPlaintext(sealedHeader) ||
        !socket.SendPlaintext(wire)) {
        return false;
    }
    wireSize = static_cast<uint32_t>(sealedHeader.bytes.size() + wire.bytes.size());
    return true;
}

bool transportEnd::send(const veltrix::vxBytes& payload)
{
    uint32_t wireSize = 0;
    return send(payload, wireSize);
}

bool transportEnd::receive(veltrix::vxBytes& payload)
{
    payload.bytes.clear();
    uint32_t padded = 0;
    uint32_t size = 0;
    if (!header.ReadFromWire(keys, &socket) || !header.GetSizeWithPadding(padded)) {
        return false;
    }
    if (padded == 0 || (padded & kMarkMask) == kCommandMark) {
        return true;
    }
    return socket.RecvPlaintext(padded, wire) && keys.Decrypt(wire, body) &&
           keys.chain.GetMagic(chain) && header.ValidateHmacBody(chain, body) &&
           header.GetPayloadSize(size) && payload.CopyOffsets(0, size, body);
}

bool transportPair::open(testFrame& frame, uint32_t cipher)
{
    int fds[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
        return false;
    }
    const veltrix::vxBytes seed0 = counting(16, 0x00);
    const veltrix::vxBytes seed1 = counting(16, 0x10);
    return server.open(frame, cipher, true, fds[0]) && client.open(frame, cipher, false, fds[1]) &&
           server.keys.ReSeed(seed0, seed1) && client.keys.ReSeed(seed0, seed1);
}

void transportPair::close()
{
    server.close();
    client.close();
}

} // namespace vxtest
