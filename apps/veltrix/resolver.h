// Host-name lookups for an event loop. The system's resolver only blocks, so the lookups run on a
// thread of their own and their results come back through the loop: connections keep moving
// while a name server is slow.
#pragma once

#include "endpoint.h"
#include "eventLoop.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace vxcli {

class resolver : public pollTarget
{
public:
    /** The addresses found, or why there are none. */
    using answer = std::function<void(const std::vector<socketAddress>&, const std::string&)>;

    explicit resolver(eventLoop& owner);
    LVX_NOT_COPYABLE(resolver);
    ~resolver() override;

    /** Looks `where` up; `done` runs on the loop's thread once the answer is there, unless the
     *  returned ticket is cancelled first. Lookups of the same name at once share one answer. */
    uint64_t lookup(const endpoint& where, answer done);
    void cancel(uint64_t ticket);

    /** Answers arrived. */
    void ready(uint32_t events) override;

private:
    struct shared;

    eventLoop& loop;
    std::shared_ptr<shared> state; ///< the thread's and ours; made at the first lookup
    std::map<uint64_t, answer> waiting;
    std::map<std::string, std::vector<uint64_t>> byName; ///< the tickets of each lookup
    uint64_t lastTicket = 0;
};

} // namespace vxcli
