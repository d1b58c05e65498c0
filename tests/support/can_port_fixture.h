#ifndef KT_TESTS_CAN_PORT_FIXTURE_H
#define KT_TESTS_CAN_PORT_FIXTURE_H

#include "can/hash_table.h"
#include "can/module.h"
#include "can/receive.h"
#include "can/transaction_list.h"
#include "can/transmit.h"
#include "can_calls.h"
#include "can_capture.h"
#include "can_clock.h"
#include "can_config.h"
#include "can_device_fake.h"
#include "can_dx_fake.h"
#include "can_journal.h"
#include "tags/status_tag.h"
#include "tags/tag.h"

#include <gmock/gmock.h>
#include <initializer_list>
#include <string>
#include <vector>

/*
 * One port without its thread: the test makes the passes. The far end of its socket is the bus, its
 * tag service and diagnostics are doubles, its clock stands at 1000 ms.
 */
class can_port_fixture : public ::testing::Test {
protected:
    can_port_fixture();
    ~can_port_fixture() override;

    /** Build the port from the configuration and forget what that noted. */
    void build(uint32_t now = 1000);

    /** A device of the configuration, made when it is first named. */
    device_config *device(const char *name = "dev");

    int tx() { return can_tx_handler(&module); }
    int rx() { return can_rx_handler(&module); }

    /** Put a frame on the bus. */
    void put(uint32_t id, std::initializer_list<uint8_t> data);
    void put(const can_frame &frame);

    /** Put a data frame on the bus and take it. */
    void receive(uint32_t id, std::initializer_list<uint8_t> data);

    /** Take what tag writes have left to do, without anything on the bus. */
    void take_tag_writes() { (void)rx(); }

    /** Write "can_proprietary/<tag>" as another application and let the port see it. */
    void write_tag(const std::string &tag, const std::vector<uint8_t> &value);

    uint32_t wait() const {
        return static_cast<uint32_t>(receive_wait_ms(&module, can_clock_now()));
    }

    trans_list_node *node(const std::string &name);
    transaction_info *info(const std::string &name) { return node(name)->transaction; }
    data_info *tag_of(const std::string &name);

    /** Names of the transactions of a list, in order; checks the tail. */
    std::vector<std::string> names(list_id id);

    bool is_woken() const;

    can_module module{};
    int bus = -1;
    device_config *devices = nullptr;
};

#endif
