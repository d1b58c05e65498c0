#include "rest_fixture.h"

#include <kt/rest.h>

#include <atomic>
#include <memory>

namespace {

int tell_length(const char *, const char *body, size_t length) {
    const bool is_terminated = !body || body[length] == '\0';
    const std::string text = std::to_string(length);
    return is_terminated && rest_write(text.data(), text.size()) == REST_OK ? 200 : 500;
}

class rest_body : public rest_server_test {
protected:
    rest_body() {
        start_echo();
        add("/length", REST_POST, tell_length);
    }
    static std::string head(const char *line, size_t length) {
        return line + " HTTP/1.1\r\nHost: localhost\r\nContent-Length: "s + std::to_string(length) +
               "\r\n\r\n";
    }
    /**
     * What the first look did not find with a client was with the server, or read, at the second.
     */
    bool has_read_everything() const { return nothing_waits() && nothing_waits(); }
    /** Whether no socket of the server and of its clients holds bytes; not all at one time. */
    bool nothing_waits() const {
        char port[8];
        (void)snprintf(port, sizeof port, ":%04X", static_cast<unsigned>(port_));
        std::ifstream sockets("/proc/net/tcp");
        std::string line;
        while (std::getline(sockets, line)) {
            if (line.find(port) != line.npos && line.find(" 00000000:00000000 ") == line.npos) {
                return false;
            }
        }
        return true;
    }
    static std::string chunk(const std::string &data) {
        char size[24];
        (void)snprintf(size, sizeof size, "%zx\r\n", data.size());
        return size + data + "\r\n";
    }
};

TEST_F(rest_body, request_without_a_body_gives_null) {
    EXPECT_EQ(ask("POST /unit/echo").body, "/unit/echo|NULL");
    EXPECT_EQ(ask("POST /unit/echo", "Content-Length: 0\r\n").body, "/unit/echo|NULL");
}

TEST_F(rest_body, body_may_come_with_any_method_and_hold_zero_bytes) {
    EXPECT_EQ(ask("POST /unit/echo", "", "{\"a\":1}").body, "/unit/echo|{\"a\":1}");
    EXPECT_EQ(ask("GET /unit/echo", "", "x").body, "/unit/echo|x");
    EXPECT_EQ(ask("POST /unit/echo", "", std::string("a\0b", 3)).body,
              std::string("/unit/echo|a\0b", 14));
}

TEST_F(rest_body, forms_arrive_as_sent) {
    const std::string type = "Content-Type: application/x-www-form-urlencoded\r\n";
    EXPECT_EQ(ask("POST /unit/echo", type, "a=1&b=%41").body, "/unit/echo|a=1&b=%41");
}

TEST_F(rest_body, pieces_are_put_together) {
    http_client client(port_);
    const std::string text = head("POST /unit/echo", 6) + "abcdef";
    for (const char c : text) {
        ASSERT_TRUE(client.send({&c, 1}));
    }
    EXPECT_EQ(client.receive().body, "/unit/echo|abcdef");
}

TEST_F(rest_body, chunks_are_put_together) {
    http_client client(port_);
    const std::string head =
        "POST /unit/echo HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\n\r\n";
    EXPECT_EQ(client.ask(head + "3\r\nabc\r\n4;x=y\r\ndefg\r\n0\r\nT: x\r\n\r\n").body,
              "/unit/echo|abcdefg");
    EXPECT_EQ(client.ask(head + "0\r\n\r\n").body, "/unit/echo|NULL");
}

TEST_F(rest_body, body_of_exactly_the_limit_is_accepted) {
    const http_response response = ask("POST /unit/length", "", std::string(REST_BODY_MAX, 'x'));
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body, std::to_string(REST_BODY_MAX));
}

TEST_F(rest_body, announced_body_above_the_limit_is_refused_before_it_is_sent) {
    for (const std::string &length : {std::to_string(REST_BODY_MAX + 1), "9223372036854775807"s}) {
        http_client client(port_);
        const http_response response =
            client.ask("POST /unit/length HTTP/1.1\r\nHost: localhost\r\n"
                       "Content-Length: " +
                       length + "\r\n\r\n");
        EXPECT_EQ(response.status, 413) << length;
        EXPECT_EQ(response.body, R"({"error":{"code":413,"message":"Request body too large"}})");
        EXPECT_EQ(response.header("connection"), "close");
        EXPECT_TRUE(client.is_closed());
    }
}

TEST_F(rest_body, chunks_above_the_limit_are_refused_when_they_end) {
    const std::string head =
        "POST /unit/length HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\n\r\n";
    const std::string full = chunk(std::string(REST_BODY_MAX, 'x'));
    EXPECT_EQ(http_client(port_).ask(head + full + "0\r\n\r\n").body,
              std::to_string(REST_BODY_MAX));
    http_client client(port_);
    EXPECT_EQ(client.ask(head + full + "1\r\ny\r\n0\r\n\r\n").status, 413);
    EXPECT_EQ(client.ask(request("GET /unit/echo")).status, 200);
}

TEST_F(rest_body, endless_chunks_end_the_connection) {
    http_client client(port_);
    ASSERT_TRUE(client.send(
        "POST /unit/length HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\n\r\n"));
    const std::string piece = chunk(std::string(1024 * 1024, 'x'));
    size_t sent = 0;
    while (sent < 64 * piece.size() && client.send(piece)) {
        sent += piece.size();
    }
    EXPECT_LT(sent, 64 * piece.size());
    EXPECT_TRUE(is_alive());
}

TEST_F(rest_body, expectation_is_met_with_continue) {
    http_client client(port_);
    const std::string headers = "Expect: 100-continue\r\nContent-Length: 3\r\n";
    EXPECT_EQ(client.ask(request("POST /unit/echo", headers)).status, 100);
    EXPECT_EQ(client.ask("abc").body, "/unit/echo|abc");
}

TEST_F(rest_body, expectation_of_a_refused_request_is_not_met) {
    const std::string expect = "Expect: 100-continue\r\n";
    EXPECT_EQ(ask("POST /unit/none", expect + "Content-Length: 3\r\n").status, 404);
    EXPECT_EQ(ask("PUT /unit/echo", expect + "Content-Length: 3\r\n").status, 405);
    EXPECT_EQ(ask("POST /unit/echo", expect + "Content-Length: 9000000\r\n").status, 413);
}

TEST_F(rest_body, body_of_a_refused_request_is_swallowed) {
    http_client client(port_);
    const std::string body(1024 * 1024, 'x');
    EXPECT_EQ(client.ask(request("POST /unit/none", "", body)).status, 404);
    EXPECT_EQ(client.ask(request("PUT /unit/echo", "", body)).status, 405);
    EXPECT_EQ(client.ask(request("POST /unit/length", "", body)).body, "1048576");
}

TEST_F(rest_body, contradictory_lengths_are_refused) {
    const std::string length = "Content-Length: 3\r\n";
    for (const std::string &headers : {length + "Content-Length: 4\r\n",
                                       length + length,
                                       length + "Transfer-Encoding: chunked\r\n",
                                       "Transfer-Encoding: gzip\r\n"s,
                                       "Transfer-Encoding: gzip, chunked\r\n"s,
                                       "Transfer-Encoding: chunked\r\nTransfer-Encoding: gzip\r\n"s,
                                       "Content-Length: -1\r\n"s,
                                       "Content-Length: 3x\r\n"s,
                                       "Content-Length: 99999999999999999999999\r\n"s}) {
        http_client client(port_);
        ASSERT_TRUE(client.send(request("POST /unit/echo", headers) + "abc"));
        client.finish_sending();
        const int status = client.receive().status;
        EXPECT_TRUE(status == 400 || status == 413) << headers << status;
    }
    EXPECT_TRUE(is_alive());
}

TEST_F(rest_body, aborted_upload_reaches_no_handler) {
    static std::atomic<int> calls;
    calls = 0;
    add("/upload", REST_POST, [](const char *, const char *, size_t) {
        ++calls;
        return 200;
    });
    for (int i = 0; i < 20; ++i) {
        http_client client(port_);
        ASSERT_TRUE(client.send(head("POST /unit/upload", 1000000) + std::string(500000, 'x')));
        if (i % 2) {
            client.abort();
        } else {
            client.close_now();
        }
    }
    EXPECT_EQ(ask("POST /unit/upload", "", "x").status, 200);
    EXPECT_EQ(calls, 1);
}

TEST_F(rest_body, memory_of_all_bodies_is_bounded) {
    std::vector<std::unique_ptr<http_client>> uploads;
    for (int i = 0; i < REST_BODIES_MAX / REST_BODY_MAX; ++i) {
        uploads.push_back(std::make_unique<http_client>(port_));
        ASSERT_TRUE(uploads.back()->send(head("POST /unit/length", REST_BODY_MAX - 1) +
                                         std::string(REST_BODY_MAX - 2, 'x')));
    }
    const auto status_of = [&](size_t length) {
        return ask("POST /unit/length", "", std::string(length, 'y')).status;
    };
    EXPECT_TRUE(eventually([this] { return has_read_everything(); }));
    const http_response busy = ask("POST /unit/length", "", std::string(100000, 'y'));
    EXPECT_EQ(busy.header("retry-after"), "1");
    EXPECT_EQ(busy.body, R"({"error":{"code":503,"message":"Server is busy"}})");
    EXPECT_EQ(status_of(60000), 200);
    EXPECT_EQ(uploads[0]->ask("x").body, std::to_string(REST_BODY_MAX - 1));
    EXPECT_EQ(status_of(100000), 200);
    uploads[1]->abort();
    EXPECT_TRUE(eventually([&] { return status_of(REST_BODY_MAX) == 200; }));
}

} // namespace
