#include "can_below.h"

#include "traffic/recorder.h"

#include <kt/dx.h>
#include <kt/event_agent.h>
#include <kt/net.h>
#include <kt/platform.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <utility>

struct dx_tag {
    std::string name;
    std::vector<uint8_t> value;
    int mode;
    bool has_read;
    void *user;
    dx_entry entry;
};

struct dx_handle {
    dx_dispatch dispatch;
    void *user;
};

struct event_handle {
    int number;
};

struct led {
    int state;
};

namespace {

dx_handle the_handle;
event_handle the_agent;
led the_led;
std::map<std::string, std::unique_ptr<dx_tag>> tags;
dx_tag *written; // the one that the dispatch is about
std::deque<std::string> to_receive;
std::vector<can_frame> sent;
bool refusing;

} // namespace

void can_below_reset() {
    to_receive.clear();
    sent.clear();
    refusing = false;
}

void can_below_receive(std::string_view bytes) {
    to_receive.emplace_back(bytes);
}

std::vector<can_frame> can_below_sent() {
    return std::exchange(sent, {});
}

void can_below_refuse(bool refuse) {
    refusing = refuse;
}

const std::vector<uint8_t> *can_below_tag(const std::string &name) {
    const auto found = tags.find(name);
    return found == tags.end() ? nullptr : &found->second->value;
}

bool can_below_write(const std::string &name, std::string_view value) {
    const auto found = tags.find(name);
    if (found == tags.end() || found->second->mode != DX_WRITE_ONLY) {
        return false;
    }
    dx_tag &tag = *found->second;
    std::fill(tag.value.begin(), tag.value.end(), uint8_t{0});
    std::copy_n(value.begin(), std::min(value.size(), tag.value.size()), tag.value.begin());
    tag.has_read = false;
    written = &tag;
    constexpr std::array<uint8_t, DX_BITMAP_BYTES> first_index = {1};
    the_handle.dispatch(&the_handle, first_index.data());
    written = nullptr;
    return true;
}

dx_handle *dx_new(const char *, dx_dispatch dispatch) {
    the_handle = {dispatch, nullptr};
    return &the_handle;
}

void dx_destroy(dx_handle *) {}

void dx_set_user_data(dx_handle *handle, void *data) {
    handle->user = data;
}

void *dx_get_user_data(dx_handle *handle) {
    return handle->user;
}

size_t dx_get_value_size(int type, size_t size) {
    constexpr std::array<size_t, 11> widths = {0, 1, 2, 4, 8, 1, 2, 4, 8, 4, 8};
    return type > 0 && type <= 10 ? std::max(widths[static_cast<size_t>(type)], size) : size;
}

dx_tag *dx_tag_provider_new(dx_handle *, const char *name, int type, size_t size, int mode) {
    const size_t value_size = dx_get_value_size(type, size);
    if (value_size == 0 || value_size > DX_VALUE_MAX || tags.contains(name)) {
        return nullptr;
    }
    auto tag = std::make_unique<dx_tag>();
    *tag = {name, std::vector<uint8_t>(value_size), mode, true, nullptr, {}};
    tag->entry = {tag.get(), nullptr};
    return (tags[name] = std::move(tag)).get();
}

void dx_tag_destroy(dx_tag *tag) {
    if (tag != nullptr) {
        tags.erase(tags.find(tag->name));
    }
}

void dx_tag_set_user_data(dx_tag *tag, void *data) {
    tag->user = data;
}

void *dx_tag_get_user_data(const dx_tag *tag) {
    return tag->user;
}

int dx_tag_read(dx_tag *tag, void *buffer, size_t size) {
    const size_t count = std::min(size, tag->value.size());
    memcpy(buffer, tag->value.data(), count);
    tag->has_read = true;
    return static_cast<int>(count);
}

int dx_tag_write(dx_handle *, dx_tag *tag, const void *data, size_t size) {
    if (size > tag->value.size()) {
        return -1;
    }
    std::fill(tag->value.begin(), tag->value.end(), uint8_t{0});
    memcpy(tag->value.data(), data, size);
    return 0;
}

int dx_tag_notify(dx_handle *) {
    return 0;
}

dx_entry *dx_lookup_head(dx_handle *, unsigned index) {
    return index == 0 && written != nullptr ? &written->entry : nullptr;
}

int dx_tag_has_read(const dx_tag *tag) {
    return tag->has_read ? 1 : 0;
}

extern "C" {

int __wrap_select(int, fd_set *readable, fd_set *, fd_set *, timeval *) {
    int ready = 0;
    for (int fd = 0; fd < FD_SETSIZE; fd++) {
        if (!FD_ISSET(fd, readable)) {
            continue;
        }
        pollfd event{fd, POLLIN, 0};
        sockaddr_storage name{};
        socklen_t length = sizeof name;
        const bool is_socket = getsockname(fd, reinterpret_cast<sockaddr *>(&name), &length) == 0;
        if (is_socket ? !to_receive.empty() : poll(&event, 1, 0) == 1) {
            ready++;
        } else {
            FD_CLR(fd, readable);
        }
    }
    return ready;
}

/** Of a longer frame the rest is lost, as with any datagram. */
ssize_t __wrap_recvfrom(int, void *data, size_t size, int, sockaddr *, socklen_t *) {
    if (to_receive.empty()) {
        errno = EAGAIN;
        return -1;
    }
    const std::string bytes = std::move(to_receive.front());
    to_receive.pop_front();
    const size_t count = std::min(size, bytes.size());
    memcpy(data, bytes.data(), count);
    return static_cast<ssize_t>(count);
}

/** The kernel takes no classic frame of more than 8 bytes. */
ssize_t __wrap_sendto(int, const void *data, size_t size, int, const sockaddr *, socklen_t) {
    can_frame frame;
    memcpy(&frame, data, sizeof frame);
    if (refusing || size != sizeof frame || frame.len > CAN_MAX_DLEN) {
        errno = refusing ? ENOBUFS : EINVAL;
        return -1;
    }
    sent.push_back(frame);
    return static_cast<ssize_t>(size);
}

event_handle *__wrap_event_create(event_callback, void *) {
    return &the_agent;
}

int __wrap_event_notify(event_handle *, const char *, const char *, const char *) {
    return 0;
}

void __wrap_event_destroy(event_handle *) {}

int __wrap_net_get_my_ip(int, in_addr *) {
    return -1;
}

led *__wrap_led_get(int) {
    return &the_led;
}

int __wrap_led_get_state(led *shown) {
    return shown->state;
}

int __wrap_led_set_state(led *shown, int state, int, int, int) {
    shown->state = state;
    return 0;
}

void __wrap_led_free(led *) {}

/* int can_proprietary_traffic_record_log(...): it refuses longer frames, too. */
int __wrap__Z34can_proprietary_traffic_record_logPKh17traffic_directionjiht(
    const uint8_t *data, traffic_direction, uint32_t, int, uint8_t length, uint16_t) {
    std::array<uint8_t, CAN_MAX_DLEN> recorded;
    if (length > recorded.size()) {
        return -1;
    }
    memcpy(recorded.data(), data, length);
    return 0;
}
}
