#ifndef KT_TESTS_REST_CLIENT_H
#define KT_TESTS_REST_CLIENT_H

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <map>
#include <netinet/in.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

/** What a server sent. status 0: it closed the connection, or kept silent for too long. */
struct http_response {
    int status = 0;
    std::string head;                           // as sent
    std::map<std::string, std::string> headers; // names in lower case
    std::string body;

    std::string header(const std::string &name) const {
        const auto found = headers.find(name);
        return found == headers.end() ? "(none)" : found->second;
    }
};

/** An HTTP connection over a plain socket, on which anything can be sent. */
class http_client {
public:
    explicit http_client(int port, const char *from = nullptr)
        : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const timeval patience = {30, 0};
        (void)setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        (void)setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        if (from) {
            (void)inet_pton(AF_INET, from, &address.sin_addr);
            (void)bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address);
        }
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    }
    http_client(const http_client &) = delete;
    http_client &operator=(const http_client &) = delete;
    ~http_client() { close_now(); }

    bool is_connected() const { return connected_; }

    /** True when everything could be handed to the kernel. */
    bool send(std::string_view text) {
        while (!text.empty()) {
            const ssize_t sent = ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL);
            if (sent <= 0) {
                return false;
            }
            text.remove_prefix(static_cast<size_t>(sent));
        }
        return true;
    }
    /** Let the kernel hold little for us, so that the server is not rid of an answer at once. */
    void hold_little() {
        const int bytes = 64 * 1024;
        (void)setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    }
    void finish_sending() { (void)shutdown(fd_, SHUT_WR); }
    void close_now() {
        if (fd_ >= 0) {
            (void)close(fd_);
        }
        fd_ = -1;
    }
    /** Close so that the server sees a reset. */
    void abort() {
        const linger at_once = {1, 0};
        (void)setsockopt(fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        close_now();
    }

    /** The next response; one to HEAD has no body whatever its length says. */
    http_response receive(bool to_head = false) {
        size_t end = 0;
        while ((end = buffer_.find("\r\n\r\n")) == std::string::npos) {
            if (!receive_more()) {
                return {};
            }
        }
        http_response response = parse_head(buffer_.substr(0, end + 2));
        buffer_.erase(0, end + 4);
        const auto length = response.headers.find("content-length");
        if (!to_head && length != response.headers.end()) {
            const size_t wanted = std::stoul(length->second);
            while (buffer_.size() < wanted && receive_more()) {
            }
            response.body = buffer_.substr(0, wanted);
            buffer_.erase(0, wanted);
        }
        return response;
    }

    http_response ask(std::string_view text, bool to_head = false) {
        (void)send(text);
        return receive(to_head);
    }

    /** Whether the server closes the connection, and nothing unexpected comes before. */
    bool is_closed() {
        while (receive_more()) {
        }
        return ended_ && buffer_.empty();
    }
    const std::string &unread() const { return buffer_; }

private:
    bool receive_more() {
        char piece[65536];
        const ssize_t got = recv(fd_, piece, sizeof piece, 0);
        if (got > 0) {
            buffer_.append(piece, static_cast<size_t>(got));
            return true;
        }
        ended_ = got == 0 || errno == ECONNRESET;
        return false;
    }
    static http_response parse_head(const std::string &head) {
        http_response response;
        response.head = head;
        if (head.rfind("HTTP/1.", 0) == 0 && head.size() > 12) {
            response.status = std::stoi(head.substr(9, 3));
        }
        for (size_t at = head.find("\r\n") + 2; at < head.size();) {
            const size_t end = head.find("\r\n", at);
            const size_t colon = head.find(": ", at);
            std::string name = head.substr(at, colon - at);
            std::transform(name.begin(), name.end(), name.begin(), ::tolower);
            response.headers[name] = head.substr(colon + 2, end - colon - 2);
            at = end + 2;
        }
        return response;
    }

    int fd_;
    bool connected_ = false;
    bool ended_ = false;
    std::string buffer_;
};

#endif
