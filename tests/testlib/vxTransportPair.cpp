#include "vxTransportPair.h"

#include <sys/socket.h>
#include <unistd.h>

#include <initializer_list>

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

bool closeChild(veltrix::vxBase& child)
{
    return !child.opened || (child.PreClose() && child.Close() && child.PostClose());
}

} // namespace

transportEnd::transportEnd()
{
    LVX_INIT_OBJECT();
}

transportEnd::~transportEnd()
{
    LVX_DESTRUCT();
}

bool transportEnd::Open(uint32_t cipher, bool side, int fd)
{
    LVX_CALL_OPEN(id, cipher);
    LVX_CALL_OPEN(keys, id, side);
    LVX_CALL_OPEN(header, side);
    LVX_CALL_OPEN(socket, side);
    socket.sockFd = fd;
    return true;
}

bool transportEnd::Close()
{
    bool closed = true;
    for (veltrix::vxBase* child :
         std::initializer_list<veltrix::vxBase*>{&socket, &header, &keys, &id}) {
        closed = closeChild(*child) && closed;
    }
    return closed;
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

void transportPair::close()
{
    for (transportEnd* end : {&server, &client}) {
        (void)closeChild(*end);
    }
}

bool transportPair::socketPair(int (&fds)[2])
{
    return socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0;
}

void transportPair::closeUnadopted(const int (&fds)[2]) const
{
    if (!server.opened) {
        (void)::close(fds[0]);
    }
    if (!client.opened) {
        (void)::close(fds[1]);
    }
}

bool transportPair::seed()
{
    const veltrix::vxBytes seed0 = counting(16, 0x00);
    const veltrix::vxBytes seed1 = counting(16, 0x10);
    return server.keys.ReSeed(seed0, seed1) && client.keys.ReSeed(seed0, seed1);
}

} // namespace vxtest
