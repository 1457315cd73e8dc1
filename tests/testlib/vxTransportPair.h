// Two ends of the secure transport joined by a socket pair: keys, header and plain socket per end,
// opened with opposite sides and seeded alike, and the packet steps the encrypted socket performs.
#pragma once

#include "vxNetSocket.h"
#include "vxNetTransport.h"
#include "vxTest.h"

#include <cstdint>

namespace vxtest {

/** One end: its keys, header and plain socket, all opened with the same side. */
struct transportEnd
{
    veltrix::vxCipherId id;
    veltrix::vxNetTransportKeys keys;
    veltrix::vxNetTransportHeader header;
    veltrix::vxNetSocket socket;
    veltrix::vxBytes body;  ///< payload and padding, then the plain body on receive
    veltrix::vxBytes wire;  ///< encrypted body
    veltrix::vxBytes chain; ///< the chain key a body is checked with
    veltrix::vxBytes sealedHeader;
    veltrix::vxBytes padding;

    /** Opens everything on `frame` and adopts descriptor `fd`. */
    bool open(testFrame& frame, uint32_t cipher, bool side, int fd);
    /** Closes what is open; for the end of a case. */
    void close();

    /** A data packet as the encrypted socket sends it: header, then payload and padding
     *  encrypted, written as two blocks. `wireSize` is the number of bytes sent. */
    bool send(const veltrix::vxBytes& payload, uint32_t& wireSize);
    bool send(const veltrix::vxBytes& payload);
    /** Reads a header and, for a data packet, its body; checks the body and hands out the
     *  payload. A command packet (0xC0DE mark) or an empty payload leaves `payload` empty. */
    bool receive(veltrix::vxBytes& payload);
};

/** A connected pair: `server` opened with side true, `client` with false. */
class transportPair
{
public:
    transportEnd server;
    transportEnd client;

    /** Opens both ends over a new socket pair and seeds both with ReSeed(seed0, seed1). */
    bool open(testFrame& frame, uint32_t cipher);
    void close();
};

} // namespace vxtest
