// Key files from outside: reading one either fails cleanly, throws the documented
// std::out_of_range for a body line without a word, or gives a key that writes and reads back to
// the same fingerprint. Nothing may crash, leak or leave the error latch set without a trail.
#include "vxGlobal.h"
#include "vxMain.h"

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace {

class fuzzFrame : public veltrix::vxMain
{
public:
    bool main(int /*argc*/, char** /*argv*/) override { return true; }

    /** Reads `path` into a fresh key; on success writes it back and compares fingerprints. */
    bool roundTrip(const std::string& path, const std::string& copyPath)
    {
        veltrix::vxRsa key;
        veltrix::vxRsa again;
        LVX_CALL_OPEN(key);
        LVX_CALL_OPEN(again);
        bool ok = false;
        try {
            ok = key.ReadKeyFromDisk(path);
        } catch (const std::out_of_range&) {
            ok = false; // a body line without any word, as documented
        }
        std::string first;
        std::string second;
        if (ok &&
            (!key.WriteKeyToDisk(copyPath) || !again.ReadKeyFromDisk(copyPath) ||
             !key.GetFingerprint(first) || !again.GetFingerprint(second) || first != second)) {
            std::abort();
        }
        return closeChild(key) && closeChild(again);
    }
};

std::string scratchPath(const char* suffix)
{
    return "/tmp/vxfuzz-keyfile-" + std::to_string(getpid()) + suffix;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static fuzzFrame frame;
    static const bool loaded = [] {
        frame.api.setSearchPath(VX_PLUGIN_DIR);
        return frame.LoadPlugin("openssl");
    }();
    if (!loaded) {
        std::abort();
    }
    const std::string path = scratchPath(".in");
    const std::string copyPath = scratchPath(".out");
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr || std::fwrite(data, 1, size, file) != size || std::fclose(file) != 0) {
        std::abort();
    }
    if (!frame.roundTrip(path, copyPath)) {
        std::abort(); // the objects must always close: no failure may leak past the read
    }
    veltrix::vxBase::lvxClearLastError();
    (void)std::remove(path.c_str());
    (void)std::remove(copyPath.c_str());
    return 0;
}
