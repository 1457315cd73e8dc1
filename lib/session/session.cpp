// The session layer's context, secret and client.
#include "session.h"

#include "cryptoapi.h"
#include "secretFile.h"
#include "sessionChannel.h"
#include "sessionNet.h"
#include "vxGlobal.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <utility>

namespace veltrix::session {

using detail::libraryLock;

const char* causeName(cause why) noexcept
{
    switch (why) {
    case cause::refused:
        return "refused";
    case cause::timedOut:
        return "timed out";
    case cause::wrongSecretOrModes:
        return "wrong secret or modes";
    case cause::peerClosed:
        return "peer closed";
    case cause::payloadSize:
        return "payload size";
    case cause::protocol:
        return "protocol";
    case cause::slowPeer:
        return "slow peer";
    case cause::system:
        return "system";
    case cause::setup:
        return "setup";
    case cause::stopped:
        return "stopped";
    }
    return "unknown";
}

error::error(cause why, const std::string& text) : std::runtime_error(text), reason(why) {}

bool errorLatched()
{
    return vxGlobal.stackTrace.errorLatch;
}

// ---------------------------------------------------------------------------------------------
// The context: one anchor for every object the session layer opens, and the plug-in.

namespace {

struct loadedState
{
    unsigned users = 0;
    std::unique_ptr<detail::anchor> root;
    std::unique_ptr<vxApi> api; ///< only when this layer loaded the plug-in
};

loadedState& loaded()
{
    static loadedState state;
    return state;
}

/** The anchor goes under the application's root: the frame's when it has one, else the plain
 *  root the library made when it was loaded. */
std::unique_ptr<detail::anchor> openAnchor()
{
    libveltrix_init();
    auto made = std::make_unique<detail::anchor>();
    detail::expect(made->PreOpen(__FILE__, __LINE__, vxGlobal.root) && made->Open() &&
                       made->PostOpen(__LINE__),
                   cause::setup, "cannot start the session layer");
    return made;
}

void closeLoaded(loadedState& state) noexcept
{
    if (state.api) {
        (void)detail::anchor::closeChild(*state.api);
        state.api.reset();
    }
    if (state.root) {
        (void)detail::anchor::closeChild(*state.root);
        state.root.reset();
    }
    vxBase::lvxClearLastError();
}

} // namespace

namespace detail {

anchor& owner()
{
    loadedState& state = loaded();
    if (!state.root) {
        throw error(cause::setup, "no session context is loaded: create one first");
    }
    return *state.root;
}

} // namespace detail

context::context(const std::string& pluginDir)
{
    const std::lock_guard<std::mutex> hold(libraryLock());
    loadedState& state = loaded();
    if (state.users > 0) {
        ++state.users;
        return;
    }
    try {
        state.root = openAnchor();
        if (cryptoRegistry == nullptr) {
            directory = pluginDir.empty() ? defaultPluginDir() : pluginDir;
            state.api = std::make_unique<vxApi>();
            state.api->setSearchPath(directory);
            detail::expect(state.root->openChild(*state.api, "openssl"), cause::setup,
                           "cannot load the crypto plug-in libveltrix_openssl.so from " +
                               directory);
        }
    } catch (...) {
        closeLoaded(state);
        throw;
    }
    state.users = 1;
}

context::~context()
{
    const std::lock_guard<std::mutex> hold(libraryLock());
    loadedState& state = loaded();
    if (--state.users == 0) {
        closeLoaded(state);
    }
}

std::string context::defaultPluginDir()
{
    const char* chosen = std::getenv("VELTRIX_PLUGIN_DIR");
    if (chosen != nullptr && *chosen != '\0') {
        return chosen;
    }
    Dl_info where = {};
    if (dladdr(reinterpret_cast<void*>(&causeName), &where) == 0 || where.dli_fname == nullptr) {
        return VX_SESSION_PLUGIN_DIR;
    }
    std::string self = where.dli_fname;
    const size_t slash = self.rfind('/');
    return (slash == std::string::npos ? std::string(".") : self.substr(0, slash)) + "/" +
           VX_SESSION_PLUGIN_FROM_LIBDIR;
}

// ---------------------------------------------------------------------------------------------
// The secret.

secret::secret(bytes material) : key(std::move(material)) {}

secret::~secret()
{
    volatile unsigned char* wipe = key.data();
    for (size_t i = 0; i < key.size(); ++i) {
        wipe[i] = 0;
    }
}

secret secret::fromFile(const std::string& path)
{
    try {
        vxBytes read = engine::readSecret(path, [](const std::string&) {});
        bytes material = read.bytes;
        read.Scrub();
        return secret(std::move(material));
    } catch (const engine::failure& refused) {
        throw error(cause::setup, refused.what());
    }
}

secret secret::fromBytes(const void* data, size_t size)
{
    if (size == 0) {
        throw error(cause::setup, "a secret must have at least one byte");
    }
    const auto* first = static_cast<const unsigned char*>(data);
    return secret(bytes(first, first + size));
}

// ---------------------------------------------------------------------------------------------
// The client: one connection, every wait bounded by the caller's time-out.

struct client::state
{
    modes chosen;
    secret key;
    int fd = -1;
    std::string peerName;
    std::unique_ptr<detail::channel> link;
    detail::inbox arrived;
    std::optional<error> ended; ///< what ended the session; every later call repeats it

    state(modes picked, secret material) : chosen(std::move(picked)), key(std::move(material)) {}

    /** Fails every later call the way the session ended. */
    [[noreturn]] void end(const error& why)
    {
        ended = why;
        throw error(why);
    }

    void usable() const
    {
        if (ended) {
            throw error(*ended);
        }
        if (!link || !link->keyed()) {
            throw error(cause::setup, "the client is not connected: call connect first");
        }
    }

    /** Runs the channel on what arrived until `done` holds, reading more until `deadline`. */
    template <class Done> void drive(detail::deadline until, const Done& done, const char* waiting)
    {
        for (;;) {
            while (!done() && link->wanted() > 0 && arrived.size() >= link->wanted()) {
                const size_t used = link->wanted();
                const bool complete = link->take(arrived.front());
                arrived.consume(used);
                if (complete) {
                    return;
                }
            }
            // A handshake step may have queued this end's next message.
            detail::flush(fd, link->outbound, until, peerName);
            if (done()) {
                return;
            }
            if (link->disconnected()) {
                throw error(cause::peerClosed,
                            peerName + " ended the session (disconnect command)");
            }
            detail::fill(fd, arrived, link->wanted(), until, peerName, waiting);
        }
    }
};

client::client(const context& /*loaded*/, secret key, modes chosen)
    : self(std::make_unique<state>(std::move(chosen), std::move(key)))
{
    detail::checkModes(self->chosen);
}

client::~client()
{
    try {
        close();
    } catch (const error&) {
        // The session is over either way; a destructor has nobody to tell.
    }
}

void client::connect(const std::string& host, const std::string& port, milliseconds timeout)
{
    if (self->fd >= 0) {
        throw error(cause::setup, "the client is already connected: close it first");
    }
    self->ended.reset();
    const detail::deadline until(timeout);
    self->peerName = detail::endpointText(host, port);
    self->fd = detail::connectTo(host, port, until);
    try {
        self->link = std::make_unique<detail::channel>(false, self->chosen, self->key.value(),
                                                       self->peerName);
        self->drive(
            until, [this] { return self->link->keyed(); }, "the handshake");
    } catch (const error& failed) {
        if (failed.why() == cause::peerClosed && self->link && self->link->answered()) {
            self->end(error(cause::wrongSecretOrModes,
                            "the handshake with " + self->peerName +
                                " failed: the server closed the connection on this end's "
                                "answer: the two ends hold different secrets or use different "
                                "modes"));
        }
        self->end(failed);
    }
}

void client::send(const void* data, size_t size, milliseconds timeout)
{
    detail::checkPayloadSize(size);
    self->usable();
    try {
        self->link->seal(data, size);
        detail::flush(self->fd, self->link->outbound, detail::deadline(timeout), self->peerName);
    } catch (const error& failed) {
        self->end(failed);
    }
}

bytes client::receive(milliseconds timeout)
{
    self->usable();
    try {
        self->drive(
            detail::deadline(timeout), [] { return false; }, "a message");
        return self->link->message();
    } catch (const error& failed) {
        // Nothing of the next packet came: the session stands, and the caller may wait again.
        if (failed.why() == cause::timedOut && self->arrived.size() == 0 &&
            self->link->wanted() == VX_HEADER_WIRE_SIZE) {
            throw;
        }
        self->end(failed);
    }
}

void client::close()
{
    if (self->fd < 0) {
        return;
    }
    if (self->link && self->link->keyed() && !self->ended) {
        try {
            self->link->sealDisconnect();
            detail::flush(self->fd, self->link->outbound, detail::deadline(std::chrono::seconds(1)),
                          self->peerName);
        } catch (const error&) {
            // The peer is gone already: closing is all that is left.
        }
    }
    // The library's objects close before the connection: the order the library requires.
    self->link.reset();
    (void)::close(self->fd);
    self->fd = -1;
    if (!self->ended) {
        self->ended = error(cause::stopped, "the client was closed");
    }
}

bool client::connected() const
{
    return self->link && self->link->keyed() && !self->ended;
}

} // namespace veltrix::session
