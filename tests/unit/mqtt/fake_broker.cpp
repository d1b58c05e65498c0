#include "fake_broker.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace {

/** Takes a packet's body apart from its front. */
class reader {
public:
    explicit reader(const std::string &text) : text_(text) {}
    uint8_t byte() { return at_ < text_.size() ? static_cast<uint8_t>(text_[at_++]) : uint8_t{0}; }
    size_t word() {
        const size_t high = byte();
        return high << 8 | byte();
    }
    std::string text() { return bytes(word()); }
    std::string rest() { return bytes(text_.size()); }
    void skip_properties(bool there) {
        if (there) {
            (void)bytes(byte()); // of less than 128 bytes in these tests
        }
    }
    bool done() const { return at_ >= text_.size(); }

private:
    std::string bytes(size_t count) {
        const std::string part = at_ < text_.size() ? text_.substr(at_, count) : "";
        at_ += part.size();
        return part;
    }
    const std::string &text_;
    size_t at_ = 0;
};

bool receive(int fd, void *to, size_t size) {
    return size == 0 || recv(fd, to, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

void put(int fd, const std::string &packet) {
    (void)::send(fd, packet.data(), packet.size(), MSG_NOSIGNAL); // a client that went sees nothing
}

std::string framed(uint8_t type, const std::string &body) {
    std::string packet(1, static_cast<char>(type));
    size_t length = body.size();
    do {
        packet += static_cast<char>(length % 128 | (length > 127 ? 128 : 0));
        length /= 128;
    } while (length > 0);
    return packet + body;
}

} // namespace

fake_broker::fake_broker() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto *generic = reinterpret_cast<sockaddr *>(&address);
    if (bind(listener_, generic, length) != 0 || listen(listener_, 5) != 0 ||
        getsockname(listener_, generic, &length) != 0) {
        throw std::runtime_error("no port for the fake broker");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
}

fake_broker::~fake_broker() {
    stop_ = true;
    (void)shutdown(listener_, SHUT_RDWR);
    cut();
    thread_.join();
    (void)close(listener_);
}

void fake_broker::run() {
    while (!stop_) {
        const int client = accept(listener_, nullptr, nullptr);
        if (client >= 0) {
            client_ = client;
            serve(client);
            client_ = -1;
            (void)close(client);
        }
    }
}

void fake_broker::serve(int client) {
    while (!stop_) {
        uint8_t type = 0;
        size_t length = 0;
        uint8_t byte = 128;
        if (!receive(client, &type, 1)) {
            return;
        }
        for (int shift = 0; (byte & 128) != 0; shift += 7) {
            if (!receive(client, &byte, 1)) {
                return;
            }
            length |= static_cast<size_t>(byte & 127) << shift;
        }
        std::string body(length, '\0');
        if (!receive(client, body.data(), length) || !take_packet(client, type, body)) {
            return;
        }
    }
}

bool fake_broker::take_packet(int client, uint8_t type, const std::string &body) {
    switch (type >> 4) {
    case 1:
        take_connect(client, body);
        return true;
    case 3:
        take_publish(client, type, body);
        return true;
    case 8:
        take_subscribe(client, body);
        return true;
    case 12:
        put(client, framed(0xD0, ""));
        return true;
    case 14:
        said_goodbye = true;
        return false;
    default:
        return true;
    }
}

void fake_broker::take_connect(int client, const std::string &body) {
    reader in(body);
    (void)in.text(); // "MQTT"
    v5_ = in.byte() == 5;
    const uint8_t flags = in.byte();
    (void)in.word(); // keep alive
    in.skip_properties(v5_);
    {
        const std::lock_guard lock(mutex_);
        client_id_ = in.text();
        filters_.clear();
        if ((flags & 4) != 0) {
            in.skip_properties(v5_);
            will_.topic = in.text();
            will_.payload = in.text();
            will_.qos = flags >> 3 & 3;
            will_.retain = (flags & 32) != 0;
        }
    }
    ++connections;
    if (answer) {
        const std::string code(1, static_cast<char>(connect_code.load()));
        put(client, framed(0x20, std::string(1, '\0') + code + (v5_ ? std::string(1, '\0') : "")));
    }
}

void fake_broker::take_publish(int client, uint8_t type, const std::string &body) {
    reader in(body);
    seen_message message;
    message.qos = type >> 1 & 3;
    message.retain = (type & 1) != 0;
    message.topic = in.text();
    const size_t id = message.qos > 0 ? in.word() : 0;
    in.skip_properties(v5_);
    message.payload = in.rest();
    {
        const std::lock_guard lock(mutex_);
        messages_.push_back(message);
    }
    if (message.qos > 0 && acknowledge) {
        put(client, framed(0x40, {static_cast<char>(id >> 8), static_cast<char>(id)}));
    }
}

void fake_broker::take_subscribe(int client, const std::string &body) {
    reader in(body);
    const size_t id = in.word();
    std::string answer_body = {static_cast<char>(id >> 8), static_cast<char>(id)};
    answer_body += v5_ ? std::string(1, '\0') : "";
    in.skip_properties(v5_);
    const std::lock_guard lock(mutex_);
    while (!in.done()) {
        filters_.push_back(in.text());
        answer_body += static_cast<char>(in.byte() & 3);
    }
    put(client, framed(0x90, answer_body));
}

void fake_broker::send(const std::string &topic, const std::string &payload, bool retain) {
    const std::string head = {static_cast<char>(topic.size() >> 8),
                              static_cast<char>(topic.size())};
    put(client_,
        framed(retain ? 0x31 : 0x30, head + topic + (v5_ ? std::string(1, '\0') : "") + payload));
}

void fake_broker::cut() {
    const int client = client_;
    if (client >= 0) {
        (void)shutdown(client, SHUT_RDWR);
    }
}

std::vector<seen_message> fake_broker::messages() const {
    const std::lock_guard lock(mutex_);
    return messages_;
}

std::vector<std::string> fake_broker::filters() const {
    const std::lock_guard lock(mutex_);
    return filters_;
}

seen_message fake_broker::will() const {
    const std::lock_guard lock(mutex_);
    return will_;
}

std::string fake_broker::client_id() const {
    const std::lock_guard lock(mutex_);
    return client_id_;
}
