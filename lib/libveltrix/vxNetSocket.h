// The plain TCP socket: fixed-size blocks in the clear, a receive that a wake-up pipe can release.
#pragma once

#include "network.h"
#include "vxBytes.h"

#include <cstdint>
#include <memory>
#include <string>

struct addrinfo;

namespace veltrix {

/** One TCP endpoint. A socket is used by one thread at a time; the wake-up pipe is the one
 *  cross-thread device. */
class VX_API vxNetSocket : public vxBase
{
public:
    bool origin = false;       ///< true for the server's sockets, false for the client's
    bool doDisconnect = false; ///< the peer closed or the receive failed for good
    bool wakeupSeen = false;   ///< the last receive returned because of the wake-up pipe
    uint32_t soBacklog = static_cast<uint32_t>(-1);
    uint8_t soMode = 0;
    int32_t sockFd = -1;
    uint32_t connectTimeout = 0; ///< seconds; 0 = a plain blocking connect
    int32_t wakeupFd = 0;        ///< read end of the wake-up pipe; 0 = none
    std::string soPort;
    std::string soSecret;
    std::string soAddress;
    std::string nodeName;
    uint32_t soTimeout = 0; ///< seconds a receive waits for the first readiness; 0 = no limit
    /** VX_MAX_PACKET_SIZE bytes from Open to Close; every send and receive goes through it. */
    std::unique_ptr<unsigned char[]> packetBuffer;
    addrinfo* aitop = nullptr;

    vxNetSocket();
    LVX_NOT_COPYABLE(vxNetSocket);
    ~vxNetSocket() override;

    using vxBase::Open;
    /** Resets every setting and allocates the packet buffer. Fails with "Object in incorrect
     *  state:  Expected closed, Inited: %d,  Opened: %d" when already open. */
    bool Open(bool isOrigin);
    /** Frees the buffer and the resolver list; shuts down and closes the descriptor. The wake-up
     *  pipe stays open. Always true. */
    bool Close() override;

    bool setPort(const std::string& port);
    bool setSecret(const std::string& secret);
    bool setTimeOut(uint32_t& seconds);
    bool setConnectTimeout(uint32_t seconds);
    bool setSoBacklog(uint32_t& backlog);
    /** Accepts only mode 2; false without a message otherwise. */
    bool setKeyExchangeMode(uint8_t mode);

    /** Makes a pipe, keeps its read end and hands out the write end: one byte written into it
     *  releases a blocked RecvPlaintext. False without a message when pipe() fails. */
    bool createWakeupFd(uint32_t& writeEnd);

    /** Sends all of `v` in one send() (at most VX_MAX_PACKET_SIZE bytes). False without a message
     *  once the peer has closed (`doDisconnect`). Fails with "bytes.size() <= maxSize" or
     *  "rv == (int)v.bytes.size()". A send failing with EPIPE is retried. */
    bool SendPlaintext(const vxBytes& v);
    /** Receives exactly `size` bytes (1 to VX_MAX_PACKET_SIZE) into `bytes`. True with `bytes`
     *  untouched when the wake-up pipe fired (`wakeupSeen`) or the peer closed (`doDisconnect`):
     *  check both flags after a true result. Fails with "size >= 1", "size <=
     *  veltrix::VX_MAX_PACKET_SIZE", "Select timeout expired." (after `soTimeout` seconds
     *  without data) or an empty message for a short block. */
    bool RecvPlaintext(uint32_t size, vxBytes& bytes);

    bool GetSocketFd(int32_t& fd);
    bool GetNodeName(std::string& peerName);

private:
    bool waitFirstReadiness();
    bool takeWakeup();
};

} // namespace veltrix
