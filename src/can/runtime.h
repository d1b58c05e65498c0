#ifndef KT_CAN_RUNTIME_H
#define KT_CAN_RUNTIME_H

#include "can/pass_clock.h"
#include "config/model.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <linux/can.h>
#include <pthread.h>
#include <span>
#include <unistd.h>

/*
 * Runtime records of a port: plain data, shared by the CAN runtime and the tag bridge.
 *
 * THREAD SAFETY: a port's records belong to its port thread. The data-exchange thread touches only
 * a frame's data buffer, a transaction's data-changed flag and a tag's fault mark, under the module
 * mutex, and the tag's time of last update, an atomic. All clock values are sys_clock_ms().
 */

struct dx_tag;
struct can_module;
struct frame_info;
struct data_info;
struct trans_list_node;

enum request_state : uint8_t {
    STATE_SUCCESS = 0,
    STATE_FAILED = 1,
    STATE_TIMEOUT = 2,
    STATE_READY = 3,
    STATE_WAITING = 4,
    STATE_INITIAL = 255
};

/**
 * Bytes of a frame's data buffer. A block may start at byte 7 and be 8 bytes long: what lies beyond
 * the frame's 8 bytes is room for it that never reaches the bus.
 */
constexpr uint8_t frame_buffer_bytes = 2 * CAN_MAX_DLEN;

using frame_buffer = std::array<uint8_t, frame_buffer_bytes>;

struct tag_info {
    char *name; /* owned; nullptr once the tag is registered under it */
    dx_tag *tag;
    can_module *module;
    frame_info *frame;
    data_info *data;
};

struct transaction_info;

struct data_info {
    uint8_t tag_size; /* bytes */
    uint8_t fault_mark;
    std::atomic<uint32_t> last_update;
    tag_info *tag;
    transaction_info *transaction;
    const tag_block_config *config;
};

/** What a received block goes through before it is published, in this order. */
enum block_decoding : uint8_t {
    DECODE_NOTHING = 0,
    DECODE_PAIR = 1, /* two bytes change places: by far the most frequent swap */
    DECODE_SWAP = 2, /* any other */
    DECODE_SCALE = 4
};

struct function_block_info {
    uint8_t kind;                          /* block_type */
    uint8_t decoding;                      /* block_decoding; this and the next three are what a */
    uint8_t start;                         /* received frame needs of a BLOCK_TAG */
    uint8_t length;                        /* bytes from start, within the buffer */
    dx_tag *tag;                           /* nullptr when the tag service did not take it */
    data_info *data;                       /* BLOCK_TAG */
    const constant_block_config *constant; /* BLOCK_CONSTANT */
    function_block_info *next;
};

struct frame_info {
    frame_buffer data;
    const frame_config *config;
    function_block_info *blocks;
    frame_info *next;
};

struct transaction_info {
    uint8_t device_status_index;
    uint8_t data_changed;
    uint8_t state; /* request_state */
    uint8_t retry_count;
    bool all_in_fault;  /* as of the last check of its fault protection */
    bool has_constants; /* some of its frames have */
    uint32_t diag_slot;
    uint32_t deadline; /* of the response, or of the consumed frame */
    uint32_t next_send;
    uint32_t fp_deadline;
    const transaction_config *config;
    frame_info *frames;
};

struct trans_list {
    trans_list_node *head;
    trans_list_node *tail;
};

struct trans_list_node {
    trans_list *home;
    const char *device_name; /* the configuration's */
    transaction_info *transaction;
    trans_list_node *next;
};

/** A node stands in one list at a time. */
enum list_id : uint8_t {
    PRODUCE_CYCLIC, /* ordered by next send time */
    REQUEST_CYCLIC, /* ordered by next send time */
    PRODUCE_ON_CHANGE,
    REQUEST_ON_CHANGE,
    PRODUCE_BOOTUP, /* not yet sent */
    REQUEST_BOOTUP, /* not yet completed */
    PRODUCE_IDLE,   /* bootup, done */
    REQUEST_IDLE,   /* bootup, done */
    CONSUME,
    CONSUME_WITH_TIMEOUT,
    PRODUCE_CHANGE_QUEUE, /* due */
    PRODUCE_CYCLIC_QUEUE, /* due */
    REQUEST_CHANGE_QUEUE, /* due or running */
    REQUEST_CYCLIC_QUEUE, /* due or running */
    LIST_COUNT
};

struct hash_node {
    uint32_t id; /* CAN identifier */
    trans_list_node *transaction;
    hash_node *next;
};

constexpr uint32_t hash_bucket_count = 2048;

using hash_table = std::array<hash_node *, hash_bucket_count>;

/** No deadline, where a clock value may be missing. */
constexpr uint32_t no_deadline = UINT32_MAX;

/** What a port thread clears at its start. */
struct can_module_pass {
    int32_t socket;
    int32_t event_fd;
    uint8_t port_index;
    uint32_t interface_index; /* the kernel's; the address to send to */
    interface_config settings;
    device_config *configuration; /* owned */
    hash_table receive_table;
    hash_table remote_request_table;
    std::array<trans_list, LIST_COUNT> lists;
    trans_list_node *waiting;        /* the request whose response is awaited */
    trans_list_node *pending_answer; /* the produce transaction a remote frame asked for */
    can_frame *bootup_request;       /* frames kept for resends, allocated when used; owned */
    can_frame *cyclic_request;
    can_frame *change_request;
    pass_clock clock;
    uint32_t earliest_fp_deadline; /* of on-change transactions with a tag not in fault */
    bool fp_check_wanted;          /* a tag write may have ended a fault */
    uint32_t earliest_consume_deadline;
    uint32_t frames_since_loss_check;
    bool frames_waiting;  /* the last one had been there before the wait for it */
    uint32_t frames_lost; /* the socket's drop counter as last seen */
    bool link_lost;       /* the network interface went away */
    uint32_t link_retry;  /* clock value of the next look for it */
    pthread_mutex_t mutex;
};

/** One per port, made at start, in port order. */
struct can_module : can_module_pass {
    can_module *next;
};

/** The bytes of a block, within the buffer whatever the configuration says. */
inline std::span<uint8_t> block_bytes(frame_buffer &buffer, uint8_t offset, uint8_t size) {
    constexpr uint8_t longest = CAN_MAX_DLEN;
    return {buffer.data() + std::min(offset, longest), std::min(size, longest)};
}

inline std::span<uint8_t> bytes_of(frame_info *frame, const data_info *data) {
    return block_bytes(frame->data, data->config->startOffset, data->tag_size);
}

/** Wake the port's receive pass. */
inline void can_module_wake(const can_module *module) {
    constexpr uint64_t one = 1;
    // A full counter means that the wake-up is already pending.
    (void)!write(module->event_fd, &one, sizeof one);
}

/** True for the frames that a port only receives. */
inline bool is_received_frame(const frame_config *frame) {
    return (frame->frameType & ~FRAME_REQUEST) == FRAME_CONSUMED;
}

#endif
