#include "termination.h"

#include "guards.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <linux/can/netlink.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <span>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>

namespace {

constexpr uint16_t usual_ohms = 120;
constexpr std::string_view can_kind = "can";
constexpr size_t link_header_size = NLMSG_LENGTH(sizeof(ifinfomsg));

using bytes = std::span<const std::byte>;

// A request about one interface. The buffer has room for every attribute that is put in below.
class link_request {
public:
    link_request(uint16_t type, uint16_t flags, std::string_view interface) {
        const nlmsghdr head = {0, type, static_cast<uint16_t>(NLM_F_REQUEST | flags), type, 0};
        memcpy(data_, &head, sizeof head);
        put(IFLA_IFNAME, interface.data(), interface.size() + 1);
    }
    size_t put(uint16_t type, const void *content, size_t size) {
        const size_t start = size_;
        const rtattr head = {static_cast<uint16_t>(RTA_LENGTH(size)), type};
        memcpy(data_ + start, &head, sizeof head);
        memcpy(data_ + start + RTA_LENGTH(0), content, size);
        size_ += RTA_SPACE(size);
        return start;
    }
    size_t begin_nest(uint16_t type) { return put(type, "", 0); }
    void end_nest(size_t start) {
        const auto length = static_cast<uint16_t>(size_ - start);
        memcpy(data_ + start + offsetof(rtattr, rta_len), &length, sizeof length);
    }
    bytes message() {
        const auto length = static_cast<uint32_t>(size_);
        memcpy(data_ + offsetof(nlmsghdr, nlmsg_len), &length, sizeof length);
        return {data_, size_};
    }

private:
    alignas(nlmsghdr) std::byte data_[256] = {};
    size_t size_ = link_header_size;
};

nlmsghdr header_of(bytes message) {
    nlmsghdr head;
    memcpy(&head, message.data(), sizeof head);
    return head;
}

// Content of the first attribute of that type, empty when there is none.
bytes find_attribute(bytes list, uint16_t type) {
    while (list.size() >= sizeof(rtattr)) {
        rtattr head;
        memcpy(&head, list.data(), sizeof head);
        if (head.rta_len < sizeof head || head.rta_len > list.size()) {
            break;
        }
        if ((head.rta_type & NLA_TYPE_MASK) == type) {
            return list.subspan(RTA_LENGTH(0), head.rta_len - RTA_LENGTH(0));
        }
        list = list.subspan(std::min<size_t>(RTA_ALIGN(head.rta_len), list.size()));
    }
    return {};
}

// Error number that an answer carries; 0 for an acknowledgement or any other message.
int error_of(bytes answer) {
    int error = -EPROTO;
    if (header_of(answer).nlmsg_type != NLMSG_ERROR) {
        return 0;
    }
    if (answer.size() >= NLMSG_LENGTH(sizeof error)) {
        memcpy(&error, answer.data() + NLMSG_HDRLEN, sizeof error);
    }
    return -error;
}

// Sends the request and receives its answer into the buffer. Empty on failure, with errno.
bytes ask(int route_socket, bytes question, std::span<std::byte> buffer) {
    if (send(route_socket, question.data(), question.size(), MSG_NOSIGNAL) < 0) {
        return {};
    }
    for (;;) {
        const ssize_t got = recv(route_socket, buffer.data(), buffer.size(), 0);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return {};
        }
        const bytes answer(buffer.data(), static_cast<size_t>(got));
        if (answer.size() < sizeof(nlmsghdr) || header_of(answer).nlmsg_len > answer.size()) {
            errno = EPROTO;
            return {};
        }
        if (header_of(answer).nlmsg_seq == header_of(question).nlmsg_seq) {
            errno = error_of(answer);
            return errno == 0 ? answer : bytes{};
        }
    }
}

// Resistance to ask for, -1 when the controller offers none for that position.
int choose_ohms(bytes link, bool on) {
    const bytes details =
        find_attribute(link.subspan(std::min(link_header_size, link.size())), IFLA_LINKINFO);
    const bytes kind = find_attribute(details, IFLA_INFO_KIND);
    if (kind.size() < can_kind.size() + 1 ||
        memcmp(kind.data(), can_kind.data(), can_kind.size() + 1) != 0) {
        return -1;
    }
    bytes offered =
        find_attribute(find_attribute(details, IFLA_INFO_DATA), IFLA_CAN_TERMINATION_CONST);
    int chosen = -1;
    for (uint16_t ohms; offered.size() >= sizeof ohms; offered = offered.subspan(sizeof ohms)) {
        memcpy(&ohms, offered.data(), sizeof ohms);
        if ((ohms != CAN_TERMINATION_DISABLED) == on && (chosen < 0 || ohms == usual_ohms)) {
            chosen = ohms;
        }
    }
    return chosen;
}

} // namespace

int set_termination_over(int route_socket, const char *interface, bool on) {
    alignas(nlmsghdr) std::byte buffer[16384];
    link_request query(RTM_GETLINK, 0, interface);
    const bytes link = ask(route_socket, query.message(), buffer);
    if (link.empty()) {
        return -1;
    }
    const int ohms = choose_ohms(link, on);
    if (ohms < 0) {
        errno = EOPNOTSUPP;
        return -1;
    }
    link_request change(RTM_NEWLINK, NLM_F_ACK, interface);
    const auto value = static_cast<uint16_t>(ohms);
    const size_t details = change.begin_nest(IFLA_LINKINFO);
    change.put(IFLA_INFO_KIND, can_kind.data(), can_kind.size());
    const size_t settings = change.begin_nest(IFLA_INFO_DATA);
    change.put(IFLA_CAN_TERMINATION, &value, sizeof value);
    change.end_nest(settings);
    change.end_nest(details);
    return ask(route_socket, change.message(), buffer).empty() ? -1 : 0;
}

int set_termination(const char *interface, bool on) {
    const unique_fd route_socket(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    // The kernel answers at once; the limit is for an emulated one that never does.
    constexpr timeval patience = {1, 0};
    if (!route_socket ||
        setsockopt(route_socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) != 0) {
        return -1;
    }
    return set_termination_over(route_socket.get(), interface, on);
}
