// The options of the encrypted connections, and the modes they accept.
#include "channelOptions.h"

#include <set>

namespace vxcli {

using veltrix::engine::kCipherModeList;
using veltrix::engine::kCipherModes;
using veltrix::engine::kHandshakeHashModeList;
using veltrix::engine::kHandshakeHashModes;
using veltrix::engine::kOtherHashModes;

const optionRows<channelOptions>& channelRows()
{
    using row = optionRow<channelOptions>;
    const auto seconds = [](unsigned low, unsigned high, unsigned channelOptions::*field) {
        return [low, high, field](const std::string& text, channelOptions& into) {
            return parseNumber(text, low, high, into.*field);
        };
    };
    const auto limit = [](unsigned high, unsigned relayLimits::*field) {
        return [high, field](const std::string& text, channelOptions& into) {
            return parseNumber(text, 0, high, into.limits.*field);
        };
    };
    static const optionRows<channelOptions> rows = {
        row{"psk-file", "FILE", "file holding the pre-shared secret", "",
            [](const std::string& text, channelOptions& into) {
                into.pskFile = text;
                return text.empty() ? std::string("the secret file's name is empty")
                                    : std::string();
            }},
        row{"cipher", "CIPHER", kCipherModeList, "aes256",
            [](const std::string& text, channelOptions& into) {
                into.cipher = text;
                return kCipherModes.count(text) != 0
                           ? std::string()
                           : "unknown cipher \"" + text + "\": use " + kCipherModeList;
            }},
        row{"hash", "HASH", kHandshakeHashModeList + " (the handshake needs a 16-byte digest)",
            "md5",
            [](const std::string& text, channelOptions& into) {
                into.hash = text;
                if (kHandshakeHashModes.count(text) != 0) {
                    return std::string();
                }
                if (kOtherHashModes.count(text) != 0) {
                    return "hash mode \"" + text +
                           "\" cannot key the handshake, which needs a 16-byte digest: use " +
                           kHandshakeHashModeList;
                }
                return "unknown hash mode \"" + text + "\": use " + kHandshakeHashModeList;
            }},
        row{"connect-timeout", "SECONDS", "seconds a TCP connect may take", "10",
            seconds(1, 3600, &channelOptions::connectTimeout)},
        row{"handshake-timeout", "SECONDS", "seconds the whole handshake may take", "10",
            seconds(1, 3600, &channelOptions::handshakeTimeout)},
        row{"receive-timeout", "SECONDS",
            "seconds for the rest of a packet once its first byte arrived (0: no limit)", "10",
            limit(3600, &relayLimits::receive)},
        row{"idle-timeout", "SECONDS",
            "seconds with nothing received or sent that end a connection (0: never)", "0",
            limit(86400, &relayLimits::idle)},
    };
    return rows;
}

channelOptions defaultChannel()
{
    return defaultsOf(channelRows());
}

} // namespace vxcli
