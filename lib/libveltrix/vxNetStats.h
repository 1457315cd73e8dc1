/// @file
/// Traffic counters of an encrypted socket and its re-key policy.
#pragma once

#include "vxBase.h"
#include "vxBytes.h"

#include <cstdint>
#include <string>

namespace veltrix {

/** A count restarts here, one largest packet below 2^32, so that no single update can
 *  overflow it. */
inline constexpr uint32_t kStatsWrapLimit = 0xFFFFC000U;

/** A 32-bit running count that restarts before it can overflow. */
class VX_API vxNetProtocolStatsCounter : public vxBase
{
public:
    uint32_t value = 0; ///< the count since Open or the last restart
    uint32_t wraps = 0; ///< restarts since Open

    vxNetProtocolStatsCounter();
    LVX_NOT_COPYABLE(vxNetProtocolStatsCounter);
    ~vxNetProtocolStatsCounter() override;

    /** Zeroes the count and the restarts; true. */
    [[nodiscard]] bool Open() override;
    /** Adds `n`; a sum of kStatsWrapLimit or more restarts the count at `n` and counts a
     *  wrap. */
    [[nodiscard]] bool Update(uint32_t n);
    /** The count without its wraps. */
    [[nodiscard]] bool GetIntValue(uint32_t& v);
    /** The count in decimal followed by " bytes.". */
    [[nodiscard]] bool GetStrValue(std::string& s);
};

/** Messages and bytes in each direction, key re-exchanges (never updated: always 0) and the
 *  re-key policy. Used by the thread of its encrypted socket only. */
class VX_API vxNetProtocolStats : public vxBase
{
public:
    uint32_t reKeyAccumulator = 0;            ///< the re-key policy's sum (see NeedReKey)
    vxNetProtocolStatsCounter RecvMsgs;       ///< messages received
    vxNetProtocolStatsCounter SentMsgs;       ///< messages sent
    vxNetProtocolStatsCounter RecvBytes;      ///< bytes received
    vxNetProtocolStatsCounter SentBytes;      ///< bytes sent
    vxNetProtocolStatsCounter KeyReExchanges; ///< key re-exchanges: never updated

    vxNetProtocolStats();
    LVX_NOT_COPYABLE(vxNetProtocolStats);
    ~vxNetProtocolStats() override;

    /** Opens the five counters at 0. */
    [[nodiscard]] bool Open() override;
    [[nodiscard]] bool Close() override;
    /** One sent message of `b`'s size. */
    [[nodiscard]] bool UpdateSendStats(const vxBytes& b);
    /** One sent message of `n` bytes. */
    [[nodiscard]] bool UpdateSendStats(uint32_t n);
    /** One received message of `n` bytes. */
    [[nodiscard]] bool UpdateRecvStats(uint32_t n);
    /** Adds the whole running total of sent bytes (not the bytes since the last call) to the
     *  accumulator; true, and the accumulator back to 0, once it passes 5000. */
    [[nodiscard]] bool NeedReKey();
    /** Writes the counters as an "Object" / "Value" table to standard output. */
    [[nodiscard]] bool Display();

private:
    [[nodiscard]] VX_NO_EXPORT bool countMessage(vxNetProtocolStatsCounter& messages,
                                                 vxNetProtocolStatsCounter& bytes, uint32_t n);
};

} // namespace veltrix
