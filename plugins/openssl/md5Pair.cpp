#include "md5Pair.h"

#include <cstddef>
#include <utility>

namespace vxmd5 {

namespace {

// The additive constants of RFC 1321: the integer part of 2^32 * |sin(i + 1)|.
constexpr uint32_t kSine[64] = {
    0xd76aa478U, 0xe8c7b756U, 0x242070dbU, 0xc1bdceeeU, 0xf57c0fafU, 0x4787c62aU, 0xa8304613U,
    0xfd469501U, 0x698098d8U, 0x8b44f7afU, 0xffff5bb1U, 0x895cd7beU, 0x6b901122U, 0xfd987193U,
    0xa679438eU, 0x49b40821U, 0xf61e2562U, 0xc040b340U, 0x265e5a51U, 0xe9b6c7aaU, 0xd62f105dU,
    0x02441453U, 0xd8a1e681U, 0xe7d3fbc8U, 0x21e1cde6U, 0xc33707d6U, 0xf4d50d87U, 0x455a14edU,
    0xa9e3e905U, 0xfcefa3f8U, 0x676f02d9U, 0x8d2a4c8aU, 0xfffa3942U, 0x8771f681U, 0x6d9d6122U,
    0xfde5380cU, 0xa4beea44U, 0x4bdecfa9U, 0xf6bb4b60U, 0xbebfbc70U, 0x289b7ec6U, 0xeaa127faU,
    0xd4ef3085U, 0x04881d05U, 0xd9d4d039U, 0xe6db99e5U, 0x1fa27cf8U, 0xc4ac5665U, 0xf4292244U,
    0x432aff97U, 0xab9423a7U, 0xfc93a039U, 0x655b59c3U, 0x8f0ccc92U, 0xffeff47dU, 0x85845dd1U,
    0x6fa87e4fU, 0xfe2ce6e0U, 0xa3014314U, 0x4e0811a1U, 0xf7537e82U, 0xbd3af235U, 0x2ad7d2bbU,
    0xeb86d391U};

// The rotation of each step, by round and by step within a group of four.
constexpr unsigned kShift[4][4] = {
    {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

/** The message word step `i` adds: in order in round 1, then 1 + 5i, 5 + 3i and 7i mod 16. */
constexpr unsigned wordOf(unsigned i)
{
    switch (i / 16) {
    case 0:
        return i;
    case 1:
        return (1 + 5 * i) % 16;
    case 2:
        return (5 + 3 * i) % 16;
    default:
        return (7 * i) % 16;
    }
}

constexpr uint32_t rotateLeft(uint32_t value, unsigned count)
{
    return (value << count) | (value >> (32U - count));
}

/** The round function of round R on the words b, c and d. */
template <unsigned R> constexpr uint32_t mix(uint32_t b, uint32_t c, uint32_t d)
{
    if constexpr (R == 0) {
        return d ^ (b & (c ^ d)); // (b & c) | (~b & d)
    } else if constexpr (R == 1) {
        return (b & d) + (c & ~d); // (b & d) | (c & ~d): the two terms never share a bit
    } else if constexpr (R == 2) {
        return b ^ c ^ d;
    } else {
        return c ^ (b | ~d);
    }
}

using words = uint32_t[4];

/** Step I of one lane. The four words change roles every step, (a, b, c, d) becoming
 *  (d, a, b, c), so the word that step I updates is word (64 - I) mod 4. */
template <unsigned I> inline __attribute__((always_inline)) void step(words& v, const block& x)
{
    constexpr unsigned a = (64 - I) % 4;
    constexpr unsigned b = (a + 1) % 4;
    constexpr unsigned c = (a + 2) % 4;
    constexpr unsigned d = (a + 3) % 4;
    // The terms that do not wait for b, the word the previous step made, are added first.
    const uint32_t early = v[a] + x[wordOf(I)] + kSine[I];
    v[a] = rotateLeft(early + mix<I / 16>(v[b], v[c], v[d]), kShift[I / 16][I % 4]) + v[b];
#if defined(__clang__)
    // Clang would otherwise schedule long runs of one lane's steps before the other's, and the
    // processor's window cannot overlap lanes that far apart. An empty statement that reads and
    // writes the word keeps each step where the source puts it; it emits no instruction.
    asm("" : "+r"(v[a]));
#endif
}

/** Every step of both lanes, step I of lane 0 beside step I of lane 1. */
template <size_t... I>
inline __attribute__((always_inline)) void allSteps(words& v0, const block& x0, words& v1,
                                                    const block& x1,
                                                    std::index_sequence<I...> /*steps*/)
{
    ((step<I>(v0, x0), step<I>(v1, x1)), ...);
}

} // namespace

void compressPair(chain& state0, const block& block0, chain& state1, const block& block1)
{
    words v0 = {state0.a, state0.b, state0.c, state0.d};
    words v1 = {state1.a, state1.b, state1.c, state1.d};
    allSteps(v0, block0, v1, block1, std::make_index_sequence<64>{});
    state0 = {state0.a + v0[0], state0.b + v0[1], state0.c + v0[2], state0.d + v0[3]};
    state1 = {state1.a + v1[0], state1.b + v1[1], state1.c + v1[2], state1.d + v1[3]};
}

} // namespace vxmd5
