#include "master/listening_socket.h"

#include "master/problem.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using Addresses = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

Addresses look_up(const std::string& address, int port) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int error = getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (error != 0)
        throw StartFailure("cannot listen on " + address + ": " + gai_strerror(error));
    return {found, &freeaddrinfo};
}

void set_option(int socket, int level, int name, int value) {
    setsockopt(socket, level, name, &value, sizeof value);
}

// The listening socket, or -1 with the reason in errno.
int try_address(const addrinfo& address) {
    const int socket = ::socket(address.ai_family, address.ai_socktype | SOCK_CLOEXEC, address.ai_protocol);
    if (socket < 0)
        return -1;
    // Not SO_REUSEPORT: a second service on the same port has to fail.
    set_option(socket, SOL_SOCKET, SO_REUSEADDR, 1);
    set_option(socket, IPPROTO_TCP, TCP_NODELAY, 1);
    if (address.ai_family == AF_INET6)
        set_option(socket, IPPROTO_IPV6, IPV6_V6ONLY, 0);
    if (bind(socket, address.ai_addr, address.ai_addrlen) == 0 && listen(socket, SOMAXCONN) == 0)
        return socket;
    const int reason = errno;
    close(socket);
    errno = reason;
    return -1;
}

} // namespace

int open_listening_socket(const std::string& address, int port) {
    const Addresses addresses = look_up(address, port);
    for (const addrinfo* one = addresses.get(); one != nullptr; one = one->ai_next) {
        const int socket = try_address(*one);
        if (socket >= 0)
            return socket;
    }
    if (address == ALL_ADDRESSES && errno == EAFNOSUPPORT)
        return open_listening_socket("0.0.0.0", port);
    throw StartFailure("cannot listen on " + address + " port " + std::to_string(port) + ": " +
                       std::strerror(errno));
}

std::string socket_address(int socket) {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    std::array<char, NI_MAXHOST> host{};
    std::array<char, NI_MAXSERV> port{};
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (getsockname(socket, generic, &size) != 0 ||
        getnameinfo(generic, size, host.data(), host.size(), port.data(), port.size(),
                    NI_NUMERICHOST | NI_NUMERICSERV) != 0)
        return "an unknown address";
    const std::string name =
        address.ss_family == AF_INET6 ? "[" + std::string(host.data()) + "]" : host.data();
    return name + ":" + port.data();
}
