/// @file
/// The session layer: an encrypted client or a multi-client server in a few lines, where every
/// session fails on its own.
///
/// It is built on the library's public classes and speaks exactly their protocol: a session
/// client talks to a server written with vxNetServer, and a vxNetClient to a session server.
/// What it adds is isolation. The library keeps one error latch for the whole process; the
/// session layer makes every library call under one process-wide lock, turns a failure into a
/// session::error naming its cause in words, and clears the latch before the lock is released.
/// A server drives all its sessions on the thread that calls run(): a handshake advances one
/// message at a time as its bytes arrive, and a packet is handed to the library only once all of
/// it is there, so no peer can make the server wait, and one peer's failure ends its own session.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

/** Marks what the session library exports; everything else in it stays inside. */
#define VX_SESSION_API __attribute__((visibility("default")))

namespace veltrix::session {

/** Why a call or a session failed. */
enum class cause
{
    refused,            ///< no server listens there, or the address cannot be reached
    timedOut,           ///< the peer did not answer within the time allowed
    wrongSecretOrModes, ///< the peers do not share the secret, or use other cipher or hash modes
    peerClosed,         ///< the peer closed the connection, crashed, or reset it
    payloadSize,        ///< a payload of 0 bytes or of more than maxPayload
    protocol,           ///< the peer's bytes are not the transport's: altered, another protocol,
                        ///< or another cipher mode
    slowPeer,           ///< the peer does not take what it is sent: more than maxQueued bytes
                        ///< wait for it, or it took none of them within receiveTimeout
    system,             ///< a system call failed (out of descriptors, memory, ...)
    setup,              ///< a bad argument, plug-in, secret file or mode name
    stopped             ///< the server was stopped, or the session closed by this end
};

/** The cause as words: "refused", "timed out", "wrong secret or modes", "peer closed", "payload
 *  size", "protocol", "slow peer", "system", "setup", "stopped". */
VX_SESSION_API const char* causeName(cause why) noexcept;

/** A failure of the session layer; what() is one line naming the cause and the peer. */
class VX_SESSION_API error : public std::runtime_error
{
public:
    /** An error of cause `why` described by `text`. */
    error(cause why, const std::string& text);

    /** The cause. */
    [[nodiscard]] cause why() const noexcept { return reason; }

private:
    cause reason;
};

/** Message bytes. */
using bytes = std::vector<unsigned char>;
/** Every time-out of the session layer. */
using milliseconds = std::chrono::milliseconds;

/** The largest payload a message may carry: one packet of the transport. */
constexpr size_t maxPayload = 16384;

/** The cipher and hash modes; both ends must choose the same. */
struct modes
{
    std::string cipher = "aes256"; ///< "none", "aes128", "aes192" or "aes256"
    std::string hash = "md5";      ///< "md5" or "sha256-128": the handshake needs 16-byte digests
};

/** Whether the library's process-wide error latch is set (then every guarded library call
 *  refuses until vxBase::lvxClearLastError). The session layer never leaves it set. */
[[nodiscard]] VX_SESSION_API bool errorLatched();

/** The crypto plug-in, loaded once for the process. Create one before any client or server and
 *  keep it for as long as they live. A second context in the same process shares the first's
 *  plug-in; an application that loaded the plug-in itself (vxMain::LoadPlugin) may still create
 *  one: it finds the plug-in loaded and uses it. */
class VX_SESSION_API context
{
public:
    /** Loads "libveltrix_openssl.so" from `pluginDir`, or from defaultPluginDir() when it is
     *  empty. Throws error(setup) naming the directory when the plug-in cannot be loaded. */
    explicit context(const std::string& pluginDir = std::string());
    context(const context&) = delete;
    context& operator=(const context&) = delete;
    context(context&&) = delete;
    context& operator=(context&&) = delete;
    ~context();

    /** The environment variable VELTRIX_PLUGIN_DIR when it is set and not empty; else the
     *  directory where the package installed the plug-in, found from where this library itself
     *  was loaded (PREFIX/lib/secure for a library in PREFIX/lib). */
    static std::string defaultPluginDir();

    /** The directory the plug-in was loaded from; empty when it was already loaded. */
    [[nodiscard]] const std::string& pluginDir() const { return directory; }

private:
    std::string directory;
};

/** The pre-shared secret; its bytes are wiped when it is destroyed. */
class VX_SESSION_API secret
{
public:
    /** The content of `path` without one trailing LF or CRLF. Throws error(setup) when the file
     *  is not a regular file, belongs to another user (other than root), is open to group or
     *  others, is larger than 4096 bytes, or is empty. */
    static secret fromFile(const std::string& path);
    /** `size` bytes at `data`; throws error(setup) for none. */
    static secret fromBytes(const void* data, size_t size);

    /** A copy of `other`'s bytes. */
    secret(const secret& other) = default;
    /** Takes a copy of `other`'s bytes. */
    secret& operator=(const secret& other) = default;
    /** Takes `other`'s bytes. */
    secret(secret&& other) noexcept = default;
    /** Takes `other`'s bytes. */
    secret& operator=(secret&& other) noexcept = default;
    ~secret();

    /** The secret's bytes. */
    [[nodiscard]] const bytes& value() const { return key; }

private:
    explicit secret(bytes material);
    bytes key;
};

/** The connecting end of one session. Every operation throws error; after one that names a cause
 *  other than payloadSize, the session is over and the client can only be closed or destroyed.
 *  One client is used by one thread at a time; clients on different threads are independent. */
class VX_SESSION_API client
{
public:
    /** A client that will prove it holds `key`, with `chosen` modes. Throws error(setup) for an
     *  unknown mode name. */
    client(const context& loaded, secret key, modes chosen = modes());
    client(const client&) = delete;
    client& operator=(const client&) = delete;
    client(client&&) = delete;
    client& operator=(client&&) = delete;
    /** close(), with any error it meets dropped. */
    ~client();

    /** Connects to `host` (a name or a numeric address) at `port` and runs the handshake, both
     *  within `timeout` (a host name's lookup comes first and is bounded by the resolver's own
     *  time-outs). Each address a name stands for is tried in turn. Causes: refused, timedOut,
     *  wrongSecretOrModes, peerClosed, protocol, setup (a name that cannot be resolved). */
    void connect(const std::string& host, const std::string& port,
                 milliseconds timeout = std::chrono::seconds(10));

    /** Sends one message of 1 to maxPayload bytes, waiting at most `timeout` for the network to
     *  take it. A size outside the bounds throws error(payloadSize) before anything is sent,
     *  and the session goes on. */
    void send(const void* data, size_t size, milliseconds timeout = std::chrono::seconds(30));

    /** send() of the bytes of `payload`. */
    void send(const bytes& payload, milliseconds timeout = std::chrono::seconds(30))
    {
        send(payload.data(), payload.size(), timeout);
    }

    /** send() of the characters of `text`. */
    void send(std::string_view text, milliseconds timeout = std::chrono::seconds(30))
    {
        send(text.data(), text.size(), timeout);
    }

    /** The next message, waiting at most `timeout` for it. Causes: timedOut (when part of a
     *  packet had arrived the session is over, else it goes on), peerClosed (also when the peer
     *  sent the disconnect command), protocol, payloadSize (the peer announced a size the
     *  transport does not carry). */
    bytes receive(milliseconds timeout);

    /** Sends the disconnect command when the session is up, then closes the connection. Safe
     *  to call more than once. */
    void close();

    /** Whether the handshake is done and the session has not ended. */
    [[nodiscard]] bool connected() const;

private:
    struct state;
    std::unique_ptr<state> self;
};

/** One session of a server, from onOpen until onEnd returns. Only the server's handlers use it,
 *  on the thread that runs the server. */
class VX_SESSION_API connection
{
public:
    connection() = default;
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;
    connection(connection&&) = delete;
    connection& operator=(connection&&) = delete;
    virtual ~connection() = default;

    /** The session's number, counted from 1 in the order of accepts. */
    [[nodiscard]] virtual uint64_t id() const = 0;
    /** The peer's address as "ADDR:PORT". */
    [[nodiscard]] virtual const std::string& peer() const = 0;
    /** Queues one message of 1 to maxPayload bytes for the peer; it leaves as the network takes
     *  it. Throws error(payloadSize) before anything is queued for a size outside the bounds. */
    virtual void send(const void* data, size_t size) = 0;

    /** send() of the bytes of `payload`. */
    void send(const bytes& payload) { send(payload.data(), payload.size()); }

    /** send() of the characters of `text`. */
    void send(std::string_view text) { send(text.data(), text.size()); }

    /** Ends the session once what was queued has left; onEnd then gets error(stopped). */
    virtual void close() = 0;
};

/** Limits of a server; a time-out of 0 is none. */
struct serverOptions
{
    modes chosen;                               ///< the modes every client must use
    milliseconds handshakeTimeout{10000};       ///< from the accept to the end of the handshake
    milliseconds receiveTimeout{30000};         ///< for the rest of a packet once it began, and
                                                ///< for the peer to take some of what waits for it
    milliseconds idleTimeout{0};                ///< with nothing from the peer in between
    size_t maxSessions = 1000;                  ///< further connections are closed at once
    size_t maxQueued = size_t{4} * 1024 * 1024; ///< bytes queued for one slow peer
};

/** A server of many sessions on one thread: the thread that calls run(). Handshakes run beside
 *  the open sessions, and each session ends alone, with its own error. */
class VX_SESSION_API server
{
public:
    /** A session finished its handshake. */
    std::function<void(connection&)> onOpen;
    /** A message arrived on a session. */
    std::function<void(connection&, const bytes&)> onMessage;
    /** A session ended: `why` is null when the peer sent the disconnect command, else the error
     *  that ended it. Sessions that fail in their handshake end here too, without an onOpen. */
    std::function<void(connection&, const error* why)> onEnd;

    /** A server proving it holds `key`. Throws error(setup) for an unknown mode name. */
    server(const context& loaded, secret key, serverOptions limits = serverOptions());
    server(const server&) = delete;
    server& operator=(const server&) = delete;
    server(server&&) = delete;
    server& operator=(server&&) = delete;
    ~server();

    /** Listens on `host` (a numeric address, or "" for every IPv4 address) and `port` ("0" lets
     *  the system choose). Throws error(setup) or error(system). */
    void listen(const std::string& host, const std::string& port);
    /** The port listened on. */
    [[nodiscard]] uint16_t port() const;

    /** Serves until stop(); a handler that throws ends its own session with error(setup), and
     *  the others go on. Sessions still open at stop() end with error(stopped). */
    void run();
    /** Makes run() return soon; callable from any thread and from a signal handler. */
    void stop() noexcept;

private:
    struct state;
    std::unique_ptr<state> self;
};

} // namespace veltrix::session
