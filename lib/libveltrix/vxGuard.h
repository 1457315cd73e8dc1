// Internal: every message text the library records, and the guard macros that record them.
// Never installed.
#pragma once

#include "vxGlobal.h"

#include <cerrno>
#include <cstring>
#include <string>

// ---- Message texts ----
// Byte for byte: double and trailing blanks are part of them.
// The object protocol.
#define LVX_MSG_UNABLE        "Unable to continue from previous error"
#define LVX_MSG_EXPECTED_OPEN "Object in incorrect state:  Expected open. "
#define LVX_MSG_EXPECTED_CLOSED \
    "Object in incorrect state:  Expected closed, Inited: %d,  Opened: %d"
#define LVX_MSG_BOOL_FAILED    "Boolean return value failed."
#define LVX_MSG_INT_FAILED     "Int return value failed. (%d). "
#define LVX_MSG_PREOPEN_FAILED "Object PreOpen() routine failed."
#define LVX_MSG_OPEN_FAILED    "Object Open() routine failed."
#define LVX_MSG_UNNAMED        "Object protocol violation:  Unnamed object."
#define LVX_MSG_DEPTH_MISMATCH "Object protocol violation.  Linkage depth mismatch."
#define LVX_MSG_NO_PARENT      "Object protocol violation:  Linkage to parent not found."
#define LVX_MSG_USE_CALL_OPEN  "Object Protocol Violation -- : Use LVX_CALL_OPEN()."
#define LVX_MSG_NOT_CLOSED     "Object ( %s ) was not closed before going out of scope. "
#define LVX_MSG_UNKNOWN_NAME   "Protocol violation -- Unknown object name."
#define LVX_MSG_NO_DEMANGLE    "Unable to convert C++ name."
#define LVX_MSG_OPENED_BY      "Opened by: %s"
// Byte buffers.
#define LVX_MSG_EXPORT_BOUND "bytes.size() <= maxSize"
#define LVX_MSG_OFFSETS      "offset2 > offset1"
// Threads.
#define LVX_MSG_RV_ZERO        "rv == 0"
#define LVX_MSG_THREAD_CREATED "threadCreated == false"
// Plug-in loader and registry.
#define LVX_MSG_NO_PLUGIN_NAME    "Plugin name not set"
#define LVX_MSG_NO_PLUGIN_VERSION "Plugin version not set"
#define LVX_MSG_HANDLE_EXISTS     "Handle already exists"
#define LVX_MSG_ILLEGAL_NAME      "Illegal string component"
#define LVX_MSG_NO_SUCH_FILE      "No such file or directory: "
#define LVX_MSG_NO_VX_INIT        "Unable to locate vx_init"
#define LVX_MSG_VX_INIT_FAILED    "vx_init function pointer failed"
#define LVX_MSG_NO_SYMBOL         "Unable to resolve symbol: "
#define LVX_MSG_PLUGIN_LOADED     "Plugin already loaded."
// Crypto objects.
#define LVX_MSG_NOT_FINALIZED  "finalized == false"
#define LVX_MSG_FINALIZED      "( finalized == true )"
#define LVX_MSG_STORAGE_CLOSED "storage.isopen == false"
#define LVX_MSG_STORAGE_OPEN   "storage.isopen == true"
#define LVX_MSG_REGISTRY       "cryptoRegistry != NULL"
#define LVX_MSG_REGISTRY_BARE  "cryptoRegistry"
#define LVX_MSG_SETKEY_FAILED  "Plugin layer SetKey failed"
#define LVX_MSG_SEED_SHORT     "inValue.bytes.size() >= 4"
#define LVX_MSG_NO_KEY_FILE    "Unable to locate key: "
#define LVX_MSG_STREAM_ERROR   "Object protocol error"
// Secure transport.
#define LVX_MSG_EXPAND_SIZE    "eb.bytes.size() == TargetSize"
#define LVX_MSG_OFFSET_TOP     "offset <= top"
#define LVX_MSG_HAYSTACK_SHORT "(haystack.bytes.size() > 1 )"
#define LVX_MSG_HAYSTACK_LONG  "(haystack.bytes.size() <= 16)"
#define LVX_MSG_OFFSET_12      "(offset <= 12 )"
#define LVX_MSG_NO_CIPHER      "cb != 0"
#define LVX_MSG_NO_IV          "HmacIV != 0"
#define LVX_MSG_SEED0_EMPTY    "( seed0.bytes.size() > 0 )"
#define LVX_MSG_SEED1_EMPTY    "( seed1.bytes.size() > 0 )"
#define LVX_MSG_HEADER_SIZE    "tempBytes1.bytes.size() == VX_HEADER_WIRE_SIZE"
#define LVX_MSG_HEAD_HMAC      "tempBytes3 == hMacHead"
#define LVX_MSG_BODY_HMAC      "tempBytes3 == hMacBody"
// Plain socket.
#define LVX_MSG_RECV_EMPTY     "size >= 1"
#define LVX_MSG_RECV_TOO_BIG   "size <= veltrix::VX_MAX_PACKET_SIZE"
#define LVX_MSG_SELECT_TIMEOUT "Select timeout expired."
#define LVX_MSG_SHORT_SEND     "rv == (int)v.bytes.size()"
#define LVX_MSG_SHORT_BLOCK    ""
#define LVX_MSG_PORT_FIRST     "The port must be set before the address."
#define LVX_MSG_RESOLVER       "Socket error: "
#define LVX_MSG_SETSOCKOPT     "setsockopt failed: "
#define LVX_MSG_NO_SOCKET      "Unable to create socket: "
#define LVX_MSG_CONNECT        "connect() failed: "
#define LVX_MSG_SELECT         "select() failed: "
#define LVX_MSG_NO_PORT        "Port is not set."
#define LVX_MSG_NO_ADDRESS     "Address is not set."
#define LVX_MSG_LINGER         "setsockopt() failed: "
#define LVX_MSG_BIND           "bind() failed: "
#define LVX_MSG_LISTEN         "listen() failed: "
#define LVX_MSG_IPV6_NAME      "Unimplmeneted ipv6 name"
// Encrypted socket.
#define LVX_MSG_REKEY_REQUEST "Process a key re-exchange request."
#define LVX_MSG_UNKNOWN_CMD   "fail"
// Handshake.
#define LVX_MSG_BAD_RESPONSE   "( decrypted == correctResponse )"
#define LVX_MSG_VERSION_REPORT "RecvProtocolVersion : error receiving protocol:: encrypted size="
#define LVX_MSG_VERSION_SIZE2  ", decrypted size="
// Server.
#define LVX_MSG_ID_SET   "__clientIdSet == false"
#define LVX_MSG_ID_UNSET "__clientIdSet == true"
// Protocol statistics.
#define LVX_MSG_BYTES_SUFFIX " bytes."

// ---- The guard ----

/** The caller's function, file and line, where a failure is recorded. */
#define LVX_PLACE __PRETTY_FUNCTION__, __FILE__, __LINE__
/** Records an event at the caller's place with one formatted line. */
#define LVX_RECORD(...) this->recordEvent(LVX_PLACE, __VA_ARGS__)
#define LVX_LATCH()     (vxGlobal.stackTrace.errorLatch = true)
#define LVX_LATCHED()   (vxGlobal.stackTrace.errorLatch.load())

namespace veltrix {
// The failure paths of the guard macros are functions of their own, so that each of the
// library's many guard sites only passes its place and text: the sites stay small and the
// success path straight. They are defined here, never inlined, and not exported: the library
// keeps one copy of each, and code outside it that uses the macros (a test harness) compiles
// its own.

/** Records "Unable to continue from previous error" at the place; the latch stays as it is.
 *  Returns false. */
[[gnu::cold, gnu::noinline]] inline bool lvxRefuse(const vxBase& object, const char* function,
                                                   const char* file, int line)
{
    object.recordEvent(function, file, line, "%s", LVX_MSG_UNABLE);
    return false; // recorded: at the caller's place
}

/** Records `text` at the place, latches and returns false. */
[[gnu::cold, gnu::noinline]] inline bool lvxFail(const vxBase& object, const char* function,
                                                 const char* file, int line, const char* text)
{
    object.recordEvent(function, file, line, "%s", text);
    LVX_LATCH();
    return false; // recorded: at the caller's place
}

/** The close protocol on a member: PreClose, Close and PostClose, each after the latch check, a
 *  failure recorded at the owner's place. */
[[gnu::noinline]] inline bool lvxCloseMember(const vxBase& owner, vxBase& child,
                                             const char* function, const char* file, int line)
{
    for (bool (vxBase::*step)() : {&vxBase::PreClose, &vxBase::Close, &vxBase::PostClose}) {
        if (LVX_LATCHED()) {
            return lvxRefuse(owner, function, file, line);
        }
        if (!(child.*step)()) {
            return lvxFail(owner, function, file, line, LVX_MSG_BOOL_FAILED);
        }
    }
    return true;
}

/** The text of an errno value, as LVX_FAIL_ERRNO and vxBase::addMessageWithErrno append it. */
[[gnu::noinline]] inline std::string lvxErrnoText(int error)
{
    char reason[128] = "";
    // The GNU strerror_r may return a static text instead of filling the buffer.
    return strerror_r(error, reason, sizeof reason);
}
} // namespace veltrix

/** Records, latches and returns false. */
#define LVX_FAIL(...)            \
    do {                         \
        LVX_RECORD(__VA_ARGS__); \
        LVX_LATCH();             \
        return false;            \
    } while (0)

/** Refuses while the latch is set; the latch stays as it is. */
#define LVX_GUARD_LATCH()                                \
    do {                                                 \
        if (LVX_LATCHED()) {                             \
            return veltrix::lvxRefuse(*this, LVX_PLACE); \
        }                                                \
    } while (0)

/** The standard guard: the latch check, then the object must be open. */
#define LVX_GUARD()                                                           \
    do {                                                                      \
        LVX_GUARD_LATCH();                                                    \
        if (!this->opened) {                                                  \
            return veltrix::lvxFail(*this, LVX_PLACE, LVX_MSG_EXPECTED_OPEN); \
        }                                                                     \
    } while (0)

/** A violated precondition: records `text`, the condition as the library words it. */
#define LVX_ENSURE(cond, text)                               \
    do {                                                     \
        if (!(cond)) {                                       \
            return veltrix::lvxFail(*this, LVX_PLACE, text); \
        }                                                    \
    } while (0)

/** A checked call to a guarded operation, preceded by the latch check. */
#define LVX_CHECK(call)                                                     \
    do {                                                                    \
        LVX_GUARD_LATCH();                                                  \
        if (!(call)) {                                                      \
            return veltrix::lvxFail(*this, LVX_PLACE, LVX_MSG_BOOL_FAILED); \
        }                                                                   \
    } while (0)

/** A checked call that returns an integer status (0 = success). */
#define LVX_CHECK_INT(call)                          \
    do {                                             \
        LVX_GUARD_LATCH();                           \
        const int lvxStatus = (call);                \
        if (lvxStatus != 0) {                        \
            LVX_FAIL(LVX_MSG_INT_FAILED, lvxStatus); \
        }                                            \
    } while (0)

/** Records `text` followed by the text of the current errno, latches and returns false. */
#define LVX_FAIL_ERRNO(text)                                        \
    do {                                                            \
        const std::string lvxReason = veltrix::lvxErrnoText(errno); \
        LVX_FAIL("%s%s", text, lvxReason.c_str());                  \
    } while (0)

/** The close protocol on a member: PreClose, Close, PostClose, each checked. */
#define LVX_CALL_CLOSE(child)                                      \
    do {                                                           \
        if (!veltrix::lvxCloseMember(*this, (child), LVX_PLACE)) { \
            return false; /* recorded: by the close protocol */    \
        }                                                          \
    } while (0)

/** Defines the constructor and destructor every library class has: named and closed on
 *  construction, checked for an unclosed state on destruction, which then runs `release` (one
 *  statement) for what the object holds besides its members. */
#define LVX_DEFINE_LIFECYCLE_RELEASING(T, release) \
    T::T()                                         \
    {                                              \
        LVX_INIT_OBJECT();                         \
    }                                              \
    T::~T()                                        \
    {                                              \
        LVX_DESTRUCT();                            \
        release;                                   \
    }
/** The same for a class with nothing to release. */
#define LVX_DEFINE_LIFECYCLE(T) LVX_DEFINE_LIFECYCLE_RELEASING(T, (void)0)
