// Two ends of the secure transport joined by a socket pair: keys, header and plain socket per end,
// opened with opposite sides and seeded alike, and the packet steps the encrypted socket performs.
// Used by the benchmarks, `veltrix bench` and the tests, so it needs neither GoogleTest nor a
// particular frame.
#pragma once

#include "vxNetSocket.h"
#include "vxNetTransport.h"

#include <cstdint>

namespace vxbench {

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

    /** A data packet as the encrypted socket builds it, without writing it: the sealed header
     *  in `sealedHeader`, payload and padding encrypted in `wire`. */
    bool build(const veltrix::vxBytes& payload);
    /** The packet of build(), written as two blocks. `wireSize` is the number of bytes sent. */
    bool send(const veltrix::vxBytes& payload, uint32_t& wireSize);
    bool send(const veltrix::vxBytes& payload);
    /** Reads a header and, for a data packet, its body; checks the body and hands out the
     *  payload. A command packet (kCommandMark) or an empty payload leaves `payload` empty. */
    bool receive(veltrix::vxBytes& payload);
};

/** The seeds both ends of a pair are keyed with: 00 01 .. 0F and 10 11 .. 1F. */
const veltrix::vxBytes& pairSeed0();
const veltrix::vxBytes& pairSeed1();

/** ReSeed(pairSeed0(), pairSeed1()) on both: the keys of the two ends of one connection. */
bool seedAlike(veltrix::vxNetTransportKeys& one, veltrix::vxNetTransportKeys& other);

/** A connected AF_UNIX stream socket pair into `fds`, closed on exec; false when the system
 *  refuses one. */
bool socketPair(int (&fds)[2]);

/** A connected pair: `server` opened with side true, `client` with false, both seeded alike. */
class transportPair
{
public:
    transportEnd server;
    transportEnd client;

    /** Opens both ends under `frame` (any object that may open children: the root or one of its descendants). */
    template <class Frame> bool open(Frame& frame, uint32_t cipher)
    {
        int fds[2] = {-1, -1};
        if (!socketPair(fds)) {
            return false;
        }
        const bool opened = frame.openChild(server, cipher, true, fds[0]) &&
                            frame.openChild(client, cipher, false, fds[1]);
        if (!opened) {
            closeUnadopted(fds);
            return false;
        }
        return seedAlike(server.keys, client.keys);
    }

    /** Closes whichever end is open. */
    void close();

private:
    void closeUnadopted(const int (&fds)[2]) const;
};

} // namespace vxbench
