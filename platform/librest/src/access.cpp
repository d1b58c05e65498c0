#include "access.h"

#include <strings.h>

namespace {

bool same_word(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool take_prefix(std::string_view &text, std::string_view prefix) {
    if (!same_word(text.substr(0, prefix.size()), prefix)) {
        return false;
    }
    text.remove_prefix(prefix.size());
    return true;
}

} // namespace

bool host_is_local(std::string_view host, std::string_view own_host) {
    const size_t port = host.find(':', host.starts_with('[') ? host.find(']') : 0);
    if (port != host.npos) {
        if (host.find_first_not_of("0123456789", port + 1) != host.npos) {
            return false;
        }
        host = host.substr(0, port);
    }
    for (const std::string_view name : {std::string_view("localhost"),
                                        std::string_view("127.0.0.1"),
                                        std::string_view("[::1]"),
                                        own_host}) {
        if (same_word(host, name)) {
            return true;
        }
    }
    return false;
}

bool origin_is_host(std::string_view origin, std::string_view host) {
    return (take_prefix(origin, "http://") || take_prefix(origin, "https://")) && !host.empty() &&
           same_word(origin, host);
}

bool bearer_is(std::string_view authorization, std::string_view token) {
    if (token.empty() || !take_prefix(authorization, "Bearer ")) {
        return false;
    }
    const size_t first = authorization.find_first_not_of(' ');
    const size_t last = authorization.find_last_not_of(' ');
    if (first == authorization.npos) {
        return false;
    }
    const std::string_view given = authorization.substr(first, last - first + 1);
    // Volatile: the loop must not end early.
    volatile unsigned char different = given.size() != token.size();
    for (size_t i = 0; i < given.size(); ++i) {
        const auto bits = static_cast<unsigned char>(given[i] ^ token[i % token.size()]);
        different = static_cast<unsigned char>(different | bits);
    }
    return different == 0;
}
