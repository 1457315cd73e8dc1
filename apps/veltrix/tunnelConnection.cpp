// One tunnel connection: connect, handshake step by step, relay, close.
#include "tunnelConnection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace vxcli {

using namespace veltrix;

namespace {

constexpr size_t kMessage = 16;

/** A non-blocking TCP connection to `setup`'s target, under way. */
int startConnect(const tunnelSetup& setup)
{
    const int fd = socket(setup.address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        throw failure("cannot open a socket: " + errnoText());
    }
    if (connect(fd, reinterpret_cast<const sockaddr*>(&setup.address), setup.addressLength) != 0 &&
        errno != EINPROGRESS) {
        const std::string why = errnoText();
        (void)close(fd);
        throw failure("cannot connect to " + setup.target.text() + ": " + why);
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

} // namespace

tunnelConnection::tunnelConnection(eventLoop& owner, connectionHost& worker,
                                   const tunnelSetup& shared, int accepted, const std::string& name,
                                   const std::string& peerAddress)
    : loop(owner), host(worker), setup(shared), log(name + ": ", shared.logToStderr)
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
    try {
        // The accepted socket is non-blocking and inherits its options from the listener.
        if (setup.server) {
            beginHandshake();
        } else {
            state = phase::connectingPeer;
            peer = startConnect(setup);
            tuneSocket(peer);
            stepDeadline = steadyClock::now() + std::chrono::seconds(setup.channel.connectTimeout);
            stepLimit = "cannot connect to " + setup.target.text() + ": no answer within " +
                        std::to_string(setup.channel.connectTimeout) + " s";
            loop.want(peer, peerTarget, EPOLLOUT);
        }
    } catch (const failure& error) {
        fail(error.what());
    } catch (const std::exception& error) {
        fail(std::string("unexpected error: ") + error.what());
    }
    host.checkBy(deadline());
}

void tunnelConnection::ready(side which, uint32_t events)
{
    if (state == phase::finished) {
        return;
    }
    try {
        if (state == phase::relaying) {
            relay->ready(which == side::peer ? streamRelay::role::network
                                             : streamRelay::role::plainIn,
                         events);
            if (relay->done()) {
                log.line("closed");
                close();
            }
        } else {
            step(which);
        }
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
        checkConnected(peer, setup.target);
        beginHandshake();
        break;
    case phase::handshake:
        if (which == side::plain) {
            serviceConnected();
        } else {
            sendHandshake();
            readHandshake();
        }
        break;
    case phase::connectingService:
        serviceConnected();
        startRelay();
        break;
    case phase::relaying:
    case phase::finished:
        break;
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
    stepDeadline = steadyClock::now() + std::chrono::seconds(setup.channel.handshakeTimeout);
    stepLimit = "the handshake with " + peerName + " did not finish within " +
                std::to_string(setup.channel.handshakeTimeout) + " s";
    sendHandshake();
    readHandshake();
}

void tunnelConnection::sendHandshake()
{
    pipe->drain(toPeer);
    if (writeFrom(peer, true, toPeer) == ioResult::failed) {
        throw failure("the handshake with " + peerName + " failed: " + errnoText());
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
            throw failure("the handshake with " + peerName +
                          " failed: the peer closed the connection");
        }
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
        sendHandshake();
        return;
    case expect::challengeResponse:
        require(handshake->RecvChallengeResponse(socket) && handshake->ValidateChallengeResponse(),
                failed);
        if (setup.server) {
            // The peer has proved it holds the secret: the service connection is made while
            // the handshake's last message travels.
            connectService();
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
    log.line(setup.server ? "handshake done" : "handshake done with " + peerName);
    if (!setup.server || serviceReady) {
        startRelay();
        return;
    }
    state = phase::connectingService;
    stepDeadline = serviceDeadline;
    stepLimit = "cannot connect to " + setup.target.text() + ": no answer within " +
                std::to_string(setup.channel.connectTimeout) + " s";
    loop.want(peer, peerTarget, toPeer.empty() ? 0U : EPOLLOUT);
}

void tunnelConnection::connectService()
{
    plain = startConnect(setup);
    tuneSocket(plain);
    serviceDeadline = steadyClock::now() + std::chrono::seconds(setup.channel.connectTimeout);
    loop.want(plain, plainTarget, EPOLLOUT);
}

void tunnelConnection::serviceConnected()
{
    checkConnected(plain, setup.target);
    log.line("connected to " + setup.target.text());
    serviceReady = true;
    loop.want(plain, plainTarget, 0);
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

steadyClock::time_point tunnelConnection::deadline() const
{
    if (state == phase::relaying) {
        return relay->deadline();
    }
    if (state == phase::finished) {
        return steadyClock::time_point::max();
    }
    return serviceReady ? stepDeadline : std::min(stepDeadline, serviceDeadline);
}

void tunnelConnection::checkLimits(steadyClock::time_point now)
{
    if (state == phase::finished) {
        return;
    }
    try {
        if (state == phase::relaying) {
            relay->checkLimits(now);
        } else if (now >= stepDeadline) {
            throw failure(stepLimit);
        } else if (!serviceReady && now >= serviceDeadline) {
            throw failure("cannot connect to " + setup.target.text() + ": no answer within " +
                          std::to_string(setup.channel.connectTimeout) + " s");
        }
    } catch (const failure& error) {
        fail(error.what());
    }
    host.checkBy(deadline());
}

void tunnelConnection::end(const std::string& why)
{
    if (state != phase::finished) {
        fail(why);
    }
}

void tunnelConnection::fail(const std::string& why)
{
    log.line(why);
    if (setup.logToStderr && setup.frame.options().verbose && vxBase::HaveStackTrace()) {
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
