#ifndef KT_TESTS_CAN_ENGINE_MODEL_H
#define KT_TESTS_CAN_ENGINE_MODEL_H

#include "can/runtime.h"

#include <array>
#include <linux/can.h>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/*
 * The transaction engine once more, as plainly as it can be said: every pass walks every list, no
 * deadline is remembered, and what it does is only written down. Shares the list names and the
 * bytes' codec with the real one, nothing else.
 */
class can_engine_model {
public:
    can_engine_model(const device_config *devices, bool extended, uint32_t now);

    void transmit_pass(uint32_t now);
    void receive_pass(uint32_t now, const std::optional<can_frame> &received);

    /** Another application writes a tag. */
    void write_tag(const std::string &name, const std::vector<uint8_t> &value, uint32_t now);

    /**
     * The wait of a receive pass.
     * @param fp_deadline, consume_deadline  the earliest ones, no_deadline for none
     */
    int32_t wait(uint32_t now, uint32_t fp_deadline, uint32_t consume_deadline) const;

    std::vector<std::string> names(list_id id) const;
    bool is_in_bootup() const;
    std::vector<std::string> tag_names() const;

    /** "send", "refused", "result", "write" and "commit" lines so far; forgets them. */
    std::vector<std::string> take_lines();

    bool refuse_frames = false;

private:
    struct tag {
        const tag_block_config *config;
        std::string name;
        uint32_t updated;
        bool in_fault;
    };
    struct frame {
        const frame_config *config;
        std::array<uint8_t, 16> data;
        std::vector<tag> tags;
    };
    struct transaction {
        const transaction_config *config;
        std::string name;
        std::string device;
        list_id home;
        uint8_t state;
        bool changed;
        unsigned retries;
        uint32_t deadline;
        uint32_t next_send;
        uint32_t fp_deadline;
        bool all_in_fault;
        std::vector<frame> frames;
    };
    using list = std::vector<transaction *>;

    void add(const device_config &device, const transaction_config &config, uint32_t now);
    list &of(list_id id) { return lists_[id]; }
    const list &of(list_id id) const { return lists_[id]; }
    void insert_by_time(transaction *item);
    void go_home(list_id queue, uint32_t now);
    void note(const std::string &line) { lines_.push_back(line); }
    void set_result(transaction *item, uint8_t result);
    void set_status(const transaction *item, uint32_t status);
    can_frame build(transaction *item);
    bool send(const transaction *item, const can_frame &built);
    bool produce(transaction *item);
    void request_step(list_id queue, can_frame &kept, uint32_t now);
    bool head_waits(list_id queue) const;
    void protect(transaction *item, uint32_t now);
    void check_changes();
    void take_frame(const can_frame &received, uint32_t now);
    transaction *receiver_of(uint32_t id);
    void publish(const frame &expected, std::array<uint8_t, 16> data);
    int32_t wait_for_head(const transaction *head, uint32_t now) const;

    std::vector<std::unique_ptr<transaction>> all_;
    std::array<list, LIST_COUNT> lists_;
    std::map<std::string, uint32_t> status_;
    std::vector<std::string> lines_;
    transaction *waiting_ = nullptr;
    transaction *answer_ = nullptr;
    can_frame bootup_request_{};
    can_frame cyclic_request_{};
    can_frame change_request_{};
    bool extended_;
    bool woken_ = false;
};

#endif
