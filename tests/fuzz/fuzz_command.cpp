// The command-packet path: a command header the genuine sender sealed around a code of the input's
// choosing (any 32-bit value), then bytes of the input's choosing where the receiver reads its 16
// trailing bytes, and optionally flipped bits. An untouched packet must be handled exactly as the
// command rules say: the code read back is the hidden value rounded up to a multiple of 16, minus
// 15, in 16 bits; 1 disconnects, 2 is reported and goes on, any other code fails; a trailer cut
// short fails, a missing one still lets the code decide. Nothing may crash or hang.
#include "fuzzChannel.h"
#include "vxGlobal.h"
#include "vxNetTransport.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

using veltrix::kCommandMark;
constexpr size_t kTrailer = 16;

enum class outcome
{
    disconnected,
    reported,
    failed,
    unchecked ///< not a command once rounded: the data path, checked by the receive target
};

/** What the receiver must make of a command packet hiding `cmd | kCommandMark`. */
outcome expected(uint32_t cmd, size_t trailer)
{
    const uint64_t hidden = cmd | kCommandMark;
    if (hidden > 0xFFFFFFEFU) {
        return outcome::unchecked; // the padded size is not computed: a size of 0 follows
    }
    const uint64_t padded = (hidden + 15) / 16 * 16;
    if ((padded >> 16U) != (kCommandMark >> 16U)) {
        return outcome::unchecked;
    }
    if (trailer > 0 && trailer < kTrailer) {
        return outcome::failed; // a short block
    }
    const uint64_t code = (padded - 15) & 0xFFFFU;
    if (code == 1 || trailer == 0) {
        // The end of the stream in place of the trailer marks the socket disconnected too, but
        // the code is still judged.
        return code == 1 || code == 2 ? outcome::disconnected : outcome::failed;
    }
    return code == 2 ? outcome::reported : outcome::failed;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    vxfuzz::inputReader input(data, size);
    const std::string& cipher = vxfuzz::cipherFor(input.byte());
    vxfuzz::withChannel(cipher, [&input](vxfuzz::fuzzChannel& channel) {
        const uint32_t cmd = input.quad();
        const size_t trailer = input.byte() % (2 * kTrailer + 1);
        vxfuzz::byteStream wire;
        if (!channel.sender.header.CreateCmdMessage(cmd, channel.sender.keys,
                                                    &channel.senderPlain) ||
            !channel.capture(wire)) {
            std::abort();
        }
        const vxfuzz::byteStream tail = input.bytes(trailer);
        wire.insert(wire.end(), tail.begin(), tail.end());
        bool altered = false;
        while (!input.empty()) {
            wire[input.word() % wire.size()] ^= static_cast<unsigned char>(input.byte() | 1U);
            altered = true;
        }
        (void)channel.deliver(wire);
        veltrix::vxBytes payload;
        const bool received = channel.victim.RecvEncrypted(payload);
        if (!received && !::vxGlobal.stackTrace.errorLatch) {
            std::abort(); // a failure must leave the trail
        }
        if (received && !payload.bytes.empty()) {
            std::abort(); // a command, altered or not, carries no payload
        }
        const outcome rule = altered ? outcome::unchecked : expected(cmd, tail.size());
        const bool disconnected = channel.victimPlain.doDisconnect;
        if ((rule == outcome::disconnected && !(received && disconnected)) ||
            (rule == outcome::reported && !(received && !disconnected)) ||
            (rule == outcome::failed && received)) {
            std::abort();
        }
    });
    return 0;
}
