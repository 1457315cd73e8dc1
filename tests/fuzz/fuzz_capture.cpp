// The capture reader (capture.h) on any bytes as a capture file: libpcap's file parsing is not
// what is under test, the frames it hands over are (every link type's header, IP, TCP, and the
// reassembly of whatever segments they claim to be).
//
// What must hold, whatever the file:
//   - the reader throws nothing but vxcli::failure, and only before it reports anything;
//   - connections are numbered from 1 in the order they start; every report names one that
//     started, and comes from a frame that was read, never an earlier one than the last report;
//   - each direction's data and gaps follow on from offset 0 without a hole or an overlap, never
//     empty, and end with exactly one `ended`; after it, nothing more comes for the direction;
//   - when the reader returns, every direction of every connection that started has ended.
#include "capture.h"
#include "cliFrame.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

using vxcli::capture::direction;
using vxcli::capture::frameInfo;
using vxcli::capture::peerAddress;
using vxcli::capture::streamEnd;

[[noreturn]] void fault()
{
    std::abort();
}

class checkingSink : public vxcli::capture::streamSink
{
public:
    void started(unsigned id, const peerAddress& client, const peerAddress& server,
                 const frameInfo& at) override
    {
        seen(at);
        if (id != ways.size() + 1 || client.family != server.family || client.text().empty() ||
            server.text().empty()) {
            fault();
        }
        ways.push_back({});
    }

    void data(unsigned id, direction way, uint64_t offset, const unsigned char* bytes, size_t count,
              const frameInfo& at) override
    {
        if (bytes == nullptr) {
            fault();
        }
        // Every byte handed over is read: an over-read shows under AddressSanitizer.
        unsigned sum = 0;
        for (size_t i = 0; i < count; ++i) {
            sum += bytes[i];
        }
        checksum += sum;
        advance(id, way, offset, count, at);
    }

    void gap(unsigned id, direction way, uint64_t offset, uint64_t count,
             const frameInfo& at) override
    {
        advance(id, way, offset, count, at);
    }

    void ended(unsigned id, direction way, streamEnd how, const frameInfo& at) override
    {
        seen(at);
        if (how != streamEnd::fin && how != streamEnd::reset && how != streamEnd::captureEnd) {
            fault();
        }
        state(id, way).ended = true;
    }

    void withoutStart(const peerAddress& first, const peerAddress& second,
                      const frameInfo& at) override
    {
        seen(at);
        if (first.family != second.family) {
            fault();
        }
    }

    /** Every direction of every connection ended; no report came from a frame never read. */
    void finished(uint64_t frames) const
    {
        for (const auto& connection : ways) {
            if (!connection[0].ended || !connection[1].ended) {
                fault();
            }
        }
        if (lastFrame > frames) {
            fault();
        }
    }

    [[nodiscard]] bool reported() const { return lastFrame != 0; }

    [[nodiscard]] unsigned sum() const { return checksum; }

private:
    struct wayState
    {
        uint64_t next = 0;
        bool ended = false;
    };

    void seen(const frameInfo& at)
    {
        if (at.number == 0 || at.number < lastFrame) {
            fault();
        }
        lastFrame = at.number;
    }

    wayState& state(unsigned id, direction way)
    {
        const auto index = static_cast<size_t>(way);
        if (id == 0 || id > ways.size() || index > 1 || ways[id - 1][index].ended) {
            fault();
        }
        return ways[id - 1][index];
    }

    void advance(unsigned id, direction way, uint64_t offset, uint64_t count, const frameInfo& at)
    {
        seen(at);
        wayState& current = state(id, way);
        if (count == 0 || offset != current.next || offset + count < offset) {
            fault();
        }
        current.next = offset + count;
    }

    std::vector<std::array<wayState, 2>> ways;
    uint64_t lastFrame = 0;
    unsigned checksum = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    std::vector<unsigned char> copy(data, data + size);
    std::FILE* file = fmemopen(copy.data(), copy.size(), "rb");
    if (file == nullptr) {
        fault();
    }
    checkingSink sink;
    try {
        const vxcli::capture::captureSummary summary =
            vxcli::capture::readCapture(file, "input", 0, sink);
        if (summary.tcpSegments + summary.skipped > summary.frames) {
            fault();
        }
        sink.finished(summary.frames);
        // A result the build cannot drop keeps the reads of every byte handed over.
        if (sink.sum() == UINT32_MAX && summary.frames == 0) {
            fault();
        }
    } catch (const vxcli::failure&) {
        if (sink.reported()) {
            fault();
        }
    }
    return 0;
}
