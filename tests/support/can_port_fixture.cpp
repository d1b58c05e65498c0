#include "can_port_fixture.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

can_port_fixture::can_port_fixture() {
    can_calls_reset();
    can_device_reset();
    can_dx_reset();
    can_clock_set(1000);
    can_clock_on_read({});
    int pair[2] = {-1, -1};
    (void)socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair);
    module.socket = pair[0];
    bus = pair[1];
    module.event_fd = eventfd(0, EFD_CLOEXEC);
    module.interface_index = 7;
    (void)pthread_mutex_init(&module.mutex, nullptr);
    can_proprietary_dx_create();
}

can_port_fixture::~can_port_fixture() {
    hash_table_free(module.receive_table);
    hash_table_free(module.remote_request_table);
    can_proprietary_transaction_list_free(&module);
    can_proprietary_device_status_release();
    can_proprietary_dx_destroy();
    EXPECT_EQ(can_dx_tag_count(), 0U);
    free(module.bootup_request);
    free(module.cyclic_request);
    free(module.change_request);
    (void)pthread_mutex_destroy(&module.mutex);
    (void)close(module.socket);
    (void)close(module.event_fd);
    (void)close(bus);
    conf_free_device_list(devices);
    can_calls_reset();
    can_device_reset();
    (void)can_take_lines();
}

void can_port_fixture::build(uint32_t now) {
    uint8_t count = 0;
    for (const device_config *each = devices; each != nullptr; each = each->next) {
        count++;
    }
    can_proprietary_device_status_init(count);
    can_clock_set(now);
    module.configuration = devices;
    ASSERT_EQ(can_proprietary_transaction_list_init(&module, now), 0);
    can_module_build_tables(&module);
    can_module_order_cyclic(&module);
    (void)can_take_lines();
}

device_config *can_port_fixture::device(const char *name) {
    for (device_config *each = devices; each != nullptr; each = each->next) {
        if (strcmp(each->deviceName, name) == 0) {
            return each;
        }
    }
    return can_add_device(&devices, name);
}

void can_port_fixture::put(uint32_t id, std::initializer_list<uint8_t> data) {
    can_frame frame{};
    frame.can_id = id;
    frame.len = static_cast<uint8_t>(data.size());
    std::copy(data.begin(), data.end(), frame.data);
    put(frame);
}

void can_port_fixture::put(const can_frame &frame) {
    ASSERT_EQ(send(bus, &frame, sizeof frame, MSG_DONTWAIT), static_cast<ssize_t>(sizeof frame));
}

void can_port_fixture::receive(uint32_t id, std::initializer_list<uint8_t> data) {
    put(id, data);
    (void)rx();
}

void can_port_fixture::write_tag(const std::string &tag, const std::vector<uint8_t> &value) {
    can_dx_put("can_proprietary/" + tag, value);
    take_tag_writes();
}

trans_list_node *can_port_fixture::node(const std::string &name) {
    for (const trans_list &list : module.lists) {
        for (trans_list_node *each = list.head; each != nullptr; each = each->next) {
            if (name == each->transaction->config->transactionName) {
                return each;
            }
        }
    }
    ADD_FAILURE() << "no transaction " << name;
    return nullptr;
}

data_info *can_port_fixture::tag_of(const std::string &name) {
    function_block_info *block = info(name)->frames->blocks;
    while (block->kind != BLOCK_TAG) {
        block = block->next;
    }
    return block->data;
}

std::vector<std::string> can_port_fixture::names(list_id id) {
    std::vector<std::string> result;
    const trans_list_node *last = nullptr;
    for (const trans_list_node *each = module.lists[id].head; each != nullptr; each = each->next) {
        result.emplace_back(each->transaction->config->transactionName);
        last = each;
    }
    EXPECT_EQ(module.lists[id].tail, last) << "tail of list " << id;
    return result;
}

bool can_port_fixture::is_woken() const {
    pollfd wanted{module.event_fd, POLLIN, 0};
    return poll(&wanted, 1, 0) == 1;
}
