#include "sparkplug_session.h"

#include "log.h"
#include "net_thread.h"

#include <array>
#include <ctime>
#include <exception>
#include <pthread.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr int pass_ms = 200;
constexpr size_t batch_tags = 256;        // of one look at the table
constexpr int64_t birth_period_ms = 1000; // hosts may ask for births without end

broker_message to_broker(const sparkplug_message &message) {
    return {message.topic, message.payload, message.qos, message.retain, 0};
}

int64_t utc_now_ms() {
    return read_clocks().utc_ms;
}

} // namespace

sparkplug_session::sparkplug_session(const bridge_settings &settings,
                                     bridge_statistics &statistics,
                                     write_function write)
    : settings_(settings), write_(std::move(write)), wake_fd_(make_wake_descriptor()) {
    settings_.client_id += "-sparkplug";
    // Hosts tell sessions apart by it: one that goes on from where the clock is does not repeat
    // soon.
    sparkplug_start(node_, settings_, static_cast<uint64_t>(time(nullptr)) & 0xFF);
    broker_ = broker_open(settings_, statistics, *this);
}

sparkplug_session::~sparkplug_session() {
    stop();
    (void)close(wake_fd_); // nothing was written to a file
}

void sparkplug_session::start() {
    thread_ = std::thread([this] {
        (void)pthread_setname_np(pthread_self(), "mqtt-sparkplug"); // for people only
        run();
        ended_.store(true);
    });
}

void sparkplug_session::ask_stop() {
    stop_.store(true);
    wake();
}

void sparkplug_session::stop() {
    if (thread_.joinable()) {
        ask_stop();
        join_net_thread(thread_, ended_);
    }
}

void sparkplug_session::wake() const {
    wake_descriptor(wake_fd_);
}

broker_message sparkplug_session::will() {
    return to_broker(sparkplug_will(node_, utc_now_ms()));
}

void sparkplug_session::connected() {
    (void)broker_subscribe(*broker_, sparkplug_filters(node_), 1);
    table_.publish_all();
    birth_wanted_ = true;
    birth_at_ms_ = 0;
}

void sparkplug_session::disconnected() {
    sparkplug_disconnected(node_);
    pending_.clear();
    birth_wanted_ = false;
}

void sparkplug_session::received(std::string_view topic, std::string_view payload, bool retained) {
    sparkplug_command command;
    if (!sparkplug_read_command(node_, topic, payload, command)) {
        return;
    }
    if (retained) {
        log_line("Sparkplug B: a retained command is not executed");
        return;
    }
    for (const std::string &reason : command.refused) {
        log_line("Sparkplug B: " + reason);
    }
    birth_wanted_ = birth_wanted_ || command.rebirth;
    for (const sparkplug_write &write : command.writes) {
        write_(write.tag, write.value);
    }
}

void sparkplug_session::sent(uint64_t) {}

/** @return false when there were none */
bool sparkplug_session::take_tags() {
    std::vector<tag_snapshot> tags;
    while (tags.size() < batch_tags) {
        std::optional<tag_snapshot> tag = table_.take();
        if (!tag) {
            break;
        }
        table_.published(tag->index); // what the node knows is said by it, now or in a birth
        tags.push_back(std::move(*tag));
    }
    sparkplug_messages messages;
    sparkplug_update(node_, tags, utc_now_ms(), messages);
    pending_.insert(pending_.end(),
                    std::make_move_iterator(messages.begin()),
                    std::make_move_iterator(messages.end()));
    return !tags.empty();
}

/** A birth says what all tags are: the node is told them first. */
void sparkplug_session::give_birth() {
    const int64_t now_ms = read_clocks().monotonic_ms;
    if (!birth_wanted_ || !pending_.empty() || now_ms < birth_at_ms_) {
        return;
    }
    birth_wanted_ = false;
    birth_at_ms_ = now_ms + birth_period_ms;
    while (take_tags()) {
    }
    pending_.clear(); // the birth says it, too
    sparkplug_messages messages;
    sparkplug_connected(node_, utc_now_ms(), messages);
    pending_.assign(std::make_move_iterator(messages.begin()),
                    std::make_move_iterator(messages.end()));
}

void sparkplug_session::send_pending() {
    while (!pending_.empty() && broker_ready(*broker_)) {
        (void)broker_publish(*broker_, to_broker(pending_.front())); // a failure shows in the loop
        pending_.pop_front();
    }
}

void sparkplug_session::pass() {
    std::array<pollfd, 1> others = {{{wake_fd_, POLLIN, 0}}};
    broker_run(*broker_, others, pass_ms);
    if (others[0].revents != 0) {
        drain_descriptor(wake_fd_);
    }
    if (!broker_connected(*broker_)) {
        return;
    }
    give_birth();
    send_pending();
    while (node_.connected && pending_.empty() && broker_ready(*broker_) && take_tags()) {
        send_pending();
    }
}

void sparkplug_session::farewell() {
    if (broker_connected(*broker_)) {
        send_pending();
        (void)broker_publish(*broker_, to_broker(sparkplug_death(node_, utc_now_ms())));
        broker_finish(*broker_, farewell_ms);
    }
}

void sparkplug_session::run() {
    while (!stop_.load()) {
        try {
            pass();
        } catch (const std::exception &problem) {
            log_line(std::string("Sparkplug B: ") + problem.what());
        }
    }
    try {
        farewell();
    } catch (const std::exception &problem) {
        log_line(std::string("Sparkplug B: ") + problem.what());
    }
}
