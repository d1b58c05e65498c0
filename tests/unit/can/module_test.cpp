#include "can/module.h"
#include "can_port_fixture.h"
#include "core/state.h"

#include <gtest/gtest.h>
#include <memory>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class module_of_port : public ::testing::Test {
protected:
    module_of_port() {
        first.next = &second;
        second.next = &third;
        g_can_module_list = &first;
        g_can_port_count = 3;
    }
    ~module_of_port() override {
        g_can_module_list = nullptr;
        g_can_port_count = 0;
    }
    can_module first{};
    can_module second{};
    can_module third{};
};

TEST_F(module_of_port, is_found_by_its_index) {
    EXPECT_EQ(can_module_get(0), &first);
    EXPECT_EQ(can_module_get(1), &second);
    EXPECT_EQ(can_module_get(2), &third);
}

TEST_F(module_of_port, is_missing_where_the_list_ends_early) {
    second.next = nullptr;
    const std::string errors = can_errors_of([] { EXPECT_EQ(can_module_get(2), nullptr); });
    EXPECT_EQ(errors, can_error("can_module_get", "can_module 2 is NULL\n"));
    first.next = nullptr;
    const std::string earlier = can_errors_of([] { EXPECT_EQ(can_module_get(2), nullptr); });
    EXPECT_EQ(earlier, can_error("can_module_get", "can_module 1 is NULL\n"));
}

TEST_F(module_of_port, is_missing_for_an_index_outside_the_ports) {
    EXPECT_EQ(can_errors_of([] { EXPECT_EQ(can_module_get(3), nullptr); }),
              can_error("can_module_get", "can_module 3 is NULL\n"));
    EXPECT_EQ(can_errors_of([] { EXPECT_EQ(can_module_get(-1), nullptr); }),
              can_error("can_module_get", "can_module -1 is NULL\n"));
}

uint32_t lowest(std::initializer_list<uint32_t> deadlines) {
    uint32_t earliest = no_deadline;
    for (const uint32_t deadline : deadlines) {
        lower_deadline(earliest, deadline);
    }
    return earliest;
}

TEST(lower_deadline, keeps_the_earliest) {
    EXPECT_EQ(lowest({300, 100, 200}), 100U);
    EXPECT_EQ(lowest({100}), 100U);
    EXPECT_EQ(lowest({0}), 0U);
}

TEST(lower_deadline, is_right_across_the_wrap_of_the_clock) {
    EXPECT_EQ(lowest({5, 0xfffffff0U}), 0xfffffff0U);
    EXPECT_EQ(lowest({0xfffffff0U, 5}), 0xfffffff0U);
}

TEST(lower_deadline, never_takes_a_deadline_for_none) {
    EXPECT_EQ(lowest({0xffffffffU}), 0xfffffffeU);
    EXPECT_EQ(lowest({5, 0xffffffffU}), 0xfffffffeU);
}

/** Nodes with their next send times. */
class module_list : public ::testing::Test {
protected:
    struct entry {
        trans_list_node node{};
        transaction_info info{};
    };

    trans_list_node *make(uint32_t next_send) {
        entries.push_back(std::make_unique<entry>());
        entry &made = *entries.back();
        made.info.next_send = next_send;
        made.node.transaction = &made.info;
        made.node.home = &list;
        return &made.node;
    }

    std::vector<trans_list_node *> content() {
        std::vector<trans_list_node *> nodes;
        for (trans_list_node *node = list.head; node != nullptr; node = node->next) {
            nodes.push_back(node);
        }
        EXPECT_EQ(list.tail, nodes.empty() ? nullptr : nodes.back());
        return nodes;
    }

    std::vector<std::unique_ptr<entry>> entries;
    trans_list list{};
};

TEST_F(module_list, append_keeps_the_order) {
    trans_list_node *a = make(3);
    trans_list_node *b = make(2);
    trans_list_node *c = make(1);
    a->next = c; // whatever stood there
    list_append(&list, a);
    list_append(&list, b);
    list_append(&list, c);
    EXPECT_THAT(content(), ElementsAre(a, b, c));
}

TEST_F(module_list, insert_by_time_goes_behind_every_node_that_is_not_later) {
    trans_list_node *at_20 = make(20);
    trans_list_node *at_10 = make(10);
    trans_list_node *at_30 = make(30);
    trans_list_node *also_20 = make(20);
    trans_list_node *also_10 = make(10);
    trans_list_node *also_30 = make(30);
    for (trans_list_node *node : {at_20, at_10, at_30, also_20, also_10, also_30}) {
        list_insert_by_time(&list, node, 15);
    }
    EXPECT_THAT(content(), ElementsAre(at_10, also_10, at_20, also_20, at_30, also_30));
}

TEST_F(module_list, insert_by_time_is_right_across_the_wrap_of_the_clock) {
    trans_list_node *after = make(5);
    trans_list_node *before = make(0xfffffffaU);
    trans_list_node *at = make(0);
    for (trans_list_node *node : {after, before, at}) {
        list_insert_by_time(&list, node, 0xfffffff0U);
    }
    EXPECT_THAT(content(), ElementsAre(before, at, after));
}

TEST_F(module_list, insert_by_time_puts_an_overdue_node_before_one_half_a_turn_away) {
    constexpr uint32_t now = 1000;
    trans_list_node *farthest = make(now + 0x80000000U);
    trans_list_node *far = make(now + 0x7fffffffU);
    trans_list_node *overdue = make(now - 5);
    trans_list_node *next = make(now + 20);
    for (trans_list_node *node : {farthest, far, overdue, next}) {
        list_insert_by_time(&list, node, now);
    }
    EXPECT_THAT(content(), ElementsAre(overdue, next, far, farthest));
}

TEST_F(module_list, remove_unlinks_the_head_the_middle_and_the_tail) {
    trans_list_node *a = make(1);
    trans_list_node *b = make(2);
    trans_list_node *c = make(3);
    trans_list_node *d = make(4);
    for (trans_list_node *node : {a, b, c, d}) {
        list_append(&list, node);
    }
    EXPECT_EQ(can_proprietary_remove_list(&list, b), 0);
    EXPECT_THAT(content(), ElementsAre(a, c, d));
    EXPECT_EQ(b->next, nullptr);
    EXPECT_EQ(can_proprietary_remove_list(&list, d), 0);
    EXPECT_THAT(content(), ElementsAre(a, c));
    EXPECT_EQ(can_proprietary_remove_list(&list, a), 0);
    EXPECT_THAT(content(), ElementsAre(c));
    EXPECT_EQ(can_proprietary_remove_list(&list, c), 0);
    EXPECT_THAT(content(), IsEmpty());
}

TEST_F(module_list, remove_of_an_absent_node_changes_nothing) {
    trans_list_node *a = make(1);
    EXPECT_EQ(can_proprietary_remove_list(&list, a), -1);
    list_append(&list, a);
    const std::string errors =
        can_errors_of([&] { EXPECT_EQ(can_proprietary_remove_list(&list, make(2)), -1); });
    EXPECT_EQ(errors, "");
    EXPECT_THAT(content(), ElementsAre(a));
}

TEST_F(module_list, remove_names_the_missing_argument) {
    EXPECT_EQ(can_errors_of([&] { EXPECT_EQ(can_proprietary_remove_list(nullptr, make(1)), -1); }),
              can_error("can_proprietary_remove_list", "list is NULL\n"));
    EXPECT_EQ(can_errors_of([&] { EXPECT_EQ(can_proprietary_remove_list(&list, nullptr), -1); }),
              can_error("can_proprietary_remove_list", "transaction is NULL\n"));
}

class move_to_wait_send : public can_port_fixture {
protected:
    void SetUp() override {
        can_add_produce(device(), "pc", TRIGGER_CYCLIC, 1);
        can_add_request(device(), "rc", TRIGGER_CYCLIC, 2, 3);
        can_add_produce(device(), "po", TRIGGER_ON_CHANGE, 4);
        can_add_request(device(), "ro", TRIGGER_ON_CHANGE, 5, 6);
        can_add_produce(device(), "pb", TRIGGER_BOOTUP, 7);
        can_add_request(device(), "rb", TRIGGER_BOOTUP, 8, 9);
        can_add_consume(device(), "c", 10);
        build();
    }
    int move(const char *name) { return can_proprietary_move_to_wait_send(&module, node(name)); }
};

TEST_F(move_to_wait_send, takes_each_kind_from_its_home_to_its_queue) {
    for (const char *name : {"pc", "rc", "po", "ro"}) {
        EXPECT_EQ(move(name), 0) << name;
    }
    EXPECT_THAT(names(PRODUCE_CYCLIC_QUEUE), ElementsAre("pc"));
    EXPECT_THAT(names(REQUEST_CYCLIC_QUEUE), ElementsAre("rc"));
    EXPECT_THAT(names(PRODUCE_CHANGE_QUEUE), ElementsAre("po"));
    EXPECT_THAT(names(REQUEST_CHANGE_QUEUE), ElementsAre("ro"));
    for (const list_id id :
         {PRODUCE_CYCLIC, REQUEST_CYCLIC, PRODUCE_ON_CHANGE, REQUEST_ON_CHANGE}) {
        EXPECT_THAT(names(id), IsEmpty());
    }
}

TEST_F(move_to_wait_send, does_not_find_a_node_that_is_not_in_its_home_list) {
    EXPECT_EQ(move("pc"), 0);
    const std::string errors = can_errors_of([&] { EXPECT_EQ(move("pc"), -3); });
    EXPECT_EQ(errors, "");
    EXPECT_THAT(names(PRODUCE_CYCLIC_QUEUE), ElementsAre("pc"));
    EXPECT_EQ(move("pb"), -3); // its home is the list of the done ones
    EXPECT_THAT(names(PRODUCE_BOOTUP), ElementsAre("pb"));
}

TEST_F(move_to_wait_send, loses_a_node_of_a_kind_without_a_queue) {
    trans_list_node *consumed = node("c");
    const std::string errors =
        can_errors_of([&] { EXPECT_EQ(can_proprietary_move_to_wait_send(&module, consumed), -1); });
    EXPECT_EQ(errors, can_error("can_proprietary_move_to_wait_send", "unknown transaction\n"));
    EXPECT_THAT(names(CONSUME), IsEmpty());
    list_append(&list_of(&module, CONSUME), consumed); // for its release
}

TEST_F(move_to_wait_send, names_the_missing_argument) {
    EXPECT_EQ(can_errors_of(
                  [&] { EXPECT_EQ(can_proprietary_move_to_wait_send(nullptr, node("pc")), -1); }),
              can_error("can_proprietary_move_to_wait_send", "can_module is NULL\n"));
    EXPECT_EQ(
        can_errors_of([&] { EXPECT_EQ(can_proprietary_move_to_wait_send(&module, nullptr), -1); }),
        can_error("can_proprietary_move_to_wait_send", "entry is NULL\n"));
}

} // namespace
