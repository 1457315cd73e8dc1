// Two MD5 compressions in one instruction stream.
//
// One MD5 compression is a chain of 64 dependent steps: a core runs it at the latency of that
// chain with most of its arithmetic units idle. Two independent compressions written step by
// step side by side fill those units, so the pair costs little more than one. Portable C++, so
// every target of the plug-in gets it.
#pragma once

#include <cstdint>

namespace vxmd5 {

/** The four chaining words of one MD5 computation. */
struct chain
{
    uint32_t a;
    uint32_t b;
    uint32_t c;
    uint32_t d;
};

/** One 64-byte block as MD5 reads it: sixteen 32-bit words, each from four bytes taken least
 *  significant first. */
using block = uint32_t[16];

/** Runs the MD5 compression of `block0` on `state0` and, interleaved with it, that of `block1`
 *  on `state1`. The two lanes share nothing: each result depends only on its own state and
 *  block. */
void compressPair(chain& state0, const block& block0, chain& state1, const block& block1);

} // namespace vxmd5
