#include "fuzzChannel.h"

#include "vxGlobal.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace vxfuzz {

namespace {

const veltrix::vxBytes& seed(unsigned char first)
{
    static std::array<veltrix::vxBytes, 2> seeds;
    veltrix::vxBytes& chosen = seeds.at(first == 0 ? 0 : 1);
    if (chosen.bytes.empty()) {
        for (unsigned char i = 0; i < 16; ++i) {
            chosen.bytes.push_back(static_cast<unsigned char>(first + i));
        }
    }
    return chosen;
}

bool socketPair(int& mine, int& theirs)
{
    int fds[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
        return false;
    }
    mine = fds[0];
    theirs = fds[1];
    return true;
}

void closeFd(int& fd)
{
    if (fd >= 0) {
        (void)::close(fd);
        fd = -1;
    }
}

} // namespace

uint8_t inputReader::byte()
{
    if (left == 0) {
        return 0;
    }
    --left;
    return *at++;
}

uint16_t inputReader::word()
{
    const uint16_t high = byte();
    return static_cast<uint16_t>((high << 8U) | byte());
}

uint32_t inputReader::quad()
{
    const uint32_t high = word();
    return (high << 16U) | word();
}

byteStream inputReader::bytes(size_t count)
{
    const size_t taken = count < left ? count : left;
    byteStream out(at, at + taken);
    at += taken;
    left -= taken;
    return out;
}

fuzzFrame& fuzzFrame::get()
{
    static fuzzFrame frame;
    static const bool ready = [] {
        const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (null < 0 || dup2(null, STDOUT_FILENO) < 0) {
            return false;
        }
        (void)::close(null);
        frame.api.setSearchPath(VX_PLUGIN_DIR);
        return frame.LoadPlugin("openssl");
    }();
    if (!ready) {
        std::abort();
    }
    return frame;
}

void fuzzFrame::close(veltrix::vxBase& child)
{
    if (child.opened) {
        (void)child.PreClose();
        (void)child.Close();
        (void)child.PostClose();
    }
}

void fuzzFrame::finish(veltrix::vxBase& object)
{
    veltrix::vxBase::lvxClearLastError();
    close(object);
    if (object.opened || ::vxGlobal.stackTrace.errorLatch) {
        std::abort();
    }
}

fuzzChannel::fuzzChannel()
{
    LVX_INIT_OBJECT();
}

fuzzChannel::~fuzzChannel()
{
    LVX_DESTRUCT();
    closeFd(captureFd);
    closeFd(feedFd);
}

bool fuzzChannel::Open(const std::string& cipher)
{
    int senderFd = -1;
    int victimFd = -1;
    if (!socketPair(senderFd, captureFd) || !socketPair(victimFd, feedFd)) {
        closeFd(senderFd);
        return false;
    }
    // A stream larger than the socket buffer is cut rather than left to block the target.
    (void)fcntl(feedFd, F_SETFL, O_NONBLOCK);
    LVX_CALL_OPEN(senderPlain, false);
    senderPlain.sockFd = senderFd;
    LVX_CALL_OPEN(victimPlain, true);
    victimPlain.sockFd = victimFd;
    LVX_CALL_OPEN(sender, cipher, &senderPlain);
    LVX_CALL_OPEN(victim, cipher, &victimPlain);
    // Padding and haystacks from the reproducible stream at both ends: an input means the same
    // bytes twice.
    return sender.header.rand.SetTestMode() && victim.header.rand.SetTestMode() &&
           sender.keys.ReSeed(seed(0x00), seed(0x10)) && victim.keys.ReSeed(seed(0x00), seed(0x10));
}

bool fuzzChannel::Close()
{
    for (veltrix::vxBase* child :
         {static_cast<veltrix::vxBase*>(&sender), static_cast<veltrix::vxBase*>(&victim),
          static_cast<veltrix::vxBase*>(&senderPlain),
          static_cast<veltrix::vxBase*>(&victimPlain)}) {
        fuzzFrame::close(*child);
    }
    closeFd(captureFd);
    closeFd(feedFd);
    return true;
}

bool fuzzChannel::capture(byteStream& stream)
{
    unsigned char chunk[4096];
    for (;;) {
        const ssize_t got = recv(captureFd, chunk, sizeof chunk, MSG_DONTWAIT);
        if (got > 0) {
            stream.insert(stream.end(), chunk, chunk + got);
            continue;
        }
        return got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    }
}

bool fuzzChannel::deliver(const byteStream& stream)
{
    size_t sent = 0;
    while (sent < stream.size()) {
        const ssize_t wrote = write(feedFd, stream.data() + sent, stream.size() - sent);
        if (wrote <= 0) {
            break; // full: the rest is cut off, as a peer that closed early would do
        }
        sent += static_cast<size_t>(wrote);
    }
    return shutdown(feedFd, SHUT_WR) == 0 && sent == stream.size();
}

const std::string& cipherFor(uint8_t choice)
{
#define VX_FUZZ_CIPHER_NAME(identifier, id, name, bytes) name,
    static const std::array<std::string, 4> modes = {VX_CIPHER_ALGORITHMS(VX_FUZZ_CIPHER_NAME)};
#undef VX_FUZZ_CIPHER_NAME
    return modes.at(choice % modes.size());
}

} // namespace vxfuzz
