/// @file
/// The one process-wide object vxGlobal, and the debug aids it holds.
#pragma once

#include "vxBase.h"
#include "vxBytes.h"
#include "vxSignals.h"
#include "vxTrace.h"

namespace veltrix {

class vxVersions;

/** Developer aids: byte dumps and digest traces. */
class VX_API vxDebug : public vxBase
{
public:
    uint32_t level = 20; ///< not read by the operations below

    vxDebug();
    LVX_NOT_COPYABLE(vxDebug);
    ~vxDebug() override;

    /** Prints each byte as unpadded lower-case hex and a blank, then a line end, to stdout. */
    static void dumpVec(const std::vector<unsigned char>& data);
    /** Writes "<message> : <MD5 of data>" to the trace log. Needs this object open; fails with the
     *  standard guard's texts. */
    [[nodiscard]] bool TraceMd(const vxBytes& data, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
};

/** The process-wide data: the root of the object tree, the debug, signal and trace objects, the
 *  error trail and the version table. Its one instance is vxGlobal. */
class VX_API vxGlobalData
{
public:
    bool inited = false; ///< set by the first tryInit
    /** The object that top-level objects are opened under: the newest vxMain frame, or else the
     *  plain root made by tryInit. */
    vxBase* root = nullptr;
    vxDebug debug;                  ///< opened by vxMain::InitAndRun
    vxSignals signals;              ///< opened by vxMain::InitAndRun
    vxTraceLog traceLog;            ///< the trace on standard error and the system log
    vxStackTrace stackTrace;        ///< the error trail: the latch and the events
    vxVersions* versions = nullptr; ///< owned; created by tryInit

    vxGlobalData() = default;
    LVX_NOT_COPYABLE(vxGlobalData);
    ~vxGlobalData();

    /** First call: creates the root object and the version table and records the library. Later
     *  calls do nothing. Safe to call from several threads. */
    void tryInit();

private:
    vxBase* plainRoot = nullptr; ///< the root made by tryInit, kept to release it at exit
    std::once_flag initOnce;
};

} // namespace veltrix

/** The process-wide data every library object uses; see vxGlobalData. */
VX_API extern veltrix::vxGlobalData vxGlobal;

/** Creates the root object and the version table (vxGlobal.tryInit()). */
extern "C" VX_API void libveltrix_init();
