// One tunnel connection: connect, handshake step by step, relay, close.
#include "tunnelConnection.h"

#include "handshake.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

namespace vxcli {

using namespace veltrix;

namespace {

constexpr size_t kMessage = 16;

/** A non-blocking TCP connection to `address`, under way; -1 with errno when it failed at once. */
int startConnect(const socketAddress& address)
{
    const int fd = socket(address.address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address.address), address.length) != 0 &&
        errno != EINPROGRESS) {
        const int error = errno;
        (void)close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

/** Small messages leave at once, and a dead peer is noticed in the end. */
void tuneSocket(int fd)
{
    const int on = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    (void)setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
}

std::string secondsText(steadyClock::duration elapsed)
{
    char text[32];
    (void)std::snprintf(text, sizeof text, "%.3f s",
                        std::chrono::duration<double>(elapsed).count());
    return text;
}

} // namespace

std::string tunnelConnection::handshakeProgress::foreign() const
{
    return foreignProtocol(firstBytes, firstCount);
}

tunnelConnection::tunnelConnection(eventLoop& owner, connectionHost& worker,
                                   const serviceSetup& shared, int accepted, uint32_t number,
                                   const std::string& peerAddress)
    : loop(owner), host(worker), setup(shared),
      prefix(shared.prefix() + "connection " + std::to_string(number) + " from " + peerAddress +
             ": ")
{
    if (setup.server) {
        peer = accepted;
        peerName = peerAddress;
    } else {
        plain = accepted;
        peerName = setup.target.text();
    }
}

tunnelConnection::~tunnelConnection()
{
    release();
}

void tunnelConnection::start()
{
    guarded([this] {
        // The accepted socket is non-blocking and inherits its options from the listener.
        if (setup.server) {
            beginHandshake();
        } else {
            state = phase::connectingPeer;
            connectTarget();
        }
    });
}

void tunnelConnection::ready(side which, uint32_t events)
{
    if (state == phase::finished) {
        return;
    }
    guarded([&] {
        if (state != phase::relaying) {
            step(which);
            return;
        }
        relay->ready(which == side::peer ? streamRelay::role::network : streamRelay::role::plainIn,
                     events);
        if (relay->done()) {
            tunnelLog::line(severity::info, prefix + "closed after " + tally());
            close();
        }
    });
}

void tunnelConnection::guarded(const std::function<void()>& action)
{
    try {
        action();
    } catch (const failure& error) {
        fail(error.what());
    } catch (const std::exception& error) {
        fail(std::string("unexpected error: ") + error.what());
    }
    host.checkBy(deadline());
}

void tunnelConnection::step(side which)
{
    switch (state) {
    case phase::connectingPeer:
    case phase::connectingService:
        targetWritable();
        break;
    case phase::handshake:
        if (which == side::plain) {
            targetWritable();
        } else {
            sendHandshake();
            readHandshake();
        }
        break;
    case phase::relaying:
    case phase::finished:
        break;
    }
}

void tunnelConnection::connectTarget()
{
    dialing.deadline = steadyClock::now() + std::chrono::seconds(setup.channel.connectTimeout);
    if (!setup.targetAddresses.empty()) {
        dialing.addresses = setup.targetAddresses;
        tryAddress(0);
        return;
    }
    // Looked up for each connection, so that the tunnel follows a change of the name's address.
    dialing.lookupTicket = host.names().lookup(
        setup.target, [this](const std::vector<socketAddress>& found, const std::string& problem) {
            dialing.lookupTicket = 0;
            guarded([&] {
                if (!problem.empty()) {
                    throw failure(problem);
                }
                dialing.addresses = found;
                tryAddress(0);
            });
        });
}

void tunnelConnection::tryAddress(size_t index)
{
    int& fd = setup.server ? plain : peer;
    for (dialing.index = index; dialing.index < dialing.addresses.size(); ++dialing.index) {
        fd = startConnect(dialing.addresses[dialing.index]);
        if (fd >= 0) {
            tuneSocket(fd);
            loop.want(fd, setup.server ? plainTarget : peerTarget, EPOLLOUT);
            return;
        }
    }
    throw failure("cannot connect to " + setup.target.text() + ": " + errnoText());
}

void tunnelConnection::targetWritable()
{
    int& fd = setup.server ? plain : peer;
    int error = 0;
    socklen_t length = sizeof error;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
        error = errno;
    }
    if (error != 0 && dialing.index + 1 < dialing.addresses.size()) {
        // A name may stand for several addresses: the next one may take the connection.
        loop.closing(fd);
        (void)::close(fd);
        fd = -1;
        tryAddress(dialing.index + 1);
        return;
    }
    if (error != 0) {
        errno = error;
        throw failure("cannot connect to " + setup.target.text() + ": " + errnoText());
    }
    targetConnected();
}

void tunnelConnection::targetConnected()
{
    dialing.ready = true;
    if (!setup.server) {
        beginHandshake();
        return;
    }
    tunnelLog::line(severity::info, prefix + "connected to " + setup.target.text());
    loop.want(plain, plainTarget, 0);
    if (state == phase::connectingService) {
        startRelay();
    }
}

void tunnelConnection::beginHandshake()
{
    state = phase::handshake;
    setup.frame.open(socket, "cannot open a socket", setup.server);
    pipe.emplace(socket.sockFd);
    setup.frame.open(channel, "cannot open the encrypted socket", setup.channel.cipher,
                     setup.channel.hash, &socket);
    handshake = std::make_unique<vxNetPSKChallengeResponse>();
    setup.frame.open(*handshake, "cannot open the handshake", channel.cipherId, channel.hashId,
                     setup.server);
    const std::string failed = "the handshake with " + peerName + " failed";
    require(handshake->SetSecret(setup.secret), failed);
    // A peer that has not proved it holds the secret gets the shorter time.
    const unsigned seconds = setup.server ? setup.authTimeout : setup.channel.handshakeTimeout;
    if (setup.server) {
        require(handshake->SendProtocolVersion(socket) && handshake->GenerateChallengeRequest() &&
                    handshake->SendChallengeRequest(socket),
                failed);
        exchange.awaiting = expect::challengeResponse;
        exchange.left = 2 * kMessage; // the answer and the client's challenge
    } else {
        exchange.awaiting = expect::version;
        exchange.left = 3 * kMessage; // the version, the server's challenge and its answer
    }
    stepDeadline = steadyClock::now() + std::chrono::seconds(seconds);
    stepLimit = "the handshake with " + peerName + " did not finish within " +
                std::to_string(seconds) + " s";
    sendHandshake();
    readHandshake();
}

void tunnelConnection::sendHandshake()
{
    pipe->drain(exchange.toPeer);
    if (writeFrom(peer, true, exchange.toPeer) == ioResult::failed) {
        throw failure(handshakeFailure(errnoText()));
    }
    loop.want(peer, peerTarget, EPOLLIN | (exchange.toPeer.empty() ? 0U : EPOLLOUT));
}

void tunnelConnection::readHandshake()
{
    // Never more than the peer's part of the handshake still holds: what follows belongs to the
    // first packet.
    while (state == phase::handshake && exchange.left > exchange.messageBytes) {
        size_t got = 0;
        const size_t wanted = exchange.left - exchange.messageBytes;
        const ioResult result =
            readInto(peer, exchange.message + exchange.messageBytes, wanted, got);
        if (result == ioResult::blocked) {
            return;
        }
        if (result != ioResult::progress) {
            const bool refused = !setup.server && exchange.answerSent &&
                                 exchange.awaiting == expect::challengeResponse;
            throw failure(
                handshakeFailure(refused ? std::string(kRefusedAnswer)
                                 : exchange.firstCount == 0
                                     ? "the peer closed the connection before the handshake began"
                                     : "the peer closed the connection during the handshake"));
        }
        const size_t kept = std::min(got, sizeof exchange.firstBytes - exchange.firstCount);
        std::memcpy(exchange.firstBytes + exchange.firstCount,
                    exchange.message + exchange.messageBytes, kept);
        exchange.firstCount += kept;
        exchange.messageBytes += got;
        size_t used = 0;
        while (exchange.messageBytes - used >= kMessage && state == phase::handshake) {
            pipe->feed(exchange.message + used, kMessage);
            used += kMessage;
            exchange.left -= kMessage;
            handshakeMessage();
        }
        exchange.messageBytes -= used;
        std::memmove(exchange.message, exchange.message + used, exchange.messageBytes);
        if (got < wanted) {
            return; // a short read took everything there was
        }
    }
}

void tunnelConnection::handshakeMessage()
{
    const std::string failed = "the handshake with " + peerName + " failed";
    switch (exchange.awaiting) {
    case expect::version:
        // The version is hidden in random bytes, so text or a TLS record is another protocol.
        if (!exchange.foreign().empty()) {
            throw failure(handshakeFailure(""));
        }
        require(handshake->RecvProtocolVersion(socket), failed);
        exchange.awaiting = expect::challengeRequest;
        return;
    case expect::challengeRequest:
        require(handshake->RecvChallengeRequest(socket) && handshake->GenerateChallengeResponse() &&
                    handshake->SendChallengeResponse(socket),
                failed);
        if (setup.server) {
            finishHandshake();
            return;
        }
        require(handshake->GenerateChallengeRequest() && handshake->SendChallengeRequest(socket),
                failed);
        exchange.awaiting = expect::challengeResponse;
        exchange.answerSent = true;
        sendHandshake();
        return;
    case expect::challengeResponse:
        require(handshake->RecvChallengeResponse(socket), failed);
        if (!handshake->ValidateChallengeResponse()) {
            throw failure(handshakeFailure(kNotShared));
        }
        if (setup.server) {
            // The peer has proved it holds the secret: the service connection is made while
            // the handshake's last message travels.
            host.authenticated(*this);
            try {
                connectTarget();
            } catch (const failure& error) {
                // Told once the peer has its answer: closing now would look like a refusal.
                dialing.problem = error.what();
            }
            exchange.awaiting = expect::challengeRequest;
            return;
        }
        finishHandshake();
        return;
    }
}

void tunnelConnection::finishHandshake()
{
    // The server's last message leaves first: the peer waits for it, not for the keys below.
    sendHandshake();
    require(handshake->SeedInitialKeys(channel), "the handshake with " + peerName + " failed");
    require(cliFrame::closeChild(*handshake), "cannot close the handshake");
    handshake.reset();
    stepDeadline = steadyClock::time_point::max();
    tunnelLog::line(severity::info,
                    prefix + (setup.server ? "handshake done" : "handshake done with " + peerName));
    if (!dialing.problem.empty()) {
        throw failure(dialing.problem);
    }
    if (!setup.server || dialing.ready) {
        startRelay();
        return;
    }
    state = phase::connectingService;
    loop.want(peer, peerTarget, exchange.toPeer.empty() ? 0U : EPOLLOUT);
}

void tunnelConnection::startRelay()
{
    state = phase::relaying;
    stepDeadline = steadyClock::time_point::max();
    const std::string name =
        setup.server ? "the service at " + setup.target.text() : std::string("the application");
    relay.emplace(loop, channel, *pipe, peer, plainSide{plain, plain, true, name, name},
                  !setup.server, setup.channel.limits);
    // Handshake bytes the network did not take yet go first.
    if (!exchange.toPeer.empty() && writeFrom(peer, true, exchange.toPeer) == ioResult::failed) {
        throw failure("the peer closed the connection before the end of the stream (" +
                      errnoText() + ")");
    }
    if (!exchange.toPeer.empty()) {
        throw failure("the peer did not take the end of the handshake");
    }
    relay->start(peerTarget, plainTarget, plainTarget);
}

std::string tunnelConnection::handshakeFailure(const std::string& why) const
{
    const std::string foreign = exchange.foreign();
    return "the handshake with " + peerName +
           " failed: " + (foreign.empty() ? why : "the peer is not a veltrix tunnel: " + foreign);
}

std::string tunnelConnection::tally() const
{
    const relayCounters counted = relay ? relay->counters() : relayCounters{};
    const uint64_t toService = setup.server ? counted.fromPeer : counted.toPeer;
    const uint64_t fromService = setup.server ? counted.toPeer : counted.fromPeer;
    return secondsText(steadyClock::now() - began) + ": " + std::to_string(toService) +
           " bytes to the service, " + std::to_string(fromService) + " bytes from it";
}

void tunnelConnection::report() const
{
    static const char* const kPhases[] = {"connecting to the server tunnel", "in the handshake",
                                          "connecting to the service", "relaying", "finished"};
    tunnelLog::line(severity::notice,
                    prefix + kPhases[static_cast<int>(state)] + " for " + tally());
}

steadyClock::time_point tunnelConnection::deadline() const
{
    if (state == phase::relaying) {
        return relay->deadline();
    }
    if (state == phase::finished) {
        return steadyClock::time_point::max();
    }
    return dialing.ready ? stepDeadline : std::min(stepDeadline, dialing.deadline);
}

void tunnelConnection::checkLimits(steadyClock::time_point now)
{
    if (state == phase::finished) {
        return;
    }
    guarded([&] {
        if (state == phase::relaying) {
            relay->checkLimits(now);
        } else if (now >= stepDeadline) {
            const std::string foreign = exchange.foreign();
            throw failure(stepLimit + (!foreign.empty()
                                           ? ": the peer is not a veltrix tunnel: " + foreign
                                       : exchange.firstCount == 0 && !setup.server
                                           ? ": the peer sent nothing (is it a server tunnel?)"
                                           : std::string()));
        } else if (!dialing.ready && now >= dialing.deadline) {
            throw failure((dialing.lookupTicket != 0 ? "cannot resolve " + setup.target.address
                                                     : "cannot connect to " + setup.target.text()) +
                          ": no answer within " + std::to_string(setup.channel.connectTimeout) +
                          " s");
        }
    });
}

void tunnelConnection::end(const std::string& why)
{
    if (state != phase::finished) {
        fail(why);
    }
}

void tunnelConnection::fail(const std::string& why)
{
    tunnelLog::line(severity::warning, prefix + why + " (after " + tally() + ")");
    if (setup.frame.options().verbose && vxBase::HaveStackTrace()) {
        vxBase::DumpStackTrace(std::cerr);
    }
    // The latch is the whole process's: cleared before any other connection is touched.
    vxBase::lvxClearLastError();
    if (relay) {
        relay->abort();
    } else if (!setup.server && plain >= 0) {
        resetOnClose(plain); // the application must not take a cut stream for a whole one
    }
    close();
}

void tunnelConnection::close()
{
    state = phase::finished;
    release();
    host.finished(*this);
}

void tunnelConnection::release()
{
    if (dialing.lookupTicket != 0) {
        host.names().cancel(dialing.lookupTicket);
        dialing.lookupTicket = 0;
    }
    relay.reset();
    for (int* fd : {&peer, &plain}) {
        if (*fd >= 0) {
            loop.closing(*fd);
            (void)::close(*fd);
            *fd = -1;
        }
    }
    for (vxBase* object : {static_cast<vxBase*>(handshake.get()), static_cast<vxBase*>(&channel),
                           static_cast<vxBase*>(&socket)}) {
        if (object != nullptr && object->opened) {
            (void)cliFrame::closeChild(*object);
        }
    }
    handshake.reset();
    pipe.reset();
    vxBase::lvxClearLastError();
}

} // namespace vxcli
