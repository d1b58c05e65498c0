#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <microhttpd.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

/*
 * Answers over HTTP, as fast as one client asks.
 *
 *   bench_http serve FILE          a server that does nothing but answer the file's bytes, on
 *                                  libmicrohttpd as librest uses it; prints its port, ends with its
 *                                  standard input
 *   bench_http ask ROUNDS REQUESTS THREAD:PORT/PATH...
 *                                  asks each in turn, REQUESTS at a time on a connection that stays
 *                                  open, ROUNDS times; prints microseconds per request, a line
 *                                  each: of time, and of processor time of the server's thread
 */

namespace {

using steady = std::chrono::steady_clock;

[[noreturn]] void give_up(const std::string &what) {
    (void)fprintf(stderr, "bench_http: %s: %s\n", what.c_str(), strerror(errno));
    exit(1);
}

MHD_Result on_request(void *context,
                      MHD_Connection *connection,
                      const char * /*path*/,
                      const char * /*method*/,
                      const char * /*version*/,
                      const char * /*data*/,
                      size_t * /*length*/,
                      void **state) {
    if (*state == nullptr) {
        *state = context; // the head; the answer comes when the request is complete
        return MHD_YES;
    }
    auto &body = *static_cast<std::string *>(context);
    MHD_Response *response =
        MHD_create_response_from_buffer(body.size(), body.data(), MHD_RESPMEM_PERSISTENT);
    const MHD_Result result = MHD_queue_response(connection, 200, response);
    MHD_destroy_response(response);
    return result;
}

/** The threads and the poll of librest; what it limits, and how, is the same. */
MHD_Daemon *start(std::string *body) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return MHD_start_daemon(MHD_USE_POLL_INTERNAL_THREAD | MHD_USE_ERROR_LOG,
                            0,
                            nullptr,
                            nullptr,
                            on_request,
                            body,
                            MHD_OPTION_SOCK_ADDR,
                            &address,
                            MHD_OPTION_CONNECTION_LIMIT,
                            64U,
                            MHD_OPTION_PER_IP_CONNECTION_LIMIT,
                            32U,
                            MHD_OPTION_CONNECTION_TIMEOUT,
                            10U,
                            MHD_OPTION_CONNECTION_MEMORY_LIMIT,
                            size_t{32} * 1024,
                            MHD_OPTION_STRICT_FOR_CLIENT,
                            1,
                            MHD_OPTION_END);
}

int serve(const char *path) {
    std::ifstream file(path, std::ios::binary);
    std::string body((std::istreambuf_iterator<char>(file)), {});
    MHD_Daemon *daemon = start(&body);
    if (daemon == nullptr) {
        give_up("the server does not start");
    }
    (void)printf("%u\n", unsigned{MHD_get_daemon_info(daemon, MHD_DAEMON_INFO_BIND_PORT)->port});
    (void)fflush(stdout);
    while (getchar() != EOF) {
    }
    MHD_stop_daemon(daemon);
    return 0;
}

/** A connection that asks the same thing again and again. */
class asker {
public:
    explicit asker(std::string_view target) {
        const size_t colon = target.find(':');
        schedule_ = "/proc/" + std::string(target.substr(0, colon)) + "/schedstat";
        target.remove_prefix(colon + 1);
        const size_t slash = target.find('/');
        uint16_t port = 0;
        (void)std::from_chars(target.data(), target.data() + slash, port);
        socket_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port);
        const int on = 1;
        if (setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0 ||
            connect(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
            give_up("connect");
        }
        request_ =
            "GET " + std::string(target.substr(slash)) + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    }
    asker(const asker &) = delete;
    asker &operator=(const asker &) = delete;
    ~asker() { (void)close(socket_); }

    void ask() {
        if (send(socket_, request_.data(), request_.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(request_.size())) {
            give_up("send");
        }
        size_t have = 0;
        size_t wanted = SIZE_MAX;
        while (have < wanted) {
            if (have == answer_.size()) {
                answer_.resize(2 * answer_.size());
            }
            const ssize_t got = recv(socket_, answer_.data() + have, answer_.size() - have, 0);
            if (got <= 0) {
                give_up("recv");
            }
            have += static_cast<size_t>(got);
            wanted =
                wanted == SIZE_MAX ? length_of(std::string_view(answer_.data(), have)) : wanted;
        }
    }

    /** Processor time that the server's thread has had. */
    [[nodiscard]] double server_us() const {
        double nanoseconds = 0;
        std::ifstream(schedule_) >> nanoseconds;
        return nanoseconds / 1000;
    }

private:
    /** SIZE_MAX until the head is there. */
    static size_t length_of(std::string_view text) {
        const size_t end = text.find("\r\n\r\n");
        if (end == text.npos) {
            return SIZE_MAX;
        }
        constexpr std::string_view field = "Content-Length: ";
        const size_t at = text.find(field);
        size_t length = 0;
        if (!text.starts_with("HTTP/1.1 200") || at > end) {
            give_up("answered " + std::string(text.substr(0, end)));
        }
        (void)std::from_chars(text.data() + at + field.size(), text.data() + end, length);
        return end + 4 + length;
    }

    int socket_ = -1;
    std::string schedule_;
    std::string request_;
    std::vector<char> answer_ = std::vector<char>(65536);
};

int ask(int rounds, int requests, const std::vector<std::string_view> &targets) {
    std::vector<std::unique_ptr<asker>> askers;
    for (const std::string_view target : targets) {
        askers.push_back(std::make_unique<asker>(target));
    }
    for (int round = 0; round < rounds; round++) {
        for (size_t i = 0; i < askers.size(); i++) {
            const double server = askers[i]->server_us();
            const auto before = steady::now();
            for (int request = 0; request < requests; request++) {
                askers[i]->ask();
            }
            const std::chrono::duration<double, std::micro> spent = steady::now() - before;
            (void)printf("%zu %.3f %.3f\n",
                         i,
                         spent.count() / requests,
                         (askers[i]->server_us() - server) / requests);
        }
    }
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    const std::vector<std::string_view> words(argv + 1, argv + argc);
    if (words.size() == 2 && words[0] == "serve") {
        return serve(argv[2]);
    }
    if (words.size() > 3 && words[0] == "ask") {
        return ask(atoi(argv[2]), atoi(argv[3]), {words.begin() + 3, words.end()});
    }
    (void)fputs("usage: bench_http serve FILE | ask ROUNDS REQUESTS THREAD:PORT/PATH...\n", stderr);
    return 2;
}
