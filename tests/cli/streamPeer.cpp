// The test's end of the stream protocol: cells built here, packets sealed by the library.
#include "streamPeer.h"

#include "cliRun.h"
#include "vxLoopback.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vxclitest {

namespace cells {

namespace {

std::vector<unsigned char> cell(unsigned char kind, uint16_t next)
{
    return {kind, static_cast<unsigned char>(next >> 8U), static_cast<unsigned char>(next & 0xFFU)};
}

} // namespace

std::vector<unsigned char> data(const std::string& bytes, uint16_t next)
{
    std::vector<unsigned char> built = cell(0, next);
    built.insert(built.end(), bytes.begin(), bytes.end());
    return built;
}

std::vector<unsigned char> end()
{
    return cell(1, 0);
}

} // namespace cells

streamPeer::streamPeer(vxtest::testFrame& owner) : frame(owner) {}

streamPeer::~streamPeer()
{
    close();
}

bool streamPeer::fail(const std::string& text)
{
    why = text;
    return false;
}

bool streamPeer::connect(int port, const std::string& secret, uint32_t seconds)
{
    if (!vxtest::connectOnLoopback(frame, client, std::to_string(port), "aes256", "md5")) {
        return fail("cannot connect to port " + std::to_string(port) + ": " +
                    vxtest::firstMessage());
    }
    // The library's own limit covers the wait for each read's first byte, the socket's the rest
    // of it and every send.
    uint32_t wait = seconds;
    const timeval limit{static_cast<time_t>(seconds), 0};
    if (!client.socket.setTimeOut(wait) ||
        setsockopt(fd(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0 ||
        setsockopt(fd(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0) {
        return fail("cannot set the time limits");
    }
    if (!client.PerformKeyExchange(vxtest::bytesOf(secret))) {
        return fail("the handshake failed: " + vxtest::firstMessage());
    }
    return openCapture();
}

bool streamPeer::openCapture()
{
    int pair[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
        return fail("socketpair failed");
    }
    if (!frame.openChild(capture, false)) {
        (void)::close(pair[0]);
        (void)::close(pair[1]);
        return fail("cannot open the capture socket: " + vxtest::firstMessage());
    }
    capture.sockFd = pair[0];
    captureRead = pair[1];
    return true;
}

std::string streamPeer::captured()
{
    std::string bytes;
    char chunk[1 << 14];
    ssize_t got = 0;
    while ((got = recv(captureRead, chunk, sizeof chunk, MSG_DONTWAIT)) > 0) {
        bytes.append(chunk, static_cast<size_t>(got));
    }
    return bytes;
}

std::string streamPeer::sealWith(const std::function<bool(veltrix::vxNetEncryptedSocket&)>& send,
                                 const std::string& what)
{
    veltrix::vxNetEncryptedSocket& channel = client.encryptedSocket;
    veltrix::vxNetSocket* network = channel.socket;
    channel.socket = &capture;
    const bool sealed = send(channel);
    channel.socket = network;
    if (!sealed) {
        (void)fail("sealing " + what + " failed: " + vxtest::firstMessage());
        return "";
    }
    return captured();
}

std::string streamPeer::seal(const std::vector<unsigned char>& payload)
{
    veltrix::vxBytes bytes;
    bytes.bytes = payload;
    return sealWith(
        [&bytes](veltrix::vxNetEncryptedSocket& channel) { return channel.SendEncrypted(bytes); },
        "a packet");
}

std::string streamPeer::sealDisconnect()
{
    return sealWith(
        [](veltrix::vxNetEncryptedSocket& channel) { return channel.SendClientDisconnect(); },
        "the disconnect command");
}

std::string streamPeer::sealCommand(uint32_t code)
{
    return sealWith(
        [code](veltrix::vxNetEncryptedSocket& channel) {
            return channel.header.CreateCmdMessage(code, channel.keys, channel.socket);
        },
        "command " + std::to_string(code));
}

std::vector<std::string> streamPeer::sealData(const std::string& bytes)
{
    std::vector<std::string> packets;
    for (size_t at = 0; at < bytes.size();) {
        const size_t take =
            std::min(bytes.size() - at, cells::kBlock * nextOut - cells::kCellHeader);
        const size_t following = bytes.size() - at - take;
        const uint16_t next =
            following == 0 ? 1 : cells::blocksFor(std::min(following, cells::kMaxData));
        packets.push_back(seal(cells::data(bytes.substr(at, take), next)));
        nextOut = next;
        at += take;
    }
    return packets;
}

std::string streamPeer::sealEnd()
{
    nextOut = 0;
    return seal(cells::end());
}

bool streamPeer::sendRaw(const std::string& bytes)
{
    return sendAll(fd(), bytes) || fail("sending failed: " + std::string(std::strerror(errno)));
}

bool streamPeer::sendSealed(const std::string& packet)
{
    return !packet.empty() && sendRaw(packet);
}

bool streamPeer::sendData(const std::string& bytes)
{
    const std::vector<std::string> packets = sealData(bytes);
    return std::all_of(packets.begin(), packets.end(),
                       [this](const std::string& packet) { return sendSealed(packet); });
}

bool streamPeer::sendEnd()
{
    return sendSealed(sealEnd());
}

bool streamPeer::sendDisconnect()
{
    return sendSealed(sealDisconnect());
}

bool streamPeer::receive(receivedCell& cell)
{
    veltrix::vxNetEncryptedSocket& channel = client.encryptedSocket;
    veltrix::vxBytes payload;
    if (!channel.RecvEncrypted(payload)) {
        return fail("receiving failed: " + vxtest::firstMessage());
    }
    if (client.socket.doDisconnect) {
        return fail("the other end sent the disconnect command");
    }
    const uint32_t body = channel.header.sizeWithPadding;
    if (body != cells::kBlock * nextIn) {
        return fail("a packet with a body of " + std::to_string(body) + " bytes where " +
                    std::to_string(cells::kBlock * nextIn) + " were announced");
    }
    const std::vector<unsigned char>& bytes = payload.bytes;
    if (bytes.size() < cells::kCellHeader || bytes[0] > 1) {
        return fail("a cell of an unknown kind");
    }
    cell.kind = bytes[0];
    cell.next = static_cast<uint16_t>((bytes[1] << 8U) | bytes[2]);
    cell.data.assign(bytes.begin() + cells::kCellHeader, bytes.end());
    if (cell.kind == 1 && (!cell.data.empty() || cell.next != 0)) {
        return fail("an end cell with data or an announcement");
    }
    if (cell.kind == 0 && (cell.data.empty() || cell.next == 0 || cell.next > cells::kMaxBlocks)) {
        return fail("a data cell without data or announcing " + std::to_string(cell.next) +
                    " blocks");
    }
    nextIn = cell.next;
    return true;
}

bool streamPeer::receiveStream(std::string& data)
{
    receivedCell cell;
    do {
        if (!receive(cell)) {
            return false;
        }
        data += cell.data;
    } while (cell.kind == 0);
    return true;
}

bool streamPeer::receiveData(size_t count, std::string& data)
{
    receivedCell cell;
    while (data.size() < count) {
        if (!receive(cell)) {
            return false;
        }
        if (cell.kind != 0) {
            return fail("the end cell after " + std::to_string(data.size()) + " of " +
                        std::to_string(count) + " bytes");
        }
        data += cell.data;
    }
    return true;
}

void streamPeer::close()
{
    // The other end's failure may have latched the library; a latched object refuses to close.
    veltrix::vxBase::lvxClearLastError();
    vxtest::closeIfOpen(capture);
    if (captureRead >= 0) {
        (void)::close(captureRead);
        captureRead = -1;
    }
    vxtest::closeClient(client);
    veltrix::vxBase::lvxClearLastError();
}

} // namespace vxclitest
