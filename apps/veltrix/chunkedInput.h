// Input files read in chunks, standard input for "-": a file is digested, signed or checked
// without being held whole in memory.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace vxcli {

/** Largest piece read at once: a file is never held whole in memory to be digested. */
constexpr size_t inputChunkSize = size_t{64} * 1024;

/** Passes the bytes of `path` ("-": standard input) to `sink`, in order, at most inputChunkSize
 *  at a time. Returns 0 when the whole file was read, else the errno of the open or read that
 *  failed (the bytes before it were passed on). Exceptions from `sink` propagate. */
int readChunks(const std::string& path, const std::function<void(const char*, size_t)>& sink);

} // namespace vxcli
