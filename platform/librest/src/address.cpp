#include "address.h"

#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <unistd.h>

namespace {

constexpr int backlog = 64;

template <typename T>
T as(const listen_address &address) {
    T out;
    memcpy(&out, &address.storage, sizeof out);
    return out;
}

template <typename T>
listen_address from(const T &address) {
    listen_address out = {};
    memcpy(&out.storage, &address, sizeof address);
    out.length = sizeof address;
    return out;
}

bool parse_port(std::string_view text, uint16_t &port) {
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, port);
    return !text.empty() && error == std::errc() && stop == end;
}

int parse_ipv4(const char *host, uint16_t port, listen_address &out) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    if (inet_pton(AF_INET, host, &address.sin_addr) != 1) {
        return -1;
    }
    out = from(address);
    return 0;
}

int parse_ipv6(const char *host, uint16_t port, listen_address &out) {
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    if (inet_pton(AF_INET6, host, &address.sin6_addr) != 1) {
        return -1;
    }
    out = from(address);
    return 0;
}

int open_for_clients(int fd, listen_address &address) {
    constexpr int on = 1;
    constexpr int off = 0;
    const auto *name = reinterpret_cast<const sockaddr *>(&address.storage);
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        (address.storage.ss_family == AF_INET6 &&
         setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off) != 0) ||
        bind(fd, name, address.length) != 0 || listen(fd, backlog) != 0) {
        return -1;
    }
    listen_address bound = {};
    bound.length = sizeof bound.storage;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&bound.storage), &bound.length) != 0) {
        return -1;
    }
    address = bound;
    return 0;
}

} // namespace

int address_parse(std::string_view text, listen_address &out) {
    char host[INET6_ADDRSTRLEN];
    uint16_t port = 0;
    const size_t colon = text.rfind(':');
    if (colon == text.npos || !parse_port(text.substr(colon + 1), port)) {
        return -1;
    }
    std::string_view name = text.substr(0, colon);
    const bool bracketed = name.size() > 1 && name.starts_with('[') && name.ends_with(']');
    if (bracketed) {
        name = name.substr(1, name.size() - 2);
    } else if (name.empty()) {
        name = "0.0.0.0";
    } else if (name == "localhost") {
        name = "127.0.0.1";
    }
    if (name.size() >= sizeof host || name.find('\0') != name.npos) {
        return -1;
    }
    host[name.copy(host, name.size())] = '\0';
    return bracketed ? parse_ipv6(host, port, out) : parse_ipv4(host, port, out);
}

bool address_is_loopback(const listen_address &address) {
    if (address.storage.ss_family == AF_INET) {
        return ntohl(as<sockaddr_in>(address).sin_addr.s_addr) >> 24 == IN_LOOPBACKNET;
    }
    const in6_addr host = as<sockaddr_in6>(address).sin6_addr;
    return IN6_IS_ADDR_LOOPBACK(&host) ||
           (IN6_IS_ADDR_V4MAPPED(&host) && host.s6_addr[12] == IN_LOOPBACKNET);
}

address_text address_format(const listen_address &address) {
    address_text out = {};
    char host[INET6_ADDRSTRLEN] = "";
    unsigned port = 0;
    if (address.storage.ss_family == AF_INET) {
        const auto ipv4 = as<sockaddr_in>(address);
        (void)inet_ntop(AF_INET, &ipv4.sin_addr, host, sizeof host); // always fits
        (void)snprintf(out.host, sizeof out.host, "%s", host);
        port = ntohs(ipv4.sin_port);
    } else {
        const auto ipv6 = as<sockaddr_in6>(address);
        (void)inet_ntop(AF_INET6, &ipv6.sin6_addr, host, sizeof host); // always fits
        (void)snprintf(out.host, sizeof out.host, "[%s]", host);
        port = ntohs(ipv6.sin6_port);
    }
    (void)snprintf(out.text, sizeof out.text, "%s:%u", out.host, port);
    return out;
}

int address_listen(listen_address &address) {
    const int fd = socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd >= 0 && open_for_clients(fd, address) != 0) {
        const int reason = errno;
        (void)close(fd); // carries no data
        errno = reason;
        return -1;
    }
    return fd;
}
