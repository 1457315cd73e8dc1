// The mode names an encrypted connection can be made with, from the library's algorithm tables.
#include "modeNames.h"

#include "cryptoapi.h"

#include <cstdint>
#include <vector>

namespace veltrix::engine {

namespace {

/** One algorithm of the library's tables. */
struct algorithm
{
    const char* name;
    uint32_t id;
    uint32_t bytes; ///< a digest's size, a cipher's key size
};

#define VX_ENGINE_ALGORITHM(identifier, id, name, bytes) algorithm{name, id, bytes},
constexpr algorithm kCiphers[] = {VX_CIPHER_ALGORITHMS(VX_ENGINE_ALGORITHM)};
constexpr algorithm kDigests[] = {VX_DIGEST_ALGORITHMS(VX_ENGINE_ALGORITHM)};
#undef VX_ENGINE_ALGORITHM

/** The handshake keys its ciphers with digests of this size. */
constexpr uint32_t kHandshakeDigestBytes = 16;

/** The names of the algorithms `keep` accepts, in the table's order. */
template <size_t N, class Keep>
std::vector<std::string> namesOf(const algorithm (&table)[N], Keep keep)
{
    std::vector<std::string> names;
    for (const algorithm& each : table) {
        if (keep(each)) {
            names.emplace_back(each.name);
        }
    }
    return names;
}

bool any(const algorithm& /*each*/)
{
    return true;
}

bool keysHandshake(const algorithm& digest)
{
    return digest.bytes == kHandshakeDigestBytes;
}

std::set<std::string> setOf(const std::vector<std::string>& names)
{
    return {names.begin(), names.end()};
}

/** "a", "a or b", "a, b or c" and so on. */
std::string sentence(const std::vector<std::string>& names)
{
    std::string text;
    for (size_t at = 0; at < names.size(); ++at) {
        text += (at == 0 ? "" : at + 1 == names.size() ? " or " : ", ") + names[at];
    }
    return text;
}

} // namespace

const std::set<std::string> kCipherModes = setOf(namesOf(kCiphers, any));
const std::set<std::string> kHandshakeHashModes = setOf(namesOf(kDigests, keysHandshake));
const std::set<std::string> kOtherHashModes =
    setOf(namesOf(kDigests, [](const algorithm& digest) { return !keysHandshake(digest); }));
const std::set<std::string> kEncryptingCipherModes =
    setOf(namesOf(kCiphers, [](const algorithm& cipher) { return cipher.id != vxCipherId::none; }));
const std::string kCipherModeList = sentence(namesOf(kCiphers, any));
const std::string kHandshakeHashModeList = sentence(namesOf(kDigests, keysHandshake));

} // namespace veltrix::engine
