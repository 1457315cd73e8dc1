// Secret bytes inside the library: comparisons whose time does not depend on where two buffers
// differ, and wipes that the compiler cannot drop as dead stores before the memory is released.
#pragma once

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

namespace veltrix {

/** Equal length and equal bytes, reading every byte whatever the first difference, so that a
 *  peer cannot learn a correct digest byte by byte from response times. */
inline bool constantTimeEqual(const std::vector<unsigned char>& a,
                              const std::vector<unsigned char>& b)
{
    if (a.size() != b.size()) {
        return false; // quiet: the lengths are public (digest sizes); the caller records it
    }
    unsigned char difference = 0;
    for (size_t i = 0; i < a.size(); ++i) {
        difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    }
    return difference == 0;
}

/** Zeroes every byte the container owns, its spare capacity included (a buffer that shrank may
 *  still hold old secret bytes there), and leaves it empty with its storage kept. */
template <class Container> void wipeSecret(Container& buffer)
{
    buffer.resize(buffer.capacity());
    if (!buffer.empty()) {
        explicit_bzero(buffer.data(), buffer.size() * sizeof(buffer[0]));
    }
    buffer.clear();
}

/** Zeroes `size` bytes at `at`. */
inline void wipeSecret(void* at, size_t size)
{
    explicit_bzero(at, size);
}

} // namespace veltrix
