// Traffic counters of an encrypted socket and its re-key policy.
#include "vxNetStats.h"

#include "uiTable.h"
#include "vxGuard.h"

#include <iostream>
#include <sstream>

namespace veltrix {

namespace {

/** The re-key policy answers true once its sum passes this many bytes. */
constexpr uint32_t kReKeyThreshold = 5000;

} // namespace

LVX_DEFINE_LIFECYCLE(vxNetProtocolStatsCounter)
LVX_DEFINE_LIFECYCLE(vxNetProtocolStats)

bool vxNetProtocolStatsCounter::Open()
{
    value = 0;
    wraps = 0;
    return true;
}

bool vxNetProtocolStatsCounter::Update(uint32_t n)
{
    LVX_GUARD();
    const uint32_t sum = value + n;
    if (sum >= kStatsWrapLimit) {
        value = n;
        ++wraps;
    } else {
        value = sum;
    }
    return true;
}

bool vxNetProtocolStatsCounter::GetIntValue(uint32_t& v)
{
    LVX_GUARD();
    v = value;
    return true;
}

bool vxNetProtocolStatsCounter::GetStrValue(std::string& s)
{
    LVX_GUARD();
    s = std::to_string(value) + LVX_MSG_BYTES_SUFFIX;
    return true;
}

bool vxNetProtocolStats::Open()
{
    LVX_CALL_OPEN(RecvMsgs);
    LVX_CALL_OPEN(SentMsgs);
    LVX_CALL_OPEN(RecvBytes);
    LVX_CALL_OPEN(SentBytes);
    LVX_CALL_OPEN(KeyReExchanges);
    return true;
}

bool vxNetProtocolStats::Close()
{
    LVX_CALL_CLOSE(RecvMsgs);
    LVX_CALL_CLOSE(SentMsgs);
    LVX_CALL_CLOSE(RecvBytes);
    LVX_CALL_CLOSE(SentBytes);
    LVX_CALL_CLOSE(KeyReExchanges);
    return true;
}

bool vxNetProtocolStats::countMessage(vxNetProtocolStatsCounter& messages,
                                      vxNetProtocolStatsCounter& bytes, uint32_t n)
{
    LVX_GUARD();
    LVX_CHECK(messages.Update(1));
    LVX_CHECK(bytes.Update(n));
    return true;
}

bool vxNetProtocolStats::UpdateSendStats(const vxBytes& b)
{
    return countMessage(SentMsgs, SentBytes, static_cast<uint32_t>(b.bytes.size()));
}

bool vxNetProtocolStats::UpdateSendStats(uint32_t n)
{
    return countMessage(SentMsgs, SentBytes, n);
}

bool vxNetProtocolStats::UpdateRecvStats(uint32_t n)
{
    return countMessage(RecvMsgs, RecvBytes, n);
}

bool vxNetProtocolStats::NeedReKey()
{
    LVX_GUARD();
    uint32_t sent = 0;
    LVX_CHECK(SentBytes.GetIntValue(sent));
    // The whole running total is added on every call, not the bytes sent since the last one.
    const uint32_t total = reKeyAccumulator + sent;
    if (total > kReKeyThreshold) {
        reKeyAccumulator = 0;
        return true;
    }
    reKeyAccumulator = total;
    return false; // quiet: no re-key needed yet
}

bool vxNetProtocolStats::Display()
{
    LVX_GUARD();
    libuiTable::uiTable table;
    table.decor.strings = {"|", "|", "-", "-", "|", "|", "-", "-"};
    const libuiTable::uiColumnId object = table.createColumn("Object");
    const libuiTable::uiColumnId shown = table.createColumn("Value");
    const auto addRow = [&](const char* label, const std::string& text) {
        libuiTable::uiRow& row = table.createRow();
        (void)row.Insert(object, label);
        (void)row.Insert(shown, text);
    };
    uint32_t count = 0;
    std::string text;
    LVX_CHECK(RecvMsgs.GetIntValue(count));
    addRow("RecvMsgs", std::to_string(count));
    LVX_CHECK(SentMsgs.GetIntValue(count));
    addRow("SentMsgs", std::to_string(count));
    LVX_CHECK(RecvBytes.GetStrValue(text));
    addRow("RecvBytes", text);
    LVX_CHECK(SentBytes.GetStrValue(text));
    addRow("SentBytes", text);
    LVX_CHECK(KeyReExchanges.GetIntValue(count));
    addRow("Key Re-Exchanges", std::to_string(count));
    // Rendered apart, so the table's fill and alignment never stay on standard output.
    std::ostringstream rendered;
    table.Display(rendered);
    std::cout << rendered.str() << std::flush;
    return true;
}

} // namespace veltrix
