#include "can_engine_model.h"

#include "can/codec.h"
#include "can_calls.h"
#include "can_journal.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

enum : uint8_t { SUCCESS = 0, FAILED = 1, TIMEOUT = 2, READY = 3, WAITING = 4, INITIAL = 255 };

int32_t from_to(uint32_t from, uint32_t to) {
    return static_cast<int32_t>(to - from);
}

bool is_due(uint32_t now, uint32_t deadline) {
    return from_to(deadline, now) >= 0;
}

size_t size_of(const tag_block_config *tag) {
    return std::min<size_t>(tag->tagSize, 8);
}

bool is_protected(const transaction_config *config) {
    return config->fpFunc == 1 || config->fpFunc == 2;
}

list_id first_list(const transaction_config &config) {
    constexpr list_id lists[3][3] = {
        {PRODUCE_CYCLIC, PRODUCE_ON_CHANGE, PRODUCE_BOOTUP},
        {CONSUME, CONSUME, CONSUME},
        {REQUEST_CYCLIC, REQUEST_ON_CHANGE, REQUEST_BOOTUP},
    };
    const list_id id = lists[config.transactionType][config.triggerMode];
    return id == CONSUME && config.consumeToutEnable != 0 ? CONSUME_WITH_TIMEOUT : id;
}

list_id home_list(list_id first) {
    if (first == PRODUCE_BOOTUP) {
        return PRODUCE_IDLE;
    }
    return first == REQUEST_BOOTUP ? REQUEST_IDLE : first;
}

} // namespace

can_engine_model::can_engine_model(const device_config *devices, bool extended, uint32_t now)
    : extended_(extended) {
    for (; devices != nullptr; devices = devices->next) {
        status_[devices->deviceName] = 0x80000000U;
        for (const transaction_config *each = devices->transactions; each != nullptr;
             each = each->next) {
            if (each->transactionEnable != 0) {
                add(*devices, *each, now);
            }
        }
    }
}

void can_engine_model::add(const device_config &device,
                           const transaction_config &config,
                           uint32_t now) {
    all_.push_back(std::make_unique<transaction>());
    transaction *item = all_.back().get();
    const list_id first = first_list(config);
    *item = {&config,
             config.transactionName,
             device.deviceName,
             home_list(first),
             first == REQUEST_BOOTUP ? READY : INITIAL,
             false,
             0,
             now + config.consumeTimeout,
             now + static_cast<uint32_t>(config.cyclicInterval),
             now + config.fpTimeout,
             false,
             {}};
    for (const frame_config *each = config.frames; each != nullptr; each = each->next) {
        frame made{each, {}, {}};
        for (const block_config *block = each->blocks; block != nullptr; block = block->next) {
            if (block->blockType == BLOCK_CONSTANT) {
                codec_lay_constant(made.data, block->constant);
            } else {
                made.tags.push_back({block->tag,
                                     "can_proprietary/" + item->device + "/" + item->name + "_" +
                                         block->tag->tagName,
                                     now,
                                     false});
            }
        }
        item->frames.push_back(std::move(made));
    }
    if (first == PRODUCE_CYCLIC || first == REQUEST_CYCLIC) {
        insert_by_time(item);
    } else {
        of(first).push_back(item);
    }
}

std::vector<std::string> can_engine_model::names(list_id id) const {
    std::vector<std::string> result;
    for (const transaction *item : of(id)) {
        result.push_back(item->name);
    }
    return result;
}

std::vector<std::string> can_engine_model::tag_names() const {
    std::vector<std::string> result;
    for (const auto &item : all_) {
        for (const frame &each : item->frames) {
            for (const tag &one : each.tags) {
                result.push_back(one.name);
            }
        }
    }
    return result;
}

std::vector<std::string> can_engine_model::take_lines() {
    return std::exchange(lines_, {});
}

bool can_engine_model::is_in_bootup() const {
    return !of(REQUEST_BOOTUP).empty() || !of(PRODUCE_BOOTUP).empty();
}

void can_engine_model::insert_by_time(transaction *item) {
    list &target = of(item->home);
    const auto later = std::find_if(target.begin(), target.end(), [item](const transaction *other) {
        return from_to(item->next_send, other->next_send) > 0;
    });
    target.insert(later, item);
}

void can_engine_model::set_result(transaction *item, uint8_t result) {
    constexpr const char *texts[] = {"success", "failed", "timeout"};
    item->state = result;
    note("result " + item->name + " " + texts[result]);
}

void can_engine_model::set_status(const transaction *item, uint32_t status) {
    uint32_t &current = status_[item->device];
    if (current == status) {
        return;
    }
    current = status;
    std::array<uint8_t, 4> bytes{};
    memcpy(bytes.data(), &status, sizeof status);
    note("write can_proprietary/" + item->device + "/status " + can_hex(bytes));
    note("commit");
}

can_frame can_engine_model::build(transaction *item) {
    const frame &source = item->frames.front();
    std::array<uint8_t, 16> data{};
    memcpy(data.data(), source.data.data(), source.config->dataLength);
    for (const tag &each : source.tags) {
        codec_swap({data.data() + each.config->startOffset, size_of(each.config)},
                   each.config->swap);
    }
    if (item->config->triggerMode == TRIGGER_ON_CHANGE) {
        item->changed = false;
    }
    can_frame built{};
    built.can_id = static_cast<uint32_t>(source.config->canId) | (extended_ ? CAN_EFF_FLAG : 0);
    built.len = source.config->dataLength;
    memcpy(built.data, data.data(), built.len);
    return built;
}

bool can_engine_model::send(const transaction *item, const can_frame &built) {
    note((refuse_frames ? "refused " : "send ") + can_frame_text(built));
    if (refuse_frames) {
        note("result " + item->name + " failed");
    }
    return !refuse_frames;
}

bool can_engine_model::produce(transaction *item) {
    if (!send(item, build(item))) {
        return false;
    }
    set_result(item, SUCCESS);
    return true;
}

void can_engine_model::protect(transaction *item, uint32_t now) {
    if (!item->all_in_fault && !is_due(now, item->fp_deadline)) {
        return;
    }
    bool changed = false;
    uint32_t earliest = UINT32_MAX;
    item->all_in_fault = true;
    frame &protected_frame = item->frames.front();
    for (tag &each : protected_frame.tags) {
        if (!each.in_fault && from_to(now, each.updated + item->config->fpTimeout) < 0) {
            const std::span<uint8_t> bytes{protected_frame.data.data() + each.config->startOffset,
                                           size_of(each.config)};
            codec_fault_value(each.config->fpData, bytes);
            each.in_fault = true;
            note("write " + each.name + " " + can_hex(bytes));
            changed = true;
        }
        if (!each.in_fault) {
            earliest = std::min(earliest, each.updated);
            item->all_in_fault = false;
        }
    }
    item->fp_deadline = (from_to(earliest, now) < 0 ? now : earliest) + item->config->fpTimeout;
    if (!changed) {
        return;
    }
    note("commit");
    if (item->config->triggerMode == TRIGGER_ON_CHANGE) {
        item->changed = true;
        woken_ = true;
    }
}

void can_engine_model::go_home(list_id queue, uint32_t now) {
    transaction *item = of(queue).front();
    of(queue).erase(of(queue).begin());
    if (item->config->triggerMode == TRIGGER_CYCLIC) {
        item->next_send = now + static_cast<uint32_t>(item->config->cyclicInterval);
        insert_by_time(item);
    } else {
        of(item->home).push_back(item);
    }
}

bool can_engine_model::head_waits(list_id queue) const {
    return !of(queue).empty() && of(queue).front()->state == WAITING;
}

void can_engine_model::request_step(list_id queue, can_frame &kept, uint32_t now) {
    while (!of(queue).empty()) {
        transaction *item = of(queue).front();
        const transaction_config &config = *item->config;
        const auto timeout = static_cast<uint32_t>(config.responseTimeout);
        if (item->state == SUCCESS || item->state == FAILED || item->state == WAITING) {
            const bool waits = item->state == WAITING;
            if (waits && !is_due(now, item->deadline)) {
                return;
            }
            if (waits && item->retries < config.timeoutRetry) {
                if (send(item, kept)) {
                    item->retries++;
                    item->deadline = now + timeout;
                }
                return;
            }
            if (waits) {
                set_result(item, TIMEOUT);
            }
            go_home(queue, now);
            waiting_ = nullptr;
            if (config.triggerMode == TRIGGER_ON_CHANGE && item->changed) {
                woken_ = true;
            }
            if (waits) {
                set_status(item, 0x80000001U);
                return;
            }
            continue;
        }
        if (item->state == READY) {
            if (config.triggerMode == TRIGGER_CYCLIC && is_protected(&config)) {
                protect(item, now);
            }
            kept = build(item);
            if (send(item, kept)) {
                item->retries = 0;
                item->state = WAITING;
                item->deadline = now + timeout;
                waiting_ = item;
            }
        }
        return;
    }
}

void can_engine_model::transmit_pass(uint32_t now) {
    const auto send_all = [&](list_id queue, auto &&before) {
        while (!of(queue).empty()) {
            before(of(queue).front());
            if (!produce(of(queue).front())) {
                return;
            }
            go_home(queue, now);
        }
    };
    const auto nothing = [](transaction *) {};
    if (is_in_bootup()) {
        request_step(REQUEST_BOOTUP, bootup_request_, now);
        send_all(PRODUCE_BOOTUP, nothing);
        return;
    }
    for (const list_id id :
         {PRODUCE_ON_CHANGE, REQUEST_ON_CHANGE, PRODUCE_CHANGE_QUEUE, REQUEST_CHANGE_QUEUE}) {
        for (transaction *item : of(id)) {
            if (is_protected(item->config)) {
                protect(item, now);
            }
        }
    }
    for (const auto &[from, to] : {std::pair{PRODUCE_CYCLIC, PRODUCE_CYCLIC_QUEUE},
                                   std::pair{REQUEST_CYCLIC, REQUEST_CYCLIC_QUEUE}}) {
        for (transaction *item : list(of(from))) {
            if (is_due(now, item->next_send)) {
                std::erase(of(from), item);
                of(to).push_back(item);
                item->state = from == REQUEST_CYCLIC ? uint8_t{READY} : item->state;
            }
        }
    }
    if (answer_ != nullptr) {
        const bool changed = answer_->changed;
        (void)produce(answer_);
        std::exchange(answer_, nullptr)->changed = changed;
    }
    if (!head_waits(REQUEST_CYCLIC_QUEUE)) {
        request_step(REQUEST_CHANGE_QUEUE, change_request_, now);
    }
    send_all(PRODUCE_CHANGE_QUEUE, nothing);
    if (!head_waits(REQUEST_CHANGE_QUEUE)) {
        request_step(REQUEST_CYCLIC_QUEUE, cyclic_request_, now);
    }
    send_all(PRODUCE_CYCLIC_QUEUE, [&](transaction *item) {
        if (is_protected(item->config)) {
            protect(item, now);
        }
    });
}

void can_engine_model::check_changes() {
    for (const auto &[from, to] : {std::pair{PRODUCE_ON_CHANGE, PRODUCE_CHANGE_QUEUE},
                                   std::pair{REQUEST_ON_CHANGE, REQUEST_CHANGE_QUEUE}}) {
        for (transaction *item : list(of(from))) {
            if (item->changed) {
                std::erase(of(from), item);
                of(to).push_back(item);
                item->state = from == REQUEST_ON_CHANGE ? uint8_t{READY} : item->state;
            }
        }
    }
}

void can_engine_model::receive_pass(uint32_t now, const std::optional<can_frame> &received) {
    for (transaction *item : of(CONSUME_WITH_TIMEOUT)) {
        if (is_due(now, item->deadline)) {
            item->deadline = now + item->config->consumeTimeout;
            set_status(item, 0x80000001U);
            set_result(item, TIMEOUT);
        }
    }
    if (std::exchange(woken_, false)) {
        check_changes();
    }
    if (!received || ((received->can_id & CAN_EFF_FLAG) != 0) != extended_) {
        return;
    }
    const uint32_t id = received->can_id & CAN_EFF_MASK;
    if ((received->can_id & CAN_RTR_FLAG) == 0) {
        take_frame(*received, now);
        return;
    }
    transaction *found = nullptr; // of several, the one whose list and place come last
    for (const list_id kind : {PRODUCE_CYCLIC, PRODUCE_ON_CHANGE, PRODUCE_BOOTUP}) {
        for (const auto &item : all_) {
            if (first_list(*item->config) == kind && item->config->triggerByRTR == 1 &&
                std::any_of(item->frames.begin(), item->frames.end(), [id](const auto &each) {
                    return static_cast<uint32_t>(each.config->canId) == id;
                })) {
                found = item.get();
            }
        }
    }
    answer_ = found != nullptr ? found : answer_;
}

can_engine_model::transaction *can_engine_model::receiver_of(uint32_t id) {
    transaction *found = nullptr;
    for (const list_id kind : {CONSUME, CONSUME_WITH_TIMEOUT}) {
        for (transaction *item : of(kind)) {
            for (const frame &each : item->frames) {
                found = static_cast<uint32_t>(each.config->canId) == id ? item : found;
            }
        }
    }
    if (found == nullptr && waiting_ != nullptr && waiting_->frames.size() > 1 &&
        static_cast<uint32_t>(waiting_->frames[1].config->canId) == id) {
        found = waiting_;
    }
    return found;
}

void can_engine_model::take_frame(const can_frame &received, uint32_t now) {
    transaction *item = receiver_of(received.can_id & CAN_EFF_MASK);
    if (item == nullptr) {
        return;
    }
    set_status(item, 0);
    const bool is_request = item->config->transactionType == TRANSACTION_REQUEST;
    const frame &expected = item->frames[is_request ? 1 : 0];
    if (!is_request && item->config->consumeToutEnable != 0) {
        item->deadline = now + item->config->consumeTimeout;
    }
    std::array<uint8_t, 16> data{};
    memcpy(data.data(), received.data, received.len);
    bool good = received.len == expected.config->dataLength;
    for (const block_config *block = expected.config->blocks; block != nullptr;
         block = block->next) {
        good = good &&
               (block->blockType != BLOCK_CONSTANT || codec_match_constant(data, block->constant));
    }
    set_result(item, good ? SUCCESS : FAILED);
    if (good) {
        publish(expected, data);
    }
}

void can_engine_model::publish(const frame &expected, std::array<uint8_t, 16> data) {
    for (const tag &each : expected.tags) {
        const std::span<uint8_t> bytes{data.data() + each.config->startOffset,
                                       size_of(each.config)};
        codec_swap(bytes, each.config->swap);
        if (each.config->tagType != TAG_RAW) {
            (void)codec_scale(bytes, each.config);
        }
        note("write " + each.name + " " + can_hex(bytes));
    }
    note("commit");
}

void can_engine_model::write_tag(const std::string &name,
                                 const std::vector<uint8_t> &value,
                                 uint32_t now) {
    for (const auto &item : all_) {
        for (frame &each : item->frames) {
            for (tag &one : each.tags) {
                const uint8_t type = each.config->frameType;
                if (one.name != name || type == FRAME_CONSUMED || type == FRAME_RESPONSE) {
                    continue;
                }
                uint8_t *bytes = each.data.data() + one.config->startOffset;
                if (memcmp(bytes, value.data(), size_of(one.config)) != 0) {
                    memcpy(bytes, value.data(), size_of(one.config));
                    item->changed = true;
                    one.in_fault = false;
                    woken_ = true;
                }
                one.updated = now;
            }
        }
    }
}

int32_t can_engine_model::wait_for_head(const transaction *head, uint32_t now) const {
    if (head->state == READY || head->state == SUCCESS || head->state == FAILED) {
        return 0;
    }
    return head->state == WAITING ? std::clamp(from_to(now, head->deadline), 0, 1000) : 1000;
}

int32_t
can_engine_model::wait(uint32_t now, uint32_t fp_deadline, uint32_t consume_deadline) const {
    if (!of(PRODUCE_IDLE).empty()) {
        return 0;
    }
    if (!of(REQUEST_IDLE).empty()) {
        return wait_for_head(of(REQUEST_IDLE).front(), now);
    }
    if (!of(PRODUCE_CHANGE_QUEUE).empty()) {
        return 0;
    }
    int32_t result = 1000;
    const auto lower_to = [&](uint32_t deadline) {
        result = std::min(result, std::max(from_to(now, deadline), 0));
    };
    if (!of(REQUEST_CHANGE_QUEUE).empty()) {
        result = wait_for_head(of(REQUEST_CHANGE_QUEUE).front(), now);
    }
    for (const list_id id : {PRODUCE_CYCLIC, REQUEST_CYCLIC}) {
        for (const transaction *item : of(id)) {
            lower_to(item->next_send);
        }
    }
    if (!of(REQUEST_CYCLIC_QUEUE).empty() && of(REQUEST_CYCLIC_QUEUE).front()->state == READY) {
        result = 0;
    }
    for (const list_id id : {REQUEST_CYCLIC_QUEUE, REQUEST_BOOTUP}) {
        if (head_waits(id)) {
            lower_to(of(id).front()->deadline);
        }
    }
    if (fp_deadline != no_deadline && from_to(now, fp_deadline) >= 0) {
        lower_to(fp_deadline);
    }
    if (consume_deadline != no_deadline) {
        lower_to(consume_deadline);
    }
    return result;
}
