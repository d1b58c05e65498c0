#include "rest_fixture.h"

#include <kt/rest.h>

#include <stdexcept>

namespace {

class rest_answer : public rest_server_test {
protected:
    /** What one GET to a handler gets. */
    http_response answer_of(rest_callback handler) {
        start();
        add("/x", REST_GET, handler);
        return ask("GET /unit/x");
    }
};

int written(const char *text, int status) {
    return rest_write(text, strlen(text)) == REST_OK ? status : 500;
}

TEST_F(rest_answer, json_text_is_sent_with_its_type_and_length) {
    const http_response response =
        answer_of([](const char *, const char *, size_t) { return written(R"({"a":1})", 201); });
    EXPECT_EQ(response.status, 201);
    EXPECT_EQ(response.body, R"({"a":1})");
    EXPECT_EQ(response.header("content-type"), "application/json");
    EXPECT_EQ(response.header("content-length"), "7");
    EXPECT_EQ(response.header("cache-control"), "no-store");
    EXPECT_EQ(response.header("x-content-type-options"), "nosniff");
    EXPECT_EQ(response.header("server"), "(none)");
}

TEST_F(rest_answer, text_is_copied) {
    EXPECT_EQ(answer_of([](const char *, const char *, size_t) {
                  std::string text = "first";
                  const int result = rest_write(text.data(), text.size());
                  text.assign("XXXXX");
                  return result == REST_OK ? 200 : 500;
              }).body,
              "first");
}

TEST_F(rest_answer, last_writing_counts) {
    const http_response response = answer_of([](const char *, const char *, size_t) {
        (void)rest_write_file("a.csv", "1;2", 3);
        return written("{}", 400);
    });
    EXPECT_EQ(response.status, 400);
    EXPECT_EQ(response.body, "{}");
    EXPECT_EQ(response.header("content-type"), "application/json");
    EXPECT_EQ(response.header("content-disposition"), "(none)");
}

TEST_F(rest_answer, handler_that_writes_nothing_gives_an_empty_body) {
    const http_response response =
        answer_of([](const char *, const char *, size_t) { return 500; });
    EXPECT_EQ(response.status, 500);
    EXPECT_EQ(response.header("content-length"), "0");
    EXPECT_EQ(response.header("content-type"), "(none)");
}

TEST_F(rest_answer, no_content_has_no_body_on_the_wire) {
    start();
    add("/x", REST_DELETE, [](const char *, const char *, size_t) {
        return written(R"({"data":{"response":"success"}})", 204);
    });
    add("/x", REST_GET, echo);
    http_client client(port_);
    const http_response response = client.ask(request("DELETE /unit/x/1"));
    EXPECT_EQ(response.status, 204);
    EXPECT_EQ(response.header("content-length"), "(none)");
    EXPECT_EQ(response.header("transfer-encoding"), "(none)");
    EXPECT_EQ(response.header("content-type"), "(none)");
    // Were there a body, it would stand before the next answer.
    EXPECT_EQ(client.ask(request("GET /unit/x")).head.substr(0, 15), "HTTP/1.1 200 OK");
    EXPECT_EQ(client.unread(), "");
}

TEST_F(rest_answer, file_is_sent_as_a_download) {
    const http_response response = answer_of([](const char *, const char *, size_t) {
        return rest_write_file("log 1.csv", "a;\0b\n", 5) == REST_OK ? 200 : 500;
    });
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body, std::string("a;\0b\n", 5));
    EXPECT_EQ(response.header("content-type"), "text/csv");
    EXPECT_EQ(response.header("content-disposition"), "attachment; filename=\"log 1.csv\"");
}

TEST_F(rest_answer, quotes_in_the_name_of_a_download_are_escaped) {
    EXPECT_EQ(answer_of([](const char *, const char *, size_t) {
                  return rest_write_file("a\"b\\c.csv", nullptr, 0) == REST_OK ? 200 : 500;
              }).header("content-disposition"),
              R"(attachment; filename="a\"b\\c.csv")");
}

TEST_F(rest_answer, empty_file_is_a_download_too) {
    const http_response response = answer_of([](const char *, const char *, size_t) {
        return rest_write_file("a.csv", "", 0) == REST_OK ? 200 : 500;
    });
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.header("content-length"), "0");
    EXPECT_EQ(response.header("content-type"), "text/csv");
}

TEST_F(rest_answer, longest_name_of_a_download_is_sent_whole) {
    EXPECT_EQ(answer_of([](const char *, const char *, size_t) {
                  const std::string name(REST_DOWNLOAD_NAME_MAX, '"');
                  return rest_write_file(name.c_str(), "1", 1) == REST_OK ? 200 : 500;
              })
                  .header("content-disposition")
                  .size(),
              strlen("attachment; filename=\"\"") + 2 * REST_DOWNLOAD_NAME_MAX);
}

TEST_F(rest_answer, wrong_arguments_are_refused_and_keep_what_was_written) {
    const http_response response = answer_of([](const char *, const char *, size_t) {
        const std::string long_name(REST_DOWNLOAD_NAME_MAX + 1, 'a');
        const bool refused = written("kept", 200) == 200 &&
                             rest_write(nullptr, 1) == REST_BAD_ARGUMENT &&
                             rest_write_file(nullptr, "1", 1) == REST_BAD_ARGUMENT &&
                             rest_write_file("", "1", 1) == REST_BAD_ARGUMENT &&
                             rest_write_file("a\r\nX: y", "1", 1) == REST_BAD_ARGUMENT &&
                             rest_write_file("\xc3\xa4", "1", 1) == REST_BAD_ARGUMENT &&
                             rest_write_file(long_name.c_str(), "1", 1) == REST_BAD_ARGUMENT &&
                             rest_write_file("a", nullptr, 1) == REST_BAD_ARGUMENT;
        return refused ? 200 : 500;
    });
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body, "kept");
}

TEST_F(rest_answer, writing_is_for_the_handlers_thread_during_the_call) {
    EXPECT_EQ(rest_write("x", 1), REST_NOT_IN_HANDLER);
    EXPECT_EQ(rest_write_file("x", "x", 1), REST_NOT_IN_HANDLER);
    const http_response response = answer_of([](const char *, const char *, size_t) {
        int elsewhere = REST_OK;
        std::thread([&] { elsewhere = rest_write("other", 5); }).join();
        return elsewhere == REST_NOT_IN_HANDLER ? written("own", 200) : 500;
    });
    EXPECT_EQ(response.body, "own");
    EXPECT_EQ(rest_write("x", 1), REST_NOT_IN_HANDLER);
}

TEST_F(rest_answer, status_that_is_none_becomes_an_internal_error) {
    start();
    add("/0", REST_GET, [](const char *, const char *, size_t) { return written("x", 0); });
    add("/199", REST_GET, [](const char *, const char *, size_t) { return written("x", 199); });
    add("/600", REST_GET, [](const char *, const char *, size_t) { return written("x", 600); });
    add("/neg", REST_GET, [](const char *, const char *, size_t) { return written("x", -1); });
    for (const char *path : {"/0", "/199", "/600", "/neg"}) {
        const http_response response = ask("GET /unit"s + path);
        EXPECT_EQ(response.status, 500);
        EXPECT_EQ(response.body, R"({"error":{"code":500,"message":"Internal server error"}})");
    }
}

TEST_F(rest_answer, exception_of_a_handler_ends_with_its_request) {
    start_echo();
    add("/throw", REST_GET, [](const char *, const char *, size_t) -> int {
        (void)rest_write("half", 4);
        throw std::runtime_error("no");
    });
    testing::internal::CaptureStderr();
    const http_response response = ask("GET /unit/throw");
    EXPECT_EQ(response.status, 500);
    EXPECT_EQ(response.body, R"({"error":{"code":500,"message":"Internal server error"}})");
    EXPECT_EQ(rest_write("x", 1), REST_NOT_IN_HANDLER);
    EXPECT_TRUE(is_alive());
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "kt-rest: a handler ended with an exception\n");
}

TEST_F(rest_answer, large_answer_arrives_whole) {
    const http_response response = answer_of([](const char *, const char *, size_t) {
        const std::string text(20 * 1024 * 1024, 'x');
        return rest_write(text.data(), text.size()) == REST_OK ? 200 : 500;
    });
    EXPECT_EQ(response.body, std::string(20 * 1024 * 1024, 'x'));
}

} // namespace
