#include "allocation_fault.h"
#include "can/hash_table.h"
#include "can_port_fixture.h"

#include <gtest/gtest.h>
#include <memory>
#include <set>

namespace {

class hash_table_chains : public ::testing::Test {
protected:
    ~hash_table_chains() override { hash_table_free(table); }

    size_t chain_length(uint32_t bucket) const {
        size_t length = 0;
        for (const hash_node *entry = table[bucket]; entry != nullptr; entry = entry->next) {
            length++;
        }
        return length;
    }

    trans_list_node a{};
    trans_list_node b{};
    hash_table table{};
};

TEST_F(hash_table_chains, bucket_is_the_identifier_folded_to_11_bits) {
    for (const uint32_t id : {0U, 0x7ffU, 0x800U, 0x10000U, 0x12345678U, 0x1fffffffU}) {
        const uint32_t bucket = (id ^ (id >> 16)) & 0x7ff;
        hash_table_insert(id, &a, table);
        ASSERT_NE(table[bucket], nullptr) << id;
        EXPECT_EQ(table[bucket]->id, id);
        EXPECT_EQ(table[bucket]->transaction, &a);
    }
}

TEST_F(hash_table_chains, every_standard_identifier_has_a_bucket_of_its_own) {
    for (uint32_t id = 0; id < 2048; id++) {
        hash_table_insert(id, &a, table);
    }
    EXPECT_EQ(table.size(), 2048U);
    for (uint32_t id = 0; id < 2048; id++) {
        EXPECT_EQ(chain_length(id), 1U);
    }
}

TEST_F(hash_table_chains, identifiers_that_share_a_bucket_are_told_apart) {
    hash_table_insert(0x001, &a, table);
    hash_table_insert(0x801, &b, table);
    EXPECT_EQ(chain_length(1), 2U);
    EXPECT_EQ(hash_table_find(table, 0x001), &a);
    EXPECT_EQ(hash_table_find(table, 0x801), &b);
    EXPECT_EQ(hash_table_find(table, 0x1001), nullptr);
    EXPECT_EQ(hash_table_find(table, 0x002), nullptr);
}

TEST_F(hash_table_chains, the_entry_inserted_last_wins) {
    hash_table_insert(5, &a, table);
    hash_table_insert(5, &b, table);
    EXPECT_EQ(hash_table_find(table, 5), &b);
    hash_table_insert(5, &a, table);
    EXPECT_EQ(hash_table_find(table, 5), &a);
    EXPECT_EQ(chain_length(5), 3U);
}

TEST_F(hash_table_chains, free_empties_every_bucket) {
    for (uint32_t id = 0; id < 5000; id++) {
        hash_table_insert(id, &a, table);
    }
    hash_table_free(table);
    for (uint32_t bucket = 0; bucket < 2048; bucket++) {
        ASSERT_EQ(table[bucket], nullptr);
    }
    hash_table_free(table);
}

TEST_F(hash_table_chains, out_of_memory_is_logged_and_leaves_the_frame_unreachable) {
    hash_table_insert(5, &a, table);
    const std::string errors = can_errors_of([&] {
        allocation_fault::arm(1);
        hash_table_insert(5, &b, table);
        EXPECT_TRUE(allocation_fault::disarm());
    });
    EXPECT_EQ(errors, can_error("hash_table_insert", "hash node malloc fail\n"));
    EXPECT_EQ(hash_table_find(table, 5), &a);
}

class hash_table_build : public can_port_fixture {
protected:
    std::string receiver(uint32_t id) { return name_of(hash_table_find(module.receive_table, id)); }
    std::string answerer(uint32_t id) {
        return name_of(hash_table_find(module.remote_request_table, id));
    }

private:
    static std::string name_of(const trans_list_node *found) {
        return found == nullptr ? "none" : found->transaction->config->transactionName;
    }
};

TEST_F(hash_table_build, every_frame_of_every_consume_transaction_is_received) {
    can_add_frame(can_add_consume(device(), "plain", 0x10), 0x11, 8, FRAME_CONSUMED);
    can_add_consume(device(), "timed", 0x12)->consumeToutEnable = 1;
    build();
    EXPECT_EQ(receiver(0x10), "plain");
    EXPECT_EQ(receiver(0x11), "plain");
    EXPECT_EQ(receiver(0x12), "timed");
}

TEST_F(hash_table_build, sent_frames_and_responses_are_not_in_the_receive_table) {
    can_add_produce(device(), "p", TRIGGER_CYCLIC, 0x10);
    can_add_request(device(), "r", TRIGGER_CYCLIC, 0x11, 0x12);
    build();
    EXPECT_EQ(receiver(0x10), "none");
    EXPECT_EQ(receiver(0x11), "none");
    EXPECT_EQ(receiver(0x12), "none");
}

TEST_F(hash_table_build, of_two_consume_transactions_with_one_identifier_the_later_is_found) {
    can_add_consume(device(), "first", 0x10);
    can_add_consume(device(), "second", 0x10);
    build();
    EXPECT_EQ(receiver(0x10), "second");
}

TEST_F(hash_table_build, a_consume_transaction_with_timeout_is_later_than_one_without) {
    can_add_consume(device(), "timed", 0x10)->consumeToutEnable = 1;
    can_add_consume(device(), "plain", 0x10);
    build();
    EXPECT_EQ(receiver(0x10), "timed");
}

TEST_F(hash_table_build, produced_frames_with_triggerByRTR_1_answer_remote_requests) {
    can_add_produce(device(), "cyclic", TRIGGER_CYCLIC, 0x10)->triggerByRTR = 1;
    can_add_produce(device(), "change", TRIGGER_ON_CHANGE, 0x11)->triggerByRTR = 1;
    can_add_produce(device(), "bootup", TRIGGER_BOOTUP, 0x12)->triggerByRTR = 1;
    build();
    EXPECT_EQ(answerer(0x10), "cyclic");
    EXPECT_EQ(answerer(0x11), "change");
    EXPECT_EQ(answerer(0x12), "bootup");
}

TEST_F(hash_table_build, other_transactions_do_not_answer_remote_requests) {
    can_add_produce(device(), "no", TRIGGER_CYCLIC, 0x10)->triggerByRTR = 0;
    can_add_produce(device(), "two", TRIGGER_CYCLIC, 0x11)->triggerByRTR = 2;
    can_add_request(device(), "r", TRIGGER_CYCLIC, 0x12, 0x13)->triggerByRTR = 1;
    can_add_consume(device(), "c", 0x14)->triggerByRTR = 1;
    build();
    for (const uint32_t id : {0x10U, 0x11U, 0x12U, 0x13U, 0x14U}) {
        EXPECT_EQ(answerer(id), "none") << id;
    }
}

TEST_F(hash_table_build, of_two_cyclic_answers_the_later_of_the_configuration_is_found) {
    for (const char *name : {"slow", "fast"}) {
        transaction_config *transaction = can_add_produce(device(), name, TRIGGER_CYCLIC, 0x10);
        transaction->triggerByRTR = 1;
        transaction->cyclicInterval = *name == 's' ? 500 : 50;
    }
    build();
    EXPECT_EQ(answerer(0x10), "fast");
}

TEST_F(hash_table_build, the_later_kind_of_produced_frame_wins) {
    can_add_produce(device(), "bootup", TRIGGER_BOOTUP, 0x10)->triggerByRTR = 1;
    can_add_produce(device(), "change", TRIGGER_ON_CHANGE, 0x10)->triggerByRTR = 1;
    can_add_produce(device(), "change2", TRIGGER_ON_CHANGE, 0x11)->triggerByRTR = 1;
    can_add_produce(device(), "cyclic", TRIGGER_CYCLIC, 0x11)->triggerByRTR = 1;
    build();
    EXPECT_EQ(answerer(0x10), "bootup");
    EXPECT_EQ(answerer(0x11), "change2");
}

} // namespace
