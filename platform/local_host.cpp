#include "platform/local_host.h"

#include "platform/handle.h"

#include <algorithm>
#include <cstring>
#include <ifaddrs.h>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

using Addresses = std::unique_ptr<addrinfo, Release<freeaddrinfo>>;

bool same_name(const std::string& a, const std::string& b) {
    return strcasecmp(a.c_str(), b.c_str()) == 0;
}

std::string host_name() {
    char name[256] = "";
    return gethostname(name, sizeof name - 1) == 0 ? name : "";
}

// Null when the name cannot be resolved.
Addresses resolve(const std::string& name, int flags) {
    addrinfo hints{};
    hints.ai_flags = flags;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (name.empty() || getaddrinfo(name.c_str(), nullptr, &hints, &found) != 0)
        return nullptr;
    return Addresses(found);
}

std::string fully_qualified(const std::string& host) {
    const Addresses addresses = resolve(host, AI_CANONNAME);
    return addresses == nullptr || addresses->ai_canonname == nullptr ? "" : addresses->ai_canonname;
}

// The bytes of an address, whose number says which kind it is; none for a kind other than IPv4 and
// IPv6. An IPv4 address inside IPv6 is an IPv4 address.
std::string address_bytes(const sockaddr* address) {
    if (address != nullptr && address->sa_family == AF_INET) {
        sockaddr_in inet{};
        std::memcpy(&inet, address, sizeof inet);
        return {reinterpret_cast<const char*>(&inet.sin_addr), sizeof inet.sin_addr};
    }
    if (address != nullptr && address->sa_family == AF_INET6) {
        sockaddr_in6 inet{};
        std::memcpy(&inet, address, sizeof inet);
        const std::string bytes(reinterpret_cast<const char*>(&inet.sin6_addr), sizeof inet.sin6_addr);
        return IN6_IS_ADDR_V4MAPPED(&inet.sin6_addr) ? bytes.substr(12) : bytes;
    }
    return {};
}

// Whether this machine answers on the address although no interface has it.
bool is_loopback(const std::string& address) {
    if (address.size() == sizeof(in_addr))
        return address.front() == IN_LOOPBACKNET;
    return address == std::string(reinterpret_cast<const char*>(&in6addr_loopback), sizeof in6addr_loopback);
}

std::vector<std::string> interface_addresses() {
    std::vector<std::string> all;
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0)
        return all;
    const std::unique_ptr<ifaddrs, Release<freeifaddrs>> interfaces(first);
    for (const ifaddrs* at = first; at != nullptr; at = at->ifa_next) {
        const std::string bytes = address_bytes(at->ifa_addr);
        if (!bytes.empty())
            all.push_back(bytes);
    }
    return all;
}

bool resolves_to_this_host(const std::string& name) {
    const std::vector<std::string> own = interface_addresses();
    const Addresses addresses = resolve(name, 0);
    for (const addrinfo* at = addresses.get(); at != nullptr; at = at->ai_next) {
        const std::string address = address_bytes(at->ai_addr);
        if (is_loopback(address) || std::find(own.begin(), own.end(), address) != own.end())
            return true;
    }
    return false;
}

} // namespace

HostMatch match_this_host(const std::string& name) {
    const std::string host = host_name();
    if (same_name(name, host))
        return HostMatch::HOST_NAME;
    if (same_name(name, fully_qualified(host)))
        return HostMatch::QUALIFIED_NAME;
    return resolves_to_this_host(name) ? HostMatch::ADDRESS : HostMatch::NONE;
}

bool is_this_host(const std::string& name) {
    return match_this_host(name) != HostMatch::NONE;
}
