#include "can_engine_model.h"
#include "can_port_fixture.h"

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>
#include <sys/socket.h>

namespace {

/** The engine and its model side by side over a random configuration, bus and clock. */
class engine_and_model : public can_port_fixture {
protected:
    int below(int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)); }
    bool one_in(int chance) { return below(chance) == 0; }
    uint8_t byte() { return static_cast<uint8_t>(below(256)); }

    void add_blocks(frame_config *frame) {
        const int count = below(4);
        for (int i = 0; i < count; i++) {
            const auto offset = static_cast<uint8_t>(below(8));
            const auto size = static_cast<uint8_t>(1 + below(one_in(4) ? 8 : 2));
            if (one_in(4)) {
                can_add_constant(frame, random(), size, offset);
                continue;
            }
            const auto type = static_cast<tag_type>(1 + below(13));
            tag_block_config *tag =
                can_add_tag(frame, std::to_string(tag_count++).c_str(), type, size, offset);
            tag->swap = static_cast<uint8_t>(below(7));
            tag->scalingFunc = static_cast<uint8_t>(below(4));
            tag->scaling = {below(5) - 2.0, below(50) - 20.0, below(9) - 4.0, below(100) / 4.0};
            for (unsigned digit = 0; digit < fp_data_max_bytes; digit++) {
                tag->fpData[digit] = "0123456789abcdefABCDEF"[below(22)];
            }
            tag->fpData[below(25)] = '\0';
        }
    }

    frame_config *add_random_frame(transaction_config *transaction, frame_type type) {
        frame_config *frame =
            can_add_frame(transaction, 0x10 + below(14), static_cast<uint8_t>(below(9)), type);
        add_blocks(frame);
        return frame;
    }

    void add_random_transaction(device_config *owner, int number) {
        const auto type = static_cast<transaction_type>(below(3));
        const auto trigger = one_in(with_bootup ? 6 : 1000000)
                                 ? TRIGGER_BOOTUP
                                 : static_cast<trigger_mode>(below(2));
        transaction_config *made = can_add_transaction(
            owner, (owner->deviceName + std::to_string(number)).c_str(), type, trigger);
        made->transactionEnable = one_in(12) ? 0 : 1;
        made->cyclicInterval = one_in(10) ? 0 : 1 + below(80);
        made->consumeToutEnable = one_in(2) ? 1 : 0;
        made->consumeTimeout = static_cast<uint16_t>(one_in(20) ? 0 : 1 + below(80));
        made->responseTimeout = one_in(20) ? 0 : 1 + below(60);
        made->timeoutRetry = static_cast<uint8_t>(below(3));
        made->triggerByRTR = one_in(2) ? 1 : 0;
        made->fpFunc = static_cast<uint8_t>(below(3));
        made->fpTimeout = static_cast<uint16_t>(one_in(20) ? 0 : 1 + below(60));
        const frame_type first = type == TRANSACTION_CONSUME   ? FRAME_CONSUMED
                                 : type == TRANSACTION_PRODUCE ? FRAME_PRODUCED
                                                               : FRAME_REQUEST;
        add_random_frame(made, first);
        if (type == TRANSACTION_REQUEST || one_in(5)) {
            add_random_frame(made, type == TRANSACTION_REQUEST ? FRAME_RESPONSE : first);
        }
    }

    void configure() {
        with_bootup = one_in(3);
        const int device_count = 1 + below(3);
        for (int i = 0; i < device_count; i++) {
            const std::string name(1, static_cast<char>('a' + i));
            const int transaction_count = 1 + below(6);
            for (int number = 0; number < transaction_count; number++) {
                add_random_transaction(device(name.c_str()), number);
            }
        }
        module.settings.frameFormat = one_in(3) ? 1 : 0;
    }

    /** Mostly a frame that somebody expects. */
    can_frame random_frame() {
        std::vector<const frame_config *> frames;
        for (const device_config *d = devices; d != nullptr; d = d->next) {
            for (const transaction_config *t = d->transactions; t != nullptr; t = t->next) {
                for (const frame_config *f = t->frames; f != nullptr; f = f->next) {
                    frames.push_back(f);
                }
            }
        }
        const frame_config *like =
            frames[static_cast<size_t>(below(static_cast<int>(frames.size())))];
        frame_buffer data{};
        std::generate(data.begin(), data.end(), [this] { return byte(); });
        for (const block_config *block = like->blocks; block != nullptr; block = block->next) {
            if (block->blockType == BLOCK_CONSTANT && !one_in(10)) {
                codec_lay(data, block->constant);
            }
        }
        can_frame frame{};
        frame.can_id = static_cast<uint32_t>(like->canId);
        frame.can_id |= (module.settings.frameFormat == 1) != one_in(20) ? CAN_EFF_FLAG : 0;
        frame.len = one_in(12) ? static_cast<uint8_t>(below(9)) : like->dataLength;
        std::copy_n(data.begin(), CAN_MAX_DLEN, frame.data);
        if (one_in(5)) {
            frame.can_id |= CAN_RTR_FLAG;
        }
        return frame;
    }

    static void codec_lay(frame_buffer &data, const constant_block_config *constant) {
        for (size_t i = 0; i < constant->constantSize; i++) {
            data[constant->startOffset + i] =
                static_cast<uint8_t>(constant->constantValue >> (8 * i));
        }
    }

    static uint32_t start_time(int choice, int offset) {
        constexpr uint32_t starts[] = {1000, 0xffffff00U, 0xfffffb00U, 0x7ffffe00U, 0};
        return starts[choice] + static_cast<uint32_t>(offset);
    }

    uint32_t random_step(const can_engine_model &model) {
        switch (below(6)) {
        case 0:
            return 0;
        case 1:
            return 1;
        case 2:
            return static_cast<uint32_t>(below(200));
        case 3:
            return static_cast<uint32_t>(below(8));
        default:
            return static_cast<uint32_t>(model.wait(
                can_clock_now(), module.earliest_fp_deadline, module.earliest_consume_deadline));
        }
    }

    void expect_same(can_engine_model &model) {
        ASSERT_EQ(can_take_lines({"send", "refused", "result", "write", "commit"}),
                  model.take_lines());
        for (int id = 0; id < LIST_COUNT; id++) {
            ASSERT_EQ(names(static_cast<list_id>(id)), model.names(static_cast<list_id>(id)))
                << "list " << id;
        }
    }

    bool has_tag_not_in_fault(const transaction_info *info) const {
        for (const function_block_info *block = info->frames->blocks; block != nullptr;
             block = block->next) {
            if (block->kind == BLOCK_TAG && block->data->fault_mark == 0) {
                return true;
            }
        }
        return false;
    }

    /** The remembered deadlines against all the lists. */
    void expect_right_deadlines() {
        uint32_t fault = no_deadline;
        for (const list_id id :
             {PRODUCE_ON_CHANGE, REQUEST_ON_CHANGE, PRODUCE_CHANGE_QUEUE, REQUEST_CHANGE_QUEUE}) {
            for (trans_list_node *each = head_of(&module, id); each != nullptr; each = each->next) {
                const transaction_info *info = each->transaction;
                ASSERT_FALSE(info->all_in_fault && has_tag_not_in_fault(info));
                if (has_fault_protection(info->config) && !info->all_in_fault) {
                    lower_deadline(fault, info->fp_deadline);
                }
            }
        }
        ASSERT_EQ(module.earliest_fp_deadline, fault);
        uint32_t consume = no_deadline;
        for (trans_list_node *each = head_of(&module, CONSUME_WITH_TIMEOUT); each != nullptr;
             each = each->next) {
            lower_deadline(consume, each->transaction->deadline);
        }
        // A frame that comes in time only raises the real one.
        ASSERT_EQ(module.earliest_consume_deadline == no_deadline, consume == no_deadline);
        ASSERT_LE(static_cast<int32_t>(module.earliest_consume_deadline - consume), 0);
    }

    void write_some_tags(can_engine_model &model) {
        const std::vector<std::string> tags = model.tag_names();
        while (!tags.empty() && one_in(2)) {
            const std::string &name =
                tags[static_cast<size_t>(below(static_cast<int>(tags.size())))];
            std::vector<uint8_t> value(8);
            if (!one_in(3)) {
                std::generate(value.begin(), value.end(), [this] { return byte(); });
            }
            can_dx_put(name, value);
            model.write_tag(name, value, can_clock_now());
        }
    }

    void step(can_engine_model &model) {
        can_clock_advance(random_step(model));
        const bool refuse = one_in(8);
        can_calls().refuse_frames = refuse;
        model.refuse_frames = refuse;
        const bool bootup = model.is_in_bootup();
        (void)tx();
        model.transmit_pass(can_clock_now());
        ASSERT_NO_FATAL_FAILURE(expect_same(model));
        if (!bootup) {
            ASSERT_NO_FATAL_FAILURE(expect_right_deadlines());
        }
        ASSERT_EQ(receive_wait_ms(&module, can_clock_now()),
                  model.wait(can_clock_now(),
                             module.earliest_fp_deadline,
                             module.earliest_consume_deadline));
        write_some_tags(model);
        std::optional<can_frame> frame;
        if (one_in(2)) {
            frame = random_frame();
            put(*frame);
        }
        (void)rx();
        model.receive_pass(can_clock_now(), frame);
        ASSERT_NO_FATAL_FAILURE(expect_same(model));
        drain_bus();
    }

    void drain_bus() const {
        can_frame frame;
        while (recv(bus, &frame, sizeof frame, MSG_DONTWAIT) > 0) {
        }
    }

    std::mt19937 random;
    bool with_bootup = false;
    int tag_count = 0;
};

/** Each run has a port of its own. */
class engine_against_model : public ::testing::TestWithParam<int> {};

constexpr int seeds_per_test = 50;
constexpr int steps_per_seed = 150;

class one_run : public engine_and_model {
public:
    void run(unsigned seed) {
        random.seed(seed);
        configure();
        const uint32_t now = start_time(below(5), below(400));
        build(now);
        can_engine_model model(devices, module.settings.frameFormat == 1, now);
        for (int i = 0; i < steps_per_seed && !HasFatalFailure(); i++) {
            SCOPED_TRACE("seed " + std::to_string(seed) + " step " + std::to_string(i));
            step(model);
        }
    }

private:
    void TestBody() override {}
};

TEST_P(engine_against_model, does_the_same_at_the_same_time) {
    for (int i = 0; i < seeds_per_test && !HasFatalFailure(); i++) {
        one_run().run(static_cast<unsigned>(GetParam() * seeds_per_test + i));
    }
}

INSTANTIATE_TEST_SUITE_P(seeds, engine_against_model, ::testing::Range(0, 16));

} // namespace
