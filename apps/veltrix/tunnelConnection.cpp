// One tunnel connection: connect, handshake step by step, relay, close.
#include "tunnelConnection.h"

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
    targetDeadline = steadyClock::now() + std::chrono::seconds(setup.channel.connectTimeout);
    if (!setup.targetAddresses.empty()) {
        targetAddresses = setup.targetAddresses;
        tryAddress(0);
        return;
    }
    // Looked up for each connection, so that the tunnel follows a change of the name's address.
    lookupTicket = host.names().lookup(
        setup.target, [this](const std::vector<socketAddress>& found, const std::string& problem) {
            lookupTicket = 0;
            guarded([&] {
                if (!problem.empty()) {
                    throw failure(problem);
                }
                targetAddresses = found;
                tryAddress(0);
            });
        });
}

void tunnelConnection::tryAddress(size_t index)
{
    int& fd = setup.server ? plain : peer;
    for (targetIndex = index; targetIndex < targetAddresses.size(); ++targetIndex) {
        fd = startConnect(targetAddresses[targetIndex]);
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
    if (error != 0 && targetIndex + 1 < targetAddresses.size()) {
        // A name may stand for several addresses: the next one may take the connection.
        loop.closing(fd);
        (void)::close(fd);
        fd = -1;
        tryAddress(targetIndex + 1);
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
    targetReady = true;
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
        awaiting = expect::challengeResponse;
        handshakeLeft = 2 * kMessage; // the answer and the client's challenge
    } else {
        awaiting = expect::version;
        handshakeLeft = 3 * kMessage; // the version, the server's challenge and its answer
    }
    stepDeadline = steadyClock::now() + std::chrono::seconds(seconds);
    stepLimit = "the handshake with " + peerName + " did not finish within " +
                std::to_string(seconds) + " s";
    sendHandshake();
    readHandshake();
}

void tunnelConnection::sendHandshake()
{
    pipe->drain(toPeer);
    if (writeFrom(peer, true, toPeer) == ioResult::failed) {
        throw failure(handshakeFailure(errnoText()));
    }
    loop.want(peer, peerTarget, EPOLLIN | (toPeer.empty() ? 0U : EPOLLOUT));
}

void tunnelConnection::readHandshake()
{
    // Never more than the peer's part of the handshake still holds: what follows belongs to the
    // first packet.
    while (state == phase::handshake && handshakeLeft > messageBytes) {
        size_t got = 0;
        const size_t wanted = handshakeLeft - messageBytes;
        const ioResult result = readInto(peer, message + messageBytes, wanted, got);
        if (result == ioResult::blocked) {
            return;
        }
        if (result != ioResult::progress) {
            const bool refused =
                !setup.server && answerSent && awaiting == expect::challengeResponse;
            throw failure(handshakeFailure(
                refused           ? std::string(kRefusedAnswer)
                : firstCount == 0 ? "the peer closed the connection before the handshake began"
                                  : "the peer closed the connection during the handshake"));
        }
        const size_t kept = std::min(got, sizeof firstBytes - firstCount);
        std::memcpy(firstBytes + firstCount, message + messageBytes, kept);
        firstCount += kept;
        messageBytes += got;
        size_t used = 0;
        while (messageBytes - used >= kMessage && state == phase::handshake) {
            pipe->feed(message + used, kMessage);
            used += kMessage;
            handshakeLeft -= kMessage;
            handshakeMessage();
        }
        messageBytes -= used;
        std::memmove(message, message + used, messageBytes);
        if (got < wanted) {
            return; // a short read took everything there was
        }
    }
}

void tunnelConnection::handshakeMessage()
{
    const std::string failed = "the handshake with " + peerName + " failed";
    switch (awaiting) {
    case expect::version:
        // The version is hidden in random bytes, so text or a TLS record is another protocol.
        if (!foreignProtocol(firstBytes, firstCount).empty()) {
            throw failure(handshakeFailure(""));
        }
        require(handshake->RecvProtocolVersion(socket), failed);
        awaiting = expect::challengeRequest;
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
        awaiting = expect::challengeResponse;
        answerSent = true;
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
                serviceProblem = error.what();
            }
            awaiting = expect::challengeRequest;
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
    require(cliFrame::close(*handshake), "cannot close the handshake");
    handshake.reset();
    stepDeadline = steadyClock::time_point::max();
    tunnelLog::line(severity::info,
                    prefix + (setup.server ? "handshake done" : "handshake done with " + peerName));
    if (!serviceProblem.empty()) {
        throw failure(serviceProblem);
    }
    if (!setup.server || targetReady) {
        startRelay();
        return;
    }
    state = phase::connectingService;
    loop.want(peer, peerTarget, toPeer.empty() ? 0U : EPOLLOUT);
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
    if (!toPeer.empty() && writeFrom(peer, true, toPeer) == ioResult::failed) {
        throw failure("the peer closed the connection before the end of the stream (" +
                      errnoText() + ")");
    }
    if (!toPeer.empty()) {
        throw failure("the peer did not take the end of the handshake");
    }
    relay->start(peerTarget, plainTarget, plainTarget);
}

std::string tunnelConnection::handshakeFailure(const std::string& why) const
{
    const std::string foreign = foreignProtocol(firstBytes, firstCount);
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
    return targetReady ? stepDeadline : std::min(stepDeadline, targetDeadline);
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
            const std::string foreign = foreignProtocol(firstBytes, firstCount);
            throw failure(stepLimit + (!foreign.empty()
                                           ? ": the peer is not a veltrix tunnel: " + foreign
                                       : firstCount == 0 && !setup.server
                                           ? ": the peer sent nothing (is it a server tunnel?)"
                                           : std::string()));
        } else if (!targetReady && now >= targetDeadline) {
            throw failure((lookupTicket != 0 ? "cannot resolve " + setup.target.address
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
    if (lookupTicket != 0) {
        host.names().cancel(lookupTicket);
        lookupTicket = 0;
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
            (void)cliFrame::close(*object);
        }
    }
    handshake.reset();
    pipe.reset();
    vxBase::lvxClearLastError();
}

} // namespace vxcli
