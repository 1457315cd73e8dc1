/// @file
/// Constants shared by the transport and the network layer.
#pragma once

#include <cstdint>

namespace veltrix {

/** The largest block one plain-socket receive may be asked for, and the size of its buffer. */
constexpr uint32_t VX_MAX_PACKET_SIZE = 16384;

/** The encrypted packet header on the wire: head HMAC, haystack and body HMAC, 16 bytes each. */
constexpr uint32_t VX_HEADER_WIRE_SIZE = 48;

} // namespace veltrix
