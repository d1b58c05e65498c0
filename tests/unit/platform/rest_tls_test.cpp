#include "rest_fixture.h"

#include <kt/rest.h>

#include <cstdio>
#include <filesystem>
#include <sys/stat.h>

namespace {

/** Output of a shell command with its standard error, and its exit status. */
struct run_result {
    int status;
    std::string output;
};

run_result run(const std::string &command) {
    run_result result = {-1, ""};
    FILE *pipe = popen((command + " 2>&1").c_str(), "re");
    char piece[4096];
    while (const size_t got = pipe ? fread(piece, 1, sizeof piece, pipe) : 0) {
        result.output.append(piece, got);
    }
    result.status = pipe ? pclose(pipe) : -1;
    return result;
}

bool is_installed(const char *program) {
    return run("command -v "s + program).status == 0;
}

class rest_tls : public rest_server_test {
protected:
    void SetUp() override {
        if (!is_installed("openssl") || !is_installed("curl")) {
            GTEST_SKIP() << "openssl or curl is not installed";
        }
        make_certificate("own");
        setting("KT_REST_TLS_CERT", path("own.crt"));
        setting("KT_REST_TLS_KEY", path("own.key"));
    }
    void make_certificate(const std::string &name) {
        const run_result made =
            run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 "
                "-subj /CN=localhost -addext subjectAltName=IP:127.0.0.1 -keyout " +
                path(name + ".key") + " -out " + path(name + ".crt"));
        ASSERT_EQ(made.status, 0) << made.output;
        ASSERT_EQ(chmod(path(name + ".key").c_str(), 0600), 0);
    }
    run_result curl(const std::string &arguments) {
        return run("curl -q -sS --noproxy '*' --max-time 20 --cacert " + path("own.crt") + " " +
                   arguments);
    }
    std::string url(const std::string &rest) {
        return "https://127.0.0.1:" + std::to_string(port_) + rest;
    }
};

TEST_F(rest_tls, requests_are_served) {
    start_echo();
    EXPECT_EQ(curl(url("/unit/echo/1?x=2")).output, "/unit/echo/1?x=2|NULL");
    EXPECT_EQ(curl("-d '{}' " + url("/unit/echo")).output, "/unit/echo|{}");
    write(path("large"), std::string(3000000, 'x'));
    const run_result large = curl("--data-binary @" + path("large") + " " + url("/unit/echo"));
    EXPECT_EQ(large.output.size(), strlen("/unit/echo|") + 3000000);
}

TEST_F(rest_tls, two_requests_share_a_connection) {
    start_echo();
    const std::string count = "-o /dev/null -w '%{num_connects} '";
    EXPECT_EQ(curl(count + " " + url("/unit/echo") + " " + count + " " + url("/unit/echo")).output,
              "1 0 ");
}

TEST_F(rest_tls, token_is_needed_as_well) {
    write(path("token"), "abc\n");
    (void)chmod(path("token").c_str(), 0600);
    setting("KT_REST_TOKEN_FILE", path("token"));
    start_echo();
    EXPECT_THAT(curl(url("/unit/echo")).output, testing::HasSubstr("\"code\":401"));
    EXPECT_EQ(curl("-H 'Authorization: Bearer abc' " + url("/unit/echo")).output,
              "/unit/echo|NULL");
}

TEST_F(rest_tls, plain_requests_and_old_versions_get_nothing) {
    start_echo();
    EXPECT_EQ(ask("GET /unit/echo").status, 0);
    const std::string port = std::to_string(port_);
    const auto version_of = [&](const char *flag) {
        return run("openssl s_client -connect 127.0.0.1:" + port +
                   " -cipher ALL:@SECLEVEL=0 -brief " + flag + " </dev/null")
            .output;
    };
    EXPECT_THAT(version_of("-tls1_1"), testing::Not(testing::HasSubstr("ESTABLISHED")));
    EXPECT_THAT(version_of("-tls1_2"), testing::HasSubstr("Protocol version: TLSv1.2"));
    EXPECT_EQ(curl(url("/unit/echo")).output, "/unit/echo|NULL");
}

TEST_F(rest_tls, client_that_never_shakes_hands_delays_nobody) {
    start_echo();
    http_client silent(port_);
    http_client half(port_);
    ASSERT_TRUE(half.send("\x16\x03\x01"));
    EXPECT_EQ(curl(url("/unit/echo")).output, "/unit/echo|NULL");
}

TEST_F(rest_tls, files_that_are_no_good_are_refused) {
    setting("KT_REST_TLS_CERT", path("none"));
    EXPECT_EQ(init(), REST_BAD_SETTING);
    EXPECT_EQ(log_,
              "kt-rest: KT_REST_TLS_CERT: cannot read " + path("none") +
                  ": No such file or directory\n");
    setting("KT_REST_TLS_CERT", path("own.crt"));
    (void)chmod(path("own.key").c_str(), 0644);
    EXPECT_EQ(init(), REST_BAD_SETTING);
    EXPECT_EQ(log_,
              "kt-rest: KT_REST_TLS_KEY: " + path("own.key") +
                  " is open to others (mode 644); take their rights away\n");
}

TEST_F(rest_tls, certificate_or_key_that_is_none_leaves_nothing_open) {
    const auto descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = descriptors();
    write(path("text"), "no PEM\n");
    (void)chmod(path("text").c_str(), 0600);
    make_certificate("other");
    for (const auto &[certificate, key] : {std::pair("text", "own.key"),
                                           std::pair("own.crt", "text"),
                                           std::pair("own.crt", "other.key")}) {
        setting("KT_REST_TLS_CERT", path(certificate));
        setting("KT_REST_TLS_KEY", path(key));
        EXPECT_EQ(init(), REST_NO_SERVER) << certificate << key;
        EXPECT_EQ(log_.rfind("kt-rest: cannot start on 127.0.0.1:", 0), 0u) << log_;
        EXPECT_EQ(std::count(log_.begin(), log_.end(), '\n'), 1) << log_;
        EXPECT_THAT(log_,
                    testing::HasSubstr(
                        " with KT_REST_TLS_CERT and KT_REST_TLS_KEY: GnuTLS failed to setup x509 "
                        "certificate/key: "));
        EXPECT_EQ(descriptors(), before) << certificate << key;
    }
}

} // namespace
