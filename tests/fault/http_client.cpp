#include "http_client.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

class connection {
public:
    explicit connection(int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(port));
        open_ = fd_ >= 0 &&
                connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    }
    ~connection() {
        if (fd_ >= 0) {
            (void)close(fd_); // the answer has been read
        }
    }
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;

    [[nodiscard]] bool send_all(const std::string &text) const {
        size_t sent = 0;
        while (open_ && sent < text.size()) {
            const ssize_t put = send(fd_, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
            if (put <= 0) {
                return false;
            }
            sent += static_cast<size_t>(put);
        }
        return open_;
    }

    /** Up to the end of the connection. */
    [[nodiscard]] std::string receive_all() const {
        std::string text;
        char buffer[4096];
        for (ssize_t got = 0; (got = recv(fd_, buffer, sizeof buffer, 0)) > 0;) {
            text.append(buffer, static_cast<size_t>(got));
        }
        return text;
    }

private:
    int fd_;
    bool open_ = false;
};

} // namespace

int send_request(int port, const step &wanted) {
    const connection peer(port);
    const bool file = wanted.path == "/config-file";
    const std::string type = file ? std::string("multipart/form-data; boundary=") + import_boundary
                                  : std::string("application/json");
    const std::string head =
        std::string(wanted.method) + " /CAN-proprietary" + wanted.path +
        " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\nContent-Type: " + type +
        "\r\nContent-Length: " + std::to_string(wanted.body.size()) + "\r\n\r\n";
    if (!peer.send_all(head + wanted.body)) {
        return 0;
    }
    int status = 0;
    const std::string answer = peer.receive_all();
    return sscanf(answer.c_str(), "HTTP/1.1 %d", &status) == 1 ? status : 0;
}
