#include "bridge.h"

#include "broker.h"
#include "discovery.h"
#include "events.h"
#include "leftovers.h"
#include "log.h"
#include "net_thread.h"
#include "outbox.h"
#include "payload.h"
#include "rest_client.h"
#include "sparkplug_session.h"
#include "statistics.h"
#include "store_watch.h"
#include "tag_table.h"
#include "topic.h"
#include "writes.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <poll.h>
#include <pthread.h>
#include <set>
#include <string>
#include <thread>
#include <unistd.h>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

constexpr int pass_ms = 200;      // longest wait of the network thread
constexpr int scan_pass_ms = 20;  // while the broker's old values are looked at
constexpr int64_t look_ms = 1000; // events where the kernel tells nothing; configuration
constexpr int64_t log_period_ms = 3600000;

// Tokens of messages: a value by the index of its tag, others by their number in the outbox.
constexpr uint64_t value_token = uint64_t{1} << 62;

struct described_tag {
    int type;
    size_t size;
    int mode;
    bool operator==(const described_tag &) const = default;
};

int64_t utc_now_ms() {
    return read_clocks().utc_ms;
}

/** Everything that the network thread works with. */
class bridge : public broker_events {
public:
    explicit bridge(const bridge_settings &settings);
    ~bridge() override;
    bridge(const bridge &) = delete;
    bridge &operator=(const bridge &) = delete;

    void start();
    void stop();
    void log_statistics() const;

    void connected() override;
    void disconnected() override;
    void received(std::string_view topic, std::string_view payload, bool retained) override;
    void sent(uint64_t token) override;
    broker_message will() override;

private:
    void run_network();
    void pass();
    void look_around();
    void read_events();
    void publish_waiting();
    bool publish_other();
    bool publish_value();
    void publish_discovery(const tag_snapshot &tag);
    void look_at_leftovers();
    bool
    keep_leftover(const std::string &topic, const std::string &tag, const std::string &payload);
    void review_leftovers();
    void queue_statistics();
    void wake() const;
    std::vector<tag_table *> tables();
    void farewell();
    broker_message message(std::string topic, std::string payload, bool retain) const;

    const bridge_settings &settings_;
    bridge_statistics statistics_;
    tag_table table_;
    outbox outbox_;
    store_watch watch_;
    write_queue writes_;
    std::optional<sparkplug_session> sparkplug_;
    std::optional<rest_client> rest_;
    event_follower events_; // from here: the network thread
    broker_ptr broker_;
    std::unique_ptr<leftover_values> leftovers_; // from the first connection until all are decided
    std::set<std::string> outdated_;             // topics of those that were published as bad
    int64_t leftovers_known_ms_ = 0;             // when the last of them had been seen
    bool leftovers_looked_ = false;
    bool review_cut_ = false;                        // there may be something to decide
    std::map<std::string, int64_t> served_since_ms_; // first parts of tag names
    std::unordered_map<std::string, described_tag> discovered_;
    uint64_t generation_ = 0;
    int64_t look_at_ms_ = 0;
    int64_t statistics_at_ms_ = 0;
    int wake_fd_ = -1;
    std::atomic<bool> stop_{false};
    std::atomic<bool> ended_{false};
    std::thread network_;
};

bridge::bridge(const bridge_settings &settings)
    : settings_(settings), outbox_(static_cast<size_t>(settings.write_queue_length),
                                   static_cast<size_t>(settings.event_queue_length),
                                   statistics_),
      writes_(table_,
              statistics_,
              {static_cast<size_t>(settings.write_queue_length),
               [this](const write_result &result) {
                   outbox_.add_result(message(
                       result_topic(settings_.prefix, result.tag), result_payload(result), false));
                   wake();
               },
               [this](const tag_circumstances &known, bool fresh) {
                   return rest_->report(known, fresh);
               }}),
      wake_fd_(make_wake_descriptor()) {
    if (settings.sparkplug) {
        sparkplug_.emplace(
            settings, statistics_, [this](const std::string &tag, const std::string &value) {
                writes_.add_value(tag, value);
            });
    }
    rest_.emplace(settings, tables(), [this](const port_diagnostics &port) {
        outbox_.set_state(message(diagnostics_topic(settings_.prefix, port.port),
                                  diagnostics_payload(port.port, port.json, utc_now_ms()),
                                  true));
        wake();
    });
    watch_.tables = tables();
    watch_.statistics = &statistics_;
    watch_.changed = [this] {
        if (table_.waiting() > 0) {
            wake();
        }
        if (sparkplug_ && sparkplug_->table().waiting() > 0) {
            sparkplug_->wake();
        }
    };
}

std::vector<tag_table *> bridge::tables() {
    std::vector<tag_table *> all = {&table_};
    if (sparkplug_) {
        all.push_back(&sparkplug_->table());
    }
    return all;
}

bridge::~bridge() {
    stop();
    (void)close(wake_fd_); // nothing was written to a file
}

broker_message bridge::message(std::string topic, std::string payload, bool retain) const {
    return {std::move(topic), std::move(payload), settings_.qos, retain, 0};
}

void bridge::wake() const {
    wake_descriptor(wake_fd_);
}

void bridge::start() {
    broker_ = broker_open(settings_, statistics_, *this);
    store_watch_start(watch_);
    writes_.start();
    rest_->start();
    if (sparkplug_) {
        sparkplug_->start();
    }
    network_ = std::thread([this] {
        (void)pthread_setname_np(pthread_self(), "mqtt-net"); // for people only
        run_network();
        ended_.store(true);
    });
}

void bridge::stop() {
    writes_.stop(); // its last words are sent with the farewell
    store_watch_stop(watch_);
    if (sparkplug_) {
        sparkplug_->ask_stop(); // both say good-bye at the same time
    }
    if (network_.joinable()) {
        stop_.store(true);
        wake();
        join_net_thread(network_, ended_);
    }
    if (sparkplug_) {
        sparkplug_->stop();
    }
    rest_->stop();
}

broker_message bridge::will() {
    return message(status_topic(settings_.prefix), will_payload(), true);
}

void bridge::connected() {
    (void)broker_publish(
        *broker_,
        message(status_topic(settings_.prefix), online_payload(KT_VERSION, utc_now_ms()), true));
    (void)broker_subscribe(*broker_, set_filters(settings_.prefix), settings_.qos);
    discovered_.clear();
    table_.publish_all();
    outbox_.nothing_sent();
    queue_statistics();
}

void bridge::disconnected() {
    outdated_.clear(); // whatever was under way
    table_.publish_all();
    outbox_.nothing_sent();
}

void bridge::received(std::string_view topic, std::string_view payload, bool retained) {
    std::string tag;
    if (!parse_set_topic(settings_.prefix, topic, tag)) {
        return;
    }
    if (!retained) {
        writes_.add(tag, payload);
    } else if (!payload.empty()) { // empty: somebody takes the retained message away
        writes_.refuse_retained(tag, payload);
    }
}

void bridge::sent(uint64_t token) {
    if ((token & value_token) != 0) {
        table_.published(static_cast<uint32_t>(token & UINT32_MAX));
    } else {
        outbox_.sent(token);
    }
}

void bridge::publish_discovery(const tag_snapshot &tag) {
    if (!settings_.discovery) {
        return;
    }
    const described_tag described = {tag.type, tag.size, tag.mode};
    const auto found = discovered_.find(tag.name);
    if (tag.removed) {
        const discovery_message gone = discovery_removal(settings_, tag);
        (void)broker_publish(*broker_, message(gone.topic, gone.payload, true));
        discovered_.erase(tag.name);
    } else if (found == discovered_.end() || found->second != described) {
        const discovery_message config = discovery_config(settings_, tag);
        if (broker_publish(*broker_, message(config.topic, config.payload, true)) == 0) {
            discovered_[tag.name] = described;
        }
    }
}

/** @return false when there is nothing more to publish */
bool bridge::publish_value() {
    const std::optional<tag_snapshot> tag = table_.take();
    if (!tag) {
        return false;
    }
    publish_discovery(*tag);
    broker_message value = message(value_topic(settings_.prefix, tag->name),
                                   tag->removed ? std::string() : value_payload(*tag),
                                   true);
    value.token = value_token | tag->index;
    if (broker_publish(*broker_, value) != 0) {
        table_.published(tag->index); // a lost connection marks it again
    }
    return true;
}

/** @return false when there is nothing more of the kind to publish */
bool bridge::publish_other() {
    const std::optional<broker_message> next = outbox_.take();
    if (next && broker_publish(*broker_, *next) != 0) {
        outbox_.not_sent(next->token, broker_connected(*broker_));
    }
    return next.has_value();
}

/** By turns: a flood of results does not keep a value back that has turned bad. */
void bridge::publish_waiting() {
    bool others = true;
    bool values = true;
    while ((others || values) && broker_ready(*broker_)) {
        others = others && publish_other();
        values = values && publish_value();
    }
}

void bridge::read_events() {
    (void)events_.read([this](std::string_view line) {
        std::string payload = event_payload(line);
        if (!payload.empty()) {
            outbox_.add_event(message(events_topic(settings_.prefix), std::move(payload), false));
        }
    });
}

void bridge::queue_statistics() {
    const auto value = [](const std::atomic<uint64_t> &counter) {
        return counter.load(std::memory_order_relaxed);
    };
    const bridge_statistics &all = statistics_;
    const std::array<std::pair<std::string_view, uint64_t>, 16> counters = {{
        {"tags", table_.size()},
        {"tagsWaiting", table_.waiting()},
        {"tagChanges", value(all.changes)},
        {"tagsConflated", table_.conflated()},
        {"messagesPublished", value(all.published)},
        {"connects", value(all.connects)},
        {"disconnects", value(all.disconnects)},
        {"connectsRefused", value(all.refused)},
        {"writesAccepted", value(all.writes_accepted)},
        {"writesRefused", value(all.writes_refused)},
        {"writesSuperseded", value(all.writes_superseded)},
        {"writesDropped", value(all.writes_dropped)},
        {"resultsDropped", value(all.results_dropped)},
        {"eventsDropped", value(all.events_dropped)},
        {"storeOpens", value(all.store_opens)},
        {"serviceAlive", table_.service_alive() ? 1U : 0U},
    }};
    outbox_.set_state(message(
        statistics_topic(settings_.prefix), statistics_payload(counters, utc_now_ms()), true));
}

void bridge::log_statistics() const {
    const auto text = [](const char *name, const std::atomic<uint64_t> &counter) {
        return std::string(name) + std::to_string(counter.load(std::memory_order_relaxed));
    };
    log_line(text("published ", statistics_.published) + text(", connects ", statistics_.connects) +
             text(", lost ", statistics_.disconnects) +
             text(", writes accepted ", statistics_.writes_accepted) +
             text(", refused ", statistics_.writes_refused) +
             text(", superseded ", statistics_.writes_superseded) +
             text(", dropped ", statistics_.writes_dropped) +
             text(", events dropped ", statistics_.events_dropped) + ", values conflated " +
             std::to_string(table_.conflated()));
}

void bridge::look_at_leftovers() {
    if (!leftovers_ && !leftovers_looked_ && broker_connected(*broker_)) {
        leftovers_ = std::make_unique<leftover_values>(settings_);
        leftovers_looked_ = true;
    }
    const int64_t now_ms = read_clocks().monotonic_ms;
    if (leftovers_ && leftovers_known_ms_ == 0 && leftovers_->look(now_ms)) {
        leftovers_known_ms_ = now_ms;
    }
}

/**
 * What the table knows it publishes itself. Of the rest nobody says whether it is still true: while
 * the service is down it is bad, and what the service does not have after a while goes. Sent at
 * once: behind other messages it might come after a new value of its tag.
 */
bool bridge::keep_leftover(const std::string &topic,
                           const std::string &tag,
                           const std::string &payload) {
    if (table_.knows(tag)) {
        return false;
    }
    const auto service = served_since_ms_.find(tag.substr(0, tag.find('/')));
    const bool served = service != served_since_ms_.end();
    if (served ? read_clocks().monotonic_ms - service->second < removal_ms
               : outdated_.contains(topic)) {
        return true;
    }
    const broker_message last = message(topic, served ? "" : outdated_payload(payload), true);
    if (!broker_ready(*broker_) || broker_publish(*broker_, last) != 0) {
        review_cut_ = true;
        return true;
    }
    if (!served) {
        outdated_.insert(topic);
    }
    return !served;
}

void bridge::review_leftovers() {
    if (!leftovers_ || leftovers_known_ms_ == 0 || !review_cut_ || !broker_ready(*broker_)) {
        return;
    }
    review_cut_ = false;
    const std::set<std::string> services = table_.services();
    for (const std::string &service : services) {
        (void)served_since_ms_.try_emplace(service, read_clocks().monotonic_ms);
    }
    std::erase_if(served_since_ms_,
                  [&](const auto &service) { return !services.contains(service.first); });
    leftovers_->review(
        [this](const std::string &topic, const std::string &tag, const std::string &payload) {
            return keep_leftover(topic, tag, payload);
        });
    if (leftovers_->empty()) {
        leftovers_.reset();
        outdated_.clear();
    }
}

void bridge::look_around() {
    look_at_leftovers();
    const int64_t now_ms = read_clocks().monotonic_ms;
    if (now_ms < look_at_ms_) {
        return;
    }
    look_at_ms_ = now_ms + look_ms;
    read_events();
    review_cut_ = true;
    const uint64_t generation = table_.generation();
    if (generation != generation_) {
        generation_ = generation;
        rest_->configuration_changed();
    }
    const int64_t period_ms = int64_t{1000} * std::max(settings_.diagnostics_period_s, 1);
    if (now_ms >= statistics_at_ms_ && settings_.diagnostics_period_s > 0) {
        statistics_at_ms_ = now_ms + period_ms;
        queue_statistics();
    }
}

void bridge::pass() {
    std::array<pollfd, 2> others = {{{wake_fd_, POLLIN, 0}, {events_.descriptor(), POLLIN, 0}}};
    const bool scanning = leftovers_ && leftovers_known_ms_ == 0;
    broker_run(*broker_, others, scanning ? scan_pass_ms : pass_ms);
    if (others[0].revents != 0) {
        drain_descriptor(wake_fd_);
    }
    if (others[1].revents != 0) {
        read_events();
    }
    look_around();
    review_leftovers();
    publish_waiting();
}

void bridge::farewell() {
    if (!broker_connected(*broker_)) {
        return;
    }
    publish_waiting();
    (void)broker_publish(
        *broker_, message(status_topic(settings_.prefix), stopped_payload(utc_now_ms()), true));
    broker_finish(*broker_, farewell_ms);
}

void bridge::run_network() {
    while (!stop_.load()) {
        try {
            pass();
        } catch (const std::exception &problem) {
            log_line(std::string("network: ") + problem.what());
        }
    }
    try {
        farewell();
    } catch (const std::exception &problem) {
        log_line(std::string("farewell: ") + problem.what());
    }
}

sigset_t stop_signals() {
    sigset_t signals;
    (void)sigemptyset(&signals); // cannot fail, as the next ones
    for (const int number : {SIGINT, SIGTERM, SIGQUIT}) {
        (void)sigaddset(&signals, number);
    }
    return signals;
}

/** Threads made from here on leave the signals to the one that waits for them. */
void block_signals() {
    sigset_t signals = stop_signals();
    (void)sigaddset(&signals, SIGALRM); // cannot fail
    (void)pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void wait_for_signal(const bridge &running) {
    const sigset_t signals = stop_signals();
    const timespec period = {log_period_ms / 1000, 0};
    while (sigtimedwait(&signals, nullptr, &period) < 0) {
        if (errno == EAGAIN) {
            running.log_statistics();
        }
    }
}

} // namespace

int run_bridge(const bridge_settings &settings) {
    block_signals();
    try {
        bridge running(settings);
        running.start();
        wait_for_signal(running);
        log_line("stopping");
        running.stop();
        running.log_statistics();
        return 0;
    } catch (const std::exception &problem) {
        log_line(std::string("cannot start: ") + problem.what());
        return 1;
    }
}
