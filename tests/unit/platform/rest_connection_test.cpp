#include "rest_fixture.h"

#include <kt/rest.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <memory>
#include <sstream>

namespace {

class rest_connection : public rest_server_test {};

using clients = std::vector<std::unique_ptr<http_client>>;

TEST_F(rest_connection, stays_open_for_further_requests) {
    start_echo();
    http_client client(port_);
    for (int i = 0; i < 5; ++i) {
        const std::string uri = "/unit/echo/" + std::to_string(i);
        EXPECT_EQ(client.ask(request("GET " + uri)).body, uri + "|NULL");
        EXPECT_EQ(client.ask(request("GET /unit/none")).status, 404);
        EXPECT_EQ(client.ask(request("DELETE /unit/echo")).status, 405);
        EXPECT_EQ(client.ask(request("POST " + uri, "", "x")).body, uri + "|x");
    }
}

TEST_F(rest_connection, closes_when_the_client_wants_it) {
    start_echo();
    http_client client(port_);
    EXPECT_EQ(client.ask(request("GET /unit/echo", "Connection: close\r\n")).status, 200);
    EXPECT_TRUE(client.is_closed());
    http_client old(port_);
    EXPECT_EQ(old.ask("GET /unit/echo HTTP/1.0\r\n\r\n").status, 200);
    EXPECT_TRUE(old.is_closed());
}

TEST_F(rest_connection, pipelined_requests_are_answered_in_order) {
    start_echo();
    http_client client(port_);
    std::string requests;
    for (int i = 0; i < 50; ++i) {
        const std::string uri = "/unit/echo/" + std::to_string(i);
        requests += i % 3 ? request("GET " + uri) : request("POST " + uri, "", "body");
    }
    ASSERT_TRUE(client.send(requests));
    for (int i = 0; i < 50; ++i) {
        const std::string body = i % 3 ? "|NULL" : "|body";
        EXPECT_EQ(client.receive().body, "/unit/echo/" + std::to_string(i) + body);
    }
}

TEST_F(rest_connection, slow_clients_delay_nobody) {
    start_echo();
    clients slow;
    const std::string post = request("POST /unit/echo/slow", "", "0123456789");
    for (size_t i = 0; i < 30; ++i) {
        slow.push_back(std::make_unique<http_client>(port_));
        ASSERT_TRUE(slow.back()->send(post.substr(0, 1 + i * (post.size() - 2) / 29)));
    }
    http_client fast(port_);
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(fast.ask(request("GET /unit/echo")).status, 200);
    }
    for (size_t i = 0; i < slow.size(); ++i) {
        const std::string rest = post.substr(1 + i * (post.size() - 2) / 29);
        EXPECT_EQ(slow[i]->ask(rest).body, "/unit/echo/slow|0123456789");
    }
}

TEST_F(rest_connection, client_that_reads_slowly_delays_nobody) {
    start_echo();
    add("/large", REST_GET, [](const char *, const char *, size_t) {
        const std::string text(30 * 1024 * 1024, 'x');
        return rest_write(text.data(), text.size()) == REST_OK ? 200 : 500;
    });
    http_client slow(port_);
    slow.hold_little();
    ASSERT_TRUE(slow.send(request("GET /unit/large")));
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(is_alive());
    }
    EXPECT_EQ(slow.receive().body.size(), 30u * 1024 * 1024);
}

TEST_F(rest_connection, silent_client_is_cut) {
    start_echo();
    const auto start = std::chrono::steady_clock::now();
    http_client silent(port_);
    http_client half(port_);
    ASSERT_TRUE(
        half.send("POST /unit/echo HTTP/1.1\r\nHost: localhost\r\nContent-Length: 5\r\n\r\nab"));
    EXPECT_TRUE(silent.is_closed());
    EXPECT_NE(half.receive().status, 200);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GT(waited, std::chrono::seconds(REST_IDLE_SECONDS - 2));
    EXPECT_LT(waited, std::chrono::seconds(REST_IDLE_SECONDS + 10));
    EXPECT_TRUE(is_alive());
}

TEST_F(rest_connection, handlers_run_one_at_a_time_on_one_thread) {
    static std::atomic<int> inside;
    static std::atomic<int> overlaps;
    static std::mutex mutex;
    static std::vector<std::thread::id> threads;
    threads.clear();
    start();
    add("/x", REST_GET, [](const char *, const char *, size_t) {
        overlaps += inside.fetch_add(1) > 0;
        {
            const std::lock_guard lock(mutex);
            threads.push_back(std::this_thread::get_id());
        }
        std::this_thread::yield();
        --inside;
        return 200;
    });
    std::vector<std::thread> askers;
    for (int i = 0; i < 8; ++i) {
        askers.emplace_back([this] {
            http_client client(port_);
            for (int k = 0; k < 50; ++k) {
                EXPECT_EQ(client.ask(request("GET /unit/x")).status, 200);
            }
        });
    }
    for (std::thread &asker : askers) {
        asker.join();
    }
    EXPECT_EQ(overlaps, 0);
    const std::lock_guard lock(mutex);
    EXPECT_EQ(threads.size(), 400u);
    EXPECT_THAT(threads, testing::Each(threads[0]));
    EXPECT_NE(threads[0], std::this_thread::get_id());
}

// "rest" and the mask of blocked signals, of the thread that runs this.
int describe_thread(const char *, const char *, size_t) {
    char name[32] = "";
    (void)pthread_getname_np(pthread_self(), name, sizeof name);
    sigset_t mask;
    (void)pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    std::ostringstream text;
    text << name;
    for (const int number :
         {SIGINT, SIGTERM, SIGQUIT, SIGHUP, SIGUSR1, SIGPIPE, SIGALRM, SIGSEGV}) {
        text << ' ' << sigismember(&mask, number);
    }
    return rest_write(text.str().data(), text.str().size()) == REST_OK ? 200 : 500;
}

TEST_F(rest_connection, server_thread_is_named_and_takes_no_signals) {
    sigset_t before;
    sigset_t after;
    (void)pthread_sigmask(SIG_SETMASK, nullptr, &before);
    start();
    (void)pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (int number = 1; number < NSIG; ++number) {
        EXPECT_EQ(sigismember(&before, number), sigismember(&after, number)) << number;
    }
    add("/x", REST_GET, describe_thread);
    EXPECT_EQ(ask("GET /unit/x").body, "rest 1 1 1 1 1 1 1 0");
}

TEST_F(rest_connection, number_from_one_address_is_bounded) {
    start_echo();
    clients idle;
    for (int i = 0; i < REST_ADDRESS_CONNECTIONS_MAX; ++i) {
        idle.push_back(std::make_unique<http_client>(port_));
        ASSERT_EQ(idle.back()->ask(request("GET /unit/echo")).status, 200);
    }
    EXPECT_EQ(ask("GET /unit/echo").status, 0);
    http_client other(port_, "127.0.0.2");
    EXPECT_EQ(other.ask(request("GET /unit/echo")).status, 200);
    idle.pop_back();
    EXPECT_TRUE(eventually([this] { return is_alive(); }));
}

TEST_F(rest_connection, number_is_bounded_and_the_next_one_waits) {
    start_echo();
    clients idle;
    for (int i = 0; i < REST_CONNECTIONS_MAX; ++i) {
        const char *from = i % 2 ? "127.0.0.2" : "127.0.0.3";
        idle.push_back(std::make_unique<http_client>(port_, from));
        ASSERT_EQ(idle.back()->ask(request("GET /unit/echo")).status, 200) << i;
    }
    http_client waiting(port_);
    ASSERT_TRUE(waiting.send(request("GET /unit/echo")));
    EXPECT_EQ(idle.back()->ask(request("GET /unit/echo")).status, 200);
    idle.pop_back();
    EXPECT_EQ(waiting.receive().status, 200);
}

TEST_F(rest_connection, oversized_heads_are_refused) {
    start_echo();
    EXPECT_EQ(ask("GET /unit/echo", "X: " + std::string(8000, 'x') + "\r\n").status, 200);
    EXPECT_EQ(
        ask("GET /unit/echo", "X: " + std::string(2 * REST_HEADER_MEMORY, 'x') + "\r\n").status,
        431);
    EXPECT_EQ(ask("GET /unit/echo/" + std::string(2 * REST_HEADER_MEMORY, 'x')).status, 414);
    std::string many;
    for (int i = 0; i < 5000; ++i) {
        many += "X" + std::to_string(i) + ": y\r\n";
    }
    EXPECT_EQ(ask("GET /unit/echo", many).status, 431);
    EXPECT_TRUE(is_alive());
}

TEST_F(rest_connection, what_is_no_request_stops_nothing) {
    start_echo();
    for (const std::string &text : {"\r\n\r\n\r"s,
                                    "GET\r\n\r\n"s,
                                    "GET /unit/echo\r\n\r\n"s,
                                    "GET /unit/echo HTTP/9.9\r\n\r\n"s,
                                    "GET /unit/echo FTP/1.1\r\n\r\n"s,
                                    "GET /unit/echo HTTP/1.1\r\n\r\n"s,
                                    "GET /unit/echo HTTP/1.1\r\nHost localhost\r\n\r\n"s,
                                    "GET /unit/echo HTTP/1.1\r\n: x\r\n\r\n"s,
                                    "GET /unit/echo HTTP/1.1\r\n folded\r\n\r\n"s,
                                    "GET /unit/ec ho HTTP/1.1\r\nHost: localhost\r\n\r\n"s,
                                    "G\0T /unit/echo HTTP/1.1\r\nHost: localhost\r\n\r\n"s,
                                    "GET /unit/echo HTTP/1.1\r\nHo\0st: localhost\r\n\r\n"s,
                                    "POST /unit/echo HTTP/1.1\r\nHost: localhost\r\n"
                                    "Transfer-Encoding: chunked\r\n\r\nzz\r\n"s,
                                    "\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03"s,
                                    std::string(100000, '\0'),
                                    std::string(100000, '\n'),
                                    std::string(100000, '%')}) {
        http_client client(port_);
        (void)client.send(text);
        if (text.ends_with("\n")) {
            client.finish_sending();
            const http_response response = client.receive();
            EXPECT_TRUE(response.status == 0 || response.status >= 400) << text << response.head;
        } // the others leave the server waiting
        EXPECT_TRUE(is_alive()) << text;
    }
}

TEST_F(rest_connection, zero_byte_in_the_target_ends_it) {
    start_echo();
    const std::string line("GET /unit/echo\0/x?y", 20);
    EXPECT_EQ(ask(line).body, "/unit/echo|NULL");
}

// A little more than that: what is over has to leave within the server's patience.
size_t more_than_the_kernel_holds() {
    size_t least = 0;
    size_t first = 0;
    size_t most = 0; // of what was sent and not received
    std::ifstream("/proc/sys/net/ipv4/tcp_wmem") >> least >> first >> most;
    return most + 1024 * 1024;
}

// Whether that thread of this process waits for something.
bool is_asleep(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    const std::string text(std::istreambuf_iterator<char>(file), {});
    const size_t name_end = text.rfind(") ");
    return name_end != text.npos && text[name_end + 2] == 'S';
}

TEST_F(rest_connection, cleanup_waits_for_the_handler_and_lets_its_answer_leave) {
    static gate *door;
    gate own;
    door = &own;
    start_echo();
    add("/wait", REST_GET, [](const char *, const char *, size_t) {
        door->pass();
        const std::string text(more_than_the_kernel_holds(), 'x');
        return rest_write(text.data(), text.size()) == REST_OK ? 200 : 500;
    });
    http_client running(port_);
    http_client next(port_);
    http_client idle(port_);
    ASSERT_EQ(idle.ask(request("GET /unit/echo")).status, 200);
    running.hold_little();
    ASSERT_TRUE(running.send(request("GET /unit/wait")));
    ASSERT_TRUE(own.wait_for_arrivals(1));
    ASSERT_TRUE(next.send(request("GET /unit/echo")));
    std::atomic<bool> has_returned = false;
    std::atomic<pid_t> cleaner_id = 0;
    std::thread cleaner([&] {
        cleaner_id = gettid();
        rest_cleanup();
        has_returned = true;
    });
    // Registrations belong to a server; once they are refused the cleaning has begun, and from then
    // on it sleeps for the handler alone.
    EXPECT_TRUE(eventually([&] {
        return rest_cb_register(handle_, "/late", REST_GET, echo) == REST_BAD_ARGUMENT &&
               is_asleep(cleaner_id);
    }));
    EXPECT_FALSE(has_returned);
    own.open();
    EXPECT_EQ(running.receive().body.size(), more_than_the_kernel_holds());
    cleaner.join();
    EXPECT_NE(next.receive().status, 200);
    EXPECT_TRUE(idle.is_closed());
    EXPECT_FALSE(http_client(port_).is_connected());
}

TEST_F(rest_connection, cleanup_in_the_midst_of_requests_is_survived) {
    for (int round = 0; round < 10; ++round) {
        start_echo();
        std::atomic<int> answers = 0;
        std::vector<std::thread> askers;
        for (int i = 0; i < 4; ++i) {
            askers.emplace_back([&] {
                http_client client(port_);
                while (client.ask(request("POST /unit/echo", "", "body")).status == 200) {
                    ++answers;
                }
            });
        }
        EXPECT_TRUE(eventually([&] { return answers > 20; }));
        rest_cleanup();
        for (std::thread &asker : askers) {
            asker.join();
        }
    }
}

TEST_F(rest_connection, cleanup_from_a_handler_does_nothing) {
    start_echo();
    add("/stop", REST_GET, [](const char *uri, const char *body, size_t length) {
        rest_cleanup();
        return echo(uri, body, length);
    });
    testing::internal::CaptureStderr();
    EXPECT_EQ(ask("GET /unit/stop").status, 200);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "kt-rest: rest_cleanup() was called from a handler and does nothing\n");
    EXPECT_TRUE(is_alive());
}

TEST_F(rest_connection, no_thread_and_no_descriptor_is_left) {
    const auto count = [](const char *folder) {
        return std::distance(std::filesystem::directory_iterator(folder), {});
    };
    start(); // tools that watch the process may start a thread of theirs with our first
    const auto serving = count("/proc/self/task");
    rest_cleanup();
    // A joined thread is listed for a moment more.
    ASSERT_TRUE(eventually([&] { return count("/proc/self/task") < serving; }));
    const auto threads = count("/proc/self/task");
    const auto descriptors = count("/proc/self/fd");
    for (int i = 0; i < 5; ++i) {
        start_echo();
        http_client client(port_);
        EXPECT_EQ(client.ask(request("GET /unit/echo")).status, 200);
        rest_cleanup();
    }
    EXPECT_TRUE(eventually([&] { return count("/proc/self/task") == threads; }));
    EXPECT_EQ(count("/proc/self/fd"), descriptors);
}

} // namespace
