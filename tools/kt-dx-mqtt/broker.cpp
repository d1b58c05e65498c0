#include "broker.h"

#include "log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <random>
#include <sys/socket.h>
#include <unistd.h>
#include <unordered_map>

namespace {

constexpr int connect_limit_s = 10;          // for each address of the broker
constexpr int64_t accept_limit_ms = 10000;   // from then to the broker's answer
constexpr int send_buffer_bytes = 65536;     // more would be old values that wait in the kernel
constexpr uint32_t packet_max_bytes = 65536; // that a broker may send us (MQTT 5)
constexpr int packets_per_pass = 64;
constexpr int window_qos_2 = 20; // some brokers end a connection with more, also with MQTT 3.1.1

struct destroy_mosquitto {
    void operator()(mosquitto *client) const noexcept { mosquitto_destroy(client); }
};
using mosquitto_ptr = std::unique_ptr<mosquitto, destroy_mosquitto>;

/** The library is started before the first broker and stopped at the end of the program. */
struct library {
    library() { (void)mosquitto_lib_init(); } // cannot fail with OpenSSL
    ~library() { (void)mosquitto_lib_cleanup(); }
};

void wake_only(int) {}

/**
 * The library waits for a connection, which takes minutes when nobody refuses it: a signal to this
 * thread ends the wait for one address.
 */
class connect_limit {
public:
    connect_limit() {
        struct sigaction action {};
        action.sa_handler = wake_only; // without SA_RESTART
        (void)sigaction(SIGALRM, &action, nullptr);
        sigset_t alarm;
        (void)sigemptyset(&alarm);
        (void)sigaddset(&alarm, SIGALRM);
        (void)pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
        sigevent event{};
        event.sigev_notify = SIGEV_THREAD_ID;
        event.sigev_signo = SIGALRM;
        event._sigev_un._tid = gettid();
        made_ = timer_create(CLOCK_MONOTONIC, &event, &timer_) == 0; // else: as long as it takes
        const itimerspec times = {{connect_limit_s, 0}, {connect_limit_s, 0}};
        if (made_) {
            (void)timer_settime(timer_, 0, &times, nullptr);
        }
    }
    ~connect_limit() {
        if (made_) {
            (void)timer_delete(timer_);
        }
    }
    connect_limit(const connect_limit &) = delete;
    connect_limit &operator=(const connect_limit &) = delete;

private:
    timer_t timer_{};
    bool made_ = false;
};

int64_t now_ms() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

} // namespace

struct broker {
    const bridge_settings &settings;
    bridge_statistics &statistics;
    broker_events &events;
    mosquitto_ptr client; // of the connection or the attempt
    bool accepted = false;
    bool lost = false; // noticed in a callback or by a call: give the client up
    bool finished = false;
    unsigned attempt = 0; // since the last accepted connection
    int64_t next_attempt_ms = 0;
    int64_t accept_deadline_ms = 0;
    std::unordered_map<int, uint64_t> under_way{}; // message id, token
    std::vector<int> early{};                      // ids of messages sent before they had a token
    std::string detail{};                          // what the library said last
    std::string last_problem{};                    // logged; the same one again is not
    std::minstd_rand random{std::random_device{}()};
};

namespace {

std::string library_text(broker &self, int code) {
    const int reason = errno;
    std::string text = mosquitto_strerror(code);
    if (code == MOSQ_ERR_ERRNO) {
        text = reason == EINTR ? "no answer from its address" : strerror(reason);
    }
    if (code == MOSQ_ERR_TLS && !self.detail.empty()) {
        text += " (" + self.detail + ")";
    }
    self.detail.clear();
    return text;
}

/** The same trouble is told once, until a connection stands again. */
void complain(broker &self, const std::string &problem) {
    if (self.last_problem != problem) {
        self.last_problem = problem;
        log_line("broker " + self.settings.broker_host + ":" +
                 std::to_string(self.settings.broker_port) + ": " + problem);
    }
}

void on_connect(mosquitto *, void *context, int code, int, const mosquitto_property *) {
    auto &self = *static_cast<broker *>(context);
    if (code != 0) {
        self.lost = true;
        complain(self,
                 std::string("connection refused: ") + (self.settings.protocol == mqtt_protocol::v5
                                                            ? mosquitto_reason_string(code)
                                                            : mosquitto_connack_string(code)));
        return;
    }
    self.accepted = true;
}

void on_disconnect(mosquitto *, void *context, int code, const mosquitto_property *) {
    auto &self = *static_cast<broker *>(context);
    self.lost = true;
    if (code != 0 && self.accepted) {
        complain(self, std::string("connection lost: ") + mosquitto_strerror(code));
    }
}

void on_publish(mosquitto *, void *context, int id, int code, const mosquitto_property *) {
    auto &self = *static_cast<broker *>(context);
    const auto found = self.under_way.find(id);
    if (found == self.under_way.end()) {
        self.early.push_back(id);
        return;
    }
    const uint64_t token = found->second;
    self.under_way.erase(found);
    if (code >= MQTT_RC_UNSPECIFIED) {
        complain(self, std::string("message refused: ") + mosquitto_reason_string(code));
    }
    if (token != 0) {
        self.events.sent(token);
    }
}

void on_message(mosquitto *,
                void *context,
                const mosquitto_message *message,
                const mosquitto_property *) {
    auto &self = *static_cast<broker *>(context);
    const auto *payload = static_cast<const char *>(message->payload);
    const auto length = static_cast<size_t>(std::max(message->payloadlen, 0));
    self.events.received(message->topic,
                         payload != nullptr ? std::string_view(payload, length)
                                            : std::string_view(),
                         message->retain);
}

void on_subscribe(
    mosquitto *, void *context, int, int number, const int *granted, const mosquitto_property *) {
    auto &self = *static_cast<broker *>(context);
    if (std::any_of(granted, granted + number, [](int qos) { return qos >= 128; })) {
        complain(self, "the broker refuses a subscription: its access rules do not allow it");
    }
}

void on_log(mosquitto *, void *context, int level, const char *text) {
    if (level == MOSQ_LOG_ERR) {
        static_cast<broker *>(context)->detail = text;
    }
}

int set_tls(mosquitto *client, const bridge_settings &settings) {
    if (settings.tls_ca.empty()) {
        return MOSQ_ERR_SUCCESS;
    }
    const auto optional = [](const std::string &text) {
        return text.empty() ? nullptr : text.c_str();
    };
    int code = mosquitto_tls_set(client,
                                 settings.tls_ca.c_str(),
                                 nullptr,
                                 optional(settings.tls_cert),
                                 optional(settings.tls_key),
                                 nullptr);
    if (code == MOSQ_ERR_SUCCESS) {
        code = mosquitto_tls_opts_set(client, 1, "tlsv1.2", nullptr); // at least
    }
    return code != MOSQ_ERR_SUCCESS ? code
                                    : mosquitto_tls_insecure_set(client, settings.tls_insecure);
}

size_t window_of(const bridge_settings &settings) {
    return settings.qos == 2 ? window_qos_2 : broker_window;
}

int set_options(mosquitto *client, const bridge_settings &settings) {
    const int version =
        settings.protocol == mqtt_protocol::v5 ? MQTT_PROTOCOL_V5 : MQTT_PROTOCOL_V311;
    int code = mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, version);
    if (code == MOSQ_ERR_SUCCESS) {
        code = mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
    }
    if (code == MOSQ_ERR_SUCCESS) {
        const size_t most = window_of(settings);
        code = mosquitto_max_inflight_messages_set(client, static_cast<unsigned>(most));
    }
    if (code == MOSQ_ERR_SUCCESS && !settings.username.empty()) {
        code =
            mosquitto_username_pw_set(client, settings.username.c_str(), settings.password.c_str());
    }
    return code != MOSQ_ERR_SUCCESS ? code : set_tls(client, settings);
}

int set_will(mosquitto *client, const broker_message &will) {
    return will.topic.empty() ? MOSQ_ERR_SUCCESS
                              : mosquitto_will_set(client,
                                                   will.topic.c_str(),
                                                   static_cast<int>(will.payload.size()),
                                                   will.payload.data(),
                                                   will.qos,
                                                   will.retain);
}

/** MQTT 5: what is too big for us is not sent at all. */
struct connect_properties {
    mosquitto_property *list = nullptr;
    connect_properties() {
        (void)mosquitto_property_add_int32(
            &list, MQTT_PROP_MAXIMUM_PACKET_SIZE, packet_max_bytes); // a wish
    }
    ~connect_properties() { mosquitto_property_free_all(&list); }
};

void set_callbacks(mosquitto *client) {
    mosquitto_log_callback_set(client, on_log);
    mosquitto_connect_v5_callback_set(client, on_connect);
    mosquitto_disconnect_v5_callback_set(client, on_disconnect);
    mosquitto_publish_v5_callback_set(client, on_publish);
    mosquitto_message_v5_callback_set(client, on_message);
    mosquitto_subscribe_v5_callback_set(client, on_subscribe);
}

void schedule_attempt(broker &self) {
    const auto jitter = static_cast<uint8_t>(self.random());
    self.next_attempt_ms = now_ms() + broker_delay_ms(self.settings.reconnect_min_ms,
                                                      self.settings.reconnect_max_ms,
                                                      self.attempt,
                                                      jitter);
    ++self.attempt;
}

void drop_client(broker &self) {
    const bool was_accepted = self.accepted;
    self.client.reset();
    self.accepted = self.lost = false;
    self.under_way.clear();
    self.early.clear();
    if (was_accepted) {
        count(self.statistics.disconnects);
        self.events.disconnected();
    } else {
        count(self.statistics.refused);
    }
    schedule_attempt(self);
}

void fail_attempt(broker &self, const std::string &problem) {
    complain(self, problem);
    drop_client(self);
}

/** Waits for the connection, not for the broker's answer. */
int start_connection(broker &self) {
    const bridge_settings &settings = self.settings;
    const connect_properties wishes;
    const connect_limit limit;
    return mosquitto_connect_bind_v5(self.client.get(),
                                     settings.broker_host.c_str(),
                                     settings.broker_port,
                                     settings.keepalive_s,
                                     nullptr,
                                     settings.protocol == mqtt_protocol::v5 ? wishes.list
                                                                            : nullptr);
}

void connect(broker &self) {
    const bridge_settings &settings = self.settings;
    self.client.reset(mosquitto_new(settings.client_id.c_str(), true, &self));
    if (!self.client) {
        fail_attempt(self, std::string("no client: ") + strerror(errno));
        return;
    }
    mosquitto *client = self.client.get();
    set_callbacks(client);
    int code = set_options(client, settings);
    if (code == MOSQ_ERR_SUCCESS) {
        code = set_will(client, self.events.will());
    }
    if (code != MOSQ_ERR_SUCCESS) {
        fail_attempt(self, std::string("cannot be used so: ") + library_text(self, code));
        return;
    }
    code = start_connection(self);
    if (code != MOSQ_ERR_SUCCESS) {
        fail_attempt(self, std::string("cannot connect: ") + library_text(self, code));
        return;
    }
    (void)setsockopt(mosquitto_socket(client), // a wish
                     SOL_SOCKET,
                     SO_SNDBUF,
                     &send_buffer_bytes,
                     sizeof send_buffer_bytes);
    self.accept_deadline_ms = now_ms() + accept_limit_ms;
}

/** A call of the library said that the connection is no more. */
void note(broker &self, int code) {
    if (code != MOSQ_ERR_SUCCESS && code != MOSQ_ERR_NO_CONN && !self.lost) {
        complain(self,
                 (self.accepted ? "connection lost: " : "cannot connect: ") +
                     library_text(self, code));
    }
    self.lost = self.lost || code != MOSQ_ERR_SUCCESS;
}

/** What cannot be sent by any connection is left out, and does not end this one. */
void note_publish_failure(broker &self, int code, const broker_message &message) {
    if (code == MOSQ_ERR_INVAL || code == MOSQ_ERR_PAYLOAD_SIZE ||
        code == MOSQ_ERR_OVERSIZE_PACKET || code == MOSQ_ERR_MALFORMED_UTF8 ||
        code == MOSQ_ERR_QOS_NOT_SUPPORTED || code == MOSQ_ERR_RETAIN_NOT_SUPPORTED) {
        complain(self, message.topic + ": cannot be sent: " + library_text(self, code));
    } else {
        note(self, code);
    }
}

void serve_network(broker &self, short revents) {
    mosquitto *client = self.client.get();
    if ((revents & (POLLIN | POLLERR | POLLHUP)) != 0) {
        note(self, mosquitto_loop_read(client, packets_per_pass));
    }
    if (!self.lost && mosquitto_want_write(client)) {
        note(self, mosquitto_loop_write(client, packets_per_pass));
    }
    if (!self.lost) {
        note(self, mosquitto_loop_misc(client));
    }
}

short wanted(const broker &self) {
    return static_cast<short>(POLLIN | (mosquitto_want_write(self.client.get()) ? POLLOUT : 0));
}

void note_progress(broker &self, bool was_accepted) {
    if (self.accepted && !was_accepted && !self.lost) {
        self.attempt = 0;
        self.last_problem.clear();
        count(self.statistics.connects);
        log_line("broker " + self.settings.broker_host + ":" +
                 std::to_string(self.settings.broker_port) + ": connected as " +
                 self.settings.client_id);
        self.events.connected();
    } else if (!self.accepted && !self.lost && now_ms() >= self.accept_deadline_ms) {
        complain(self, "no answer");
        self.lost = true;
    }
    if (self.lost) {
        drop_client(self);
    }
}

int until_attempt(const broker &self, int timeout_ms) {
    const int64_t left = std::max<int64_t>(self.next_attempt_ms - now_ms(), 0);
    return static_cast<int>(std::min<int64_t>(left, timeout_ms));
}

} // namespace

void close_broker::operator()(broker *connection) const noexcept {
    delete connection;
}

broker_ptr
broker_open(const bridge_settings &settings, bridge_statistics &statistics, broker_events &events) {
    static const library started;
    return broker_ptr(new broker{settings, statistics, events, nullptr});
}

bool broker_connected(const broker &connection) {
    return connection.accepted && !connection.lost;
}

bool broker_ready(const broker &connection) {
    return broker_connected(connection) &&
           connection.under_way.size() < window_of(connection.settings);
}

int broker_publish(broker &connection, const broker_message &message) {
    if (!broker_connected(connection)) {
        return -1;
    }
    int id = 0;
    const int code = mosquitto_publish(connection.client.get(),
                                       &id,
                                       message.topic.c_str(),
                                       static_cast<int>(message.payload.size()),
                                       message.payload.data(),
                                       message.qos,
                                       message.retain);
    if (code != MOSQ_ERR_SUCCESS) {
        note_publish_failure(connection, code, message);
        return -1;
    }
    count(connection.statistics.published);
    // The library may have sent it, and said so, before the call was back.
    if (std::erase(connection.early, id) == 0) {
        connection.under_way.emplace(id, message.token);
    } else if (message.token != 0) {
        connection.events.sent(message.token);
    }
    return 0;
}

int broker_subscribe(broker &connection, const std::vector<std::string> &filters, int qos) {
    std::vector<char *> texts;
    texts.reserve(filters.size());
    for (const std::string &filter : filters) {
        texts.push_back(const_cast<char *>(filter.c_str())); // the library only reads
    }
    if (!broker_connected(connection) || texts.empty()) {
        return -1;
    }
    const int code = mosquitto_subscribe_multiple(connection.client.get(),
                                                  nullptr,
                                                  static_cast<int>(texts.size()),
                                                  texts.data(),
                                                  qos,
                                                  0,
                                                  nullptr);
    note(connection, code);
    return code == MOSQ_ERR_SUCCESS ? 0 : -1;
}

void broker_run(broker &connection, std::span<pollfd> others, int timeout_ms) {
    if (!connection.client && !connection.finished && now_ms() >= connection.next_attempt_ms) {
        connect(connection);
    }
    std::array<pollfd, 8> polled{};
    const size_t count = std::min(others.size(), polled.size() - 1);
    std::copy_n(others.begin(), count, polled.begin() + 1);
    polled[0].fd = connection.client ? mosquitto_socket(connection.client.get()) : -1;
    polled[0].events = connection.client ? wanted(connection) : short{0};
    const int wait = connection.client ? timeout_ms : until_attempt(connection, timeout_ms);
    if (poll(polled.data(), count + 1, wait) < 0) {
        return; // a signal: the caller looks around
    }
    for (size_t i = 0; i < count; ++i) {
        others[i].revents = polled[i + 1].revents;
    }
    if (connection.client) {
        const bool was_accepted = connection.accepted;
        serve_network(connection, polled[0].revents);
        note_progress(connection, was_accepted);
    }
}

void broker_restart(broker &connection) {
    if (connection.client) {
        drop_client(connection);
    }
    connection.attempt = 0;
    connection.next_attempt_ms = 0;
}

void broker_finish(broker &connection, int limit_ms) {
    connection.finished = true;
    const int64_t end_ms = now_ms() + limit_ms;
    while (broker_connected(connection) && !connection.under_way.empty() && now_ms() < end_ms) {
        broker_run(connection, {}, 20);
    }
    if (broker_connected(connection)) {
        (void)mosquitto_disconnect(connection.client.get()); // the connection ends either way
    }
    while (broker_connected(connection) && mosquitto_want_write(connection.client.get()) &&
           now_ms() < end_ms) {
        broker_run(connection, {}, 20);
    }
    connection.client.reset();
    connection.accepted = false;
}

int64_t broker_delay_ms(int64_t least_ms, int64_t most_ms, unsigned attempt, uint8_t jitter) {
    const unsigned doublings = std::min(attempt, 20U);
    const int64_t delay = std::min(least_ms << doublings, most_ms);
    return std::max(least_ms, delay / 2 + delay / 2 * jitter / 255);
}
