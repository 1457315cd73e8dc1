// The mode names an encrypted connection can be made with.
#include "modeNames.h"

namespace veltrix::engine {

const std::set<std::string> kCipherModes = {"none", "aes128", "aes192", "aes256"};
const std::set<std::string> kHandshakeHashModes = {"md5", "sha256-128"};

} // namespace veltrix::engine
