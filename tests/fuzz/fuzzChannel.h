// One encrypted connection inside the fuzzing process, already past its handshake: a sender end
// whose packets are captured into memory, and a victim end that receives whatever bytes a fuzz
// target hands it. Both are keyed from fixed seeds and the sender pads with the test-mode random
// stream, so every input replays byte for byte. Each input gets a fresh channel and leaves the
// process as it found it: error latch clear, no descriptor open.
#pragma once

#include "vxMain.h"
#include "vxNetSocket.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace vxfuzz {

using byteStream = std::vector<unsigned char>;

/** Reads the fuzz input front to back; past its end every read gives zeros. */
class inputReader
{
public:
    inputReader(const uint8_t* data, size_t size) : at(data), left(size) {}

    [[nodiscard]] bool empty() const { return left == 0; }

    uint8_t byte();
    uint16_t word();
    uint32_t quad();
    /** Up to `count` bytes, fewer when the input ends. */
    byteStream bytes(size_t count);

private:
    const uint8_t* at;
    size_t left;
};

/** The root object of the fuzzing process. The first call loads the plug-in (aborting when it
 *  cannot) and points standard output, where the library reports unknown commands, at
 *  /dev/null. */
class fuzzFrame : public veltrix::vxMain
{
public:
    static fuzzFrame& get();

    bool main(int /*argc*/, char** /*argv*/) override { return true; }

    /** PreClose, Close and PostClose of an open object. */
    static void close(veltrix::vxBase& child);
    /** The end of an input: clears the error latch (a failing input leaves it set, and a
     *  latched object refuses to close), then closes `object`, which must succeed. */
    static void finish(veltrix::vxBase& object);
};

/** The two ends. The victim is the server side (opened with side true), the sender the client. */
class fuzzChannel : public veltrix::vxBase
{
public:
    veltrix::vxNetSocket senderPlain;
    veltrix::vxNetSocket victimPlain;
    veltrix::vxNetEncryptedSocket sender;
    veltrix::vxNetEncryptedSocket victim;

    fuzzChannel();
    LVX_NOT_COPYABLE(fuzzChannel);
    ~fuzzChannel() override;

    using vxBase::Open;
    /** Two socket pairs (sender and its capture end, victim and its feeding end), both encrypted
     *  sockets opened with `cipher` and seeded alike. */
    bool Open(const std::string& cipher);
    bool Close() override;

    /** Appends everything the sender has written since the last call to `stream`. */
    bool capture(byteStream& stream);
    /** Writes `stream` where the victim reads, then ends that direction, so the victim meets
     *  end of file after the last byte instead of waiting. False when the stream did not fit
     *  and was cut. */
    bool deliver(const byteStream& stream);

    /** The harness's end of the sender's socket: what the sender writes arrives here, and what
     *  is written here the sender receives. */
    int captureFd = -1;
    /** The harness's end of the victim's socket (non-blocking): what is written here the victim
     *  receives, and what the victim writes arrives here. */
    int feedFd = -1;
};

/** Opens a channel, runs `body` on it, and finishes it. Aborts when the channel cannot be set
 *  up: that is a fault of the fuzzing harness, not of the input. */
template <class Body> void withChannel(const std::string& cipher, Body&& body)
{
    fuzzChannel channel;
    if (!fuzzFrame::get().openChild(channel, cipher)) {
        std::abort();
    }
    body(channel);
    fuzzFrame::finish(channel);
}

/** The cipher mode an input byte selects. */
const std::string& cipherFor(uint8_t choice);

} // namespace vxfuzz
