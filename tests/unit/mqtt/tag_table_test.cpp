#include "tag_table.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

constexpr char status_name[] = "can_proprietary/pump/status";
constexpr char pressure_name[] = "can_proprietary/pump/state_pressure";
constexpr char target_name[] = "can_proprietary/pump/command_target";

/** A store whose slots are numbered in the order in which its tags come. */
class tag_table_test : public ::testing::Test {
protected:
    struct stored {
        dx_tag_info info{};
        dx_sample sample{};
        int64_t written_ms = 0;
    };

    stored &tag(const std::string &name, int type, size_t size, int mode) {
        stored made;
        memcpy(made.info.name, name.c_str(), name.size() + 1);
        made.info.type = type;
        made.info.size = size;
        made.info.mode = mode;
        made.info.slot = static_cast<uint32_t>(store_.size());
        made.info.version = version_;
        made.written_ms = now_.monotonic_ms;
        store_.push_back(std::make_unique<stored>(made));
        return *store_.back();
    }

    stored &status() { return tag(status_name, 3, 4, DX_READ_ONLY); }
    stored &pressure() { return tag(pressure_name, 7, 4, DX_READ_ONLY); }
    stored &target() { return tag(target_name, 7, 4, DX_WRITE_ONLY); }

    void write(stored &to, uint32_t value) {
        memcpy(to.sample.value, &value, sizeof value);
        ++to.sample.sequence;
        to.written_ms = now_.monotonic_ms;
        see(to);
    }

    void see(stored &one) {
        one.sample.age_ms = static_cast<uint64_t>(now_.monotonic_ms - one.written_ms);
        table_.update(one.info, one.sample, now_);
    }

    void list() {
        table_.begin_list();
        for (const auto &one : store_) {
            see(*one);
        }
        table_.end_list(now_);
    }

    void pass(int64_t ms) {
        now_.monotonic_ms += ms;
        now_.utc_ms += ms;
        table_.tick(now_);
    }

    tag_snapshot found(const std::string &name) { return table_.find(name).value(); }

    std::string quality_of(const std::string &name) {
        return reason_text(found(name).quality.reason);
    }

    /** Names of the tags to publish, each as published at once. */
    std::vector<std::string> publish() {
        std::vector<std::string> found_names;
        while (const auto taken = table_.take()) {
            found_names.push_back(taken->name + (taken->removed ? " removed" : ""));
            table_.published(taken->index);
        }
        return found_names;
    }

    static uint32_t value_of(const tag_snapshot &snapshot) {
        uint32_t value = 0;
        memcpy(&value, snapshot.value, sizeof value);
        return value;
    }

    using names = std::vector<std::string>;

    tag_table table_;
    clock_pair now_ = {100000, 1700000000000};
    std::vector<std::unique_ptr<stored>> store_;
    uint32_t version_ = 1;
};

} // namespace

TEST_F(tag_table_test, a_new_tag_is_to_be_published_once) {
    write(pressure(), 5);
    EXPECT_EQ(publish(), names{pressure_name});
    EXPECT_EQ(publish(), names{});
    list();
    EXPECT_EQ(publish(), names{});
}

TEST_F(tag_table_test, a_value_keeps_the_time_at_which_it_was_written) {
    stored &tag = pressure();
    tag.written_ms -= 1234;
    tag.sample.sequence = 2;
    see(tag);
    EXPECT_EQ(found(pressure_name).time_ms, 1700000000000 - 1234);
    pass(5000);
    list();
    table_.publish_all();
    EXPECT_EQ(table_.take()->time_ms, 1700000000000 - 1234);
}

TEST_F(tag_table_test, the_latest_of_several_values_is_published) {
    stored &tag = pressure();
    for (uint32_t value = 1; value <= 10; ++value) {
        write(tag, value);
    }
    EXPECT_EQ(table_.waiting(), 1U);
    EXPECT_EQ(table_.conflated(), 9U);
    EXPECT_EQ(value_of(*table_.take()), 10U);
    EXPECT_FALSE(table_.take());
}

TEST_F(tag_table_test, a_value_waits_while_another_of_its_tag_is_under_way) {
    stored &tag = pressure();
    write(tag, 1);
    const uint32_t index = table_.take()->index;
    write(tag, 2);
    write(tag, 3);
    EXPECT_FALSE(table_.take());
    table_.published(index);
    EXPECT_EQ(value_of(*table_.take()), 3U);
}

TEST_F(tag_table_test, tags_are_published_in_the_order_of_their_first_change) {
    stored &first = pressure();
    stored &second = target();
    write(first, 1);
    write(second, 1);
    write(first, 2);
    EXPECT_EQ(publish(), (names{pressure_name, target_name}));
}

TEST_F(tag_table_test, everything_is_published_anew_after_a_lost_connection) {
    write(pressure(), 1);
    write(target(), 1);
    (void)table_.take();
    table_.publish_all();
    EXPECT_EQ(publish().size(), 2U);
}

TEST_F(tag_table_test, a_late_acknowledgement_of_nobody_changes_nothing) {
    table_.published(0);
    table_.published(4000000000U);
    EXPECT_EQ(table_.size(), 0U);
}

TEST_F(tag_table_test, a_silent_device_takes_its_values_with_it) {
    stored &state = status();
    stored &value = pressure();
    write(state, status_communicating);
    write(value, 0);
    write(value, 7);
    EXPECT_EQ(quality_of(pressure_name), "");
    (void)publish();
    const int64_t time_ms = found(pressure_name).time_ms;
    pass(1000);
    write(state, status_timed_out);
    EXPECT_EQ(quality_of(pressure_name), "device_timeout");
    EXPECT_EQ(found(pressure_name).time_ms, time_ms);
    EXPECT_EQ(publish(), (names{pressure_name, status_name}));
    pass(1000);
    write(state, status_communicating);
    EXPECT_EQ(quality_of(pressure_name), "not_refreshed");
    write(value, 8);
    EXPECT_EQ(quality_of(pressure_name), "");
}

TEST_F(tag_table_test, a_status_that_comes_after_its_tags_counts_for_them) {
    stored &value = pressure();
    write(value, 0);
    write(value, 7);
    write(status(), status_no_frame_yet);
    EXPECT_EQ(quality_of(pressure_name), "no_frame_yet");
    EXPECT_EQ(found(pressure_name).device, "pump");
}

TEST_F(tag_table_test, a_tag_belongs_to_the_device_with_the_longest_name) {
    write(tag("can_proprietary/a/status", 3, 4, DX_READ_ONLY), status_communicating);
    write(tag("can_proprietary/a/b/status", 3, 4, DX_READ_ONLY), status_timed_out);
    stored &outer = tag("can_proprietary/a/x_1", 7, 4, DX_READ_ONLY);
    stored &inner = tag("can_proprietary/a/b/x_1", 7, 4, DX_READ_ONLY);
    for (stored *each : {&outer, &inner, &outer, &inner}) {
        write(*each, 1);
    }
    EXPECT_EQ(found("can_proprietary/a/x_1").device, "a");
    EXPECT_EQ(quality_of("can_proprietary/a/x_1"), "");
    EXPECT_EQ(found("can_proprietary/a/b/x_1").device, "a/b");
    EXPECT_EQ(quality_of("can_proprietary/a/b/x_1"), "device_timeout");
}

TEST_F(tag_table_test, only_a_real_status_makes_a_device) {
    write(tag("other/x/status", 3, 4, DX_READ_ONLY), status_timed_out);
    write(tag("can_proprietary/y/status", 7, 4, DX_READ_ONLY), status_timed_out);
    write(tag("can_proprietary//status", 3, 4, DX_WRITE_ONLY), status_timed_out);
    stored &value = tag("other/x/y_z", 7, 4, DX_READ_ONLY);
    write(value, 1);
    write(value, 2);
    EXPECT_EQ(found("other/x/y_z").device, "");
    EXPECT_EQ(quality_of("other/x/y_z"), "");
}

TEST_F(tag_table_test, without_a_store_every_value_is_bad) {
    stored &value = pressure();
    write(value, 1);
    write(value, 2);
    (void)publish();
    EXPECT_TRUE(table_.service_alive());
    table_.service_down(now_);
    EXPECT_FALSE(table_.service_alive());
    EXPECT_EQ(quality_of(pressure_name), "service_down");
    EXPECT_EQ(publish(), names{pressure_name});
    EXPECT_EQ(value_of(found(pressure_name)), 2U);
}

TEST_F(tag_table_test, only_the_service_starts_its_tags_with_a_zero) {
    write(tag("other/read", 7, 4, DX_READ_ONLY), 1);
    write(tag("other/written", 7, 4, DX_WRITE_ONLY), 1);
    write(pressure(), 0);
    write(target(), 0);
    EXPECT_EQ(quality_of("other/read"), "");
    EXPECT_EQ(quality_of("other/written"), "");
    EXPECT_EQ(quality_of(pressure_name), "no_frame_yet");
    EXPECT_EQ(quality_of(target_name), "never_written");
}

TEST_F(tag_table_test, tags_of_a_service_that_is_gone_stay_bad_for_as_long_as_it_takes) {
    write(pressure(), 1);
    write(tag("other/tag", 7, 4, DX_READ_ONLY), 1);
    (void)publish();
    store_.erase(store_.begin());
    list();
    pass(removal_ms * 10);
    list();
    EXPECT_EQ(quality_of(pressure_name), "service_down");
    EXPECT_EQ(publish(), names{pressure_name});
}

TEST_F(tag_table_test, a_tag_that_its_service_no_longer_has_is_removed_after_a_while) {
    write(pressure(), 1);
    write(target(), 1);
    (void)publish();
    store_.erase(store_.begin());
    list();
    EXPECT_EQ(publish(), names{pressure_name});
    pass(removal_ms - 1);
    list();
    EXPECT_EQ(publish(), names{});
    pass(1);
    list();
    EXPECT_EQ(publish(), names{std::string(pressure_name) + " removed"});
    EXPECT_FALSE(table_.find(pressure_name));
    EXPECT_EQ(table_.size(), 1U);
}

TEST_F(tag_table_test, a_tag_that_comes_back_in_time_is_not_removed) {
    write(pressure(), 1);
    stored &other = target();
    write(other, 1);
    store_.erase(store_.begin());
    list();
    version_ = 3;
    write(pressure(), 0);
    pass(removal_ms * 2);
    list();
    EXPECT_EQ(quality_of(pressure_name), "no_frame_yet");
    EXPECT_EQ(publish(), (names{pressure_name, target_name}));
}

TEST_F(tag_table_test, the_place_of_a_removed_tag_is_used_again) {
    write(target(), 1);
    for (int i = 0; i < 1000; ++i) {
        write(tag("can_proprietary/pump/x_" + std::to_string(i), 7, 4, DX_READ_ONLY), 1);
        store_.pop_back();
        list();
        EXPECT_LE(publish().size(), 2U);
        pass(removal_ms);
        list();
        EXPECT_EQ(publish().size(), 1U);
    }
    EXPECT_EQ(table_.size(), 1U);
    write(pressure(), 1);
    EXPECT_LE(found(pressure_name).index, 2U);
}

TEST_F(tag_table_test, a_new_description_replaces_the_old_one) {
    stored &value = pressure();
    write(value, 0x3F800000);
    const uint64_t before = table_.generation();
    value.info.version += 2;
    value.info.type = 9;
    value.sample.sequence = 1;
    see(value);
    EXPECT_EQ(found(pressure_name).type, 9);
    EXPECT_GT(table_.generation(), before);
}

TEST_F(tag_table_test, the_numbers_of_another_store_are_not_mistaken) {
    write(pressure(), 1);
    store_.clear();
    stored &value = target(); // in the same slot
    write(value, 2);
    EXPECT_EQ(value_of(found(pressure_name)), 1U);
    EXPECT_EQ(value_of(found(target_name)), 2U);
}

class tag_circumstances_test : public tag_table_test {
protected:
    void know(const std::string &name, tag_circumstances known) {
        circumstances_map map;
        map[name] = std::move(known);
        table_.set_circumstances(std::move(map), now_);
    }
    void protect(uint32_t fault_value) {
        tag_circumstances known;
        known.fault_after_ms = 1000;
        memcpy(known.fault_value, &fault_value, sizeof fault_value);
        know(target_name, known);
    }
};

TEST_F(tag_circumstances_test, an_old_value_turns_bad_although_its_device_talks) {
    stored &value = pressure();
    write(status(), status_communicating);
    write(value, 0);
    write(value, 1);
    tag_circumstances known;
    known.max_age_ms = 500;
    know(pressure_name, known);
    (void)publish();
    pass(500);
    EXPECT_EQ(publish(), names{});
    pass(1);
    EXPECT_EQ(quality_of(pressure_name), "transaction_timeout");
    EXPECT_EQ(publish(), names{pressure_name});
    write(value, 1);
    EXPECT_EQ(quality_of(pressure_name), "");
}

TEST_F(tag_circumstances_test, the_services_own_write_of_the_fault_value_is_seen) {
    stored &value = target();
    write(value, 0);
    protect(0);
    pass(100);
    write(value, 5);
    pass(1001);
    write(value, 0);
    EXPECT_EQ(quality_of(target_name), "fault_protection");
    pass(100);
    write(value, 0); // somebody sets it in earnest
    EXPECT_EQ(quality_of(target_name), "");
}

TEST_F(tag_circumstances_test, a_fault_from_before_the_configuration_was_known_is_seen) {
    stored &value = target();
    write(value, 0);
    pass(1000);
    write(value, 9);
    EXPECT_EQ(quality_of(target_name), "");
    protect(9);
    EXPECT_EQ(quality_of(target_name), "fault_protection");
}

TEST_F(tag_circumstances_test, the_fault_value_set_in_time_is_a_value) {
    stored &value = target();
    write(value, 0);
    protect(9);
    write(value, 5);
    pass(900);
    write(value, 9);
    EXPECT_EQ(quality_of(target_name), "");
}

TEST_F(tag_circumstances_test, a_fault_from_before_the_start_shows_in_its_age) {
    stored &value = target();
    value.sample.sequence = 6;
    write(value, 9);
    protect(9);
    EXPECT_EQ(quality_of(target_name), "");
    pass(1600);
    EXPECT_EQ(quality_of(target_name), "fault_protection");
}

TEST_F(tag_circumstances_test, what_is_known_is_found_by_name) {
    tag_circumstances known;
    known.transaction = "command";
    know(target_name, known);
    EXPECT_EQ(table_.circumstances(target_name)->transaction, "command");
    EXPECT_FALSE(table_.circumstances(pressure_name));
}
