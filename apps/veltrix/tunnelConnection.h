// One connection of `veltrix tunnel`, from its accept to its close, driven by a worker's event
// loop: the TCP connect that has to be made, the handshake one 16-byte message at a time, then
// the stream relay.
//
// A worker serves many connections on one thread and never lets the library wait: a handshake
// step runs only once its 16 bytes have arrived, a packet is received only once all of it has
// arrived (relay.h), and every send goes into a local socket pair. The library's error latch is
// process-wide, but calls on one thread never overlap: when a call on one connection fails, the
// connection logs why, clears the latch and the trail, and closes before any other connection is
// touched. So one hostile or failing peer ends its own connection and nothing else.
#pragma once

#include "relay.h"
#include "resolver.h"
#include "tunnelLog.h"
#include "vxNetAuth.h"

#include <sys/socket.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vxcli {

/** What every connection of one service shares. */
struct serviceSetup
{
    cliFrame& frame;
    std::string name; ///< the service's name; empty for the command line's one service
    bool server;      ///< accepts encrypted connections
    endpoint target;  ///< where each connection goes
    std::vector<socketAddress> targetAddresses; ///< the target, when numeric; else looked up
    veltrix::vxBytes secret;
    channelOptions channel;
    unsigned maxConnections;
    unsigned authTimeout;
    unsigned maxHandshakesPerSource;

    /** "web: " before the lines of a named service. */
    [[nodiscard]] std::string prefix() const { return name.empty() ? name : name + ": "; }
};

class tunnelConnection;

/** What a connection tells the worker that serves it, and asks of it. */
class connectionHost
{
public:
    connectionHost() = default;
    LVX_NOT_COPYABLE(connectionHost);
    virtual ~connectionHost() = default;

    /** The connection's limits must be checked by `when` at the latest. */
    virtual void checkBy(steadyClock::time_point when) = 0;
    /** The peer proved that it holds the secret. */
    virtual void authenticated(tunnelConnection& connection) = 0;
    /** The connection ended; it may be destroyed once the current event is handled. */
    virtual void finished(tunnelConnection& connection) = 0;
    /** Where host names are looked up. */
    virtual resolver& names() = 0;
};

class tunnelConnection
{
public:
    /** Takes `accepted`, from `peerAddress`; `number` names the connection in the log. */
    tunnelConnection(eventLoop& owner, connectionHost& worker, const serviceSetup& shared,
                     int accepted, uint32_t number, const std::string& peerAddress);
    LVX_NOT_COPYABLE(tunnelConnection);
    ~tunnelConnection();

    /** Starts the connection's first step. */
    void start();

    [[nodiscard]] bool finished() const { return state == phase::finished; }

    /** When a limit passes next; time_point::max() for none. */
    [[nodiscard]] steadyClock::time_point deadline() const;
    /** Ends the connection when a limit passed by `now`. */
    void checkLimits(steadyClock::time_point now);
    /** Ends the connection at once with `why` in the log. */
    void end(const std::string& why);
    /** Logs where the connection stands: its age, its step, the bytes each way. */
    void report() const;

    [[nodiscard]] const serviceSetup& service() const { return setup; }

    /** The worker's mark for the handshakes counted against the peer's address; -1 for none. */
    int sourceMark = -1;

private:
    enum class phase
    {
        connectingPeer,    ///< client end: the TCP connect to the server tunnel
        handshake,         ///< 16-byte messages, one step at a time
        connectingService, ///< server end: the TCP connect to the service
        relaying,
        finished
    };

    /** The handshake message this end waits for. */
    enum class expect
    {
        version,
        challengeRequest,
        challengeResponse
    };

    /** This end's progress through the handshake, one 16-byte message at a time. */
    struct handshakeProgress
    {
        expect awaiting = expect::challengeResponse;
        byteQueue toPeer;               ///< messages the network has not taken yet
        unsigned char message[48] = {}; ///< messages from the peer, not yet taken
        size_t messageBytes = 0;
        size_t left = 0;                   ///< bytes of the peer's part still to come
        unsigned char firstBytes[16] = {}; ///< the peer's first bytes, to tell a foreign protocol
        size_t firstCount = 0;
        bool answerSent = false; ///< client end: this end's answer to the server's challenge left

        /** What the peer's first bytes show when it speaks another protocol; empty if not. */
        [[nodiscard]] std::string foreign() const;
    };

    /** The connection to the target: the server tunnel (client end) or the service (server end,
     *  made once the peer proved it holds the secret). */
    struct targetProgress
    {
        std::vector<socketAddress> addresses; ///< the target's, tried in turn
        size_t index = 0;                     ///< the address being tried
        uint64_t lookupTicket = 0;            ///< the lookup of its name under way; 0: none
        steadyClock::time_point deadline = steadyClock::time_point::max();
        bool ready = false;  ///< connected
        std::string problem; ///< server end: why the service could not be reached at once
    };

    /** Which descriptor a readiness report is about. */
    enum class side
    {
        peer,
        plain
    };

    class target : public pollTarget
    {
    public:
        target(tunnelConnection& owner, side which) : connection(owner), role(which) {}

        void ready(uint32_t events) override { connection.ready(role, events); }

    private:
        tunnelConnection& connection;
        side role;
    };

    void ready(side which, uint32_t events);
    void guarded(const std::function<void()>& action);
    void step(side which);
    void connectTarget();
    void tryAddress(size_t index);
    void targetWritable();
    void targetConnected();
    void beginHandshake();
    void sendHandshake();
    void readHandshake();
    void handshakeMessage();
    void finishHandshake();
    void startRelay();
    [[nodiscard]] std::string handshakeFailure(const std::string& why) const;
    [[nodiscard]] std::string tally() const;
    void fail(const std::string& why);
    void close();
    void release();

    eventLoop& loop;
    connectionHost& host;
    const serviceSetup& setup;
    std::string prefix; ///< "web: connection 3 from 10.0.0.2:40000: "
    steadyClock::time_point began = steadyClock::now();
    phase state = phase::handshake;
    int peer = -1;  ///< the encrypted side's TCP connection
    int plain = -1; ///< the application's or the service's TCP connection
    target peerTarget{*this, side::peer};
    target plainTarget{*this, side::plain};
    std::string peerName;
    veltrix::vxNetSocket socket;
    veltrix::vxNetEncryptedSocket channel;
    std::unique_ptr<veltrix::vxNetPSKChallengeResponse> handshake;
    std::optional<packetPipe> pipe;
    handshakeProgress exchange;
    targetProgress dialing;
    std::optional<streamRelay> relay;
    steadyClock::time_point stepDeadline = steadyClock::time_point::max();
    std::string stepLimit; ///< what passing stepDeadline means
};

} // namespace vxcli
