/// @file
/// Base class of every library object, the open/close protocol and the process-wide error trail.
#pragma once

#include "vxExport.h"

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <iosfwd>
#include <list>
#include <mutex>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

/** Declares the copy and move members of class T as defaulted (LVX_COPYABLE) or deleted
 *  (LVX_NOT_COPYABLE). Every library class declares a destructor (the unclosed-object check), so
 *  each states its copy semantics explicitly. Values (vxBytes, the algorithm identifiers, the
 *  sequence) are copyable; owners of plug-in state, descriptors or children are not. A copy takes
 *  its source's value but never its open state (see vxBase). T is a class name, which cannot be
 *  parenthesised. */
// NOLINTBEGIN(bugprone-macro-parentheses)
#define LVX_COPYABLE(T)               \
    T(const T&) = default;            \
    T& operator=(const T&) = default; \
    T(T&&) = default;                 \
    T& operator=(T&&) = default
/** Declares the copy and move members of class T as deleted; see LVX_COPYABLE. */
#define LVX_NOT_COPYABLE(T)          \
    T(const T&) = delete;            \
    T& operator=(const T&) = delete; \
    T(T&&) = delete;                 \
    T& operator=(T&&) = delete

// NOLINTEND(bugprone-macro-parentheses)

/** The library: the object protocol and error trail, the crypto objects over the plug-in, and
 *  the encrypted client/server transport. */
namespace veltrix {

/** One message line of an error event. */
class VX_API vxHistoryLine
{
public:
    /** The formatted text. */
    std::string message;
    std::string line; ///< decimal source line, or empty
    std::string file; ///< last path component of the source file, or empty

    /** Reduces `file` to its last path component (see vxHistoryEvent::CleanupFilename). */
    void CleanupFilename();
};

/** One entry of the error trail: where a failure was recorded, and its message lines. */
class VX_API vxHistoryEvent
{
public:
    /** The message lines, oldest first. */
    std::vector<vxHistoryLine> lines;
    std::string function; ///< pretty-function signature of the recording operation
    std::string line;     ///< decimal source line (at most 6 characters)
    std::string file;     ///< last path component of the source file

    /** Neither `function` nor `file` may be null (std::string throws std::logic_error). */
    vxHistoryEvent(const char* function, const char* file, int line);

    /** Keeps the text after the last "/" found from index 1 on; a text without one stays whole. */
    void CleanupFilename();
};

/** The error trail: the sticky latch and the events, oldest first. */
class VX_API vxStackTrace
{
public:
    /** Set by every failing guarded operation, cleared only by vxBase::lvxClearLastError. Atomic
     *  because any thread may fail at any time. */
    std::atomic<bool> errorLatch{false};
    /** Guarded by hold(); mutable because recording is const on the recording object. */
    mutable std::list<vxHistoryEvent> events;

    vxStackTrace() = default;
    LVX_NOT_COPYABLE(vxStackTrace);
    ~vxStackTrace() = default;

    /** Appends a line to the newest event; dropped when the trail is empty. */
    void addMessage(const std::string& message) const;
    /** Same, recording `file` (cleaned) and `line` in the message line. */
    void addMessage(const std::string& file, const std::string& message, unsigned int line) const;
    /** Clears the latch and every event. */
    void ClearError();

    /** Locks the trail; an event and its lines recorded under one hold stay together even when
     *  several threads fail at once. Recursive so that nested records may lock again. */
    std::unique_lock<std::recursive_mutex> hold() const
    {
        return std::unique_lock<std::recursive_mutex>(mutex);
    }

private:
    mutable std::recursive_mutex mutex;
};

/** Base of every library object. Objects are constructed closed, opened through LVX_CALL_OPEN by
 *  the object that owns them, closed by that owner and only then destroyed. */
class VX_API vxBase
{
public:
    bool opened = false;            ///< set by PostOpen, cleared by PostClose
    int32_t initLine = 0;           ///< source line of the constructor that named the object
    uint32_t openLine = 0;          ///< source line of the opening call; 0 = never opened
    uint32_t depth = 0;             ///< the parent's depth + 1; 0 for the root of the tree
    const char* openFile = nullptr; ///< source file of the opening call
    /** The run-time type name (std::type_info::name, mangled) set by the derived constructor;
     *  empty for a plain vxBase. */
    std::string name;
    vxBase* parent = nullptr; ///< the object this one was opened under; kept after Close

    vxBase() = default;

    /** A copy is a new object: it keeps its source's class name, but not its open state nor its
     *  place in the object tree. It starts closed and unlinked, so its end reports nothing and it
     *  may be opened under any parent. */
    vxBase(const vxBase& other) : initLine(other.initLine), name(other.name) {}

    /** Same as the copy; the source keeps its state but loses its name. */
    vxBase(vxBase&& other) noexcept : initLine(other.initLine), name(std::move(other.name)) {}

    /** Assignment copies a derived class's value only: this object stays as open and as linked
     *  as it was. */
    // NOLINTNEXTLINE(bugprone-unhandled-self-assignment,cert-oop54-cpp): copies nothing
    vxBase& operator=(const vxBase& /*other*/) { return *this; }

    /** The same for a move: this object stays as it was. */
    vxBase& operator=(vxBase&& /*other*/) noexcept { return *this; }

    /** Does nothing; true. */
    [[nodiscard]] virtual bool Open() { return true; }

    /** Does nothing; true. */
    [[nodiscard]] virtual bool Close() { return true; }

    /** Still open and the latch clear: adds "Object: ( <address> ) was not closed." to the newest
     *  event and latches. */
    virtual ~vxBase();

    /** First step of the open protocol: links the object under `parent`.
     *  Fails with "Unable to continue from previous error", "Object in incorrect state:  Expected
     *  closed, Inited: %d,  Opened: %d", or a linkage violation ("Object protocol violation:
     *  Unnamed object.", "Object protocol violation.  Linkage depth mismatch.", "Object protocol
     *  violation:  Linkage to parent not found.") followed by "Opened by" lines. */
    [[nodiscard]] bool PreOpen(const char* file, uint32_t line, vxBase* parent);
    /** Last step of the open protocol. False without a message when already open; fails with
     *  "Object Protocol Violation -- : Use LVX_CALL_OPEN()." when PreOpen never ran. */
    [[nodiscard]] bool PostOpen(uint32_t line);
    /** Fails with "Object in incorrect state:  Expected open. " when not open. */
    [[nodiscard]] bool PreClose();
    /** Marks the object closed, keeping its links so it may be opened again. */
    [[nodiscard]] bool PostClose();

    /** Opens `child` under this object, as its owner: the open protocol of LVX_CALL_OPEN
     *  (PreOpen, the child's Open(args...), PostOpen), for an owner that opens its children
     *  outside a guarded operation of its own, such as an application frame. A failure is
     *  recorded at this operation's place, and the child's "Opened by" line names it. */
    template <class Child, class... Args> [[nodiscard]] bool openChild(Child& child, Args&&... args)
    {
        return callOpen(__PRETTY_FUNCTION__, __FILE__, __LINE__, child,
                        std::forward<Args>(args)...);
    }

    /** The close protocol on `child`: PreClose, Close and PostClose, false at the first step
     *  that fails. Records nothing of its own (each step records its own failure), so it suits
     *  an owner outside a guarded operation; inside one, LVX_CALL_CLOSE also records the
     *  owner's place. */
    [[nodiscard]] static bool closeChild(vxBase& child)
    {
        return child.PreClose() && child.Close() && child.PostClose();
    }

    /** Starts a new event of the error trail, recorded at (function, file, line); `file` is
     *  reduced to its last path component. */
    void addHistory(const char* function, const char* file, int line) const;
    /** Appends a printf-formatted line (cut to 1023 characters) to the newest event; dropped
     *  when the trail is empty. */
    void addMessage(const char* format, ...) const __attribute__((format(printf, 2, 3)));

    /** The same, with `file` (cleaned) and `line` recorded in the message line. `file` must be a
     *  std::string: a call whose first argument is a C text is always the form above, so
     *  addMessage("%d of %s", 3, "x") records "3 of x". */
    template <class Text, std::enable_if_t<std::is_same_v<Text, std::string>, int> = 0>
    [[gnu::format(printf, 4, 5)]] void addMessage(const Text& file, unsigned int line,
                                                  const char* format, ...) const
    {
        va_list args;
        va_start(args, format);
        addMessageAt(file, line, format, args);
        va_end(args);
    }

    /** Appends the text of the current errno to the formatted message. */
    void addMessageWithErrno(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    /** Adds an "Opened by: <class>" line for `object` and each ancestor of nonzero depth. */
    void addOpenedByHistory(vxBase* object) const;

    /** True when the error trail holds at least one event. */
    [[nodiscard]] static bool HaveStackTrace();
    /** Clears the latch and empties the trail, so that guarded operations work again. */
    static void lvxClearLastError();
    /** Prints the trail as a "Filename" / "Line" / "Message Hints" table; the trail is kept. */
    static void DumpStackTrace(std::ostream& out);

    /** Adds an event recorded at (function, file, line) with one formatted line, as one unit. */
    void recordEvent(const char* function, const char* file, int line, const char* format,
                     ...) const __attribute__((format(printf, 5, 6)));

protected:
    /** The file-and-line form behind addMessage. */
    void addMessageAt(const std::string& file, unsigned int line, const char* format,
                      va_list args) const __attribute__((format(printf, 4, 0)));
    /** The derived-constructor step: closed, unlinked, named with the run-time type name. */
    void initObject(const std::type_info& type, int line);
    /** The derived-destructor check of an object that is still open. */
    void reportUnclosed(const char* function, const char* file, int line);

    /** The step of LVX_CALL_OPEN that checkOpenStep reports on. */
    enum class openStep
    {
        latch,   ///< the latch check first: "Unable to continue from previous error"
        preOpen, ///< PreOpen failed: "Object PreOpen() routine failed.", and latches
        open     ///< the child's Open failed: "Object Open() routine failed.", and latches
    };

    /** Records the failure text of one step of LVX_CALL_OPEN when `ok` is false. */
    [[nodiscard]] bool checkOpenStep(const char* function, const char* file, int line,
                                     openStep step, bool ok) const;

    /** The open protocol behind LVX_CALL_OPEN: PreOpen, the child's Open(args...), PostOpen. */
    template <class Child, class... Args>
    [[nodiscard]] bool callOpen(const char* function, const char* file, int line, Child& child,
                                Args&&... args)
    {
        const auto at = static_cast<uint32_t>(line);
        return checkOpenStep(function, file, line, openStep::latch, true) &&
               checkOpenStep(function, file, line, openStep::preOpen,
                             child.PreOpen(file, at, this)) &&
               checkOpenStep(function, file, line, openStep::open,
                             child.Open(std::forward<Args>(args)...)) &&
               child.PostOpen(at);
    }
};

} // namespace veltrix

/** Opens `child` (first argument) with `this` as parent, passing the remaining arguments to its
 *  Open; returns false from the enclosing operation when any step fails. */
#define LVX_CALL_OPEN(...)                                                           \
    do {                                                                             \
        if (!this->callOpen(__PRETTY_FUNCTION__, __FILE__, __LINE__, __VA_ARGS__)) { \
            return false;                                                            \
        }                                                                            \
    } while (0)

/** The naming step every derived constructor runs. */
#define LVX_INIT_OBJECT() this->initObject(typeid(*this), __LINE__)
/** The unclosed-object check every derived destructor runs. */
#define LVX_DESTRUCT() this->reportUnclosed(__PRETTY_FUNCTION__, __FILE__, __LINE__)
