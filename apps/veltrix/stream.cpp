// Cells of the stream protocol: cutting data to the announced sizes, and checking what arrives.
#include "stream.h"

#include "cliFrame.h"

#include <algorithm>

namespace vxcli::stream {

namespace {

void writeHeader(std::vector<unsigned char>& cell, kind type, uint32_t next)
{
    cell.assign({static_cast<unsigned char>(type), static_cast<unsigned char>(next >> 8U),
                 static_cast<unsigned char>(next & 0xFFU)});
}

/** `first`: the peer's first packet broke it, which is what an end sending bare payloads
 *  does. */
[[noreturn]] void broken(const std::string& why, bool first)
{
    throw failure("the peer broke the stream protocol: " + why +
                  (first ? " (if it runs with --raw: run both ends with --raw, or neither)" : ""));
}

} // namespace

size_t sender::take(size_t available) const
{
    // The cell must fill the announced body: more than the blocks below it, at most the blocks.
    // A sender announces more than one block only for data it holds, so `available` reaches it.
    return std::min(available, kBlock * announced - kCellHeader);
}

void sender::data(const unsigned char* data, size_t count, size_t following,
                  std::vector<unsigned char>& cell)
{
    const uint32_t next = following == 0 ? kFirstBlocks : blocksFor(std::min(following, kMaxData));
    writeHeader(cell, kindData, next);
    cell.insert(cell.end(), data, data + count);
    announced = next;
}

void sender::end(std::vector<unsigned char>& cell)
{
    writeHeader(cell, kindEnd, 0);
    announced = 0;
}

void receiver::checkSize(uint32_t sizeWithPadding) const
{
    if (sizeWithPadding != kBlock * expected) {
        broken("a packet declares a body of " + std::to_string(sizeWithPadding) + " bytes where " +
                   std::to_string(kBlock * expected) + " were announced",
               !started);
    }
}

size_t receiver::take(const std::vector<unsigned char>& cell)
{
    if (sawEnd) {
        broken("a cell after the end of the stream", false);
    }
    if (cell.size() < kCellHeader || cell[0] > kindEnd) {
        broken("a cell of an unknown kind", !started);
    }
    const uint32_t next = (static_cast<uint32_t>(cell[1]) << 8U) | cell[2];
    const size_t count = cell.size() - kCellHeader;
    if (cell[0] == kindEnd) {
        if (count != 0 || next != 0) {
            broken("an end cell that carries data or announces a packet", !started);
        }
        sawEnd = true;
    } else if (count == 0 || next == 0 || next > kMaxBlocks) {
        broken("a data cell without data or with an announcement of " + std::to_string(next) +
                   " blocks",
               !started);
    }
    expected = next;
    started = true;
    return count;
}

} // namespace vxcli::stream
