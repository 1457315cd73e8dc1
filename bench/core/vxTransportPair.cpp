#include "vxTransportPair.h"

#include <sys/socket.h>
#include <unistd.h>

#include <initializer_list>

namespace vxbench {

namespace {

veltrix::vxBytes counting(uint32_t size, unsigned char start)
{
    veltrix::vxBytes out;
    for (uint32_t i = 0; i < size; ++i) {
        out.bytes.push_back(static_cast<unsigned char>(start + i));
    }
    return out;
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
        closed = (!child->opened || veltrix::vxBase::closeChild(*child)) && closed;
    }
    return closed;
}

bool transportEnd::build(const veltrix::vxBytes& payload)
{
    body.bytes = payload.bytes;
    return header.CreateFromPayload(keys, payload) && header.GetBodyPadding(padding) &&
           body.CopyBack(padding) && keys.Encrypt(body, wire) &&
           header.GetEncryptedHeader(sealedHeader);
}

bool transportEnd::send(const veltrix::vxBytes& payload, uint32_t& wireSize)
{
    if (!build(payload) || !socket.SendPlaintext(sealedHeader) || !socket.SendPlaintext(wire)) {
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
    if (padded == 0 || (padded >> 16U) == (veltrix::kCommandMark >> 16U)) {
        return true;
    }
    return socket.RecvPlaintext(padded, wire) && keys.Decrypt(wire, body) &&
           keys.chain.GetMagic(chain) && header.ValidateHmacBody(chain, body) &&
           header.GetPayloadSize(size) && payload.CopyOffsets(0, size, body);
}

void transportPair::close()
{
    for (transportEnd* end : {&server, &client}) {
        if (end->opened) {
            (void)veltrix::vxBase::closeChild(*end);
        }
    }
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

const veltrix::vxBytes& pairSeed0()
{
    static const veltrix::vxBytes seed = counting(16, 0x00);
    return seed;
}

const veltrix::vxBytes& pairSeed1()
{
    static const veltrix::vxBytes seed = counting(16, 0x10);
    return seed;
}

bool seedAlike(veltrix::vxNetTransportKeys& one, veltrix::vxNetTransportKeys& other)
{
    return one.ReSeed(pairSeed0(), pairSeed1()) && other.ReSeed(pairSeed0(), pairSeed1());
}

bool socketPair(int (&fds)[2])
{
    return socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0;
}

} // namespace vxbench
