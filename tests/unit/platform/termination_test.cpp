#include "termination.h"

#include <kt/platform.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <linux/can/netlink.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

std::string attribute(uint16_t type, const std::string &content) {
    const rtattr head = {static_cast<uint16_t>(RTA_LENGTH(content.size())), type};
    std::string text(reinterpret_cast<const char *>(&head), sizeof head);
    text += content;
    text.resize(RTA_ALIGN(text.size()), '\0');
    return text;
}

std::string ohms_text(const std::vector<uint16_t> &values) {
    return {reinterpret_cast<const char *>(values.data()), values.size() * sizeof(uint16_t)};
}

std::string message(uint16_t type, uint32_t seq, const std::string &body) {
    const nlmsghdr head = {static_cast<uint32_t>(NLMSG_LENGTH(body.size())), type, 0, seq, 0};
    return std::string(reinterpret_cast<const char *>(&head), sizeof head) + body;
}

std::string link_message(uint32_t seq, const std::string &kind, const std::string &settings) {
    return message(RTM_NEWLINK,
                   seq,
                   std::string(sizeof(ifinfomsg), '\0') + attribute(IFLA_MTU, "\x10") +
                       attribute(IFLA_LINKINFO,
                                 attribute(IFLA_INFO_KIND, kind + '\0') +
                                     attribute(IFLA_INFO_DATA | NLA_F_NESTED, settings)));
}

std::string status_message(uint32_t seq, int error) {
    std::string body(sizeof(nlmsgerr), '\0');
    const int code = -error;
    memcpy(body.data(), &code, sizeof code);
    return message(NLMSG_ERROR, seq, body);
}

uint32_t seq_of(const std::string &request) {
    nlmsghdr head;
    memcpy(&head, request.data(), sizeof head);
    return head.nlmsg_seq;
}

// The kernel's side of a routing socket: answers each request with what the script says.
class routing_socket {
public:
    using answer = std::function<std::vector<std::string>(const std::string &request)>;

    routing_socket() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends_), 0); }
    ~routing_socket() {

        close(ends_[0]);
        close(ends_[1]);
    }
    // Result of the call; its errno is left in error_.
    int set(bool on, const std::vector<answer> &script) {
        std::thread kernel([&] {
            for (const answer &reply : script) {
                std::string request(4096, '\0');
                const ssize_t got = recv(ends_[1], request.data(), request.size(), 0);
                if (got <= 0) {
                    return; // the caller has given up before the end of the script
                }
                request.resize(static_cast<size_t>(got));
                requests_.push_back(request);
                for (const std::string &one : reply(request)) {
                    EXPECT_EQ(send(ends_[1], one.data(), one.size(), 0),
                              static_cast<ssize_t>(one.size()));
                }
            }
        });
        const int result = set_termination_over(ends_[0], "can0", on);
        error_ = errno;
        (void)shutdown(ends_[0], SHUT_RDWR); // the script may have expected more
        kernel.join();
        return result;
    }
    static answer link(const std::string &kind, const std::vector<uint16_t> &offered) {
        return [=](const std::string &request) {
            const std::string settings =
                offered.empty() ? attribute(IFLA_CAN_RESTART_MS, std::string(4, '\0'))
                                : attribute(IFLA_CAN_TERMINATION_CONST, ohms_text(offered));
            return std::vector{link_message(seq_of(request), kind, settings)};
        };
    }
    static answer status(int error) {
        return [=](const std::string &request) {
            return std::vector{status_message(seq_of(request), error)};
        };
    }
    // What the second request has to be, byte for byte.
    static std::string expected_change(uint16_t ohms) {
        const std::string data = attribute(IFLA_CAN_TERMINATION, ohms_text({ohms}));
        const std::string info = attribute(IFLA_INFO_KIND, "can") + attribute(IFLA_INFO_DATA, data);
        std::string text = message(RTM_NEWLINK,
                                   RTM_NEWLINK,
                                   std::string(sizeof(ifinfomsg), '\0') +
                                       attribute(IFLA_IFNAME, std::string("can0") + '\0') +
                                       attribute(IFLA_LINKINFO, info));
        const uint16_t flags = NLM_F_REQUEST | NLM_F_ACK;
        memcpy(text.data() + offsetof(nlmsghdr, nlmsg_flags), &flags, sizeof flags);
        return text;
    }

    int error() const { return error_; }
    const std::vector<std::string> &requests() const { return requests_; }

private:
    int ends_[2];
    int error_ = 0;
    std::vector<std::string> requests_;
};

class termination : public ::testing::Test, protected routing_socket {};

TEST_F(termination, on_asks_for_120_ohm) {
    EXPECT_EQ(set(true, {link("can", {0, 60, 120, 1000}), status(0)}), 0);
    ASSERT_EQ(requests().size(), 2u);
    EXPECT_EQ(requests()[1], expected_change(120));
}

TEST_F(termination, off_asks_for_0_ohm) {
    EXPECT_EQ(set(false, {link("can", {0, 120}), status(0)}), 0);
    ASSERT_EQ(requests().size(), 2u);
    EXPECT_EQ(requests()[1], expected_change(0));
}

TEST_F(termination, on_takes_what_the_controller_has_when_that_is_not_120_ohm) {
    EXPECT_EQ(set(true, {link("can", {0, 100}), status(0)}), 0);
    ASSERT_EQ(requests().size(), 2u);
    EXPECT_EQ(requests()[1], expected_change(100));
}

TEST_F(termination, controller_without_a_resistor_is_not_supported) {
    EXPECT_EQ(set(true, {link("can", {})}), -1);
    EXPECT_EQ(error(), EOPNOTSUPP);
    EXPECT_EQ(requests().size(), 1u);
}

TEST_F(termination, interface_of_another_kind_is_not_supported) {
    for (const char *kind : {"vcan", "ca", "cann", ""}) {
        routing_socket other;
        EXPECT_EQ(other.set(true, {link(kind, {0, 120})}), -1) << kind;
        EXPECT_EQ(other.error(), EOPNOTSUPP) << kind;
    }
}

TEST_F(termination, resistor_that_is_fixed_cannot_be_switched_the_other_way) {
    EXPECT_EQ(set(false, {link("can", {120})}), -1);
    EXPECT_EQ(error(), EOPNOTSUPP);
}

TEST_F(termination, what_the_kernel_says_is_passed_on) {
    EXPECT_EQ(set(true, {status(ENODEV)}), -1);
    EXPECT_EQ(error(), ENODEV);
}

TEST_F(termination, refused_change_is_passed_on) {
    EXPECT_EQ(set(true, {link("can", {0, 120}), status(EPERM)}), -1);
    EXPECT_EQ(error(), EPERM);
}

TEST_F(termination, answers_to_other_requests_are_skipped) {
    const answer with_noise = [](const std::string &request) {
        return std::vector{
            status_message(seq_of(request) + 1, EPERM),
            link_message(seq_of(request),
                         "can",
                         attribute(IFLA_CAN_TERMINATION_CONST, ohms_text({0, 120})))};
    };
    EXPECT_EQ(set(true, {with_noise, status(0)}), 0);
}

TEST_F(termination, closed_socket_fails) {
    EXPECT_EQ(set_termination_over(-1, "can0", true), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(termination, damaged_answers_of_every_length_are_survived) {
    const std::string whole = link_message(
        RTM_GETLINK, "can", attribute(IFLA_CAN_TERMINATION_CONST, ohms_text({0, 120})));
    for (uint32_t size = 1; size < whole.size(); ++size) {
        for (const bool told : {false, true}) {
            routing_socket other;
            const answer cut = [&](const std::string &) {
                std::string text = whole.substr(0, size);
                if (told && size >= sizeof size) {
                    memcpy(text.data(), &size, sizeof size); // header agrees with the length
                }
                return std::vector{text};
            };
            EXPECT_EQ(other.set(true, {cut}), -1) << size;
            const bool complete = told && size >= sizeof(nlmsghdr);
            EXPECT_EQ(other.error(), complete ? EOPNOTSUPP : EPROTO) << size;
        }
    }
}

TEST_F(termination, attribute_lengths_that_lie_are_survived) {
    const std::string whole = link_message(
        RTM_GETLINK, "can", attribute(IFLA_CAN_TERMINATION_CONST, ohms_text({0, 120})));
    for (size_t at = sizeof(nlmsghdr); at < whole.size(); ++at) {
        for (const char value : {'\0', '\1', '\3', '\x7f', '\xff'}) {
            routing_socket other;
            std::string text = whole;
            text[at] = value;
            (void)other.set(true,
                            {[&](const std::string &) { return std::vector{text}; }, status(0)});
        }
    }
}

TEST(termination_kernel, loopback_has_no_resistor) {
    EXPECT_EQ(set_termination("lo", true), -1);
    EXPECT_EQ(errno, EOPNOTSUPP);
}

TEST(termination_kernel, port_without_an_interface_says_so) {
    (void)setenv("KT_CAN_PORTS", "nosuchcan0", 1);
    can_port *port = can_get("nosuchcan0");
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(can_set_termination_resistor_state(port, 1), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(can_set_termination_resistor_state(nullptr, 1), -1);
    can_free(port);
    (void)unsetenv("KT_CAN_PORTS");
}

} // namespace
