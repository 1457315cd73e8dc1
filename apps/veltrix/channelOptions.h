// What the encrypted connections of a command are made with: the pre-shared secret's file, the
// cipher and hash modes, and the time limits, as options of the command line and of the tunnel's
// configuration file.
#pragma once

#include "modeNames.h"
#include "optionTable.h"
#include "secretFile.h"

#include <string>

namespace vxcli {

/** How long a relay waits on its peer, in seconds; 0 = no limit. */
struct relayLimits
{
    unsigned receive{}; ///< for the rest of a packet once its first byte arrived
    unsigned idle{};    ///< with nothing arriving from the peer and nothing sent to it
};

/** What the encrypted connections of a command are made with. */
struct channelOptions
{
    std::string pskFile;
    std::string cipher;
    std::string hash;
    unsigned connectTimeout{};   ///< seconds
    unsigned handshakeTimeout{}; ///< seconds
    relayLimits limits{};
};

/** --psk-file, --cipher, --hash, --connect-timeout, --handshake-timeout, --receive-timeout and
 *  --idle-timeout: an unknown cipher, or a hash the handshake cannot use, is refused. */
const optionRows<channelOptions>& channelRows();

/** The channel options with their defaults. */
channelOptions defaultChannel();

} // namespace vxcli
