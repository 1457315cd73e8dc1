/// @file
/// The byte buffer every interface passes, and hexadecimal text.
#pragma once

#include "vxBase.h"

#include <string>
#include <vector>

namespace veltrix {

/** A byte buffer. Never opened: no operation requires the open state. */
class VX_API vxBytes : public vxBase
{
public:
    std::vector<unsigned char> bytes; ///< the contents

    vxBytes();
    LVX_COPYABLE(vxBytes);
    ~vxBytes() override;

    /** Overwrites every byte with 0xFF, then empties the buffer (capacity kept). */
    void Scrub();
    /** Copies all bytes to `out`. Fails with "bytes.size() <= maxSize" when they do not fit,
     *  copying nothing; refuses while the error latch is set. */
    [[nodiscard]] bool ExportToC(const uint32_t& maxSize, unsigned char* out) const;
    /** Appends the printable bytes to `out`, skipping the rest; always true. */
    [[nodiscard]] bool ExportToString(std::string& out);
    /** Appends source.bytes[offset1, offset2). Fails with "offset2 > offset1"; an index past the
     *  source throws std::out_of_range. */
    [[nodiscard]] bool CopyOffsets(uint32_t offset1, uint32_t offset2, const vxBytes& source);
    /** Appends source[offset1, offset2); the caller guarantees the range. Fails with
     *  "offset2 > offset1". */
    [[nodiscard]] bool CopyOffsets(uint32_t offset1, uint32_t offset2, const unsigned char* source);
    /** Replaces the contents with `size` bytes from `source`; always true. */
    [[nodiscard]] bool ImportFromC(const uint32_t& size, const unsigned char* source);
    /** Replaces the contents with `source`; always true. */
    [[nodiscard]] bool ImportFromV(std::vector<unsigned char> source);
    /** Appends all of `source`; always true. */
    [[nodiscard]] bool CopyBack(const vxBytes& source);
    /** Replaces the contents with the characters of `text`; always true. */
    [[nodiscard]] bool Replace(const std::string& text);
};

/** Bytes as upper-case hexadecimal text, and text back to bytes. Never touches the error trail:
 *  callers test `valid`. */
class VX_API hexString
{
public:
    bool flag = false;                ///< kept false
    bool valid = false;               ///< whether the conversion succeeded
    std::string text;                 ///< the text: generated, or the input as given
    std::vector<unsigned char> bytes; ///< the bytes: the input as given, or decoded

    /** Two upper-case digits per byte, no separators; always valid. */
    explicit hexString(std::vector<unsigned char> input);
    /** Even length and only hex digits or blanks, else invalid with empty text and bytes. */
    explicit hexString(std::string input);
};

} // namespace veltrix
