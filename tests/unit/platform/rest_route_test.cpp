#include "rest_fixture.h"

#include <kt/rest.h>

namespace {

class rest_route : public rest_server_test {};

template <int number>
int answer_number(const char *, const char *, size_t) {
    const std::string text = std::to_string(number);
    return rest_write(text.data(), text.size()) == REST_OK ? 200 : 500;
}

TEST_F(rest_route, path_answers_exactly_and_with_more_behind_a_slash) {
    start_echo();
    for (const char *uri : {"/unit/echo",
                            "/unit/echo/",
                            "/unit/echo/7",
                            "/unit/echo/7/extra?x=1",
                            "/unit/echo?portId=1&x=%41",
                            "/unit/echo/%00/%2e%2E?a=%00",
                            "/unit/echo/?a=/b?c"}) {
        EXPECT_EQ(ask("GET "s + uri).body, std::string(uri) + "|NULL");
    }
}

TEST_F(rest_route, other_paths_are_not_found) {
    start_echo();
    for (const char *uri : {"/",
                            "/unit",
                            "/unit/",
                            "/echo",
                            "/unit/ech",
                            "/unit/echos",
                            "/unitecho",
                            "/Unit/echo",
                            "//unit/echo",
                            "/unit//echo",
                            "/unit/%65cho",
                            "/unit/x/../echo",
                            "/unit/echo%2f7",
                            "/unit?/echo",
                            "*"}) {
        const http_response response = ask("GET "s + uri);
        EXPECT_EQ(response.status, 404) << uri;
        EXPECT_EQ(response.body, R"({"error":{"code":404,"message":"No such path"}})");
        EXPECT_EQ(response.header("content-type"), "application/json");
    }
}

TEST_F(rest_route, longest_registered_path_wins) {
    start();
    add("/a", REST_GET, answer_number<1>);
    add("/a/b/c", REST_GET, answer_number<3>);
    add("/a/b", REST_GET, answer_number<2>);
    add("/a-export", REST_GET, answer_number<4>);
    add("/a/b", REST_POST, answer_number<5>);
    add("/a/d", REST_POST, answer_number<6>);
    EXPECT_EQ(ask("GET /unit/a/x").body, "1");
    EXPECT_EQ(ask("GET /unit/a/bc").body, "1");
    EXPECT_EQ(ask("GET /unit/a/b/x").body, "2");
    EXPECT_EQ(ask("GET /unit/a/b/c/x").body, "3");
    EXPECT_EQ(ask("GET /unit/a-export/1").body, "4");
    EXPECT_EQ(ask("POST /unit/a/b").body, "5");
    EXPECT_EQ(ask("GET /unit/a/d").status, 405);
}

TEST_F(rest_route, every_method_reaches_its_handler) {
    start();
    add("/r", REST_POST, answer_number<1>);
    add("/r", REST_GET, answer_number<2>);
    add("/r", REST_PUT, answer_number<3>);
    add("/r", REST_PATCH, answer_number<4>);
    add("/r", REST_DELETE, answer_number<5>);
    EXPECT_EQ(ask("POST /unit/r").body, "1");
    EXPECT_EQ(ask("GET /unit/r").body, "2");
    EXPECT_EQ(ask("PUT /unit/r", "", "{}").body, "3");
    EXPECT_EQ(ask("PATCH /unit/r/1", "", "{}").body, "4");
    EXPECT_EQ(ask("DELETE /unit/r/1").body, "5");
    EXPECT_EQ(ask("OPTIONS /unit/r").header("allow"), "DELETE, GET, HEAD, PATCH, POST, PUT");
}

TEST_F(rest_route, other_methods_of_a_path_are_answered_with_those_allowed) {
    start_echo();
    add("/only", REST_DELETE, echo);
    for (const char *method : {"PUT", "DELETE", "PATCH", "OPTIONS", "TRACE", "get", "BREW"}) {
        const http_response response = ask(method + " /unit/echo/1"s);
        EXPECT_EQ(response.status, 405) << method;
        EXPECT_EQ(response.header("allow"), "GET, HEAD, POST");
        EXPECT_EQ(response.header("content-type"), "application/json");
        EXPECT_EQ(response.body, R"({"error":{"code":405,"message":"Method not allowed"}})");
    }
    const http_response head = ask("HEAD /unit/only");
    EXPECT_EQ(head.status, 405);
    EXPECT_EQ(head.header("allow"), "DELETE");
}

TEST_F(rest_route, head_is_get_without_the_body) {
    start_echo();
    http_client client(port_);
    const http_response head = client.ask(request("HEAD /unit/echo"), true);
    EXPECT_EQ(head.status, 200);
    EXPECT_EQ(head.header("content-length"), std::to_string(strlen("/unit/echo|NULL")));
    EXPECT_EQ(head.header("content-type"), "application/json");
    // Had the body been sent, it would stand before the next answer.
    EXPECT_EQ(client.ask(request("GET /unit/echo")).body, "/unit/echo|NULL");
}

TEST_F(rest_route, target_with_scheme_and_host_is_that_of_its_path) {
    start_echo();
    EXPECT_EQ(ask("GET http://localhost:80/unit/echo/1?x=2").body, "/unit/echo/1?x=2|NULL");
    EXPECT_EQ(ask("GET HTTPS://127.0.0.1/unit/echo").body, "/unit/echo|NULL");
    EXPECT_EQ(ask("GET http://localhost").status, 404);
    EXPECT_EQ(ask("GET http://").status, 403);
}

TEST_F(rest_route, registration_takes_effect_while_the_server_runs) {
    start_echo();
    http_client client(port_);
    EXPECT_EQ(client.ask(request("GET /unit/late")).status, 404);
    add("/late", REST_GET, echo);
    EXPECT_EQ(client.ask(request("GET /unit/late")).status, 200);
}

TEST_F(rest_route, registration_refuses_what_is_wrong) {
    start();
    const auto add_path = [&](const std::string &path) {
        return rest_cb_register(handle_, path.c_str(), REST_GET, echo);
    };
    for (const std::string &path : {""s,
                                    "/"s,
                                    "a"s,
                                    "/a/"s,
                                    "/a b"s,
                                    "/a?b"s,
                                    "/a#b"s,
                                    "/a%20b"s,
                                    "/a\n"s,
                                    "/\xc3\xa4"s,
                                    "/" + std::string(REST_PATH_MAX, 'a')}) {
        EXPECT_EQ(add_path(path), REST_BAD_ARGUMENT) << path;
    }
    EXPECT_EQ(add_path("/" + std::string(REST_PATH_MAX - 1, 'a')), REST_OK);
    EXPECT_EQ(rest_cb_register(handle_, nullptr, REST_GET, echo), REST_BAD_ARGUMENT);
    EXPECT_EQ(rest_cb_register(handle_, "/a", 0, echo), REST_BAD_ARGUMENT);
    EXPECT_EQ(rest_cb_register(handle_, "/a", 6, echo), REST_BAD_ARGUMENT);
    EXPECT_EQ(rest_cb_register(handle_, "/a", REST_GET, nullptr), REST_BAD_ARGUMENT);
    EXPECT_EQ(rest_cb_register(handle_ + 1, "/a", REST_GET, echo), REST_BAD_ARGUMENT);
    EXPECT_EQ(rest_cb_register(0, "/a", REST_GET, echo), REST_BAD_ARGUMENT);
    EXPECT_EQ(rest_cb_register(-1, "/a", REST_GET, echo), REST_BAD_ARGUMENT);
    EXPECT_EQ(ask("GET /unit/a").status, 404);
}

TEST_F(rest_route, path_and_method_can_be_registered_once) {
    start();
    add("/a", REST_GET, answer_number<1>);
    EXPECT_EQ(rest_cb_register(handle_, "/a", REST_GET, echo), REST_ALREADY_THERE);
    add("/a", REST_PUT, answer_number<2>);
    EXPECT_EQ(ask("GET /unit/a").body, "1");
}

TEST_F(rest_route, number_of_registrations_is_bounded) {
    start();
    for (int i = 0; i < REST_ROUTES_MAX; ++i) {
        add(("/r" + std::to_string(i)).c_str(), REST_GET, echo);
    }
    EXPECT_EQ(rest_cb_register(handle_, "/more", REST_GET, echo), REST_TABLE_FULL);
    EXPECT_EQ(rest_cb_register(handle_, "/r0", REST_GET, echo), REST_ALREADY_THERE);
    EXPECT_EQ(ask("GET /unit/r63").status, 200);
}

} // namespace
