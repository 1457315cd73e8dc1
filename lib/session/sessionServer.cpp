// The server: every session on the thread that calls run(), each ending alone.
//
// Accepting never waits for a handshake: a new connection sends its first handshake messages and
// joins the loop, and each later step runs once its 16 bytes have arrived. A packet reaches the
// library only once all of it is there. A failure on one session is turned into that session's
// error, the library's latch is cleared before anything else is touched, and the loop goes on
// with the others.
#include "session.h"
#include "sessionChannel.h"
#include "sessionNet.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <list>

namespace veltrix::session {

namespace {

using engine::steadyClock;

/** Bytes read from one session before the loop turns to the others. */
constexpr size_t kReadRound = size_t{256} * 1024;

std::string peerOf(const sockaddr_storage& address)
{
    char host[INET6_ADDRSTRLEN] = {};
    uint16_t port = 0;
    if (address.ss_family == AF_INET6) {
        const auto& in6 = reinterpret_cast<const sockaddr_in6&>(address);
        (void)inet_ntop(AF_INET6, &in6.sin6_addr, host, sizeof host);
        port = ntohs(in6.sin6_port);
    } else {
        const auto& in4 = reinterpret_cast<const sockaddr_in&>(address);
        (void)inet_ntop(AF_INET, &in4.sin_addr, host, sizeof host);
        port = ntohs(in4.sin_port);
    }
    return detail::endpointText(host, std::to_string(port));
}

steadyClock::time_point after(steadyClock::time_point from, milliseconds limit)
{
    const auto never = steadyClock::time_point::max();
    return limit.count() <= 0 || from == never ? never : from + limit;
}

} // namespace

struct server::state
{
    server& api;
    secret key;
    serverOptions limits;
    engine::eventLoop loop;
    int listener = -1;
    uint16_t boundPort = 0;
    int wakeRead = -1;
    int wakeWrite = -1;
    std::atomic<bool> stopping{false};
    uint64_t accepted = 0;
    class live;
    std::list<std::unique_ptr<live>> sessions;

    state(server& owner, secret material, serverOptions chosen)
        : api(owner), key(std::move(material)), limits(std::move(chosen))
    {}

    void acceptAll();
    void checkLimits();
    void sweep();
    [[nodiscard]] steadyClock::time_point nextDeadline() const;
};

/** One session: its connection, its transport, its limits. */
class server::state::live : public connection, public engine::pollTarget
{
public:
    live(server::state& owner, int accepted, std::string from)
        : host(owner), fd(accepted), number(++owner.accepted), peerName(std::move(from)),
          handshakeEnd(after(steadyClock::now(), owner.limits.handshakeTimeout))
    {}

    LVX_NOT_COPYABLE(live);

    ~live() override
    {
        if (fd >= 0) {
            host.loop.closing(fd);
            (void)::close(fd);
        }
    }

    [[nodiscard]] uint64_t id() const override { return number; }

    [[nodiscard]] const std::string& peer() const override { return peerName; }

    void send(const void* data, size_t size) override
    {
        detail::checkPayloadSize(size);
        if (finished || !link || !link->keyed()) {
            throw error(cause::stopped,
                        "session " + std::to_string(number) + " with " + peerName + " has ended");
        }
        link->seal(data, size);
        wantWrite = true;
    }

    void close() override { closing = true; }

    /** Sends the handshake's first messages and starts watching the connection. */
    void start()
    {
        guarded([this] {
            link = std::make_unique<detail::channel>(true, host.limits.chosen, host.key.value(),
                                                     peerName);
            settle();
        });
    }

    void ready(uint32_t events) override
    {
        if (finished) {
            return;
        }
        guarded([&] {
            if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
                readAvailable();
            }
            settle();
        });
    }

    /** Ends the session when one of its limits passed by `now`. */
    void checkLimits(steadyClock::time_point now)
    {
        if (finished || now < deadline()) {
            return;
        }
        const std::string who = "session " + std::to_string(number) + " with " + peerName;
        if (now >= after(sendStalled, host.limits.receiveTimeout)) {
            end(error(cause::slowPeer, who + ": the peer took nothing of what it was sent (" +
                                           std::to_string(link->outbound.size()) +
                                           " bytes queued) in time"));
            return;
        }
        const char* what = !link || !link->keyed()                          ? "the handshake"
                           : partialSince != steadyClock::time_point::max() ? "the rest of a packet"
                                                                            : "a message (idle)";
        end(error(cause::timedOut, who + ": " + what + " did not arrive in time"));
    }

    [[nodiscard]] steadyClock::time_point deadline() const
    {
        if (finished) {
            return steadyClock::time_point::max();
        }
        if (!link || !link->keyed()) {
            return handshakeEnd;
        }
        return std::min({after(partialSince, host.limits.receiveTimeout),
                         after(lastTraffic, host.limits.idleTimeout),
                         after(sendStalled, host.limits.receiveTimeout)});
    }

    /** Ends the session with `why` (null: the peer disconnected) and tells the application. */
    void end(const error& why) { finish(&why); }

    bool finished = false;

private:
    template <class Action> void guarded(const Action& action)
    {
        try {
            action();
        } catch (const error& failed) {
            finish(&failed);
        } catch (const std::exception& thrown) {
            finish(nullptr, &thrown);
        }
    }

    void readAvailable()
    {
        size_t taken = 0;
        while (taken < kReadRound && !finished) {
            const size_t before = arrived.size();
            const engine::ioResult result = arrived.readFor(fd, link->wanted());
            if (result == engine::ioResult::blocked) {
                break;
            }
            if (result != engine::ioResult::progress) {
                process();
                if (!finished) {
                    peerGone(result);
                }
                return;
            }
            taken += arrived.size() - before;
            lastTraffic = steadyClock::now();
            process();
        }
    }

    void process()
    {
        while (!finished && link->wanted() > 0 && arrived.size() >= link->wanted()) {
            const size_t used = link->wanted();
            const bool wasKeyed = link->keyed();
            const bool complete = link->take(arrived.front());
            arrived.consume(used);
            if (!wasKeyed && link->keyed()) {
                opened = true;
                callHandler([this] {
                    if (host.api.onOpen) {
                        host.api.onOpen(*this);
                    }
                });
            }
            if (complete) {
                const bytes& message = link->message();
                callHandler([&] {
                    if (host.api.onMessage) {
                        host.api.onMessage(*this, message);
                    }
                });
            }
        }
        if (!finished && link->disconnected()) {
            finish(nullptr);
            return;
        }
        const bool partial = arrived.size() > 0 || link->wanted() != VX_HEADER_WIRE_SIZE;
        if (link->keyed() && partial && partialSince == steadyClock::time_point::max()) {
            partialSince = steadyClock::now();
        } else if (!partial) {
            partialSince = steadyClock::time_point::max();
        }
    }

    template <class Call> void callHandler(const Call& call)
    {
        try {
            call();
        } catch (const std::exception& thrown) { // a session::error too
            throw error(cause::setup,
                        "the application's handler failed: " + std::string(thrown.what()));
        }
    }

    void peerGone(engine::ioResult result)
    {
        const std::string who = "session " + std::to_string(number) + " with " + peerName;
        const std::string how = result == engine::ioResult::ended
                                    ? "closed the connection"
                                    : "broke the connection (" + engine::errnoText() + ")";
        if (!link->keyed()) {
            throw error(cause::peerClosed, who + ": the peer " + how + " during the handshake");
        }
        throw error(cause::peerClosed,
                    who + ": the peer " + how + " without the disconnect command");
    }

    /** Sends what is queued and watches for what the session needs next. */
    void settle()
    {
        if (finished) {
            return;
        }
        const engine::ioResult sent = engine::writeFrom(fd, true, link->outbound);
        if (sent == engine::ioResult::failed) {
            throw error(cause::peerClosed, "session " + std::to_string(number) + " with " +
                                               peerName + ": the peer broke the connection (" +
                                               engine::errnoText() + ")");
        }
        // A peer that takes nothing of what is queued for it within the receive limit is as
        // stuck as one that stops halfway through a packet.
        if (link->outbound.empty() || sent == engine::ioResult::progress) {
            sendStalled =
                link->outbound.empty() ? steadyClock::time_point::max() : steadyClock::now();
        } else if (sendStalled == steadyClock::time_point::max()) {
            sendStalled = steadyClock::now();
        }
        if (link->outbound.size() > host.limits.maxQueued) {
            throw error(cause::slowPeer, "session " + std::to_string(number) + " with " + peerName +
                                             ": the peer does not take its messages (" +
                                             std::to_string(link->outbound.size()) +
                                             " bytes queued)");
        }
        if (closing && link->outbound.empty()) {
            throw error(cause::stopped,
                        "session " + std::to_string(number) + " was closed by this end");
        }
        // A peer that does not read what it is sent is not read either, until it catches up.
        const bool backedUp = link->outbound.size() > host.limits.maxQueued / 2;
        host.loop.want(fd, *this,
                       (backedUp ? 0U : static_cast<uint32_t>(EPOLLIN)) |
                           (link->outbound.empty() ? 0U : static_cast<uint32_t>(EPOLLOUT)));
        wantWrite = false;
    }

    void finish(const error* why, const std::exception* unexpected = nullptr)
    {
        if (finished) {
            return;
        }
        finished = true;
        host.loop.closing(fd);
        if (why != nullptr) {
            // A cut session is reset, so that the peer does not take it for a whole one.
            const linger abrupt = {1, 0};
            (void)setsockopt(fd, SOL_SOCKET, SO_LINGER, &abrupt, sizeof abrupt);
        }
        (void)::close(fd);
        fd = -1;
        link.reset();
        const error wrapped(cause::system, unexpected != nullptr ? unexpected->what() : "");
        const error* reported = unexpected != nullptr ? &wrapped : why;
        try {
            if (host.api.onEnd) {
                host.api.onEnd(*this, reported);
            }
        } catch (...) {
            // The session is over; a failing handler changes nothing for the others.
        }
    }

    server::state& host;
    int fd;
    uint64_t number;
    std::string peerName;
    std::unique_ptr<detail::channel> link;
    detail::inbox arrived;
    bool opened = false;
    bool closing = false;
    bool wantWrite = false;
    steadyClock::time_point handshakeEnd;
    steadyClock::time_point partialSince = steadyClock::time_point::max();
    steadyClock::time_point lastTraffic = steadyClock::now();
    steadyClock::time_point sendStalled = steadyClock::time_point::max(); ///< since then unsent

public:
    /** The handlers may have queued messages for this session: send them. */
    void afterHandlers()
    {
        if (!finished && (wantWrite || closing)) {
            guarded([this] { settle(); });
        }
    }
};

namespace {

/** Readiness of the listening socket or of the wake-up pipe. */
class signalTarget : public engine::pollTarget
{
public:
    explicit signalTarget(std::function<void()> handler) : action(std::move(handler)) {}

    void ready(uint32_t /*events*/) override { action(); }

private:
    std::function<void()> action;
};

} // namespace

void server::state::acceptAll()
{
    for (;;) {
        sockaddr_storage from = {};
        socklen_t length = sizeof from;
        const int fd = accept4(listener, reinterpret_cast<sockaddr*>(&from), &length,
                               SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            return; // nothing more now, or a connection that went away before it was taken
        }
        if (sessions.size() >= limits.maxSessions) {
            (void)::close(fd);
            continue;
        }
        detail::tuneConnection(fd);
        sessions.push_back(std::make_unique<live>(*this, fd, peerOf(from)));
        sessions.back()->start();
    }
}

steadyClock::time_point server::state::nextDeadline() const
{
    steadyClock::time_point next = steadyClock::time_point::max();
    for (const auto& session : sessions) {
        next = std::min(next, session->deadline());
    }
    return next;
}

void server::state::checkLimits()
{
    const steadyClock::time_point now = steadyClock::now();
    for (const auto& session : sessions) {
        session->checkLimits(now);
    }
}

void server::state::sweep()
{
    for (const auto& session : sessions) {
        session->afterHandlers();
    }
    sessions.remove_if([](const std::unique_ptr<live>& session) { return session->finished; });
}

server::server(const context& /*loaded*/, secret key, serverOptions limits)
    : self(std::make_unique<state>(*this, std::move(key), std::move(limits)))
{
    detail::checkModes(self->limits.chosen);
    int pair[2] = {-1, -1};
    if (pipe2(pair, O_NONBLOCK | O_CLOEXEC) != 0) {
        throw error(cause::system,
                    "cannot create the server's wake-up pipe: " + engine::errnoText());
    }
    self->wakeRead = pair[0];
    self->wakeWrite = pair[1];
}

server::~server()
{
    self->sessions.clear();
    for (int fd : {self->listener, self->wakeRead, self->wakeWrite}) {
        if (fd >= 0) {
            self->loop.closing(fd);
            (void)::close(fd);
        }
    }
}

void server::listen(const std::string& host, const std::string& port)
{
    if (self->listener >= 0) {
        throw error(cause::setup, "the server listens already");
    }
    self->listener = detail::listenOn(host, port, self->boundPort);
}

uint16_t server::port() const
{
    return self->boundPort;
}

void server::run()
{
    if (self->listener < 0) {
        throw error(cause::setup, "the server does not listen: call listen first");
    }
    signalTarget accepting([this] { self->acceptAll(); });
    signalTarget waking([this] {
        char drained[64];
        while (read(self->wakeRead, drained, sizeof drained) > 0) {
        }
    });
    self->loop.want(self->listener, accepting, EPOLLIN);
    self->loop.want(self->wakeRead, waking, EPOLLIN);
    while (!self->stopping.load()) {
        self->loop.runOnce(engine::millisUntil(self->nextDeadline()));
        self->checkLimits();
        self->sweep();
    }
    self->stopping = false;
    self->loop.forget(self->listener);
    self->loop.forget(self->wakeRead);
    const error stopped(cause::stopped, "the server was stopped");
    for (const auto& session : self->sessions) {
        session->end(stopped);
    }
    self->sessions.clear();
}

void server::stop() noexcept
{
    self->stopping = true;
    const char wake = 1;
    engine::writeQuietly(self->wakeWrite, &wake, 1);
}

} // namespace veltrix::session
