// Two ends of the secure transport joined by a socket pair: keys, header and plain socket per end,
// opened with opposite sides and seeded alike, and the packet steps the encrypted socket performs.
// Used by the tests and the benchmarks, so it needs neither GoogleTest nor a particular frame.
#pragma once

#include "vxNetSocket.h"
#include "vxNetTransport.h"

#include <cstdint>

namespace vxtest {

/** One end: its keys, header and plain socket, all opened with the same side. */
class transportEnd : public veltrix::vxBase
{
public:
    veltrix::vxCipherId id;
    veltrix::vxNetTransportKeys keys;
    veltrix::vxNetTransportHeader header;
    veltrix::vxNetSocket socket;
    veltrix::vxBytes body;  ///< payload and padding, then the plain body on receive
    veltrix::vxBytes wire;  ///< encrypted body
    veltrix::vxBytes chain; ///< the chain key a body is checked with
    veltrix::vxBytes sealedHeader;
    veltrix::vxBytes padding;

    transportEnd();
    LVX_NOT_COPYABLE(transportEnd);
    ~transportEnd() override;

    using vxBase::Open;
    /** Opens everything with `cipher` and `side` and adopts descriptor `fd`. */
    bool Open(uint32_t cipher, bool side, int fd);
    /** Closes the members (the socket closes the descriptor). */
    bool Close() override;

    /** A data packet as the encrypted socket sends it: header, then payload and padding
     *  encrypted, written as two blocks. `wireSize` is the number of bytes sent. */
    bool send(const veltrix::vxBytes& payload, uint32_t& wireSize);
    bool send(const veltrix::vxBytes& payload);
    /** Reads a header and, for a data packet, its body; checks the body and hands out the
     *  payload. A command packet (0xC0DE mark) or an empty payload leaves `payload` empty. */
    bool receive(veltrix::vxBytes& payload);
};

/** A connected pair: `server` opened with side true, `client` with false, both seeded with
 *  ReSeed(00 01 .. 0F, 10 11 .. 1F). */
class transportPair
{
public:
    transportEnd server;
    transportEnd client;

    /** Opens both ends under `frame` (any object with an open(child, args...) operation). */
    template <class Frame> bool open(Frame& frame, uint32_t cipher)
    {
        int fds[2] = {-1, -1};
        if (!socketPair(fds)) {
            return false;
        }
        const bool opened =
            frame.open(server, cipher, true, fds[0]) && frame.open(client, cipher, false, fds[1]);
        if (!opened) {
            closeUnadopted(fds);
            return false;
        }
        return seed();
    }

    /** Closes whichever end is open. */
    void close();

private:
    static bool socketPair(int (&fds)[2]);
    void closeUnadopted(const int (&fds)[2]) const;
    bool seed();
};

} // namespace vxtest
