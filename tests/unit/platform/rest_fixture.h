#ifndef KT_TESTS_REST_FIXTURE_H
#define KT_TESTS_REST_FIXTURE_H

#include "rest_client.h"
#include "scratch_folder.h"

#include <kt/rest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <gmock/gmock.h>
#include <mutex>
#include <thread>

using namespace std::string_literals;

/** A door that handlers wait at. */
class gate {
public:
    void pass() {
        std::unique_lock lock(mutex_);
        ++arrived_;
        changed_.notify_all();
        changed_.wait(lock, [this] { return open_; });
    }
    bool wait_for_arrivals(int count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(30), [&] { return arrived_ >= count; });
    }
    void open() {
        const std::lock_guard lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int arrived_ = 0;
    bool open_ = false;
};

/** Try until it holds or the time is up. */
inline bool eventually(const std::function<bool()> &holds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!holds()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5)); // between two looks
    }
    return true;
}

inline int echo(const char *uri, const char *body, size_t length) {
    const std::string text = std::string(uri) + "|" + (body ? std::string(body, length) : "NULL");
    return rest_write(text.data(), text.size()) == REST_OK ? 200 : 500;
}

/** A server named "unit" on any free port; the environment is clean but for its address. */
class rest_server_test : public scratch_root {
protected:
    rest_server_test() {
        clean();
        setting("KT_REST_LISTEN", "127.0.0.1:0");
    }
    ~rest_server_test() override {
        rest_cleanup();
        clean();
    }

    static void setting(const char *name, const std::string &value) {
        (void)setenv(name, value.c_str(), 1);
    }
    static void clean() {
        for (const char *name : {"KT_REST_LISTEN",
                                 "KT_REST_TOKEN_FILE",
                                 "KT_REST_TLS_CERT",
                                 "KT_REST_TLS_KEY",
                                 "KT_REST_ALLOW_INSECURE"}) {
            (void)unsetenv(name);
        }
    }

    /** rest_init(); what it printed is in log_. */
    int init() {
        testing::internal::CaptureStderr();
        handle_ = rest_init("unit", nullptr);
        log_ = testing::internal::GetCapturedStderr();
        if (handle_ > 0) {
            const std::string address = read(path("run/kt-rest/unit.address"));
            port_ = std::stoi(address.substr(address.rfind(':') + 1));
        }
        return handle_;
    }
    void start() { ASSERT_GT(init(), 0) << log_; }
    void add(const char *path, int method, rest_callback callback) {
        ASSERT_EQ(rest_cb_register(handle_, path, method, callback), REST_OK);
    }
    void start_echo() {
        start();
        add("/echo", REST_GET, echo);
        add("/echo", REST_POST, echo);
    }

    /** Request text with a Host header; a body gets its length. */
    static std::string request(const std::string &line,
                               const std::string &headers = "",
                               const std::string &body = "") {
        const std::string length =
            body.empty() ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n";
        return line + " HTTP/1.1\r\nHost: localhost\r\n" + headers + length + "\r\n" + body;
    }
    /** Ask on a connection of its own. */
    http_response
    ask(const std::string &line, const std::string &headers = "", const std::string &body = "") {
        http_client client(port_);
        return client.ask(request(line, headers, body), line.rfind("HEAD ", 0) == 0);
    }
    bool is_alive() { return ask("GET /unit/echo").status == 200; }

    int handle_ = 0;
    int port_ = 0;
    std::string log_;
};

#endif
