// The encrypted receive path after the handshake. The input is a script: genuine data and command
// packets from the sender, and attacks on the captured stream (a byte flipped, a packet cut,
// replayed or swapped, raw bytes inserted). The victim receives the result until it fails or the
// stream ends. Whatever the script, nothing may crash or hang, every failure leaves a trail, and
// the packets the victim accepts are the genuine payloads, in the order sent: one altered byte
// anywhere ends the connection for good. An untouched script of data packets arrives whole.
#include "fuzzChannel.h"
#include "vxGlobal.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <utility>
#include <vector>

namespace {

using vxfuzz::byteStream;

/** Bytes the script may put in flight: well inside a socket pair's buffer. Payloads stay small:
 *  every 16-byte block costs a cipher call and a keyed digest at each end, and lengths up to
 *  and past the largest packet are the header target's. */
constexpr size_t kStreamLimit = 16 * 1024;
constexpr uint32_t kLargestPayload = 1024;

/** The stream as the sender produced it, one unit per packet or inserted run, so that attacks can
 *  address whole packets. */
struct script
{
    std::vector<byteStream> units;
    std::vector<byteStream> payloads; ///< the genuine data payloads, in order
    size_t bytes = 0;
    bool pristine = true; ///< only non-empty data packets, nothing altered

    [[nodiscard]] bool fits(size_t more) const { return bytes + more <= kStreamLimit; }

    void add(byteStream unit)
    {
        bytes += unit.size();
        units.push_back(std::move(unit));
    }
};

bool sendData(vxfuzz::fuzzChannel& channel, vxfuzz::inputReader& input, script& plan)
{
    const uint32_t size = input.word() % (kLargestPayload + 1);
    if (!plan.fits(size + 128)) {
        return false;
    }
    veltrix::vxBytes payload;
    payload.bytes = input.bytes(size);
    while (payload.bytes.size() < size) {
        payload.bytes.push_back(static_cast<unsigned char>(payload.bytes.size() * 7));
    }
    byteStream packet;
    if (!channel.sender.SendEncrypted(payload) || !channel.capture(packet)) {
        std::abort(); // the genuine sender cannot fail on a payload within bounds
    }
    if (size == 0) {
        plan.pristine = false; // an empty payload cannot be received
    } else {
        plan.payloads.push_back(payload.bytes);
    }
    plan.add(std::move(packet));
    return true;
}

bool sendCommand(vxfuzz::fuzzChannel& channel, vxfuzz::inputReader& input, script& plan)
{
    byteStream packet;
    if (!plan.fits(64) ||
        !channel.sender.header.CreateCmdMessage(input.word(), channel.sender.keys,
                                                &channel.senderPlain) ||
        !channel.capture(packet)) {
        return false;
    }
    plan.pristine = false;
    plan.add(std::move(packet));
    return true;
}

/** One attack on the units so far; false when there is nothing to attack. */
bool attack(uint8_t kind, vxfuzz::inputReader& input, script& plan)
{
    if (plan.units.empty()) {
        return false;
    }
    byteStream& unit = plan.units[input.byte() % plan.units.size()];
    switch (kind) {
    case 0: // flip bits of one byte
        if (unit.empty()) {
            return false;
        }
        unit[input.word() % unit.size()] ^= static_cast<unsigned char>(input.byte() | 1U);
        break;
    case 1: // cut the unit short
        if (unit.empty()) {
            return false;
        }
        plan.bytes -= unit.size();
        unit.resize(input.word() % unit.size());
        plan.bytes += unit.size();
        break;
    case 2: // replay it at the end
        if (!plan.fits(unit.size())) {
            return false;
        }
        plan.add(byteStream(unit));
        break;
    case 3: // swap the last two units
        if (plan.units.size() < 2) {
            return false;
        }
        std::swap(plan.units[plan.units.size() - 1], plan.units[plan.units.size() - 2]);
        break;
    default: { // raw bytes of the attacker's own
        byteStream raw = input.bytes(input.byte() + 1U);
        if (!plan.fits(raw.size())) {
            return false;
        }
        plan.add(std::move(raw));
    }
    }
    plan.pristine = false;
    return true;
}

/** Receives until a failure or the end of the stream and checks what was accepted. */
void receiveAll(vxfuzz::fuzzChannel& channel, const script& plan, bool delivered)
{
    size_t accepted = 0;
    bool failed = false;
    for (size_t round = 0; round <= plan.units.size() + 1; ++round) {
        veltrix::vxBytes payload;
        if (!channel.victim.RecvEncrypted(payload)) {
            if (!::vxGlobal.stackTrace.errorLatch) {
                std::abort(); // a failure must leave the trail
            }
            failed = true;
            break;
        }
        if (channel.victimPlain.doDisconnect) {
            break;
        }
        if (payload.bytes.empty()) {
            continue; // a command that only reports itself
        }
        if (accepted >= plan.payloads.size() || payload.bytes != plan.payloads[accepted]) {
            std::abort(); // accepted something the sender never sent, or out of order
        }
        ++accepted;
    }
    // The stream ends without the disconnect command, so even a whole one ends in a failure.
    if (plan.pristine && delivered && (accepted != plan.payloads.size() || !failed)) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    vxfuzz::inputReader input(data, size);
    const std::string& cipher = vxfuzz::cipherFor(input.byte());
    vxfuzz::withChannel(cipher, [&input](vxfuzz::fuzzChannel& channel) {
        script plan;
        while (!input.empty()) {
            // A step that does not fit or has nothing to work on is skipped.
            const uint8_t op = input.byte() % 9;
            if (op < 3) {
                (void)sendData(channel, input, plan);
            } else if (op == 3) {
                (void)sendCommand(channel, input, plan);
            } else {
                (void)attack(static_cast<uint8_t>(op - 4), input, plan);
            }
        }
        byteStream stream;
        for (const byteStream& unit : plan.units) {
            stream.insert(stream.end(), unit.begin(), unit.end());
        }
        const bool delivered = channel.deliver(stream);
        receiveAll(channel, plan, delivered);
    });
    return 0;
}
