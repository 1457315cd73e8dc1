// Addresses, their resolution, listening and plain connects for the tunnel and cat.
#include "endpoint.h"

#include "bindLog.h"
#include "vxGlobal.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

namespace vxcli {

using namespace veltrix;

std::string endpoint::text() const
{
    return address.find(':') != std::string::npos ? "[" + address + "]:" + port
                                                  : address + ":" + port;
}

bool endpoint::numeric() const
{
    in6_addr bytes{};
    return inet_pton(AF_INET, address.c_str(), &bytes) == 1 ||
           inet_pton(AF_INET6, address.c_str(), &bytes) == 1;
}

endpoint parseEndpoint(const std::string& text)
{
    const std::string::size_type colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) {
        throw failure("\"" + text + "\" is not ADDR:PORT");
    }
    endpoint where{text.substr(0, colon), text.substr(colon + 1)};
    if (where.address.front() == '[' && where.address.back() == ']') {
        where.address = where.address.substr(1, where.address.size() - 2);
    }
    if (where.port.find_first_not_of("0123456789") != std::string::npos || where.port.size() > 5 ||
        std::stoul(where.port) > 65535) {
        throw failure("\"" + text + "\": the port must be a number from 0 to 65535");
    }
    if (where.numeric()) {
        return where;
    }
    // A host name: letters, digits, '-', '_' and dots between labels.
    const std::string& name = where.address;
    const bool wellFormed =
        name.size() <= 253 &&
        name.find_first_not_of(
            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.") ==
            std::string::npos &&
        name.front() != '.' && name.front() != '-' && name.find("..") == std::string::npos;
    if (!wellFormed) {
        throw failure("\"" + text +
                      "\": the address must be a host name or a numeric IPv4 or IPv6 address");
    }
    return where;
}

CLI::Validator endpointValidator()
{
    return {[](const std::string& text) {
                try {
                    (void)parseEndpoint(text);
                } catch (const failure& error) {
                    return std::string(error.what());
                }
                return std::string();
            },
            "ADDR:PORT"};
}

std::vector<socketAddress> resolve(const endpoint& where, bool listening)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | (listening ? AI_PASSIVE : 0);
    addrinfo* found = nullptr;
    const int status = getaddrinfo(where.address.c_str(), where.port.c_str(), &hints, &found);
    if (status != 0) {
        throw failure("cannot resolve " + where.address + ": " +
                      (status == EAI_SYSTEM ? errnoText() : gai_strerror(status)));
    }
    std::vector<socketAddress> addresses;
    for (const addrinfo* one = found; one != nullptr; one = one->ai_next) {
        socketAddress address{};
        std::memcpy(&address.address, one->ai_addr, one->ai_addrlen);
        address.length = one->ai_addrlen;
        addresses.push_back(address);
    }
    freeaddrinfo(found);
    if (addresses.empty()) {
        throw failure("cannot resolve " + where.address + ": no address");
    }
    return addresses;
}

std::string addressText(const sockaddr_storage& peer)
{
    char address[INET6_ADDRSTRLEN] = "?";
    if (peer.ss_family == AF_INET6) {
        const auto& six = reinterpret_cast<const sockaddr_in6&>(peer);
        (void)inet_ntop(AF_INET6, &six.sin6_addr, address, sizeof address);
        return endpoint{address, std::to_string(ntohs(six.sin6_port))}.text();
    }
    const auto& four = reinterpret_cast<const sockaddr_in&>(peer);
    (void)inet_ntop(AF_INET, &four.sin_addr, address, sizeof address);
    return endpoint{address, std::to_string(ntohs(four.sin_port))}.text();
}

std::string peerText(int fd)
{
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0) {
        return "an unknown peer";
    }
    return addressText(peer);
}

void listenOn(cliFrame& frame, vxNetSocket& listener, const endpoint& where,
              const warningSink& warn)
{
    checkBindLog(warn);
    frame.open(listener, "cannot open a socket", true);
    const endpoint at = parseEndpoint(addressText(resolve(where, true).front().address));
    require(listener.setPort(at.port) && listener.setAddress(at.address) &&
                listener.BindAndListen(),
            "cannot listen on " + where.text());
}

void checkConnected(int fd, const endpoint& where)
{
    int error = 0;
    socklen_t length = sizeof error;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
        errno = error != 0 ? error : errno;
        throw failure("cannot connect to " + where.text() + ": " + errnoText());
    }
}

// A name such as localhost may stand for an IPv6 and an IPv4 address where a service listens on
// one: each Connect makes a new descriptor, so the socket can try the next address.
void connectSocket(vxNetSocket& socket, const endpoint& where, unsigned seconds)
{
    const std::vector<socketAddress> addresses = resolve(where);
    const std::string what = "cannot connect to " + where.text();
    for (size_t i = 0; i < addresses.size(); ++i) {
        const endpoint at = parseEndpoint(addressText(addresses[i].address));
        require(socket.setConnectTimeout(seconds) && socket.setPort(at.port) &&
                    socket.setAddress(at.address),
                what);
        const bool last = i + 1 == addresses.size();
        if (!socket.Connect()) {
            if (!vxBase::HaveStackTrace()) {
                throw failure(what + ": no answer within " + std::to_string(seconds) + " s");
            }
            require(!last, what);
            vxBase::lvxClearLastError();
            continue;
        }
        int error = 0;
        socklen_t length = sizeof error;
        if (last ||
            (getsockopt(socket.sockFd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0)) {
            checkConnected(socket.sockFd, where);
            return;
        }
    }
}

void connectPlain(cliFrame& frame, vxNetSocket& socket, const endpoint& where, unsigned seconds)
{
    frame.open(socket, "cannot open a socket", false);
    connectSocket(socket, where, seconds);
}

} // namespace vxcli
