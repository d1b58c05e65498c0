#include "tag_table.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <unordered_set>
#include <utility>

namespace {

constexpr uint32_t none = UINT32_MAX;
constexpr std::string_view service_prefix = "can_proprietary/";
constexpr std::string_view status_suffix = "/status";
constexpr int status_type = 3;
constexpr uint32_t slots_max = 65536;  // more than a store has: a damaged number costs no memory
constexpr int64_t fault_slack_ms = 50; // an early look at the service's own write
constexpr int64_t fault_patience_ms = 500; // the service would have written long ago

int64_t clock_now_ms(clockid_t clock) {
    timespec now{};
    (void)clock_gettime(clock, &now); // cannot fail for these clocks
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

bool is_device_status(const dx_tag_info &info) {
    const std::string_view name = info.name;
    return info.type == status_type && info.size == sizeof(uint32_t) && info.mode == DX_READ_ONLY &&
           name.starts_with(service_prefix) && name.ends_with(status_suffix) &&
           name.size() > service_prefix.size() + status_suffix.size();
}

std::string_view first_part(std::string_view name) {
    return name.substr(0, name.find('/'));
}

} // namespace

struct tag_table::known_tag {
    std::string name;
    int type = 0;
    size_t size = 0;
    int mode = 0;
    uint32_t slot = 0;
    uint32_t version = 0;
    uint8_t value[DX_VALUE_MAX] = {};
    uint32_t sequence = 0;
    int64_t written_ms = 0;
    int64_t time_ms = 0;
    int64_t gone_ms = 0;
    tag_quality quality;
    const tag_circumstances *circumstances = nullptr;
    uint32_t index = 0;
    uint32_t device = none;    // it belongs to
    uint32_t status_of = none; // device
    uint32_t list_number = 0;
    bool present = false;
    int64_t pause_ms = -1; // between its last two writes, negative when they were not seen
    bool in_fault = false;
    bool was_in_fault = false; // before its last write
    bool removed = false;
    bool marked = false; // to be published
    bool queued = false;
    bool under_way = false;
};

struct tag_table::known_device {
    std::string name;
    device_state state = device_state::none;
    int64_t since_ms = 0;
    std::vector<uint32_t> members;
};

clock_pair read_clocks() {
    return {clock_now_ms(CLOCK_MONOTONIC_COARSE), clock_now_ms(CLOCK_REALTIME)};
}

tag_table::tag_table() = default;
tag_table::~tag_table() = default;

void tag_table::update(const dx_tag_info &info, const dx_sample &sample, const clock_pair &now) {
    const std::lock_guard lock(mutex_);
    known_tag &tag = find_or_add(info);
    tag.list_number = list_number_;
    const bool described = tag.version != info.version || tag.slot != info.slot || !tag.present;
    if (!described && tag.sequence == sample.sequence) {
        return;
    }
    if (described) {
        describe(tag, info);
        ++generation_;
        present_ += tag.present ? 0 : 1;
        tag.present = true;
        tag.removed = false;
        tag.in_fault = false;
        tag.sequence = 0;
        if (is_device_status(info) && tag.status_of == none) {
            add_device(tag);
        }
    }
    take_sample(tag, sample, now);
    if (tag.status_of != none) {
        update_device(tag, now);
    }
    conflated_ += tag.marked ? 1 : 0;
    (void)judge(tag, now);
    mark(tag);
}

void tag_table::take_sample(known_tag &tag, const dx_sample &sample, const clock_pair &now) {
    const auto age_ms = static_cast<int64_t>(std::min<uint64_t>(sample.age_ms, INT64_MAX / 2));
    const int64_t written_ms = now.monotonic_ms - age_ms;
    const bool next = tag.sequence != 0 && sample.sequence == tag.sequence + 1;
    tag.pause_ms = next ? written_ms - tag.written_ms : -1;
    tag.was_in_fault = tag.in_fault;
    tag.sequence = sample.sequence;
    tag.written_ms = written_ms;
    tag.time_ms = now.utc_ms - age_ms;
    memcpy(tag.value, sample.value, sizeof tag.value);
}

tag_table::known_tag &tag_table::find_or_add(const dx_tag_info &info) {
    if (info.slot < slots_.size() && slots_[info.slot].version == info.version) {
        const auto &tag = tags_[slots_[info.slot].index];
        if (tag && tag->name == info.name) {
            return *tag;
        }
    }
    const auto found = by_name_.find(info.name);
    known_tag &tag = found != by_name_.end() ? *tags_[found->second] : add(info.name);
    if (info.slot < slots_max) {
        slots_.resize(std::max<size_t>(slots_.size(), info.slot + size_t{1}));
        slots_[info.slot] = {info.version, tag.index};
    }
    return tag;
}

tag_table::known_tag &tag_table::add(const char *name) {
    auto made = std::make_unique<known_tag>();
    made->name = name;
    made->index = static_cast<uint32_t>(tags_.size());
    if (free_indices_.empty()) {
        tags_.emplace_back();
    } else {
        made->index = free_indices_.back();
        free_indices_.pop_back();
    }
    known_tag &tag = *made;
    tags_[tag.index] = std::move(made);
    by_name_[tag.name] = tag.index;
    attach_circumstances(tag);
    assign_device(tag);
    return tag;
}

void tag_table::describe(known_tag &tag, const dx_tag_info &info) {
    tag.type = info.type;
    tag.size = info.size;
    tag.mode = info.mode;
    tag.slot = info.slot;
    tag.version = info.version;
}

void tag_table::add_device(known_tag &status) {
    const std::string prefix = status.name.substr(0, status.name.size() - status_suffix.size() + 1);
    const auto device = static_cast<uint32_t>(devices_.size());
    status.status_of = by_prefix_.try_emplace(prefix, device).first->second;
    if (status.status_of != device) {
        return; // known from before
    }
    devices_.push_back(std::make_unique<known_device>());
    devices_.back()->name =
        prefix.substr(service_prefix.size(), prefix.size() - service_prefix.size() - 1);
    for (const auto &tag : tags_) {
        if (tag && tag->name.starts_with(prefix)) {
            assign_device(*tag);
        }
    }
}

/** Names of devices may hold "/": the longest one counts. */
void tag_table::assign_device(known_tag &tag) {
    uint32_t device = none;
    for (size_t end = tag.name.rfind('/'); end != std::string::npos && end > 0 && device == none;
         end = tag.name.rfind('/', end - 1)) {
        const auto found = by_prefix_.find(tag.name.substr(0, end + 1));
        device = found == by_prefix_.end() ? none : found->second;
    }
    if (device == tag.device || device == none) {
        return;
    }
    if (tag.device != none) {
        std::erase(devices_[tag.device]->members, tag.index);
    }
    tag.device = device;
    devices_[device]->members.push_back(tag.index);
}

void tag_table::attach_circumstances(known_tag &tag) const {
    const auto found = circumstances_.find(tag.name);
    tag.circumstances = found == circumstances_.end() ? nullptr : &found->second;
}

void tag_table::update_device(known_tag &status, const clock_pair &now) {
    known_device &device = *devices_[status.status_of];
    uint32_t value = 0;
    memcpy(&value, status.value, sizeof value);
    device.state = device_state_of(value);
    device.since_ms = status.written_ms;
    for (const uint32_t index : device.members) {
        judge_and_mark(*tags_[index], now);
    }
}

void tag_table::judge_and_mark(known_tag &tag, const clock_pair &now) {
    if (judge(tag, now)) {
        mark(tag);
    }
}

/**
 * The service writes the fault value once, when nobody has written the tag for the time. Seen too
 * late, the age of the value tells: somebody's own write of it would have been replaced by then.
 */
bool tag_table::holds_fault_value(const known_tag &tag, const clock_pair &now) {
    const tag_circumstances *known = tag.circumstances;
    if (known == nullptr || known->fault_after_ms <= 0 ||
        memcmp(tag.value, known->fault_value, tag.size) != 0) {
        return false;
    }
    const bool by_service =
        tag.pause_ms >= known->fault_after_ms - fault_slack_ms && !tag.was_in_fault;
    return by_service ||
           now.monotonic_ms - tag.written_ms > known->fault_after_ms + fault_patience_ms;
}

/** @return true when the quality is another one now */
bool tag_table::judge(known_tag &tag, const clock_pair &now) const {
    quality_facts facts;
    facts.provider_alive = tag.present;
    facts.written_by_others = tag.mode == DX_WRITE_ONLY;
    facts.is_status = tag.status_of != none;
    const bool starts_with_zero = std::string_view(tag.name).starts_with(service_prefix);
    facts.writes = tag.sequence - (starts_with_zero && tag.sequence > 0 ? 1 : 0);
    facts.written_ms = tag.written_ms;
    facts.now_ms = now.monotonic_ms;
    if (tag.device != none) {
        facts.device = devices_[tag.device]->state;
        facts.device_since_ms = devices_[tag.device]->since_ms;
    }
    if (const tag_circumstances *known = tag.circumstances) {
        facts.max_age_ms = known->max_age_ms;
    }
    tag.in_fault = facts.written_by_others && holds_fault_value(tag, now);
    facts.in_fault = tag.in_fault;
    return std::exchange(tag.quality, judge_quality(facts)) != tag.quality;
}

void tag_table::begin_list() {
    const std::lock_guard lock(mutex_);
    ++list_number_;
}

void tag_table::lose(known_tag &tag, const clock_pair &now) {
    if (!tag.present) {
        return;
    }
    tag.present = false;
    tag.gone_ms = now.monotonic_ms;
    --present_;
    ++generation_;
    if (tag.status_of != none) {
        devices_[tag.status_of]->state = device_state::none;
    }
    judge_and_mark(tag, now);
}

void tag_table::end_list(const clock_pair &now) {
    const std::lock_guard lock(mutex_);
    std::unordered_set<std::string_view> services;
    for (const auto &tag : tags_) {
        if (tag && tag->list_number != list_number_) {
            lose(*tag, now);
        } else if (tag && tag->present) {
            services.insert(first_part(tag->name));
        }
    }
    for (const auto &tag : tags_) {
        if (tag && !tag->present && !tag->removed && services.contains(first_part(tag->name)) &&
            now.monotonic_ms - tag->gone_ms >= removal_ms) {
            tag->removed = true;
            mark(*tag);
        }
    }
}

void tag_table::service_down(const clock_pair &now) {
    const std::lock_guard lock(mutex_);
    slots_.clear(); // another store may give the same numbers to other tags
    for (const auto &tag : tags_) {
        if (tag) {
            lose(*tag, now);
        }
    }
}

void tag_table::tick(const clock_pair &now) {
    const std::lock_guard lock(mutex_);
    for (const auto &tag : tags_) {
        if (tag && tag->circumstances != nullptr && tag->present) {
            judge_and_mark(*tag, now);
        }
    }
}

void tag_table::set_circumstances(circumstances_map map, const clock_pair &now) {
    const std::lock_guard lock(mutex_);
    circumstances_ = std::move(map);
    for (const auto &tag : tags_) {
        if (tag) {
            attach_circumstances(*tag);
            judge_and_mark(*tag, now);
        }
    }
}

void tag_table::mark(known_tag &tag) {
    tag.marked = true;
    if (!tag.queued && !tag.under_way) {
        tag.queued = true;
        queue_.push_back(tag.index);
    }
}

std::optional<tag_snapshot> tag_table::take() {
    const std::lock_guard lock(mutex_);
    if (queue_.empty()) {
        return std::nullopt;
    }
    known_tag &tag = *tags_[queue_.front()];
    queue_.pop_front();
    tag.queued = tag.marked = false;
    tag.under_way = true;
    return copy(tag);
}

void tag_table::published(uint32_t index) {
    const std::lock_guard lock(mutex_);
    if (index >= tags_.size() || !tags_[index] || !tags_[index]->under_way) {
        return;
    }
    known_tag &tag = *tags_[index];
    tag.under_way = false;
    if (tag.marked) {
        mark(tag);
    } else if (tag.removed) {
        forget(tag);
    }
}

tag_snapshot tag_table::copy(const known_tag &tag) const {
    tag_snapshot out;
    out.name = tag.name;
    out.type = tag.type;
    out.size = tag.size;
    out.mode = tag.mode;
    memcpy(out.value, tag.value, sizeof out.value);
    out.sequence = tag.sequence;
    out.time_ms = tag.time_ms;
    out.quality = tag.quality;
    if (tag.device != none) {
        out.device = devices_[tag.device]->name;
    }
    out.index = tag.index;
    out.removed = tag.removed;
    return out;
}

void tag_table::forget(known_tag &tag) {
    const uint32_t index = tag.index;
    if (tag.device != none) {
        std::erase(devices_[tag.device]->members, index);
    }
    by_name_.erase(tag.name);
    tags_[index].reset();
    free_indices_.push_back(index);
}

void tag_table::publish_all() {
    const std::lock_guard lock(mutex_);
    for (const auto &tag : tags_) {
        if (tag) {
            tag->under_way = false;
            mark(*tag);
        }
    }
}

std::optional<tag_snapshot> tag_table::find(std::string_view name) const {
    const std::lock_guard lock(mutex_);
    const auto found = by_name_.find(std::string(name));
    return found == by_name_.end() ? std::nullopt : std::optional(copy(*tags_[found->second]));
}

bool tag_table::knows(std::string_view name) const {
    const std::lock_guard lock(mutex_);
    return by_name_.contains(std::string(name));
}

std::optional<tag_circumstances> tag_table::circumstances(std::string_view name) const {
    const std::lock_guard lock(mutex_);
    const auto found = circumstances_.find(std::string(name));
    return found == circumstances_.end() ? std::nullopt : std::optional(found->second);
}

size_t tag_table::size() const {
    const std::lock_guard lock(mutex_);
    return by_name_.size();
}

size_t tag_table::waiting() const {
    const std::lock_guard lock(mutex_);
    return queue_.size();
}

uint64_t tag_table::conflated() const {
    const std::lock_guard lock(mutex_);
    return conflated_;
}

uint64_t tag_table::generation() const {
    const std::lock_guard lock(mutex_);
    return generation_;
}

bool tag_table::service_alive() const {
    const std::lock_guard lock(mutex_);
    return present_ > 0;
}

std::set<std::string> tag_table::services() const {
    const std::lock_guard lock(mutex_);
    std::set<std::string> found;
    for (const auto &tag : tags_) {
        if (tag && tag->present) {
            found.emplace(first_part(tag->name));
        }
    }
    return found;
}
