// The mode names an encrypted connection can be made with, from the library's algorithm tables.
#pragma once

#include <set>
#include <string>

namespace veltrix::engine {

/** The cipher modes, and the hash modes a handshake can use: it needs a 16-byte digest, and the
 *  library's other hash modes fail its validation. */
extern const std::set<std::string> kCipherModes;
extern const std::set<std::string> kHandshakeHashModes;
/** The hash modes an encrypted socket takes but a handshake cannot use. */
extern const std::set<std::string> kOtherHashModes;
/** The cipher modes that encrypt: all but "none". */
extern const std::set<std::string> kEncryptingCipherModes;

/** The cipher modes and the handshake's hash modes in the library's order, as a sentence names
 *  them: "none, aes128, aes192 or aes256", "md5 or sha256-128". */
extern const std::string kCipherModeList;
extern const std::string kHandshakeHashModeList;

} // namespace veltrix::engine
