/// @file
/// The plain TCP socket (fixed-size blocks in the clear, a receive that a wake-up pipe can
/// release), one socket option kept for later descriptors, and the encrypted socket on top.
///
/// A failure these classes record in the trail also sets the process-wide error latch: from then
/// on every guarded operation in the process refuses with "Unable to continue from previous
/// error" until the application clears the trail. The results documented below as a quiet false
/// (a connect time-out, an accept with nothing pending, an unknown mode name, a send after the
/// peer closed, a failed fcntl or pipe) record nothing themselves and leave the latch as it was;
/// a caller that checks the result (the open protocol, an encrypted send) may record it. On the
/// plain socket a peer that closes is no failure either: the receive sets `doDisconnect`. On the
/// encrypted socket a peer that closes without the disconnect command, or a lost, altered or
/// reordered packet, is a recorded failure, so it ends the session.
#pragma once

#include "network.h"
#include "vxBytes.h"
#include "vxNetStats.h"
#include "vxNetTransport.h"

#include <cstdint>
#include <memory>
#include <string>

struct addrinfo;
struct sockaddr_in;
struct sockaddr_in6;

namespace veltrix {

/** The file BindAndListen appends its progress to, when its directory exists. */
constexpr const char* VX_SOCKET_LOG_PATH = "/tmp/fw/log/vxNetSocket.log";

/** One TCP endpoint. Set the port, then the (numeric) address, then Connect, or BindAndListen
 *  and Accept. A socket is used by one thread at a time; the wake-up pipe is the one cross-thread
 *  device. Connected and accepted descriptors send small segments at once (TCP_NODELAY): an
 *  encrypted message is two sends, and its body must not wait for the peer's acknowledgement. */
class VX_API vxNetSocket : public vxBase
{
public:
    bool origin = false;       ///< true for the server's sockets, false for the client's
    bool doDisconnect = false; ///< the peer closed or the receive failed for good
    bool wakeupSeen = false;   ///< the last receive returned because of the wake-up pipe
    /** The listen backlog (setSoBacklog); 10 after Open. */
    uint32_t soBacklog = static_cast<uint32_t>(-1);
    uint8_t soMode = 0;          ///< the key-exchange mode (setKeyExchangeMode)
    int32_t sockFd = -1;         ///< the descriptor; -1 = none
    uint32_t connectTimeout = 0; ///< seconds; 0 = a plain blocking connect
    int32_t wakeupFd = 0;        ///< read end of the wake-up pipe; 0 = none
    std::string soPort;          ///< the port, as text (setPort)
    /** Kept for the application (setSecret) and wiped by Close; the library does not use it,
     *  but dumpSocketInfo prints it. */
    std::string soSecret;
    std::string soAddress;  ///< the numeric address that setAddress resolved
    std::string nodeName;   ///< the peer's address, recorded by Accept
    uint32_t soTimeout = 0; ///< seconds a receive waits for the first readiness; 0 = no limit
    /** VX_MAX_PACKET_SIZE bytes from Open to Close; every send and receive goes through it. */
    std::unique_ptr<unsigned char[]> packetBuffer;
    addrinfo* aitop = nullptr; ///< the resolver's list for `soAddress`; freed by Close

    vxNetSocket();
    LVX_NOT_COPYABLE(vxNetSocket);
    /** Reports an open socket like every library object, and releases its descriptor and
     *  resolver list even then. */
    ~vxNetSocket() override;

    using vxBase::Open;
    /** Resets every setting and allocates the packet buffer. Fails with "Object in incorrect
     *  state:  Expected closed, Inited: %d,  Opened: %d" when already open. */
    [[nodiscard]] bool Open(bool isOrigin);
    /** Frees the buffer and the resolver list; shuts down and closes the descriptor. The wake-up
     *  pipe stays open. Always true. */
    [[nodiscard]] bool Close() override;

    /** Stores the port that setAddress resolves with; always true. */
    [[nodiscard]] bool setPort(const std::string& port);
    /** Stores `secret` in `soSecret`, wiping the one before; always true. */
    [[nodiscard]] bool setSecret(const std::string& secret);
    /** Sets `soTimeout`, the receive time-out in seconds; always true. */
    [[nodiscard]] bool setTimeOut(uint32_t& seconds);
    /** Sets `connectTimeout` in seconds; always true. */
    [[nodiscard]] bool setConnectTimeout(uint32_t seconds);
    /** Sets the listen backlog for BindAndListen; always true. */
    [[nodiscard]] bool setSoBacklog(uint32_t& backlog);
    /** Accepts only mode 2; false without a message otherwise. */
    [[nodiscard]] bool setKeyExchangeMode(uint8_t mode);

    /** Resolves a numeric IPv4 or IPv6 address (never a host name) with the port set before.
     *  Fails with "The port must be set before the address." or "Socket error: " and the
     *  resolver's text. */
    [[nodiscard]] bool setAddress(const std::string& address);
    /** Set or clear O_NONBLOCK; false without a message when fcntl fails. */
    [[nodiscard]] bool setNonBlocking();
    /** Clears O_NONBLOCK; as setNonBlocking. */
    [[nodiscard]] bool setBlocking();
    /** A SOL_SOCKET option switched on or off. Fails with "setsockopt failed: " and the errno
     *  text. */
    [[nodiscard]] bool setSockOpt(uint32_t name, bool on);
    /** Creates the descriptor (SO_KEEPALIVE on) and connects to the resolved address. With a
     *  connect time-out, a peer that does not answer in time gives a quiet false (no message,
     *  latch clear, socket left non-blocking) that the caller may retry. A refused connection
     *  is not reported here: it shows on the first receive. Fails with "Unable to create
     *  socket: ", "connect() failed: " or "select() failed: " and the errno text, or "Address is
     *  not set." without a resolved address. */
    [[nodiscard]] bool Connect();
    /** Binds the resolved address and listens (SO_LINGER 1 s, SO_REUSEADDR, SO_KEEPALIVE), and
     *  leaves the listening descriptor non-blocking: wait until it is readable before Accept.
     *  Appends its progress to VX_SOCKET_LOG_PATH when that directory exists (the lines are lost
     *  otherwise, and when the log's name is anything but a regular file of this user or root,
     *  which is then left alone; binding goes on). Fails with "Port is not set.", "Address is
     *  not set.", or "Unable to create socket: ", "setsockopt() failed: ", "bind() failed: ",
     *  "listen() failed: " and the errno text. */
    [[nodiscard]] bool BindAndListen();
    /** Accepts one connection into `conn`, which must be open, and records the peer's IPv4
     *  address as its node name. Nothing pending (the listening socket is non-blocking) or any
     *  other accept error gives a quiet false. */
    [[nodiscard]] bool Accept(vxNetSocket& conn);
    /** The address in dotted decimal, without the port. */
    [[nodiscard]] bool setNodeName(const sockaddr_in& address);
    /** Not implemented: the node name becomes "Unimplmeneted ipv6 name" and the result is
     *  false. */
    [[nodiscard]] bool setNodeName(const sockaddr_in6& address);
    /** Every field, one per line, on standard output. */
    [[nodiscard]] bool dumpSocketInfo();

    /** Makes a pipe, keeps its read end and hands out the write end: one byte written into it
     *  releases a blocked RecvPlaintext. False without a message when pipe() fails. */
    [[nodiscard]] bool createWakeupFd(uint32_t& writeEnd);

    /** Sends all of `v` in one send() (at most VX_MAX_PACKET_SIZE bytes). False without a message
     *  once the peer has closed (`doDisconnect`). Fails with "bytes.size() <= maxSize" or
     *  "rv == (int)v.bytes.size()". A send failing with EPIPE is retried a few times. */
    [[nodiscard]] bool SendPlaintext(const vxBytes& v);
    /** Receives exactly `size` bytes (1 to VX_MAX_PACKET_SIZE) into `bytes`. True with `bytes`
     *  untouched when the wake-up pipe fired (`wakeupSeen`) or the peer closed (`doDisconnect`):
     *  check both flags after a true result. Fails with "size >= 1", "size <=
     *  veltrix::VX_MAX_PACKET_SIZE", "Select timeout expired." (after `soTimeout` seconds
     *  without data) or an empty message for a short block. */
    [[nodiscard]] bool RecvPlaintext(uint32_t size, vxBytes& bytes);

    /** The descriptor into `fd`; runs the standard guard. */
    [[nodiscard]] bool GetSocketFd(int32_t& fd);
    /** The peer's address recorded by Accept into `peerName`; runs the standard guard. */
    [[nodiscard]] bool GetNodeName(std::string& peerName);

private:
    [[nodiscard]] VX_NO_EXPORT bool waitFirstReadiness();
    [[nodiscard]] VX_NO_EXPORT bool takeWakeup();
    /** The descriptor of the first resolved address, kept in `sockFd`. */
    VX_NO_EXPORT void newDescriptor();
    /** The wait of a connect with a time-out. */
    [[nodiscard]] VX_NO_EXPORT bool awaitConnect();
    /** Closes the descriptor and frees the resolver list. */
    VX_NO_EXPORT void release();
    VX_NO_EXPORT void releaseDescriptor();
};

/** One socket option (level, name, value bytes) kept to be applied to later descriptors. */
class VX_API vxNetSockoptProperties : public vxBase
{
public:
    int32_t level = 0;                      ///< the setsockopt level
    int32_t name = 0;                       ///< the option name; hides the object name of vxBase
    uint32_t len = 0;                       ///< the value's length in bytes
    std::unique_ptr<unsigned char[]> value; ///< a copy of the value; none when `len` is 0

    vxNetSockoptProperties();
    LVX_NOT_COPYABLE(vxNetSockoptProperties);
    ~vxNetSockoptProperties() override;

    /** Nothing to prepare; true. */
    [[nodiscard]] bool Open() override;
    /** Frees the value. */
    [[nodiscard]] bool Close() override;
    /** Keeps a copy of `len` bytes at `optionValue`. False when the copy cannot be allocated. */
    [[nodiscard]] bool Set(int32_t optionLevel, int32_t optionName, const void* optionValue,
                           uint32_t length);
    /** setsockopt on `fd`; true when it succeeded. */
    [[nodiscard]] bool Apply(int32_t fd);
};

/** Encrypted, authenticated messages over a connected plain socket, which it borrows and never
 *  closes. Open it after the connect or accept, let the handshake seed its keys, then send and
 *  receive. One thread drives it; there is no lock.
 *
 *  Both ends advance their keys in lock-step, so a lost, altered or reordered packet, or a
 *  receive released by the wake-up pipe between a header and its body, ends the session. */
class VX_API vxNetEncryptedSocket : public vxBase
{
public:
    vxNetSocket* socket = nullptr; ///< borrowed
    vxBytes workBuffer;            ///< working bytes of a send or a receive
    vxBytes bodyBuffer;            ///< the body being sent or received
    vxCipherId cipherId;           ///< from the cipher mode
    vxHashId hashId;               ///< from the hash mode
    vxNetTransportKeys keys;       ///< the connection's keys, seeded by the handshake
    vxNetProtocolStats stats;      ///< the traffic counters
    vxNetTransportHeader header;   ///< the header of the packet in progress

    vxNetEncryptedSocket();
    LVX_NOT_COPYABLE(vxNetEncryptedSocket);
    ~vxNetEncryptedSocket() override;

    using vxBase::Open;
    /** Cipher mode "none", "aes128", "aes192" or "aes256"; hash mode "md5", "sha1", "sha256",
     *  "sha512", "sha384" or "sha256-128" (exact, case-sensitive). An unknown name gives a quiet
     *  false. The hash mode selects the handshake's digest, which must be 16 bytes long: only
     *  "md5" and "sha256-128" complete a handshake; the others fail its validation. `plain`
     *  must be the open, connected socket of this end. */
    [[nodiscard]] bool Open(const std::string& cipherMode, const std::string& hashMode,
                            vxNetSocket* plain);
    /** The same with hash mode "md5". */
    [[nodiscard]] bool Open(const std::string& cipherMode, vxNetSocket* plain);
    /** Closes every member; the plain socket stays open. Its ciphers cannot be opened again, so
     *  neither can the encrypted socket: open a new one for the next connection. */
    [[nodiscard]] bool Close() override;

    /** Sends one message of 0 to 16384 bytes as a 48-byte header and a body padded to a
     *  multiple of 16, and counts two sent messages: the header and the body. A larger payload
     *  fails with "bytes.size() <= maxSize" after its header went out. The peer cannot receive an
     *  empty payload: its receive fails with "size >= 1". */
    [[nodiscard]] bool SendEncrypted(const vxBytes& payload);
    /** Receives one message into `bytes`. True with `bytes` untouched means one of: the wake-up
     *  pipe fired (socket's `wakeupSeen`), or the peer sent the disconnect command (socket's
     *  `doDisconnect`), or a key re-exchange request arrived. A peer that closed without the
     *  disconnect command makes the receive fail ("tempBytes1.bytes.size() ==
     *  VX_HEADER_WIRE_SIZE") and latch. After a command header 16 more bytes are read and
     *  dropped, so a peer that sent the disconnect command should close its socket next; until
     *  it does, this receive waits. */
    [[nodiscard]] bool RecvEncrypted(vxBytes& bytes);
    /** Sends the disconnect command (a 48-byte header alone) and counts 64 sent bytes. Close the
     *  plain socket afterwards: the peer reads 16 bytes more and waits for them. */
    [[nodiscard]] bool SendClientDisconnect();
    /** Handles a command header whose size field is `sizeField`: reads and drops 16 bytes, then
     *  code (sizeField - 15) mod 65536: 1 marks the socket disconnected, 2 writes "Process a key
     *  re-exchange request." on standard output, any other writes "fail" and returns false. */
    [[nodiscard]] bool ProcessCommandPacket(uint32_t sizeField);
    /** Consults the re-key policy and ignores its answer; always true. */
    [[nodiscard]] bool ProcessReKey();
};

} // namespace veltrix
