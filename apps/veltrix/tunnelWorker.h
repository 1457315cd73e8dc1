// A worker process of `veltrix tunnel`: one event loop over the listening sockets of every
// service and the connections it accepted from them. The parent starts the workers and tells them
// by signal what to do: SIGTERM stops the accepting and gives the open connections a bounded
// time (a second one ends them), SIGHUP retires a worker after a reload (it stops accepting and
// ends once its connections did), SIGUSR1 reopens the log file, SIGUSR2 lists the connections.
#pragma once

#include "tunnelConnection.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace vxcli {

/** Counts every process of a tunnel shares, in memory mapped into all of them. */
struct sharedCounts
{
    /** The counts of one service, found by its name: a service keeps its place across reloads,
     *  and so do the connections that count against its --max-connections. */
    struct serviceSlot
    {
        char name[40];
        std::atomic<uint32_t> open;         ///< connections being served
        std::atomic<int64_t> fullLogged;    ///< when its last "max-connections reached" line left
        std::atomic<int64_t> refusedLogged; ///< the same for a source's handshakes
    };

    static constexpr size_t kSlots = 128;
    /** Handshakes under way by source address, in buckets found by a keyed hash: two addresses
     *  may share a bucket, which only makes the limit stricter for both. */
    static constexpr size_t kBuckets = 4096;

    std::atomic<uint32_t> accepted; ///< connections accepted so far, for their numbers
    uint64_t bucketKey;             ///< chosen at start, so that no peer can aim at a bucket
    serviceSlot slots[kSlots];
    std::atomic<uint16_t> handshakes[kBuckets];
};

/** One service as the workers serve it. */
struct liveService
{
    std::unique_ptr<serviceSetup> setup;
    std::vector<int> listeners; ///< one per address its accept stands for
    size_t slot = 0;            ///< its place in sharedCounts::slots
};

/** Seconds the open connections get once the tunnel is told to stop. */
struct workerLimits
{
    unsigned drainTimeout;
};

/** Runs one worker until it stopped or retired and its connections ended; the exit status. */
int runWorker(const std::vector<liveService>& services, sharedCounts& counts,
              const workerLimits& limits);

} // namespace vxcli
