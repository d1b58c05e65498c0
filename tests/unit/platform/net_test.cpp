#include <kt/net.h>

#include <arpa/inet.h>
#include <climits>
#include <cstring>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

struct seen_interface {
    bool has_address;
    in_addr address;
};

// The interfaces that count, asked one by one through calls other than the library's.
std::vector<seen_interface> ask_kernel() {
    std::vector<seen_interface> seen;
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct if_nameindex *all = if_nameindex();
    for (struct if_nameindex *at = all; at && at->if_name; ++at) {
        ifreq query = {};
        strncpy(query.ifr_name, at->if_name, sizeof query.ifr_name - 1);
        if (ioctl(fd, SIOCGIFFLAGS, &query) != 0 || !(query.ifr_flags & IFF_UP) ||
            (query.ifr_flags & IFF_LOOPBACK)) {
            continue;
        }
        seen_interface one = {ioctl(fd, SIOCGIFADDR, &query) == 0, {}};
        sockaddr_in address;
        memcpy(&address, &query.ifr_addr, sizeof address);
        one.address = address.sin_addr;
        seen.push_back(one);
    }
    if_freenameindex(all);
    close(fd);
    return seen;
}

TEST(net, addresses_are_those_of_the_kernel_in_its_order) {
    const std::vector<seen_interface> expected = ask_kernel();
    for (size_t i = 0; i < expected.size(); ++i) {
        in_addr address = {htonl(INADDR_BROADCAST)};
        const int result = net_get_my_ip(static_cast<int>(i), &address);
        EXPECT_EQ(result, expected[i].has_address ? 0 : -1) << i;
        if (expected[i].has_address) {
            EXPECT_EQ(address.s_addr, expected[i].address.s_addr) << i;
        }
    }
    in_addr address = {0x01020304};
    EXPECT_EQ(net_get_my_ip(static_cast<int>(expected.size()), &address), -1);
    EXPECT_EQ(address.s_addr, 0x01020304u);
}

TEST(net, position_that_is_negative_or_beyond_the_last_finds_nothing) {
    in_addr address = {0x01020304};
    EXPECT_EQ(net_get_my_ip(-1, &address), -1);
    EXPECT_EQ(net_get_my_ip(INT_MIN, &address), -1);
    EXPECT_EQ(net_get_my_ip(INT_MAX, &address), -1);
    EXPECT_EQ(address.s_addr, 0x01020304u);
}

TEST(net, null_address_is_refused) {
    EXPECT_EQ(net_get_my_ip(0, nullptr), -1);
}

bool bring_loopback_up() {
    ifreq query = {};
    strncpy(query.ifr_name, "lo", sizeof query.ifr_name - 1);
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    bool up = ioctl(fd, SIOCGIFFLAGS, &query) == 0;
    query.ifr_flags |= IFF_UP;
    up = up && ioctl(fd, SIOCSIFFLAGS, &query) == 0;
    close(fd);
    return up;
}

TEST(net, loopback_and_interfaces_that_are_down_do_not_count) {
    enum { found_nothing, found_something, no_namespace };
    const pid_t child = fork();
    if (child == 0) {
        // A network of its own: loopback, and whatever the kernel adds, which is down.
        in_addr address;
        if (unshare(CLONE_NEWNET) != 0 || !bring_loopback_up()) {
            _exit(no_namespace);
        }
        _exit(net_get_my_ip(0, &address) == -1 ? found_nothing : found_something);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == no_namespace) {
        GTEST_SKIP() << "no right to make a network namespace";
    }
    EXPECT_EQ(WEXITSTATUS(status), found_nothing);
}

} // namespace
