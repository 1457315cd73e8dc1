// The network side of the session layer: addresses, connecting and listening, and the bounded
// waits of a client on its one connection.
#pragma once

#include "eventLoop.h"
#include "session.h"

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace veltrix::session::detail {

/** A point in time a wait must not pass; a time-out of 0 or less is none. */
class deadline
{
public:
    explicit deadline(milliseconds timeout);
    /** Milliseconds left for poll(): -1 for no limit, 0 once passed. */
    [[nodiscard]] int left() const;
    /** The time-out it was made from, as "2.5 s", for messages. */
    [[nodiscard]] std::string text() const;

private:
    engine::steadyClock::time_point when;
    milliseconds given;
};

/** Bytes that arrived and were not taken yet. */
class inbox
{
public:
    [[nodiscard]] size_t size() const { return data.size() - head; }

    [[nodiscard]] const unsigned char* front() const { return data.data() + head; }

    /** Drops `count` bytes from the front; an empty inbox gives a large buffer back, so that an
     *  idle session holds little memory. */
    void consume(size_t count);
    /** Reads what `fd` holds now toward the next unit of `unit` bytes: the rest of that unit,
     *  but at least 4 KiB, so that small messages arrive several to a read. ioResult as
     *  engine::readInto. */
    engine::ioResult readFor(int fd, size_t unit);

private:
    std::vector<unsigned char> data;
    size_t head = 0;
};

/** "HOST:PORT", with brackets around an IPv6 address. */
std::string endpointText(const std::string& host, const std::string& port);

/** A connected TCP socket to `host`:`port` (non-blocking, small segments sent at once); throws
 *  error(refused), error(timedOut) or error(setup) naming the endpoint. */
int connectTo(const std::string& host, const std::string& port, const deadline& until);

/** A listening TCP socket (non-blocking) on `host` (numeric, or "" for every IPv4 address) and
 *  `port`; its port into `bound`. Throws error(setup) or error(system). */
int listenOn(const std::string& host, const std::string& port, uint16_t& bound);

/** Small segments leave at once, and a dead peer is noticed in the end. */
void tuneConnection(int fd);

/** Writes all of `queue` to `fd`, waiting until `until`; throws error(timedOut) or
 *  error(peerClosed) naming `peer`. */
void flush(int fd, engine::byteQueue& queue, const deadline& until, const std::string& peer);

/** Reads more of what `fd` holds into `box` toward a unit of `unit` bytes, waiting until
 *  `until`; throws error(timedOut) ("... while this end waited for <waiting>") or
 *  error(peerClosed). */
void fill(int fd, inbox& box, size_t unit, const deadline& until, const std::string& peer,
          const char* waiting);

} // namespace veltrix::session::detail
