// Lookups on a thread, answers through an event descriptor.
#include "resolver.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace vxcli {

/** What the lookup thread and the loop share. The thread is detached: a lookup can take as long
 *  as the name servers do, and nothing waits for it at the end; it owns this state with the
 *  loop's side, so whichever ends last frees it. */
struct resolver::shared
{
    struct result
    {
        std::string name;
        std::vector<socketAddress> addresses;
        std::string problem;
    };

    std::mutex lock;
    std::condition_variable wake;
    std::deque<endpoint> requests;
    std::vector<result> results;
    bool stopping = false;
    int signal = -1; ///< readable while results wait

    shared() = default;
    LVX_NOT_COPYABLE(shared);

    ~shared()
    {
        if (signal >= 0) {
            (void)close(signal);
        }
    }

    void serve()
    {
        std::unique_lock<std::mutex> held(lock);
        for (;;) {
            wake.wait(held, [this] { return stopping || !requests.empty(); });
            if (stopping) {
                return;
            }
            const endpoint where = requests.front();
            requests.pop_front();
            held.unlock();
            result found{where.text(), {}, {}};
            try {
                found.addresses = resolve(where);
            } catch (const failure& error) {
                found.problem = error.what();
            }
            held.lock();
            results.push_back(std::move(found));
            const uint64_t one = 1;
            writeQuietly(signal, &one, sizeof one);
        }
    }
};

resolver::resolver(eventLoop& owner) : loop(owner) {}

resolver::~resolver()
{
    if (!state) {
        return;
    }
    loop.forget(state->signal);
    const std::lock_guard<std::mutex> held(state->lock);
    state->stopping = true;
    state->wake.notify_one();
}

uint64_t resolver::lookup(const endpoint& where, answer done)
{
    if (!state) {
        auto fresh = std::make_shared<shared>();
        fresh->signal = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        if (fresh->signal < 0) {
            throw failure("cannot look up host names: " + errnoText());
        }
        std::thread([fresh] { fresh->serve(); }).detach();
        state = std::move(fresh);
        loop.want(state->signal, *this, EPOLLIN);
    }
    const uint64_t ticket = ++lastTicket;
    waiting.emplace(ticket, std::move(done));
    std::vector<uint64_t>& tickets = byName[where.text()];
    tickets.push_back(ticket);
    if (tickets.size() == 1) {
        const std::lock_guard<std::mutex> held(state->lock);
        state->requests.push_back(where);
        state->wake.notify_one();
    }
    return ticket;
}

void resolver::cancel(uint64_t ticket)
{
    waiting.erase(ticket);
}

void resolver::ready(uint32_t /*events*/)
{
    uint64_t count = 0;
    if (read(state->signal, &count, sizeof count) < 0) {
        return; // woken for nothing
    }
    std::vector<shared::result> results;
    {
        const std::lock_guard<std::mutex> held(state->lock);
        results.swap(state->results);
    }
    for (const shared::result& found : results) {
        const auto tickets = byName.find(found.name);
        if (tickets == byName.end()) {
            continue;
        }
        const std::vector<uint64_t> answered = std::move(tickets->second);
        byName.erase(tickets);
        for (const uint64_t ticket : answered) {
            const auto done = waiting.find(ticket);
            if (done != waiting.end()) {
                const answer call = std::move(done->second);
                waiting.erase(done);
                call(found.addresses, found.problem);
            }
        }
    }
}

} // namespace vxcli
