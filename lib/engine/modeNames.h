// The mode names an encrypted connection can be made with.
#pragma once

#include <set>
#include <string>

namespace veltrix::engine {

/** The cipher modes, and the hash modes a handshake can use: it needs a 16-byte digest, and the
 *  library's other hash modes fail its validation. */
extern const std::set<std::string> kCipherModes;
extern const std::set<std::string> kHandshakeHashModes;

} // namespace veltrix::engine
