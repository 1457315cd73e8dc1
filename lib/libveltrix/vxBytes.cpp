// Byte buffer operations and hexadecimal text.
#include "vxBytes.h"

#include "vxGuard.h"
#include "vxSecret.h"

#include <algorithm>
#include <cstring>
#include <locale>

namespace veltrix {

// Any buffer may have carried a key, a chain key or a secret: none leaves its bytes behind in
// freed memory.
LVX_DEFINE_LIFECYCLE_RELEASING(vxBytes, wipeSecret(bytes))

void vxBytes::Scrub()
{
    // volatile keeps the wipe from being dropped as a dead store before the clear.
    volatile unsigned char* wipe = bytes.data();
    for (size_t i = 0; i < bytes.size(); ++i) {
        wipe[i] = 0xFF;
    }
    bytes.clear();
}

bool vxBytes::ExportToC(const uint32_t& maxSize, unsigned char* out) const
{
    LVX_GUARD_LATCH();
    LVX_ENSURE(bytes.size() <= maxSize, LVX_MSG_EXPORT_BOUND);
    if (!bytes.empty()) {
        std::memcpy(out, bytes.data(), bytes.size());
    }
    return true;
}

bool vxBytes::ExportToString(std::string& out)
{
    const std::locale& posix = std::locale::classic();
    for (const unsigned char byte : bytes) {
        if (std::isprint(static_cast<char>(byte), posix)) {
            out.push_back(static_cast<char>(byte));
        }
    }
    return true;
}

bool vxBytes::CopyOffsets(uint32_t offset1, uint32_t offset2, const vxBytes& source)
{
    LVX_GUARD_LATCH();
    LVX_ENSURE(offset2 > offset1, LVX_MSG_OFFSETS);
    // Checked access: a range past the source is a programming error, not a trail entry. The
    // range is checked before anything is appended, so a throw leaves this buffer untouched.
    (void)source.bytes.at(offset1);
    (void)source.bytes.at(offset2 - 1);
    bytes.insert(bytes.end(), source.bytes.begin() + offset1, source.bytes.begin() + offset2);
    return true;
}

bool vxBytes::CopyOffsets(uint32_t offset1, uint32_t offset2, const unsigned char* source)
{
    LVX_GUARD_LATCH();
    LVX_ENSURE(offset2 > offset1, LVX_MSG_OFFSETS);
    bytes.insert(bytes.end(), source + offset1, source + offset2);
    return true;
}

bool vxBytes::ImportFromC(const uint32_t& size, const unsigned char* source)
{
    bytes.assign(source, source + size);
    return true;
}

bool vxBytes::ImportFromV(std::vector<unsigned char> source)
{
    bytes = std::move(source);
    return true;
}

bool vxBytes::CopyBack(const vxBytes& source)
{
    bytes.insert(bytes.end(), source.bytes.begin(), source.bytes.end());
    return true;
}

bool vxBytes::Replace(const std::string& text)
{
    bytes.assign(text.begin(), text.end());
    return true;
}

namespace {

unsigned int nibble(char digit)
{
    if (digit >= '0' && digit <= '9') {
        return static_cast<unsigned int>(digit - '0');
    }
    return static_cast<unsigned int>((digit | 0x20) - 'a' + 10);
}

/** Reads two characters as a hexadecimal number the way stream extraction does: a leading blank
 *  is skipped, a blank after a digit ends the number, and two blanks read as 0. */
unsigned char pairValue(char high, char low)
{
    if (high == ' ') {
        return static_cast<unsigned char>(low == ' ' ? 0U : nibble(low));
    }
    if (low == ' ') {
        return static_cast<unsigned char>(nibble(high));
    }
    return static_cast<unsigned char>((nibble(high) << 4U) | nibble(low));
}

} // namespace

hexString::hexString(std::vector<unsigned char> input) : valid(true), bytes(std::move(input))
{
    static const char kDigits[] = "0123456789ABCDEF";
    text.reserve(bytes.size() * 2);
    for (const unsigned char byte : bytes) {
        text.push_back(kDigits[byte >> 4U]);
        text.push_back(kDigits[byte & 0x0FU]);
    }
}

hexString::hexString(std::string input)
{
    if (input.size() % 2 != 0 ||
        input.find_first_not_of("0123456789abcdefABCDEF ") != std::string::npos) {
        return;
    }
    text = std::move(input);
    bytes.reserve(text.size() / 2);
    for (size_t i = 0; i < text.size(); i += 2) {
        bytes.push_back(pairValue(text[i], text[i + 1]));
    }
    valid = true;
}

} // namespace veltrix
