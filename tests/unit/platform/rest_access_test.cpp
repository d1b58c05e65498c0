#include "rest_fixture.h"

#include <kt/rest.h>

#include <sys/stat.h>

namespace {

class rest_access : public rest_server_test {
protected:
    void start_with_token(const std::string &file_text) {
        write(path("token"), file_text);
        (void)chmod(path("token").c_str(), 0600);
        setting("KT_REST_TOKEN_FILE", path("token"));
        start_echo();
    }
    /** Status for a GET with these header lines and no others. */
    int status_with(const std::string &headers, const char *target = "/unit/echo") {
        http_client client(port_);
        return client.ask("GET "s + target + " HTTP/1.1\r\n" + headers + "\r\n").status;
    }
};

TEST_F(rest_access, token_is_needed_for_everything) {
    start_with_token("s3cret-Token\n");
    const std::string right = "Authorization: Bearer s3cret-Token\r\n";
    EXPECT_EQ(ask("GET /unit/echo", right).status, 200);
    for (const char *line : {"GET /unit/echo", "GET /unit/none", "DELETE /unit/echo", "GET /"}) {
        const http_response response = ask(line);
        EXPECT_EQ(response.status, 401) << line;
        EXPECT_EQ(response.header("www-authenticate"), "Bearer");
        EXPECT_EQ(response.header("content-type"), "application/json");
        EXPECT_EQ(response.body, R"({"error":{"code":401,"message":"Authorization required"}})");
    }
    EXPECT_EQ(ask("GET /unit/none", right).status, 404);
}

TEST_F(rest_access, wrong_tokens_are_refused) {
    start_with_token("s3cret-Token\n");
    for (const char *value : {"",
                              "Bearer",
                              "Bearer ",
                              "Bearer s3cret-Toke",
                              "Bearer s3cret-Token2",
                              "Bearer s3cret-TokenS3cret-Token",
                              "Bearer s3cret-Tokens3cret-Token",
                              "Bearer s3cret-token",
                              "Bearer s3cret-Token x",
                              "Basic s3cret-Token",
                              "s3cret-Token",
                              "Bearers3cret-Token",
                              "Bearer\ts3cret-Token",
                              "Bearer \"s3cret-Token\""}) {
        EXPECT_EQ(ask("GET /unit/echo", "Authorization: "s + value + "\r\n").status, 401) << value;
    }
}

TEST_F(rest_access, scheme_has_no_case_and_blanks_do_not_count) {
    start_with_token("abc");
    EXPECT_EQ(ask("GET /unit/echo", "authorization: bEARER   abc  \r\n").status, 200);
}

TEST_F(rest_access, refused_upload_gets_its_answer_and_no_handler) {
    start_with_token("abc\r\n");
    EXPECT_EQ(ask("POST /unit/echo", "", std::string(1000000, 'x')).status, 401);
    EXPECT_EQ(ask("POST /unit/echo", "Expect: 100-continue\r\nContent-Length: 5\r\n").status, 401);
    EXPECT_EQ(ask("POST /unit/echo", "Content-Length: 99000000\r\n").status, 401);
    EXPECT_EQ(ask("POST /unit/echo", "Authorization: Bearer abc\r\n", "x").body, "/unit/echo|x");
}

TEST_F(rest_access, token_is_never_printed) {
    start_with_token("s3cret-Token\n");
    testing::internal::CaptureStderr();
    (void)ask("GET /unit/echo", "Authorization: Bearer s3cret-Token\r\n");
    (void)ask("GET /unit/echo", "Authorization: Bearer s3cret-Tokem\r\n");
    rest_cleanup();
    EXPECT_EQ((log_ + testing::internal::GetCapturedStderr()).find("s3cret"), std::string::npos);
}

TEST_F(rest_access, with_a_token_any_host_and_origin_will_do) {
    start_with_token("abc\n");
    const std::string right = "Authorization: Bearer abc\r\n";
    EXPECT_EQ(status_with(right + "Host: gateway.example\r\n"), 200);
    EXPECT_EQ(status_with(right + "Host: localhost\r\nOrigin: https://ui.example\r\n"), 200);
}

TEST_F(rest_access, loopback_server_accepts_local_hosts_only) {
    start_echo();
    for (const char *host : {"localhost",
                             "LocalHost:1",
                             "127.0.0.1",
                             "127.0.0.1:8080",
                             "[::1]",
                             "[::1]:8080",
                             "localhost:"}) {
        EXPECT_EQ(status_with("Host: "s + host + "\r\n"), 200) << host;
    }
    for (const char *host : {"evil.example",
                             "evil.example:8080",
                             "localhost.evil.example",
                             "localhost:80.evil.example",
                             "127.0.0.1.evil.example",
                             "evil@localhost",
                             "localhost@evil",
                             "localhost.",
                             "127.0.0.2",
                             "[::1].evil",
                             "[::1",
                             "[::2]",
                             "::1",
                             "0.0.0.0",
                             ""}) {
        http_client client(port_);
        const http_response response =
            client.ask("GET /unit/echo HTTP/1.1\r\nHost: "s + host + "\r\n\r\n");
        EXPECT_EQ(response.status, 403) << host;
        EXPECT_EQ(response.body,
                  R"({"error":{"code":403,"message":"Host or origin not allowed"}})");
    }
}

TEST_F(rest_access, own_address_is_a_local_host) {
    setting("KT_REST_LISTEN", "127.0.0.5:0");
    start_echo();
    EXPECT_EQ(read(path("run/kt-rest/unit.address")), "127.0.0.5:" + std::to_string(port_) + "\n");
    rest_cleanup();
    setting("KT_REST_LISTEN", "[::ffff:127.0.0.1]:0");
    start_echo();
    EXPECT_EQ(status_with("Host: [::ffff:127.0.0.1]\r\n"), 200);
    EXPECT_EQ(status_with("Host: 127.0.0.5\r\n"), 403);
}

TEST_F(rest_access, host_of_the_target_counts_before_the_header) {
    start_echo();
    EXPECT_EQ(status_with("Host: localhost\r\n", "http://evil.example/unit/echo"), 403);
    EXPECT_EQ(status_with("Host: evil.example\r\n", "http://localhost/unit/echo"), 200);
}

TEST_F(rest_access, old_clients_need_no_host_but_two_are_refused) {
    start_echo();
    EXPECT_EQ(http_client(port_).ask("GET /unit/echo HTTP/1.0\r\n\r\n").status, 200);
    EXPECT_EQ(status_with("Host: localhost\r\nHost: localhost\r\n"), 400);
    EXPECT_EQ(status_with("Host: localhost\r\nHost: evil.example\r\n"), 400);
    EXPECT_EQ(status_with(""), 400);
}

TEST_F(rest_access, pages_from_elsewhere_are_refused) {
    start_echo();
    const auto status_of = [&](const char *origin) {
        return ask("POST /unit/echo", "Origin: "s + origin + "\r\n", "{}").status;
    };
    for (const char *origin : {"http://localhost", "https://localhost", "HTTP://LOCALHOST"}) {
        EXPECT_EQ(status_of(origin), 200) << origin;
    }
    for (const char *origin : {"http://evil.example",
                               "null",
                               "",
                               "http://localhost:81",
                               "file://",
                               "http://",
                               "localhost",
                               "http://localhost.evil",
                               "ftp://localhost"}) {
        EXPECT_EQ(status_of(origin), 403) << origin;
    }
    EXPECT_EQ(status_with("Host: localhost:8080\r\nOrigin: http://localhost:8080\r\n"), 200);
}

TEST_F(rest_access, open_server_accepts_any_host_but_no_foreign_origin) {
    setting("KT_REST_LISTEN", "0.0.0.0:0");
    setting("KT_REST_ALLOW_INSECURE", "1");
    start_echo();
    EXPECT_EQ(status_with("Host: gateway.example\r\n"), 200);
    EXPECT_EQ(status_with("Host: gateway.example\r\nOrigin: http://gateway.example\r\n"), 200);
    EXPECT_EQ(status_with("Host: gateway.example\r\nOrigin: http://evil.example\r\n"), 403);
}

} // namespace
