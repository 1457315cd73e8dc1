// The object protocol, the error trail, the debug aids and the process-wide data.
#include "vxBase.h"

#include "cryptoapi.h"
#include "uiTable.h"
#include "vxGuard.h"
#include "vxVersions.h"

#include <cxxabi.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <sstream>

veltrix::vxGlobalData vxGlobal;

extern "C" void libveltrix_init()
{
    vxGlobal.tryInit();
}

namespace veltrix {

namespace {

constexpr size_t kMessageSize = 1024;

std::string cleanFilename(const std::string& file)
{
    const std::string::size_type slash = file.find_last_of('/');
    if (slash == std::string::npos) {
        return file;
    }
    // The search for a directory part starts at index 1, so a lone leading "/" leaves nothing.
    return slash == 0 ? std::string() : file.substr(slash + 1);
}

std::string decimal(int value)
{
    // Six characters at most: a line number no source file reaches cannot widen the trail's
    // Line column.
    char text[7];
    (void)snprintf(text, sizeof text, "%d", value);
    return text;
}

/** The readable class name, or false when the demangler does not know the text. */
bool demangle(const std::string& mangled, std::string& readable)
{
    int status = 0;
    std::unique_ptr<char, decltype(&free)> text(
        abi::__cxa_demangle(mangled.c_str(), nullptr, nullptr, &status), &free);
    if (status != 0 || !text) {
        return false; // quiet: the caller words this case itself
    }
    readable = text.get();
    return true;
}

__attribute__((format(printf, 1, 0))) std::string vformat(const char* format, va_list args)
{
    char text[kMessageSize];
    (void)vsnprintf(text, sizeof text, format, args);
    return text;
}

} // namespace

void vxHistoryLine::CleanupFilename()
{
    file = cleanFilename(file);
}

vxHistoryEvent::vxHistoryEvent(const char* functionText, const char* fileText, int lineNumber)
    : function(functionText), line(decimal(lineNumber)), file(fileText)
{
    CleanupFilename();
}

void vxHistoryEvent::CleanupFilename()
{
    file = cleanFilename(file);
}

void vxStackTrace::addMessage(const std::string& message) const
{
    const auto lock = hold();
    if (events.empty()) {
        return;
    }
    vxHistoryLine entry;
    entry.message = message;
    events.back().lines.push_back(std::move(entry));
}

void vxStackTrace::addMessage(const std::string& file, const std::string& message,
                              unsigned int line) const
{
    const auto lock = hold();
    if (events.empty()) {
        return;
    }
    vxHistoryLine entry;
    entry.message = message;
    entry.line = decimal(static_cast<int>(line));
    entry.file = file;
    entry.CleanupFilename();
    events.back().lines.push_back(std::move(entry));
}

void vxStackTrace::ClearError()
{
    const auto lock = hold();
    events.clear();
    errorLatch = false;
}

vxBase::~vxBase()
{
    if (opened && !LVX_LATCHED()) {
        std::ostringstream text;
        text << "Object: ( " << static_cast<const void*>(this) << " ) was not closed.";
        vxGlobal.stackTrace.addMessage(text.str());
        LVX_LATCH();
    }
}

void vxBase::initObject(const std::type_info& type, int line)
{
    parent = nullptr;
    initLine = line;
    opened = false;
    openLine = 0;
    name = type.name();
}

void vxBase::reportUnclosed(const char* function, const char* file, int line)
{
    if (!opened || LVX_LATCHED()) {
        return;
    }
    const auto lock = vxGlobal.stackTrace.hold();
    addHistory(function, file, line);
    std::string readable;
    if (demangle(name, readable)) {
        addMessage(LVX_MSG_NOT_CLOSED, readable.c_str());
    }
    addOpenedByHistory(this);
    LVX_LATCH();
}

bool vxBase::checkOpenStep(const char* function, const char* file, int line, openStep step,
                           bool ok) const
{
    if (step == openStep::latch) {
        if (LVX_LATCHED()) {
            recordEvent(function, file, line, "%s", LVX_MSG_UNABLE);
            return false; // recorded: at the opening caller's place
        }
        return true;
    }
    if (!ok) {
        recordEvent(function, file, line, "%s",
                    step == openStep::preOpen ? LVX_MSG_PREOPEN_FAILED : LVX_MSG_OPEN_FAILED);
        LVX_LATCH();
    }
    return ok;
}

bool vxBase::PreOpen(const char* file, uint32_t line, vxBase* parentObject)
{
    LVX_GUARD_LATCH();
    if (opened) {
        LVX_FAIL(LVX_MSG_EXPECTED_CLOSED, initLine, static_cast<int>(openLine));
    }
    openLine = line;
    parent = parentObject;
    openFile = file;
    depth = parentObject->depth + 1;
    if (parentObject == vxGlobal.root) {
        return true;
    }
    const char* violation = LVX_MSG_NO_PARENT;
    uint32_t expected = parentObject->depth;
    for (const vxBase* object = parentObject; object != nullptr;) {
        if (object->name.empty()) {
            violation = LVX_MSG_UNNAMED;
            break;
        }
        if (object->depth != expected) {
            violation = LVX_MSG_DEPTH_MISMATCH;
            break;
        }
        object = object->parent;
        --expected;
        if (object == vxGlobal.root) {
            return true;
        }
    }
    // The violation is reported where the caller opened this object.
    const auto lock = vxGlobal.stackTrace.hold();
    addHistory(__PRETTY_FUNCTION__, file, static_cast<int>(line));
    addMessage("%s", violation);
    addOpenedByHistory(parentObject);
    LVX_LATCH();
    return false; // recorded: the violation and its "Opened by" lines
}

bool vxBase::PostOpen(uint32_t /*line*/)
{
    if (opened) {
        return false; // quiet: a second PostOpen changes nothing
    }
    LVX_GUARD_LATCH();
    LVX_ENSURE(openLine != 0, LVX_MSG_USE_CALL_OPEN);
    opened = true;
    return true;
}

bool vxBase::PreClose()
{
    LVX_GUARD();
    return true;
}

bool vxBase::PostClose()
{
    LVX_GUARD_LATCH();
    if (openLine == 0) {
        return false; // quiet: never opened through the protocol
    }
    opened = false;
    return true;
}

void vxBase::addHistory(const char* function, const char* file, int line) const
{
    vxHistoryEvent event(function, file, line);
    const auto lock = vxGlobal.stackTrace.hold();
    vxGlobal.stackTrace.events.push_back(std::move(event));
}

void vxBase::addMessage(const char* format, ...) const
{
    va_list args;
    va_start(args, format);
    const std::string text = vformat(format, args);
    va_end(args);
    vxGlobal.stackTrace.addMessage(text);
}

void vxBase::addMessageAt(const std::string& file, unsigned int line, const char* format,
                          va_list args) const
{
    vxGlobal.stackTrace.addMessage(file, vformat(format, args), line);
}

void vxBase::addMessageWithErrno(const char* format, ...) const
{
    const std::string reason = lvxErrnoText(errno);
    va_list args;
    va_start(args, format);
    const std::string message = vformat(format, args);
    va_end(args);
    vxGlobal.stackTrace.addMessage(message + reason);
}

void vxBase::recordEvent(const char* function, const char* file, int line, const char* format,
                         ...) const
{
    va_list args;
    va_start(args, format);
    const std::string text = vformat(format, args);
    va_end(args);
    const auto lock = vxGlobal.stackTrace.hold();
    addHistory(function, file, line);
    vxGlobal.stackTrace.addMessage(text);
}

void vxBase::addOpenedByHistory(vxBase* object) const
{
    const auto lock = vxGlobal.stackTrace.hold();
    for (const vxBase* current = object; current != nullptr && current->depth != 0;
         current = current->parent) {
        if (current->name.empty()) {
            addMessage("%s", LVX_MSG_UNKNOWN_NAME);
            return;
        }
        std::string readable;
        if (!demangle(current->name, readable)) {
            addMessage("%s", LVX_MSG_NO_DEMANGLE);
            return;
        }
        const std::string file = current->openFile != nullptr ? current->openFile : "";
        addMessage(file, current->openLine, LVX_MSG_OPENED_BY, readable.c_str());
    }
}

bool vxBase::HaveStackTrace()
{
    const auto lock = vxGlobal.stackTrace.hold();
    return !vxGlobal.stackTrace.events.empty();
}

void vxBase::lvxClearLastError()
{
    vxGlobal.stackTrace.ClearError();
}

void vxBase::DumpStackTrace(std::ostream& out)
{
    libuiTable::uiTable table;
    const auto file = table.createColumn("Filename");
    const auto line = table.createColumn("Line");
    const auto hints = table.createColumn("Message Hints");
    {
        const auto lock = vxGlobal.stackTrace.hold();
        for (const vxHistoryEvent& event : vxGlobal.stackTrace.events) {
            for (const vxHistoryLine& entry : event.lines) {
                libuiTable::uiRow& row = table.createRow();
                (void)row.Insert(file, entry.file.empty() ? event.file : entry.file);
                (void)row.Insert(line, entry.line.empty() ? event.line : entry.line);
                (void)row.Insert(hints, entry.message);
            }
            if (event.lines.size() > 1) {
                table.createRow(); // an empty separator row closes a multi-line event
            }
        }
    }
    table.Display(out);
}

LVX_DEFINE_LIFECYCLE(vxDebug)

void vxDebug::dumpVec(const std::vector<unsigned char>& data)
{
    std::ostringstream text;
    text << std::hex;
    for (const unsigned char byte : data) {
        text << static_cast<unsigned int>(byte) << ' ';
    }
    std::cout << text.str() << std::endl;
}

bool vxDebug::TraceMd(const vxBytes& data, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const std::string message = vformat(format, args);
    va_end(args);
    LVX_GUARD_LATCH();

    vxHashId id;
    vxMd md;
    std::string digest;
    LVX_CALL_OPEN(id, vxHashId::md5);
    LVX_CALL_OPEN(md, id);
    LVX_CHECK(md.Init());
    LVX_CHECK(md.Update(data));
    LVX_CHECK(md.Final());
    LVX_CHECK(md.GetString(digest));
    LVX_CHECK(vxGlobal.traceLog.AddMessage(message + " : " + digest));
    LVX_CALL_CLOSE(md);
    LVX_CALL_CLOSE(id);
    return true;
}

vxGlobalData::~vxGlobalData()
{
    // The process-wide objects stay open until exit by design; release them without a report,
    // since the trail they would report to is destroyed before them.
    debug.opened = false;
    signals.opened = false;
    traceLog.opened = false;
    delete versions;
    versions = nullptr;
    if (root == plainRoot) {
        root = nullptr;
    }
    delete plainRoot;
}

void vxGlobalData::tryInit()
{
    std::call_once(initOnce, [this] {
        plainRoot = new vxBase();
        root = plainRoot;
        versions = new vxVersions(true);
        inited = true;
        (void)versions->AddLibraryInfo("libveltrix", "2.0");
    });
}

} // namespace veltrix
