#include "always.h"
#include "can/hash_table.h"
#include "can/module.h"
#include "can/receive.h"
#include "can/transaction_list.h"
#include "can/transmit.h"
#include "can_below.h"
#include "can_clock.h"
#include "can_config.h"
#include "can_reference.h"
#include "core/state.h"
#include "device/diag.h"
#include "device/led.h"
#include "fuzz_input.h"
#include "tags/status_tag.h"
#include "tags/tag.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

/*
 * A configuration with any numbers that its records can hold, then what happens to its port: frames
 * of every kind and length, tag writes, time. What is published is what a simple decoder makes of
 * the same frame; what is sent is what the tags hold.
 */

namespace {

constexpr size_t steps_max = 64;

// Configuration

double take_number(fuzz_input &in) {
    constexpr std::array common = {0.0, 1.0, -1.0, 0.5, 2.0, 10.0, 100.0, 65535.0};
    const size_t choice = in.below(common.size() + 2);
    return choice < common.size() ? common[choice] : in.take<double>();
}

/** Mostly what fits into a frame. */
uint8_t take_small(fuzz_input &in) {
    const uint8_t value = in.byte();
    return value < 240 ? value % 9 : value;
}

void add_tag_block(fuzz_input &in, frame_config *frame, int number) {
    const auto type = static_cast<tag_type>(in.below(15));
    const uint8_t size = take_small(in);
    const uint8_t offset = take_small(in);
    tag_block_config *tag =
        can_add_tag(frame, ("b" + std::to_string(number)).c_str(), type, size, offset);
    tag->swap = static_cast<uint8_t>(in.below(7));
    tag->scalingFunc = static_cast<uint8_t>(in.below(4));
    if (tag->scalingFunc != SCALING_NONE) {
        tag->scaling = {take_number(in), take_number(in), take_number(in), take_number(in)};
    }
    const size_t other = in.below(32);
    if (other == 1) {
        memcpy(tag->access, tag->access[0] == 'r' ? "wo" : "ro", sizeof tag->access);
    } else if (other == 2) {
        memcpy(tag->access, "rw", sizeof tag->access);
    } else if (other > 24) {
        const std::string_view text = in.take_text(fp_data_max_bytes);
        text.copy(tag->fpData, text.size());
    }
}

void add_block(fuzz_input &in, frame_config *frame, int number) {
    const size_t kind = in.below(16);
    if (kind < 4) {
        const uint8_t size = take_small(in);
        const uint8_t offset = take_small(in);
        can_add_constant(frame, in.take<uint64_t>(), size, offset);
        return;
    }
    add_tag_block(in, frame, number);
}

int32_t take_id(fuzz_input &in) {
    const auto id = in.take<uint16_t>();
    return (id & 0x8000) != 0 ? static_cast<int32_t>(in.take<uint32_t>() & CAN_EFF_MASK)
                              : id & CAN_SFF_MASK;
}

void add_transaction(fuzz_input &in, device_config *device, int number) {
    const size_t type = in.below(8);
    transaction_config *transaction =
        can_add_transaction(device,
                            ("t" + std::to_string(number)).c_str(),
                            static_cast<transaction_type>(type < 7 ? type % 3 : 3),
                            static_cast<trigger_mode>(in.below(4)));
    const uint8_t flags = in.byte();
    transaction->transactionEnable = (flags & 0x0F) != 1;
    transaction->consumeToutEnable = (flags & 0x10) != 0;
    transaction->triggerByRTR = (flags & 0x20) != 0;
    transaction->fpFunc = (flags & 0xC0) == 0xC0 ? static_cast<uint8_t>(in.below(3)) : 0;
    transaction->timeoutRetry = static_cast<uint8_t>(in.below(3));
    transaction->responseTimeout = static_cast<int32_t>(in.below(8)) * 50 - 50;
    const size_t frames = in.below(4);
    for (size_t i = 0; i < frames; i++) {
        const bool received = type % 3 == TRANSACTION_CONSUME || i == 1;
        const int32_t id = take_id(in);
        frame_config *frame = can_add_frame(
            transaction, id, take_small(in), received ? FRAME_CONSUMED : FRAME_PRODUCED);
        const size_t blocks = in.below(5);
        for (size_t block = 0; block < blocks; block++) {
            add_block(in, frame, static_cast<int>(10 * i + block));
        }
    }
}

device_config *take_devices(fuzz_input &in) {
    device_config *devices = nullptr;
    const size_t device_count = 1 + in.below(3);
    for (size_t i = 0; i < device_count; i++) {
        device_config *device = can_add_device(&devices, ("d" + std::to_string(i)).c_str());
        const size_t transactions = in.below(5);
        for (size_t number = 0; number < transactions; number++) {
            add_transaction(in, device, static_cast<int>(number));
        }
    }
    return devices;
}

// What a port sends

struct sender {
    const transaction_config *transaction;
    const frame_config *frame; // its first
    reference_buffer data;
    std::vector<uint8_t> last_sent; // a request repeats it
};

struct writable_tag {
    std::string name;
    size_t sender;
    const tag_block_config *config;
};

class outgoing {
public:
    explicit outgoing(const device_config *devices) {
        for (const device_config *device = devices; device != nullptr; device = device->next) {
            for (const transaction_config *each = device->transactions; each != nullptr;
                 each = each->next) {
                if (each->transactionEnable != 0 && each->frames != nullptr) {
                    add(device, each);
                }
            }
        }
    }

    void write(fuzz_input &in) {
        if (tags_.empty()) {
            return;
        }
        const writable_tag &tag = tags_[in.below(tags_.size())];
        if (!can_below_write(tag.name, in.take_text(in.below(9)))) {
            return;
        }
        const std::vector<uint8_t> *value = can_below_tag(tag.name);
        KT_ALWAYS(value != nullptr);
        reference_write(senders_[tag.sender].data, tag.config, *value);
    }

    /** Every frame on the bus is one of the configuration, with what its tags hold. */
    void check(const interface_config &settings) {
        for (const can_frame &frame : can_below_sent()) {
            KT_ALWAYS(((frame.can_id & CAN_EFF_FLAG) != 0) == (settings.frameFormat == 1));
            bool known = false;
            for (sender &each : senders_) {
                known = explains(each, frame) || known;
            }
            KT_ALWAYS(known);
        }
    }

private:
    void add(const device_config *device, const transaction_config *transaction) {
        const frame_config *frame = transaction->frames;
        senders_.push_back({transaction, frame, reference_start(frame), {}});
        if (is_received(frame)) {
            return; // what is written to it stays outside
        }
        for (const block_config *block = frame->blocks; block != nullptr; block = block->next) {
            if (block->blockType == BLOCK_TAG) {
                tags_.push_back({reference_tag_name(device, transaction, block->tag),
                                 senders_.size() - 1,
                                 block->tag});
            }
        }
    }

    static bool is_received(const frame_config *frame) {
        return frame->frameType == FRAME_CONSUMED || frame->frameType == FRAME_RESPONSE;
    }

    static bool explains(sender &each, const can_frame &frame) {
        if (static_cast<uint32_t>(each.frame->canId) != (frame.can_id & CAN_EFF_MASK) ||
            each.frame->dataLength != frame.len) {
            return false;
        }
        const std::vector<uint8_t> bytes(frame.data, frame.data + frame.len);
        if (each.transaction->fpFunc != 0) {
            return true; // fault values come and go by the clock
        }
        if (bytes == reference_sent(each.data, each.frame)) {
            each.last_sent = bytes;
            return true;
        }
        return each.transaction->transactionType == TRANSACTION_REQUEST && bytes == each.last_sent;
    }

    std::vector<sender> senders_;
    std::vector<writable_tag> tags_;
};

// The port

class port {
public:
    port(device_config *devices, const interface_config &settings) : devices_(devices) {
        module_.settings = settings;
        module_.socket = socket_;
        module_.event_fd = eventfd(0, EFD_CLOEXEC);
        (void)pthread_mutex_init(&module_.mutex, nullptr); // cannot fail for a plain mutex
        can_below_reset();
        can_clock_set(1000);
        uint8_t count = 0;
        for (const device_config *each = devices; each != nullptr; each = each->next) {
            count++;
        }
        can_proprietary_device_status_init(count);
        module_.configuration = devices;
        runs_ = can_proprietary_transaction_list_init(&module_, 1000) == 0;
        can_module_build_tables(&module_);
        can_module_order_cyclic(&module_);
    }

    ~port() {
        hash_table_free(module_.receive_table);
        hash_table_free(module_.remote_request_table);
        can_proprietary_transaction_list_free(&module_);
        can_proprietary_device_status_release();
        free(module_.bootup_request);
        free(module_.cyclic_request);
        free(module_.change_request);
        can_proprietary_diag_forget_transactions(0);
        (void)pthread_mutex_destroy(&module_.mutex);
        (void)close(module_.event_fd);
    }

    port(const port &) = delete;
    port &operator=(const port &) = delete;

    [[nodiscard]] bool runs() const { return runs_; }

    void pass() { KT_ALWAYS(can_tx_handler(&module_) == 0); }
    void receive() { KT_ALWAYS(can_rx_handler(&module_) >= 0); }

    /** A whole classic frame, and what it must mean. */
    void receive(const can_frame &frame) {
        const trans_list_node *waiting = module_.waiting;
        const expectation expected =
            expect_received(devices_,
                            module_.settings,
                            waiting == nullptr ? nullptr : waiting->transaction->config,
                            frame);
        can_below_receive({reinterpret_cast<const char *>(&frame), sizeof frame});
        receive();
        check(expected);
    }

    /** Frames that the configuration knows. */
    uint32_t some_id(size_t choice) const {
        std::vector<uint32_t> ids;
        for (const device_config *device = devices_; device != nullptr; device = device->next) {
            for (const transaction_config *each = device->transactions; each != nullptr;
                 each = each->next) {
                for (const frame_config *frame = each->frames; frame != nullptr;
                     frame = frame->next) {
                    ids.push_back(static_cast<uint32_t>(frame->canId));
                }
            }
        }
        return ids.empty() ? 0 : ids[choice % ids.size()];
    }

    [[nodiscard]] const interface_config &settings() const { return module_.settings; }

private:
    static void check(const expectation &expected) {
        if (const auto *status = can_below_tag(expected.status_tag); status != nullptr) {
            KT_ALWAYS(*status == std::vector<uint8_t>(4, 0));
        }
        for (const expected_value &value : expected.values) {
            const std::vector<uint8_t> *published = can_below_tag(value.tag);
            KT_ALWAYS(published == nullptr || same_value(value, *published));
        }
    }

    static const int socket_;

    device_config *devices_;
    can_module module_{};
    bool runs_ = false;
};

const int port::socket_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0); // nothing passes it

can_frame take_frame(fuzz_input &in, const port &port) {
    can_frame frame{};
    const uint8_t kind = in.byte();
    frame.can_id = (kind & 0x40) != 0 ? in.take<uint32_t>() : port.some_id(in.byte());
    if ((kind & 0x80) == 0) { // of the port's kind
        frame.can_id &= CAN_EFF_MASK;
        frame.can_id |= port.settings().frameFormat == 1 ? CAN_EFF_FLAG : 0;
        frame.can_id |= (kind & 0x3F) == 1 ? CAN_RTR_FLAG : 0;
    }
    frame.len = take_small(in);
    const std::string_view data = in.take_text(std::min<size_t>(frame.len, CAN_MAX_DLEN));
    data.copy(reinterpret_cast<char *>(frame.data), data.size());
    return frame;
}

void step(fuzz_input &in, port &port, outgoing &outgoing) {
    switch (in.below(8)) {
    case 0:
        can_clock_advance(in.below(3) == 2 ? in.take<uint32_t>() : in.byte());
        break;
    case 1:
        outgoing.write(in);
        port.receive();
        break;
    case 2: // any bytes and lengths, also those of CAN FD
        can_below_receive(in.take_text(in.below(73)));
        port.receive();
        break;
    case 3:
        can_below_refuse(in.flag());
        break;
    case 4:
        port.pass();
        break;
    default:
        port.receive(take_frame(in, port));
        break;
    }
    outgoing.check(port.settings());
}

void run(fuzz_input &in) {
    interface_config settings{};
    settings.portId = 1;
    settings.frameFormat = in.flag() ? 1 : 0;
    device_config *devices = take_devices(in);
    {
        port port(devices, settings);
        outgoing outgoing(devices);
        for (size_t i = 0; port.runs() && !in.empty() && i < steps_max; i++) {
            step(in, port, outgoing);
        }
    }
    conf_free_device_list(devices);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    silence_the_log();
    g_can_port_count = 1;
    can_proprietary_dx_create();
    can_proprietary_led_init();
    return can_proprietary_diag_create_infos(1);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_input in(data, size);
    run(in);
    return 0;
}
