// Input files read in chunks.
#include "chunkedInput.h"

#include "vxBase.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace vxcli {

namespace {

/** Closes a descriptor the reader opened; standard input stays open for a later "-". */
struct inputDescriptor
{
    explicit inputDescriptor(int descriptor) : fd(descriptor) {}

    LVX_NOT_COPYABLE(inputDescriptor);

    ~inputDescriptor()
    {
        if (fd > STDIN_FILENO) {
            (void)close(fd);
        }
    }

    const int fd;
};

ssize_t readRetrying(int fd, char* buffer, size_t size)
{
    ssize_t got = 0;
    do {
        got = read(fd, buffer, size);
    } while (got < 0 && errno == EINTR);
    return got;
}

} // namespace

int readChunks(const std::string& path, const std::function<void(const char*, size_t)>& sink)
{
    const inputDescriptor input{path == "-" ? STDIN_FILENO
                                            : open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    if (input.fd < 0) {
        return errno;
    }
    std::vector<char> buffer(inputChunkSize);
    for (;;) {
        const ssize_t got = readRetrying(input.fd, buffer.data(), buffer.size());
        if (got <= 0) {
            // The result is taken before the descriptor closes, so close cannot change errno first.
            return got == 0 ? 0 : errno;
        }
        sink(buffer.data(), static_cast<size_t>(got));
    }
}

} // namespace vxcli
