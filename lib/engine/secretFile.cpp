// The pre-shared secret's file, and the check that a private file is its owner's alone.
#include "secretFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace veltrix::engine {

std::string sharedFileProblem(const std::string& what, const std::string& path, unsigned mode)
{
    if ((mode & 077U) == 0) {
        return {};
    }
    char octal[8];
    (void)std::snprintf(octal, sizeof octal, "%04o", mode & 07777U);
    return "the " + what + " " + path + " is open to group or others (mode " + octal +
           "); run chmod 600 " + path;
}

namespace {

/** The longest secret file read: a secret is a line or some random bytes, never a document. */
constexpr off_t kLongestSecret = 4096;
/** A secret shorter than this many bytes is used, with a warning. */
constexpr size_t kShortSecret = 16;

/** Why the open secret file `fd` must not be read; empty when it may. Its type comes first, so
 *  that a directory is called a directory rather than a file with the wrong mode. */
std::string secretFileProblem(int fd, const std::string& path)
{
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        return "cannot read the secret file " + path + ": " + errnoText();
    }
    if (!S_ISREG(status.st_mode)) {
        return "the secret file " + path + " is not a regular file";
    }
    if (status.st_uid != geteuid() && status.st_uid != 0) {
        return "the secret file " + path + " belongs to user " + std::to_string(status.st_uid) +
               ", not to this user or root";
    }
    if (status.st_size > kLongestSecret) {
        return "the secret file " + path + " holds " + std::to_string(status.st_size) +
               " bytes, more than the " + std::to_string(kLongestSecret) + " a secret may have";
    }
    return sharedFileProblem("secret file", path, status.st_mode);
}

/** Takes one line end (LF or CRLF) off the end of `secret`: what an editor adds is not part of
 *  the secret, on either end. */
void dropLineEnd(std::vector<unsigned char>& secret)
{
    if (!secret.empty() && secret.back() == '\n') {
        secret.pop_back();
        if (!secret.empty() && secret.back() == '\r') {
            secret.pop_back();
        }
    }
}

} // namespace

vxBytes readSecret(const std::string& path, const warningSink& warn)
{
    // Non-blocking, so that a FIFO without a writer is refused for its type instead of holding
    // the open for ever.
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        throw failure("cannot open the secret file " + path + ": " + errnoText());
    }
    vxBytes secret;
    std::string problem = secretFileProblem(fd, path);
    if (problem.empty()) {
        // Room for the whole file up front, so that no reallocation leaves a copy of the
        // secret behind in freed memory; the chunk is wiped after use for the same reason.
        secret.bytes.reserve(static_cast<size_t>(kLongestSecret) + 1);
        unsigned char chunk[4096];
        ssize_t got = 0;
        while (secret.bytes.size() <= static_cast<size_t>(kLongestSecret) &&
               (got = read(fd, chunk, sizeof chunk)) > 0) {
            secret.bytes.insert(
                secret.bytes.end(), chunk,
                chunk + std::min(static_cast<size_t>(got),
                                 static_cast<size_t>(kLongestSecret) + 1 - secret.bytes.size()));
        }
        if (got < 0) {
            problem = "cannot read the secret file " + path + ": " + errnoText();
        } else if (secret.bytes.size() > static_cast<size_t>(kLongestSecret)) {
            problem = "the secret file " + path + " grew past " + std::to_string(kLongestSecret) +
                      " bytes while it was read";
        }
        explicit_bzero(chunk, sizeof chunk);
    }
    (void)close(fd);
    dropLineEnd(secret.bytes);
    if (problem.empty() && secret.bytes.empty()) {
        problem = "the secret file " + path + " is empty";
    }
    if (!problem.empty()) {
        throw failure(problem);
    }
    if (secret.bytes.back() == '\n' || secret.bytes.back() == '\r') {
        warn("the secret file " + path +
             " ends with more than one line end; only the last is not part of the secret");
    }
    if (secret.bytes.size() < kShortSecret) {
        warn("the secret in " + path + " is only " + std::to_string(secret.bytes.size()) +
             (secret.bytes.size() == 1 ? " byte" : " bytes") + ": use " +
             std::to_string(kShortSecret) + " or more (veltrix key psk makes one)");
    }
    return secret;
}

} // namespace veltrix::engine
