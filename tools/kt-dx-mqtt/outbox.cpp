#include "outbox.h"

#include <algorithm>
#include <utility>

outbox::outbox(size_t results_max, size_t events_max, bridge_statistics &statistics)
    : results_max_(results_max), events_max_(events_max), statistics_(statistics) {}

void outbox::add(queue &to, size_t most, broker_message message, std::atomic<uint64_t> &dropped) {
    const std::lock_guard lock(mutex_);
    // What is under way is bounded by the broker's window and costs the newest no place.
    const auto waits = [](const entry &e) { return !e.under_way; };
    if (static_cast<size_t>(std::ranges::count_if(to, waits)) >= most) {
        count(dropped);
        to.erase(std::ranges::find_if(to, waits));
    }
    message.token = next_token_++;
    to.push_back({std::move(message), false});
}

void outbox::add_result(broker_message message) {
    add(results_, results_max_, std::move(message), statistics_.results_dropped);
}

void outbox::add_event(broker_message message) {
    add(events_, events_max_, std::move(message), statistics_.events_dropped);
}

void outbox::set_state(broker_message message) {
    const std::lock_guard lock(mutex_);
    message.token = next_token_++; // the answer to an older one does not count for this one
    states_[message.topic] = {message, false};
}

std::optional<broker_message> outbox::take_from(queue &from) {
    const auto next = std::ranges::find_if(from, [](const entry &e) { return !e.under_way; });
    if (next == from.end()) {
        return std::nullopt;
    }
    next->under_way = true;
    return next->message;
}

std::optional<broker_message> outbox::take() {
    const std::lock_guard lock(mutex_);
    if (auto result = take_from(results_)) {
        return result;
    }
    for (auto &[topic, state] : states_) {
        if (!state.under_way) {
            state.under_way = true;
            return state.message;
        }
    }
    return take_from(events_);
}

bool outbox::forget(queue &from, uint64_t token) {
    return std::erase_if(from, [token](const entry &e) { return e.message.token == token; }) > 0;
}

void outbox::sent(uint64_t token) {
    const std::lock_guard lock(mutex_);
    if (!forget(results_, token) && !forget(events_, token)) {
        std::erase_if(states_,
                      [token](const auto &state) { return state.second.message.token == token; });
    }
}

void outbox::not_sent(uint64_t token, bool connected) {
    if (connected) {
        sent(token); // this message cannot be sent at all
    } else {
        nothing_sent();
    }
}

void outbox::nothing_sent() {
    const std::lock_guard lock(mutex_);
    for (queue *each : {&results_, &events_}) {
        for (entry &e : *each) {
            e.under_way = false;
        }
    }
    for (auto &[topic, state] : states_) {
        state.under_way = false;
    }
}

size_t outbox::size() const {
    const std::lock_guard lock(mutex_);
    return results_.size() + events_.size() + states_.size();
}
