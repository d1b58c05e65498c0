#ifndef KT_TESTS_FAKE_BROKER_H
#define KT_TESTS_FAKE_BROKER_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/** What a client published or left as its will. */
struct seen_message {
    std::string topic;
    std::string payload;
    int qos = 0;
    bool retain = false;
};

/**
 * As much of a broker as a client notices, on a free port of the loopback interface: it takes one
 * connection after another, writes down what comes and can misbehave.
 */
class fake_broker {
public:
    fake_broker();
    ~fake_broker();
    fake_broker(const fake_broker &) = delete;
    fake_broker &operator=(const fake_broker &) = delete;

    int port() const { return port_; }

    std::atomic<int> connect_code{0};    // of the answer to CONNECT
    std::atomic<bool> answer{true};      // CONNECT at all
    std::atomic<bool> acknowledge{true}; // PUBLISH
    std::atomic<int> connections{0};     // CONNECT packets
    std::atomic<bool> said_goodbye{false};

    std::vector<seen_message> messages() const;
    std::vector<std::string> filters() const;
    seen_message will() const;
    std::string client_id() const;

    /** Send a message to the client of the moment, QoS 0. */
    void send(const std::string &topic, const std::string &payload, bool retain);

    /** Cut the connection of the moment. */
    void cut();

private:
    void run();
    void serve(int client);
    bool take_packet(int client, uint8_t type, const std::string &body);
    void take_connect(int client, const std::string &body);
    void take_publish(int client, uint8_t type, const std::string &body);
    void take_subscribe(int client, const std::string &body);

    int listener_ = -1;
    int port_ = 0;
    std::atomic<int> client_{-1};
    std::atomic<bool> stop_{false};
    bool v5_ = false;          // the broker's thread
    mutable std::mutex mutex_; // guards all below
    std::vector<seen_message> messages_;
    std::vector<std::string> filters_;
    seen_message will_;
    std::string client_id_;
    std::thread thread_;
};

#endif
