#include "writes.h"

#include "log.h"
#include "value.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <exception>
#include <utility>

namespace {

constexpr std::chrono::milliseconds settle_period(50);
constexpr std::chrono::milliseconds look_period(1000); // at the store
constexpr int64_t answer_tolerance_ms = 2000; // until the service's report has been fetched

constexpr int state_success = 0; // of a transaction, as the service reports it
constexpr int state_timeout = 2;

constexpr char retained_reason[] = "retained message: send it without the retain flag";
constexpr const char *queue_full_reason = "too many writes are waiting";
constexpr const char *stopping_reason = "the bridge stops";

const char *refusal(int code) {
    const char *text = client_result_text(code);
    if (text == nullptr) {
        text = code == DX_NO_PERMISSION ? "the bridge may not write tags"
                                        : client_result_text(DX_STORE_REFUSED);
    }
    return text;
}

/** The response wrote this tag when its number of writes is another one. */
struct response_mark {
    dx_tag_info info;
    uint32_t sequence;
};

} // namespace

const char *outcome_text(write_outcome outcome) {
    switch (outcome) {
    case write_outcome::accepted:
        return "accepted";
    case write_outcome::refused:
        return "refused";
    case write_outcome::superseded:
        return "superseded";
    case write_outcome::completed:
        return "completed";
    case write_outcome::failed:
        return "failed";
    case write_outcome::timed_out:
        return "timed_out";
    default:
        return "unknown";
    }
}

struct write_queue::awaited {
    pending write;
    tag_circumstances known;
    std::vector<response_mark> responses;
    transaction_report before; // the failures that are not ours
    uint64_t asked = 0;        // number of the last report when the tag was written
    int64_t deadline_ms = 0;
};

write_queue::write_queue(tag_table &table, bridge_statistics &statistics, write_settings settings)
    : table_(table), statistics_(statistics), settings_(std::move(settings)) {}

write_queue::~write_queue() {
    stop();
}

void write_queue::start() {
    thread_ = std::thread([this] {
        (void)pthread_setname_np(pthread_self(), "mqtt-writes"); // for people only
        run();
    });
}

void write_queue::stop() {
    {
        const std::lock_guard lock(mutex_);
        stop_ = true;
    }
    wake_.notify_one();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void write_queue::tell(const pending &write, write_outcome outcome, std::string reason) {
    if (outcome == write_outcome::superseded) {
        count(statistics_.writes_superseded);
    }
    settings_.done({write.tag, write.request.id, outcome, std::move(reason), read_clocks().utc_ms});
}

void write_queue::refuse(const pending &write, std::string reason) {
    count(statistics_.writes_refused);
    tell(write, write_outcome::refused, std::move(reason));
}

void write_queue::refuse_retained(const std::string &tag, std::string_view payload) {
    pending write{tag, {}};
    std::string ignored;
    (void)parse_set_request(payload, write.request, ignored); // for its id
    refuse(write, retained_reason);
}

/** Judged before it supersedes an older one; a tag unknown so far may be there when it is written.
 */
bool write_queue::is_possible(const pending &write, std::string &error) const {
    const std::optional<tag_snapshot> tag = table_.find(write.tag);
    if (!tag) {
        return true;
    }
    if (tag->mode == DX_READ_ONLY) {
        error = refusal(DX_IS_READ_ONLY);
        return false;
    }
    dx_tag_info info{};
    info.type = tag->type;
    info.size = tag->size;
    uint8_t ignored[DX_VALUE_MAX];
    return value_bytes(info, write.request.value, ignored, error);
}

void write_queue::add(const std::string &tag, std::string_view payload) {
    pending write{tag, {}};
    std::string error;
    if (!parse_set_request(payload, write.request, error)) {
        refuse(write, error);
        return;
    }
    enqueue(write);
}

void write_queue::add_value(const std::string &tag, std::string_view value) {
    if (value.size() > set_payload_max_bytes) {
        refuse({tag, {}}, "the value has more than 1024 bytes");
        return;
    }
    enqueue({tag, {std::string(value), {}}});
}

void write_queue::enqueue(const pending &write) {
    std::string error;
    if (!is_possible(write, error)) {
        refuse(write, error);
        return;
    }
    std::vector<pending> superseded;
    const char *problem = nullptr;
    {
        const std::lock_guard lock(mutex_);
        const auto older =
            std::find_if(waiting_.begin(), waiting_.end(), [&](const pending &other) {
                return other.tag == write.tag;
            });
        if (older != waiting_.end()) {
            superseded.push_back(std::move(*older));
            waiting_.erase(older);
        }
        problem = stop_                                       ? stopping_reason
                  : waiting_.size() >= settings_.queue_length ? queue_full_reason
                                                              : nullptr;
        if (problem == nullptr) {
            waiting_.push_back(write);
        }
    }
    wake_.notify_one();
    for (const pending &other : superseded) {
        tell(other, write_outcome::superseded, "");
    }
    if (problem != nullptr) {
        count(statistics_.writes_dropped);
        refuse(write, problem);
    }
}

void write_queue::run() {
    std::unique_lock lock(mutex_);
    while (!stop_) {
        if (waiting_.empty() && awaited_.empty()) {
            (void)wake_.wait_for(lock, look_period); // opens the store either way
        } else if (waiting_.empty()) {
            (void)wake_.wait_for(lock, settle_period); // settles either way
        }
        std::deque<pending> batch;
        if (!waiting_.empty()) { // one by one: a newer write may supersede the others
            batch.push_back(std::move(waiting_.front()));
            waiting_.pop_front();
        }
        lock.unlock();
        for (const pending &write : batch) {
            execute(write);
        }
        if (batch.empty()) {
            // Open before it is needed: the file may be removed while the service goes on.
            (void)open_store(); // a write that comes says so
            settle_all();
        }
        lock.lock();
    }
    std::deque<pending> left;
    left.swap(waiting_);
    lock.unlock();
    for (const pending &write : left) {
        refuse(write, stopping_reason);
    }
    give_up(stopping_reason);
    client_.reset();
}

void write_queue::give_up(const char *reason) {
    for (const awaited &one : awaited_) {
        tell(one.write, write_outcome::unknown, reason);
    }
    awaited_.clear();
}

bool write_queue::open_store() {
    if (client_ != nullptr && dx_client_current(client_.get()) == 1) {
        return true;
    }
    tag_client_ptr opened;
    if (open_client(opened) == DX_OK) {
        client_ = std::move(opened);
        give_up("the service was started anew"); // their tags were in the other store
    }
    return client_ != nullptr; // without a file, what is open serves while the provider lives
}

void write_queue::execute(const pending &write) {
    dx_tag_info info;
    dx_sample before{};
    uint8_t value[DX_VALUE_MAX] = {};
    std::string error;
    if (!open_store()) {
        refuse(write, "no tag store: the service does not run");
        return;
    }
    int code = dx_client_find(client_.get(), write.tag.c_str(), &info);
    if (code == DX_OK && info.mode == DX_READ_ONLY) {
        code = DX_IS_READ_ONLY;
    }
    if (code == DX_OK && !value_bytes(info, write.request.value, value, error)) {
        refuse(write, error);
        return;
    }
    if (code == DX_OK) {
        code = dx_client_read(client_.get(), &info, &before);
    }
    supersede_awaited(write.tag);
    // Before the write: the answer may come at once.
    const size_t awaited_before = awaited_.size();
    if (code == DX_OK) {
        await_outcome(write);
        code = dx_client_write(client_.get(), &info, value, info.size);
    }
    if (code != DX_OK) {
        awaited_.resize(std::min(awaited_.size(), awaited_before));
        refuse(write, refusal(code));
        return;
    }
    count(statistics_.writes_accepted);
    const bool same = memcmp(before.value, value, info.size) == 0;
    const bool silent =
        awaited_.size() > awaited_before && same && awaited_.back().known.sent_on_change;
    if (silent) {
        awaited_.pop_back();
    }
    tell(write,
         write_outcome::accepted,
         silent ? "the value is the same: the request is not sent" : "");
}

void write_queue::supersede_awaited(const std::string &tag) {
    const auto same = [&](const awaited &one) { return one.write.tag == tag; };
    for (const awaited &one : awaited_) {
        if (same(one)) {
            tell(one.write, write_outcome::superseded, "");
        }
    }
    std::erase_if(awaited_, same);
}

void write_queue::await_outcome(const pending &write) {
    std::optional<tag_circumstances> known = table_.circumstances(write.tag);
    if (!known || !known->is_request || awaited_.size() >= settings_.queue_length) {
        return;
    }
    awaited one;
    for (const std::string &name : known->response_tags) {
        dx_tag_info info;
        dx_sample sample;
        if (dx_client_find(client_.get(), name.c_str(), &info) == DX_OK &&
            dx_client_read(client_.get(), &info, &sample) == DX_OK) {
            one.responses.push_back({info, sample.sequence});
        }
    }
    if (settings_.report) {
        const transaction_report last = settings_.report(*known, true);
        one.asked = last.number;
        if (known->sent_on_change) {
            one.before = last; // nothing ran since but for other programs' writes
        }
    }
    one.deadline_ms = read_clocks().monotonic_ms + known->answer_ms + answer_tolerance_ms;
    one.write = write;
    one.known = std::move(*known);
    awaited_.push_back(std::move(one));
}

bool write_queue::answered(const awaited &one) const {
    return std::ranges::any_of(one.responses, [this](const response_mark &mark) {
        dx_sample sample;
        return dx_client_read(client_.get(), &mark.info, &sample) == DX_OK &&
               sample.sequence != mark.sequence;
    });
}

/** @return true when the outcome has been told */
bool write_queue::settle(awaited &one) {
    if (answered(one)) {
        tell(one.write, write_outcome::completed, "");
        return true;
    }
    const transaction_report now =
        settings_.report ? settings_.report(one.known, true) : transaction_report{};
    const bool fresh = now.known && now.number != one.asked;
    if (fresh && !one.before.known) {
        one.before = now;
    }
    const bool failed = fresh && now.failed_count != one.before.failed_count;
    if (failed) {
        const bool timeout = now.state == state_timeout;
        tell(one.write, timeout ? write_outcome::timed_out : write_outcome::failed, "");
        return true;
    }
    if (read_clocks().monotonic_ms < one.deadline_ms) {
        return false;
    }
    // A response without tags shows in nothing but the result of its transaction.
    if (fresh && one.responses.empty() && now.state == state_success) {
        tell(one.write, write_outcome::completed, "");
    } else {
        tell(one.write, write_outcome::unknown, "the service did not report an outcome in time");
    }
    return true;
}

void write_queue::settle_all() {
    std::erase_if(awaited_, [this](awaited &one) { return settle(one); });
}
