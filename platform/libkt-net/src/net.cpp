#include "guards.h"

#include <kt/net.h>

#include <cstring>
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/socket.h>

namespace {

// Name of the n-th interface that counts. The kernel's list holds one packet-level entry per
// interface, with or without addresses.
const char *interface_name(const ifaddrs *list, int position) {
    for (const ifaddrs *entry = list; entry; entry = entry->ifa_next) {
        const bool counts = entry->ifa_addr && entry->ifa_addr->sa_family == AF_PACKET &&
                            (entry->ifa_flags & IFF_UP) && !(entry->ifa_flags & IFF_LOOPBACK);
        if (counts && position-- == 0) {
            return entry->ifa_name;
        }
    }
    return nullptr;
}

} // namespace

int net_get_my_ip(int interface, struct in_addr *address) {
    ifaddrs *raw = nullptr;
    if (interface < 0 || !address || getifaddrs(&raw) != 0) {
        return -1;
    }
    const std::unique_ptr<ifaddrs, call_on_delete<freeifaddrs>> list(raw);
    const char *name = interface_name(raw, interface);
    for (const ifaddrs *entry = raw; name && entry; entry = entry->ifa_next) {
        if (entry->ifa_addr && entry->ifa_addr->sa_family == AF_INET &&
            strcmp(entry->ifa_name, name) == 0) {
            sockaddr_in found;
            memcpy(&found, entry->ifa_addr, sizeof found);
            *address = found.sin_addr;
            return 0;
        }
    }
    return -1;
}
