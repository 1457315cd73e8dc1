// The library's socket for a connection that one thread drives among many: one end of a local
// socket pair, so that the library's receive finds exactly the bytes it was handed and its send
// never waits on the peer.
#pragma once

#include "eventLoop.h"

#include <cstddef>

namespace veltrix::engine {

/** Moves the library's packets between its socket and the network without ever letting it
 *  wait: the library's socket becomes one end of a local socket pair. */
class packetPipe
{
public:
    /** A new pair; `librarySide` gets the library's end (non-blocking). */
    explicit packetPipe(int& librarySide);
    /** Keeps the library's descriptor number, which from now on is one end of a new pair; the
     *  connection it held moves to `moved`. */
    packetPipe(int& librarySide, int& moved);
    LVX_NOT_COPYABLE(packetPipe);
    ~packetPipe();

    /** Everything the library wrote since the last call, appended to `out`. */
    void drain(byteQueue& out) const;
    /** The `count` bytes of the packet the library just sent, appended to `out`. */
    void drain(byteQueue& out, size_t count) const;
    /** Hands `bytes` to the library, whole. */
    void feed(const unsigned char* bytes, size_t count) const;
    /** The library's next read after the fed bytes sees the end of the stream. */
    void endFeed() const;

private:
    int outer = -1;
};

} // namespace veltrix::engine
