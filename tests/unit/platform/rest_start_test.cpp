#include "rest_fixture.h"

#include <kt/rest.h>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

class rest_start : public rest_server_test {
protected:
    void write_file(const std::string &name, const std::string &text, mode_t mode = 0600) {
        write(path(name), text);
        ASSERT_EQ(chmod(path(name).c_str(), mode), 0);
    }
    /** The start must fail for a setting; what it prints, without the prefix. */
    std::string refusal() {
        EXPECT_EQ(init(), REST_BAD_SETTING);
        EXPECT_EQ(log_.rfind("kt-rest: ", 0), 0u) << log_;
        return log_.substr(std::min(log_.size(), strlen("kt-rest: ")));
    }
};

TEST_F(rest_start, chosen_address_is_written_to_a_file_and_nothing_is_printed) {
    start();
    const std::string address = "127.0.0.1:" + std::to_string(port_);
    EXPECT_EQ(log_, "");
    EXPECT_EQ(read(path("run/kt-rest/unit.address")), address + "\n");
    EXPECT_THAT(names("run/kt-rest"), testing::ElementsAre("unit.address"));
    EXPECT_GT(port_, 0);
    rest_cleanup();
    EXPECT_THAT(names("run/kt-rest"), testing::IsEmpty());
}

TEST_F(rest_start, address_file_that_cannot_be_written_is_no_failure) {
    write(path("run"), "in the way");
    testing::internal::CaptureStderr();
    EXPECT_GT(rest_init("unit", nullptr), 0);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                testing::HasSubstr("kt-rest: cannot write " + path("run/kt-rest/unit.address") +
                                   ": Not a directory\n"));
}

TEST_F(rest_start, handle_and_opaque_value_are_given) {
    void *opaque = nullptr;
    const int handle = rest_init("unit", &opaque);
    EXPECT_GT(handle, 0);
    EXPECT_NE(opaque, nullptr);
    void *untouched = &opaque;
    EXPECT_EQ(rest_init("unit", &untouched), REST_ALREADY_THERE);
    EXPECT_EQ(untouched, &opaque);
}

TEST_F(rest_start, server_can_be_started_again_and_forgets_its_registrations) {
    start_echo();
    const int first = handle_;
    EXPECT_TRUE(is_alive());
    rest_cleanup();
    rest_cleanup();
    start();
    EXPECT_NE(handle_, first);
    EXPECT_EQ(rest_cb_register(first, "/echo", REST_GET, echo), REST_BAD_ARGUMENT);
    EXPECT_EQ(ask("GET /unit/echo").status, 404);
    add("/echo", REST_GET, echo);
    EXPECT_TRUE(is_alive());
}

TEST_F(rest_start, without_a_server_nothing_can_be_registered) {
    EXPECT_EQ(rest_cb_register(1, "/echo", REST_GET, echo), REST_BAD_ARGUMENT);
    EXPECT_EQ(rest_cb_register(0, "/echo", REST_GET, echo), REST_BAD_ARGUMENT);
    rest_cleanup();
}

TEST_F(rest_start, service_names_that_are_no_path_are_refused) {
    for (const std::string &name : {""s,
                                    "a/b"s,
                                    "."s,
                                    ".."s,
                                    ".a"s,
                                    "a b"s,
                                    "a?"s,
                                    "a%20"s,
                                    "\xc3\xa4"s,
                                    std::string(REST_SERVICE_MAX + 1, 'a')}) {
        EXPECT_EQ(rest_init(name.c_str(), nullptr), REST_BAD_ARGUMENT) << name;
    }
    EXPECT_EQ(rest_init(nullptr, nullptr), REST_BAD_ARGUMENT);
    EXPECT_GT(rest_init(std::string(REST_SERVICE_MAX, 'a').c_str(), nullptr), 0);
}

TEST_F(rest_start, port_that_is_taken_is_named) {
    const char *host = "127.11.12.13"; // where nobody else's connections take ports
    const int taken = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    address.sin_family = AF_INET;
    ASSERT_EQ(inet_pton(AF_INET, host, &address.sin_addr), 1);
    ASSERT_EQ(bind(taken, reinterpret_cast<sockaddr *>(&address), length), 0);
    ASSERT_EQ(listen(taken, 1), 0);
    ASSERT_EQ(getsockname(taken, reinterpret_cast<sockaddr *>(&address), &length), 0);
    const std::string text = host + ":"s + std::to_string(ntohs(address.sin_port));
    setting("KT_REST_LISTEN", text);
    EXPECT_EQ(init(), REST_NO_SERVER);
    EXPECT_EQ(log_, "kt-rest: cannot listen on " + text + ": Address already in use\n");
    (void)close(taken);
    EXPECT_GT(init(), 0);
}

TEST_F(rest_start, address_of_another_machine_is_named) {
    setting("KT_REST_LISTEN", "192.0.2.1:8080");
    setting("KT_REST_ALLOW_INSECURE", "1");
    EXPECT_EQ(init(), REST_NO_SERVER);
    EXPECT_EQ(log_, "kt-rest: cannot listen on 192.0.2.1:8080: Cannot assign requested address\n");
}

TEST_F(rest_start, without_a_setting_it_is_port_8080_of_this_machine_alone) {
    for (const char *unset : {"", static_cast<const char *>(nullptr)}) {
        if (unset != nullptr) {
            setting("KT_REST_LISTEN", unset);
        } else {
            (void)unsetenv("KT_REST_LISTEN");
        }
        testing::internal::CaptureStderr();
        const int handle = rest_init("unit", nullptr);
        const std::string log = testing::internal::GetCapturedStderr();
        if (handle == REST_NO_SERVER) { // somebody else's already
            EXPECT_EQ(log, "kt-rest: cannot listen on 127.0.0.1:8080: Address already in use\n");
            continue;
        }
        EXPECT_GT(handle, 0);
        EXPECT_EQ(read(path("run/kt-rest/unit.address")), "127.0.0.1:8080\n");
        rest_cleanup();
    }
}

TEST_F(rest_start, addresses_are_understood_in_every_form) {
    for (const char *text : {"localhost:0", "127.0.0.1:0", "127.1.2.3:0"}) {
        setting("KT_REST_LISTEN", text);
        EXPECT_GT(init(), 0) << log_;
        rest_cleanup();
    }
    setting("KT_REST_ALLOW_INSECURE", "1");
    setting("KT_REST_LISTEN", ":0");
    EXPECT_GT(init(), 0) << log_;
    EXPECT_EQ(read(path("run/kt-rest/unit.address")), "0.0.0.0:" + std::to_string(port_) + "\n");
}

TEST_F(rest_start, ipv6_addresses_are_understood) {
    const int probe = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 loopback = {};
    loopback.sin6_family = AF_INET6;
    loopback.sin6_addr = in6addr_loopback;
    const bool is_there =
        probe >= 0 && bind(probe, reinterpret_cast<sockaddr *>(&loopback), sizeof loopback) == 0;
    (void)close(probe);
    if (!is_there) {
        GTEST_SKIP() << "no IPv6 on this machine";
    }
    setting("KT_REST_LISTEN", "[::1]:0");
    ASSERT_GT(init(), 0) << log_;
    EXPECT_EQ(read(path("run/kt-rest/unit.address")), "[::1]:" + std::to_string(port_) + "\n");
    rest_cleanup();
    setting("KT_REST_LISTEN", "[::]:0");
    setting("KT_REST_ALLOW_INSECURE", "1");
    start_echo();
    EXPECT_TRUE(is_alive()) << "also over IPv4";
}

TEST_F(rest_start, addresses_that_are_none_are_refused) {
    for (const char *text : {"8080",
                             "localhost",
                             "127.0.0.1",
                             "127.0.0.1:",
                             "127.0.0.1:65536",
                             "127.0.0.1:-1",
                             "127.0.0.1:+1",
                             "127.0.0.1: 80",
                             "127.0.0.1:80x",
                             "127.0.0:80",
                             "gateway.example:80",
                             "::1:80",
                             "[::1]",
                             "[::1:80",
                             "[127.0.0.1]:80",
                             "[]:80",
                             ":"}) {
        setting("KT_REST_LISTEN", text);
        EXPECT_EQ(refusal(),
                  "KT_REST_LISTEN: \""s + text + "\" is not HOST:PORT with an address as HOST\n");
    }
}

TEST_F(rest_start, open_address_needs_a_token_or_permission) {
    for (const char *text : {"0.0.0.0:0", ":0", "[::]:0", "192.0.2.1:0", "[::ffff:192.0.2.1]:0"}) {
        setting("KT_REST_LISTEN", text);
        EXPECT_EQ(refusal(),
                  "refusing to listen on "s + text +
                      " for everybody: set KT_REST_TOKEN_FILE, or KT_REST_ALLOW_INSECURE=1 if the "
                      "network is to be trusted\n");
    }
    setting("KT_REST_ALLOW_INSECURE", "yes");
    EXPECT_EQ(init(), REST_BAD_SETTING);
    setting("KT_REST_LISTEN", "0.0.0.0:0");
    setting("KT_REST_ALLOW_INSECURE", "1");
    EXPECT_GT(init(), 0);
    rest_cleanup();
    (void)unsetenv("KT_REST_ALLOW_INSECURE");
    write_file("token", "abc\n");
    setting("KT_REST_TOKEN_FILE", path("token"));
    EXPECT_GT(init(), 0);
}

TEST_F(rest_start, token_files_that_are_no_good_are_refused) {
    const std::string file = path("token");
    setting("KT_REST_TOKEN_FILE", file);
    EXPECT_EQ(refusal(),
              "KT_REST_TOKEN_FILE: cannot read " + file + ": No such file or directory\n");
    write_file("token", "");
    EXPECT_EQ(refusal(), "KT_REST_TOKEN_FILE: " + file + " is empty\n");
    write_file("token", "\r\n\n");
    EXPECT_EQ(refusal(), "KT_REST_TOKEN_FILE: " + file + " is empty\n");
    write_file("token", std::string(4097, 'a'));
    EXPECT_EQ(refusal(), "KT_REST_TOKEN_FILE: " + file + " is too large\n");
    for (const std::string &text :
         {"two words\n"s, "two\nlines\n"s, "\nabc"s, "a\0b"s, "\xc3\xa4"s}) {
        write_file("token", text);
        EXPECT_EQ(refusal(),
                  "KT_REST_TOKEN_FILE: " + file + " must hold one line of visible ASCII\n");
    }
    for (const mode_t mode : {0644u, 0604u, 0602u, 0601u}) {
        write_file("token", "abc\n", mode);
        char text[8];
        (void)snprintf(text, sizeof text, "%03o", mode);
        EXPECT_EQ(refusal(),
                  "KT_REST_TOKEN_FILE: " + file + " is open to others (mode " + text +
                      "); take their rights away\n");
    }
    write_file("token", std::string(4096, 'a'), 0640);
    EXPECT_GT(init(), 0);
}

TEST_F(rest_start, token_file_that_is_no_file_is_refused_without_waiting) {
    setting("KT_REST_TOKEN_FILE", path_);
    EXPECT_EQ(refusal(), "KT_REST_TOKEN_FILE: " + path_ + " is not a regular file\n");
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    setting("KT_REST_TOKEN_FILE", path("pipe"));
    EXPECT_EQ(refusal(), "KT_REST_TOKEN_FILE: " + path("pipe") + " is not a regular file\n");
}

TEST_F(rest_start, certificate_and_key_need_each_other) {
    setting("KT_REST_TLS_CERT", path("cert"));
    EXPECT_EQ(refusal(),
              "KT_REST_TLS_CERT and KT_REST_TLS_KEY need each other: KT_REST_TLS_KEY is missing\n");
    clean();
    setting("KT_REST_TLS_KEY", path("key"));
    EXPECT_EQ(
        refusal(),
        "KT_REST_TLS_CERT and KT_REST_TLS_KEY need each other: KT_REST_TLS_CERT is missing\n");
}

TEST_F(rest_start, empty_settings_count_as_unset) {
    for (const char *name : {"KT_REST_TOKEN_FILE", "KT_REST_TLS_CERT", "KT_REST_TLS_KEY"}) {
        setting(name, "");
    }
    EXPECT_GT(init(), 0) << log_;
}

} // namespace
