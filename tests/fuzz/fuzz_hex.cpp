// Hex text from outside: whatever the input, hexString either refuses it or gives bytes that
// convert back to the same text (upper-case, blanks read as stream extraction reads them).
#include "vxBytes.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    const veltrix::hexString decoded(text);
    if (!decoded.valid) {
        if (!decoded.text.empty() || !decoded.bytes.empty()) {
            std::abort(); // a refused text leaves nothing behind
        }
        return 0;
    }
    if (decoded.bytes.size() * 2 != text.size() || decoded.text != text) {
        std::abort();
    }
    if (text.find(' ') == std::string::npos) {
        // Without blanks the round trip is exact up to letter case.
        const std::string again = veltrix::hexString(decoded.bytes).text;
        for (size_t i = 0; i < text.size(); ++i) {
            const char c = text[i];
            const char upper = (c >= 'a' && c <= 'f') ? static_cast<char>(c - 'a' + 'A') : c;
            if (again[i] != upper) {
                std::abort();
            }
        }
    }
    return 0;
}
