// A worker of the tunnel: accepts, serves, stops.
#include "tunnelWorker.h"

#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <list>
#include <unordered_map>

namespace vxcli {

using namespace veltrix;

namespace {

/** While a service is at its --max-connections, a worker looks again this often whether another
 *  worker freed a place. */
constexpr auto kFullRecheck = std::chrono::milliseconds(100);
/** A failing accept (no descriptor left, say) pauses the accepting this long at first, twice as
 *  long each time it fails again, up to the most. */
constexpr auto kFirstPause = std::chrono::milliseconds(50);
constexpr auto kLongestPause = std::chrono::milliseconds(1000);

/** Whether this process may write a line that every process writes at most once a second: the
 *  monotonic clock is the system's, so all the workers read the same second. */
bool onceASecond(std::atomic<int64_t>& last)
{
    const int64_t now =
        std::chrono::duration_cast<std::chrono::seconds>(steadyClock::now().time_since_epoch())
            .count();
    int64_t seen = last.load();
    return seen != now && last.compare_exchange_strong(seen, now);
}

/** The bucket of the handshakes of `peer`'s address (not its port) for one service. */
size_t sourceBucket(const sockaddr_storage& peer, size_t slot, uint64_t key)
{
    const unsigned char* bytes = nullptr;
    size_t size = 0;
    if (peer.ss_family == AF_INET6) {
        const auto& six = reinterpret_cast<const sockaddr_in6&>(peer);
        bytes = six.sin6_addr.s6_addr;
        size = sizeof six.sin6_addr.s6_addr;
    } else {
        const auto& four = reinterpret_cast<const sockaddr_in&>(peer);
        bytes = reinterpret_cast<const unsigned char*>(&four.sin_addr.s_addr);
        size = sizeof four.sin_addr.s_addr;
    }
    // FNV-1a, started from the secret key and the service.
    uint64_t hash = 1469598103934665603ULL ^ key ^ (slot * 0x9E3779B97F4A7C15ULL);
    for (size_t i = 0; i < size; ++i) {
        hash = (hash ^ bytes[i]) * 1099511628211ULL;
    }
    return static_cast<size_t>(hash % sharedCounts::kBuckets);
}

class worker : public connectionHost
{
public:
    worker(const std::vector<liveService>& configured, sharedCounts& counts,
           const workerLimits& limits)
        : counters(counts), settings(limits)
    {
        sigset_t set;
        (void)sigemptyset(&set);
        for (const int signo : {SIGTERM, SIGHUP, SIGUSR1, SIGUSR2}) {
            (void)sigaddset(&set, signo);
        }
        signals = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
        if (signals < 0) {
            throw failure("cannot receive signals: " + errnoText());
        }
        loop.want(signals, signalTarget, EPOLLIN);
        for (const liveService& live : configured) {
            auto& served = services.emplace_back(std::make_unique<service>(live));
            for (const int fd : live.listeners) {
                served->listeners.push_back(std::make_unique<listener>(*this, *served, fd));
            }
        }
    }

    LVX_NOT_COPYABLE(worker);

    ~worker() override
    {
        places.clear();
        connections.clear();
        stopAccepting();
        loop.forget(signals);
        (void)close(signals);
    }

    int run()
    {
        watchListeners();
        while (accepting || !connections.empty()) {
            loop.runOnce(millisUntil(std::min(nextSweep, drainUntil)));
            const auto now = steadyClock::now();
            if (now >= drainUntil) {
                endAll();
            }
            if (now >= nextSweep) {
                sweep();
            }
            reap();
            watchListeners();
        }
        return exitOk;
    }

    void checkBy(steadyClock::time_point when) override { nextSweep = std::min(nextSweep, when); }

    void authenticated(tunnelConnection& connection) override { releaseSource(connection); }

    void finished(tunnelConnection& connection) override { ended.push_back(&connection); }

    resolver& names() override { return lookups; }

private:
    struct service;

    /** A listening socket of a service. */
    class listener : public pollTarget
    {
    public:
        listener(worker& owner, service& served, int listening)
            : parent(owner), of(served), fd(listening)
        {}

        void ready(uint32_t /*events*/) override { parent.acceptOn(of, fd); }

        worker& parent;
        service& of;
        int fd;
    };

    struct service
    {
        explicit service(const liveService& served) : live(served) {}

        const liveService& live;
        std::vector<std::unique_ptr<listener>> listeners;
        bool full = false;
    };

    /** The signal descriptor is readable. */
    class signalHandler : public pollTarget
    {
    public:
        explicit signalHandler(worker& owner) : parent(owner) {}

        void ready(uint32_t /*events*/) override { parent.signalled(); }

    private:
        worker& parent;
    };

    void signalled()
    {
        signalfd_siginfo info{};
        while (read(signals, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
            switch (info.ssi_signo) {
            case SIGTERM:
                stopAccepting();
                if (++stops > 1 || settings.drainTimeout == 0) {
                    drainUntil = steadyClock::now();
                } else {
                    drainUntil =
                        std::min(drainUntil,
                                 steadyClock::now() + std::chrono::seconds(settings.drainTimeout));
                }
                break;
            case SIGHUP:
                stopAccepting(); // retired: a newer worker serves the new configuration
                break;
            case SIGUSR1:
                (void)tunnelLog::reopen();
                break;
            case SIGUSR2:
                for (const auto& connection : connections) {
                    connection->report();
                }
                break;
            default:
                break;
            }
        }
    }

    void acceptOn(service& served, int fd)
    {
        // One connection a round: the listener stays ready while more wait, and the
        // connections already open get their turn in between.
        if (!takePlace(served)) {
            return;
        }
        sockaddr_storage peer{};
        socklen_t length = sizeof peer;
        const int accepted =
            accept4(fd, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (accepted < 0) {
            counters.slots[served.live.slot].open.fetch_sub(1);
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                pauseAccepting();
            } else if (errno == EINVAL) {
                stopAccepting(); // the master shut the listener down: the tunnel is stopping
            }
            return; // otherwise gone before it was accepted
        }
        pause = steadyClock::duration::zero();
        const serviceSetup& setup = *served.live.setup;
        const std::string from = addressText(peer);
        int mark = -1;
        if (setup.server && setup.maxHandshakesPerSource != 0) {
            const size_t bucket = sourceBucket(peer, served.live.slot, counters.bucketKey);
            if (counters.handshakes[bucket].fetch_add(1) >= setup.maxHandshakesPerSource) {
                counters.handshakes[bucket].fetch_sub(1);
                counters.slots[served.live.slot].open.fetch_sub(1);
                resetOnClose(accepted);
                (void)close(accepted);
                if (onceASecond(counters.slots[served.live.slot].refusedLogged)) {
                    tunnelLog::line(severity::warning,
                                    setup.prefix() + "refused a connection from " + from + ": " +
                                        std::to_string(setup.maxHandshakesPerSource) +
                                        " handshakes from that address are under way "
                                        "(max-handshakes-per-source)");
                }
                return;
            }
            mark = static_cast<int>(bucket);
        }
        const uint32_t number = counters.accepted.fetch_add(1) + 1;
        connections.push_back(
            std::make_unique<tunnelConnection>(loop, *this, setup, accepted, number, from));
        tunnelConnection& connection = *connections.back();
        connection.sourceMark = mark;
        places[&connection] = std::prev(connections.end());
        connection.start();
    }

    /** Reserves a place under the service's --max-connections across the workers. */
    bool takePlace(service& served)
    {
        sharedCounts::serviceSlot& slot = counters.slots[served.live.slot];
        const unsigned most = served.live.setup->maxConnections;
        if (slot.open.fetch_add(1) < most) {
            return true;
        }
        slot.open.fetch_sub(1);
        served.full = true;
        if (onceASecond(slot.fullLogged)) {
            tunnelLog::line(severity::warning, served.live.setup->prefix() + std::to_string(most) +
                                                   " connections open, as many as "
                                                   "max-connections allows: new ones wait");
        }
        return false;
    }

    /** Accepting failed for want of a resource: waits before the next try instead of trying
     *  again at once, over and over. */
    void pauseAccepting()
    {
        const std::string why = errnoText();
        pause = pause == steadyClock::duration::zero()
                    ? steadyClock::duration(kFirstPause)
                    : std::min<steadyClock::duration>(2 * pause, kLongestPause);
        const auto now = steadyClock::now();
        pausedUntil = now + pause;
        if (now >= nextPauseLine) {
            nextPauseLine = now + std::chrono::seconds(1);
            tunnelLog::line(
                severity::warning,
                "cannot accept connections: " + why + "; trying again in " +
                    std::to_string(
                        std::chrono::duration_cast<std::chrono::milliseconds>(pause).count()) +
                    " ms");
        }
        checkBy(pausedUntil);
    }

    void watchListeners()
    {
        if (!accepting) {
            return;
        }
        const bool paused = steadyClock::now() < pausedUntil;
        for (const auto& served : services) {
            const sharedCounts::serviceSlot& slot = counters.slots[served->live.slot];
            if (served->full && slot.open.load() < served->live.setup->maxConnections) {
                served->full = false;
            }
            // One worker is woken for a new connection, not all of them.
            const uint32_t events = paused || served->full ? 0U : EPOLLIN | EPOLLEXCLUSIVE;
            for (const auto& one : served->listeners) {
                loop.want(one->fd, *one, events);
            }
            if (served->full) {
                checkBy(steadyClock::now() + kFullRecheck);
            }
        }
    }

    void stopAccepting()
    {
        if (!accepting) {
            return;
        }
        accepting = false;
        for (const auto& served : services) {
            for (const auto& one : served->listeners) {
                // Other processes hold the same socket: it leaves this epoll set only when
                // told to.
                loop.forget(one->fd);
                (void)close(one->fd);
            }
        }
    }

    void endAll()
    {
        drainUntil = steadyClock::time_point::max();
        for (const auto& connection : connections) {
            connection->end("ended: the tunnel was stopped");
        }
    }

    /** Ends the connections whose limit passed; finds when the next one passes. */
    void sweep()
    {
        const auto now = steadyClock::now();
        nextSweep = steadyClock::time_point::max();
        for (const auto& connection : connections) {
            connection->checkLimits(now);
            nextSweep = std::min(nextSweep, connection->deadline());
        }
        if (now < pausedUntil) {
            nextSweep = std::min(nextSweep, pausedUntil);
        }
    }

    void releaseSource(tunnelConnection& connection)
    {
        if (connection.sourceMark >= 0) {
            counters.handshakes[connection.sourceMark].fetch_sub(1);
            connection.sourceMark = -1;
        }
    }

    /** Frees the connections that ended and their places. */
    void reap()
    {
        for (tunnelConnection* connection : ended) {
            releaseSource(*connection);
            for (const auto& served : services) {
                if (served->live.setup.get() == &connection->service()) {
                    counters.slots[served->live.slot].open.fetch_sub(1);
                }
            }
            const auto place = places.find(connection);
            connections.erase(place->second);
            places.erase(place);
        }
        ended.clear();
    }

    sharedCounts& counters;
    workerLimits settings;
    eventLoop loop;
    resolver lookups{loop};
    int signals = -1;
    signalHandler signalTarget{*this};
    std::vector<std::unique_ptr<service>> services;
    std::list<std::unique_ptr<tunnelConnection>> connections;
    std::unordered_map<tunnelConnection*, std::list<std::unique_ptr<tunnelConnection>>::iterator>
        places;
    std::vector<tunnelConnection*> ended; ///< to be freed once the current round is over
    steadyClock::time_point nextSweep = steadyClock::time_point::max();
    steadyClock::time_point drainUntil = steadyClock::time_point::max();
    steadyClock::time_point pausedUntil;
    steadyClock::time_point nextPauseLine;
    steadyClock::duration pause = steadyClock::duration::zero();
    unsigned stops = 0;
    bool accepting = true;
};

} // namespace

int runWorker(const std::vector<liveService>& services, sharedCounts& counts,
              const workerLimits& limits)
{
    return worker(services, counts, limits).run();
}

} // namespace vxcli
