// Addresses, connecting, listening and the client's bounded waits.
#include "sessionNet.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace veltrix::session::detail {

namespace {

/** The least one read asks for, and the most an empty inbox keeps. */
constexpr size_t kSmallRead = 4096;

/** Waits until `fd` is ready for `events` or `until` passed; false on the time-out. */
bool waitFor(int fd, short events, const deadline& until)
{
    pollfd watched = {fd, events, 0};
    for (;;) {
        const int ready = poll(&watched, 1, until.left());
        if (ready > 0) {
            return true;
        }
        if (ready == 0) {
            return false;
        }
        if (errno != EINTR) {
            throw error(cause::system, "cannot wait for the network: " + engine::errnoText());
        }
    }
}

struct addressList
{
    addrinfo* first = nullptr;
    addressList() = default;
    addressList(const addressList&) = delete;
    addressList& operator=(const addressList&) = delete;
    addressList(addressList&&) = delete;
    addressList& operator=(addressList&&) = delete;

    ~addressList()
    {
        if (first != nullptr) {
            freeaddrinfo(first);
        }
    }
};

void lookUp(const std::string& host, const std::string& port, int flags, addressList& found)
{
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags;
    const int status =
        getaddrinfo(host.empty() ? nullptr : host.c_str(), port.c_str(), &hints, &found.first);
    if (status != 0) {
        throw error(cause::setup,
                    "cannot resolve " + endpointText(host, port) + ": " + gai_strerror(status));
    }
}

/** The result of one connect attempt: the descriptor, or -1 with the error in `problem`. */
int tryConnect(const addrinfo& address, const deadline& until, int& problem)
{
    const int fd = socket(address.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        problem = errno;
        return -1;
    }
    if (::connect(fd, address.ai_addr, address.ai_addrlen) == 0) {
        return fd;
    }
    problem = errno;
    if (problem == EINPROGRESS) {
        problem = waitFor(fd, POLLOUT, until) ? 0 : ETIMEDOUT;
        socklen_t length = sizeof problem;
        if (problem == 0 && getsockopt(fd, SOL_SOCKET, SO_ERROR, &problem, &length) != 0) {
            problem = errno;
        }
        if (problem == 0) {
            return fd;
        }
    }
    (void)::close(fd);
    return -1;
}

} // namespace

deadline::deadline(milliseconds timeout)
    : when(timeout.count() <= 0 ? engine::steadyClock::time_point::max()
                                : engine::steadyClock::now() + timeout),
      given(timeout)
{}

int deadline::left() const
{
    return engine::millisUntil(when);
}

std::string deadline::text() const
{
    char shown[32];
    (void)std::snprintf(shown, sizeof shown, "%g s", static_cast<double>(given.count()) / 1000);
    return shown;
}

void inbox::consume(size_t count)
{
    head += count;
    if (head == data.size()) {
        data.clear();
        head = 0;
        if (data.capacity() > kSmallRead) {
            std::vector<unsigned char>().swap(data);
        }
    }
}

engine::ioResult inbox::readFor(int fd, size_t unit)
{
    if (head > 0) {
        data.erase(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(head));
        head = 0;
    }
    const size_t had = data.size();
    const size_t limit = std::max(unit > had ? unit - had : 0, kSmallRead);
    data.resize(had + limit);
    size_t got = 0;
    const engine::ioResult result = engine::readInto(fd, data.data() + had, limit, got);
    data.resize(had + got);
    return result;
}

std::string endpointText(const std::string& host, const std::string& port)
{
    return (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" + port;
}

void tuneConnection(int fd)
{
    const int on = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    (void)setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
}

int connectTo(const std::string& host, const std::string& port, const deadline& until)
{
    addressList found;
    lookUp(host, port, AI_ADDRCONFIG, found);
    int problem = ECONNREFUSED;
    // A name may stand for several addresses: the next one may take the connection.
    for (const addrinfo* address = found.first; address != nullptr; address = address->ai_next) {
        const int fd = tryConnect(*address, until, problem);
        if (fd >= 0) {
            tuneConnection(fd);
            return fd;
        }
        if (problem == ETIMEDOUT) {
            break;
        }
    }
    const std::string where = endpointText(host, port);
    if (problem == ETIMEDOUT) {
        throw error(cause::timedOut, "no answer from " + where + " within " + until.text());
    }
    throw error(cause::refused, "cannot connect to " + where + ": " + std::strerror(problem));
}

int listenOn(const std::string& host, const std::string& port, uint16_t& bound)
{
    addressList found;
    lookUp(host, port, AI_PASSIVE | AI_NUMERICHOST | AI_NUMERICSERV, found);
    const addrinfo& address = *found.first;
    const int fd = socket(address.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        throw error(cause::system, "cannot create a socket: " + engine::errnoText());
    }
    const int on = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_storage local = {};
    socklen_t length = sizeof local;
    if (bind(fd, address.ai_addr, address.ai_addrlen) != 0 || ::listen(fd, SOMAXCONN) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0) {
        const std::string why = engine::errnoText();
        (void)::close(fd);
        throw error(cause::setup, "cannot listen on " + endpointText(host, port) + ": " + why);
    }
    bound =
        ntohs(local.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6*>(&local)->sin6_port
                                          : reinterpret_cast<const sockaddr_in*>(&local)->sin_port);
    return fd;
}

void flush(int fd, engine::byteQueue& queue, const deadline& until, const std::string& peer)
{
    while (!queue.empty()) {
        const engine::ioResult result = engine::writeFrom(fd, true, queue);
        if (result == engine::ioResult::failed) {
            throw error(cause::peerClosed,
                        peer + " closed the connection (" + engine::errnoText() + ")");
        }
        if (!queue.empty() && !waitFor(fd, POLLOUT, until)) {
            throw error(cause::timedOut,
                        peer + " did not take what it was sent within " + until.text());
        }
    }
}

void fill(int fd, inbox& box, size_t unit, const deadline& until, const std::string& peer,
          const char* waiting)
{
    for (;;) {
        switch (box.readFor(fd, unit)) {
        case engine::ioResult::progress:
            return;
        case engine::ioResult::ended:
            throw error(cause::peerClosed, peer +
                                               " closed the connection while this end waited "
                                               "for " +
                                               waiting);
        case engine::ioResult::failed:
            throw error(cause::peerClosed, peer +
                                               " broke the connection while this end waited "
                                               "for " +
                                               waiting + " (" + engine::errnoText() + ")");
        case engine::ioResult::blocked:
            break;
        }
        if (!waitFor(fd, POLLIN, until)) {
            throw error(cause::timedOut, peer + " sent nothing more within " + until.text() +
                                             " while this end waited for " + waiting);
        }
    }
}

} // namespace veltrix::session::detail
