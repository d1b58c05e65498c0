#include "can/receive.h"

#include "can/error_frame.h"
#include "can/hash_table.h"
#include "can/link.h"
#include "can/module.h"
#include "can/reception.h"
#include "can/transmit.h"
#include "core/log.h"
#include "device/clock.h"
#include "device/diag.h"
#include "traffic/recorder.h"

#include <algorithm>
#include <cerrno>
#include <sys/select.h>
#include <sys/socket.h>

namespace {

constexpr int32_t longest_wait_ms = 1000;

/** The shortest wait without a network interface: what is to be sent would keep the port busy. */
constexpr int32_t lost_link_wait_ms = 20;

/** Frames after which a busy port looks for losses; an idle one looks whenever its wait ends. */
constexpr uint32_t frames_per_loss_check = 8192;

/** Milliseconds until a clock value, 0 once it has passed. */
int32_t time_until(uint32_t deadline, uint32_t now) {
    return std::max(clock_difference(deadline, now), 0);
}

int32_t wait_for_head(const trans_list_node *node, pass_clock &clock) {
    switch (node->transaction->state) {
    case STATE_READY:
    case STATE_SUCCESS:
    case STATE_FAILED:
        return 0;
    case STATE_WAITING:
        return std::min(time_until(node->transaction->deadline, clock.now()), longest_wait_ms);
    default:
        return longest_wait_ms;
    }
}

int32_t wait_for_changes(const can_module *module, pass_clock &clock) {
    if (head_of(module, PRODUCE_CHANGE_QUEUE) != nullptr) {
        return 0;
    }
    const trans_list_node *request = head_of(module, REQUEST_CHANGE_QUEUE);
    return request == nullptr ? longest_wait_ms : wait_for_head(request, clock);
}

/** What the cyclic transactions and deadlines leave of a wait. */
int32_t wait_for_schedule(const can_module *module, pass_clock &clock) {
    int32_t wait = longest_wait_ms;
    for (const list_id id : {PRODUCE_CYCLIC, REQUEST_CYCLIC}) {
        if (const trans_list_node *node = head_of(module, id); node != nullptr) {
            wait = std::min(wait, time_until(node->transaction->next_send, clock.now()));
        }
    }
    for (const list_id id : {REQUEST_CYCLIC_QUEUE, REQUEST_BOOTUP}) {
        const trans_list_node *node = head_of(module, id);
        if (node == nullptr) {
            continue;
        }
        if (node->transaction->state == STATE_WAITING) {
            wait = std::min(wait, time_until(node->transaction->deadline, clock.now()));
        } else if (node->transaction->state == STATE_READY && id == REQUEST_CYCLIC_QUEUE) {
            wait = 0;
        }
    }
    if (module->earliest_fp_deadline != no_deadline) {
        const int32_t left = clock_difference(module->earliest_fp_deadline, clock.now());
        wait = left >= 0 ? std::min(wait, left) : wait;
    }
    if (module->earliest_consume_deadline != no_deadline) {
        wait = std::min(wait, time_until(module->earliest_consume_deadline, clock.now()));
    }
    return wait;
}

/** Only the words that select() looks at: the rest of a set need not be cleared for every frame. */
void clear_set(int highest, fd_set *set) {
    constexpr int first_word_bits = 8 * sizeof(fd_mask);
    if (highest < first_word_bits) {
        set->fds_bits[0] = 0;
    } else {
        FD_ZERO(set);
    }
}

void add_to_set(int fd, fd_set *set) {
    if (fd > 0) {
        FD_SET(fd, set);
    }
}

bool is_in_set(int fd, const fd_set *set) {
    return fd > 0 && FD_ISSET(fd, set);
}

void take_tag_writes(can_module *module) {
    uint64_t count = 0;
    (void)!read(module->event_fd, &count, sizeof count); // how many wake-ups does not matter
    check_dx_transaction(module);
}

void handle_remote_frame(can_module *module, const can_frame &frame) {
    trans_list_node *node =
        hash_table_find(module->remote_request_table, frame.can_id & CAN_EFF_MASK);
    if (node != nullptr) {
        module->pending_answer = node;
    }
}

bool has_port_format(const can_module *module, const can_frame &frame) {
    const bool extended = (frame.can_id & CAN_EFF_FLAG) != 0;
    return extended == (module->settings.frameFormat == 1);
}

void handle_frame(can_module *module, diag_record *record, const can_frame &frame) {
    if (!has_port_format(module, frame)) {
        return;
    }
    diag_count(record->rxCount);
    diag_count_bits(record, frame.len);
    const bool remote = (frame.can_id & CAN_RTR_FLAG) != 0;
    // A frame that cannot be recorded is still served.
    (void)can_proprietary_traffic_record_log(
        frame.data, TRAFFIC_RECEIVE, frame.can_id, remote ? 1 : 0, frame.len, module->port_index);
    if (remote) {
        handle_remote_frame(module, frame);
    } else {
        can_proprietary_receive_data(module, frame);
    }
}

/** @return false when there was no whole frame */
bool receive_frame(can_module *module, can_frame *frame) {
    const ssize_t received =
        recvfrom(module->socket, frame, sizeof *frame, MSG_DONTWAIT, nullptr, nullptr);
    if (received < 0) {
        can_link_note_error(module, errno);
    }
    if (received != static_cast<ssize_t>(sizeof *frame)) {
        return false;
    }
    if (++module->frames_since_loss_check >= frames_per_loss_check) {
        can_link_check_loss(module);
    }
    return true;
}

/** @param[in,out] timeout  what is left of it, where the kernel tells */
int wait_for_input(const can_module *module, timeval *timeout, fd_set *readable) {
    const int highest = std::max(module->socket, module->event_fd);
    clear_set(highest, readable);
    add_to_set(module->socket, readable);
    add_to_set(module->event_fd, readable);
    return select(highest + 1, readable, nullptr, nullptr, timeout);
}

/** Whether a wait that began with this timeout ended at once, of which the kernel leaves a trace.
 */
bool ended_at_once(int32_t wait_us, const timeval &left) {
    constexpr int64_t at_once_us = 20;
    const int64_t passed = wait_us - (int64_t{left.tv_sec} * 1000000 + left.tv_usec);
    return passed > 0 && passed < at_once_us;
}

/**
 * Something is due when the clock's millisecond begins, so what has passed of this one is no part
 * of the wait: else every period of a cyclic transaction would be late by what sending it took. And
 * a thousandth of a long wait is left for the next, for by so much the kernel may be late.
 */
int32_t wait_us_of(int32_t wait_ms, const pass_clock &clock) {
    constexpr int32_t long_wait_us = 100000;
    const int32_t wait_us = wait_ms * 1000;
    if (wait_ms <= 0 || !clock.is_known()) {
        return wait_us;
    }
    const int32_t left = wait_us - static_cast<int32_t>(clock.us_passed());
    return left < long_wait_us ? left : left - left / 1000;
}

/**
 * On a busy port the next frame is there already, and a look without a timeout takes the kernel a
 * fifth less of a pass: it neither prepares to wait nor reads its clock.
 */
bool is_more_there(can_module *module, fd_set *readable) {
    timeval none{0, 0};
    module->frames_waiting = wait_for_input(module, &none, readable) > 0;
    return module->frames_waiting;
}

int32_t receive_wait(const can_module *module, pass_clock &clock) {
    // A finished bootup transaction keeps the port awake, or on the pace of its last result, for
    // good. On purpose: installations rely on the reaction time.
    if (head_of(module, PRODUCE_IDLE) != nullptr) {
        return 0;
    }
    if (const trans_list_node *request = head_of(module, REQUEST_IDLE); request != nullptr) {
        return wait_for_head(request, clock);
    }
    const int32_t wait = wait_for_changes(module, clock);
    return wait == 0 ? 0 : std::min(wait, wait_for_schedule(module, clock));
}

/** What is due before the wait. */
void check_deadlines(can_module *module) {
    if (module->earliest_consume_deadline != no_deadline) {
        can_proprietary_check_consume_timeout(module, module->clock.now());
    }
    if (module->link_lost) {
        can_link_recover(module, module->clock.now());
    }
}

/** @return result of select() */
int wait_in_turn(can_module *module, fd_set *readable) {
    const int32_t wait_ms =
        std::max(receive_wait(module, module->clock), module->link_lost ? lost_link_wait_ms : 0);
    check_deadlines(module);
    const int32_t wait_us = wait_us_of(wait_ms, module->clock);
    module->clock.forget();
    timeval timeout{wait_us / 1000000, wait_us % 1000000};
    const int ready = wait_for_input(module, &timeout, readable);
    if (ready > 0) {
        module->frames_waiting =
            is_in_set(module->socket, readable) && ended_at_once(wait_us, timeout);
    } else if (ready == 0 && wait_us > 0) {
        can_link_check_loss(module);
    }
    return ready;
}

/** @return result of select() */
int await_input(can_module *module, fd_set *readable) {
    if (module->frames_waiting) {
        check_deadlines(module);
        if (is_more_there(module, readable)) {
            return 1;
        }
    }
    return wait_in_turn(module, readable);
}

} // namespace

int32_t receive_wait_ms(const can_module *module, uint32_t now) {
    pass_clock clock(now);
    return receive_wait(module, clock);
}

int can_rx_handler(can_module *module) {
    if (module == nullptr) {
        log_error("can_module_get fail\n");
        return -1;
    }
    module->clock.forget();
    return can_rx_continue(module);
}

int can_rx_continue(can_module *module) {
    fd_set readable;
    const int ready = await_input(module, &readable);
    if (ready <= 0) {
        return ready;
    }
    if (is_in_set(module->event_fd, &readable)) {
        take_tag_writes(module);
    }
    if (!is_in_set(module->socket, &readable)) {
        return ready;
    }
    can_frame frame;
    if (!receive_frame(module, &frame)) {
        return ready;
    }
    diag_record *record = can_proprietary_diag_get(module->port_index);
    if (record == nullptr) {
        log_write_error("can_error_notification", __LINE__, "\n");
        return 0;
    }
    if ((frame.can_id & CAN_ERR_FLAG) != 0) {
        can_error_notification(module, record, frame);
    } else {
        handle_frame(module, record, frame);
    }
    return 0;
}
