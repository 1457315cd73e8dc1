// The header read: 48 bytes from the wire decrypted, the head HMAC checked, the length found in
// the haystack. The input is either raw bytes or a header the genuine sender sealed around a
// length of the input's choosing (any 32-bit value, as an authenticated but hostile peer could
// send), with bits of it flipped. A sealed, untouched header must give back its length; a flip
// may pass only where it cannot change the length (the body HMAC field); raw bytes, a short or a
// missing header must fail with a trail. Nothing may crash or hang.
#include "fuzzChannel.h"
#include "vxGlobal.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

constexpr size_t kHeaderSize = 48;

/** The genuine sender's header hiding `length`, as its data packets carry it. */
vxfuzz::byteStream sealedHeader(vxfuzz::fuzzChannel& channel, uint32_t length)
{
    veltrix::vxNetTransportHeader& header = channel.sender.header;
    veltrix::vxBytes noPayload;
    veltrix::vxBytes sealed;
    header.Clear();
    header.SetPaddingSize(0);
    if (!header.HideSizeNeedle(length) ||
        !header.CreateCommonHeader(channel.sender.keys, noPayload) ||
        !header.GetEncryptedHeader(sealed) || sealed.bytes.size() != kHeaderSize) {
        std::abort();
    }
    return sealed.bytes;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    vxfuzz::inputReader input(data, size);
    const std::string& cipher = vxfuzz::cipherFor(input.byte());
    const bool raw = (input.byte() & 1U) != 0;
    vxfuzz::withChannel(cipher, [&input, raw](vxfuzz::fuzzChannel& channel) {
        const uint32_t length = input.quad();
        vxfuzz::byteStream wire =
            raw ? input.bytes(input.byte() % (2 * kHeaderSize)) : sealedHeader(channel, length);
        bool altered = false;
        while (!raw && !input.empty()) {
            const size_t at = input.byte() % kHeaderSize;
            const auto mask = static_cast<unsigned char>(input.byte() | 1U);
            wire[at] ^= mask;
            altered = true;
        }
        (void)channel.deliver(wire);
        veltrix::vxNetTransportHeader& header = channel.victim.header;
        const bool read = header.ReadFromWire(channel.victim.keys, &channel.victimPlain);
        if (!read && !::vxGlobal.stackTrace.errorLatch) {
            std::abort(); // a failure must leave the trail
        }
        if (raw) {
            // No head HMAC forged without the keys passes, and a short or missing header,
            // the end of the stream included, is a failure too.
            if (read) {
                std::abort();
            }
            return;
        }
        uint32_t found = 0;
        if ((!altered && !read) || (read && (!header.GetPayloadSize(found) || found != length))) {
            std::abort();
        }
    });
    return 0;
}
