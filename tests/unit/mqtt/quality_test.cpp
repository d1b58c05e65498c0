#include "quality.h"

#include <gtest/gtest.h>
#include <string>

namespace {

/** A value received a second ago from a device that has been there for ten. */
quality_facts received() {
    quality_facts facts;
    facts.provider_alive = true;
    facts.writes = 1;
    facts.written_ms = 99000;
    facts.device = device_state::communicating;
    facts.device_since_ms = 90000;
    facts.now_ms = 100000;
    return facts;
}

quality_facts set_by_others() {
    quality_facts facts = received();
    facts.written_by_others = true;
    return facts;
}

std::string judged(const quality_facts &facts) {
    const tag_quality quality = judge_quality(facts);
    const std::string reason = reason_text(quality.reason);
    return quality_text(quality.grade) + (reason.empty() ? "" : ":" + reason);
}

} // namespace

TEST(quality, what_the_device_sent_is_good) {
    EXPECT_EQ(judged(received()), "good");
}

TEST(quality, a_tag_of_no_known_device_is_good_once_written) {
    quality_facts facts = received();
    facts.device = device_state::none;
    EXPECT_EQ(judged(facts), "good");
    facts.writes = 0;
    EXPECT_EQ(judged(facts), "uncertain:no_frame_yet");
}

TEST(quality, nothing_is_known_before_the_first_frame_of_the_device) {
    quality_facts facts = received();
    facts.device = device_state::no_frame_yet;
    EXPECT_EQ(judged(facts), "uncertain:no_frame_yet");
}

TEST(quality, another_frame_of_the_device_does_not_make_the_initial_zero_good) {
    quality_facts facts = received();
    facts.writes = 0;
    EXPECT_EQ(judged(facts), "uncertain:no_frame_yet");
}

TEST(quality, a_silent_device_has_bad_values) {
    quality_facts facts = received();
    facts.device = device_state::timed_out;
    EXPECT_EQ(judged(facts), "bad:device_timeout");
    facts.writes = 0; // whether or not one came before
    EXPECT_EQ(judged(facts), "bad:device_timeout");
}

TEST(quality, a_value_from_before_the_silence_stays_bad_until_it_comes_again) {
    quality_facts facts = received();
    facts.device_since_ms = 99500;
    EXPECT_EQ(judged(facts), "bad:not_refreshed");
    facts.written_ms = 99600;
    EXPECT_EQ(judged(facts), "good");
}

TEST(quality, the_frame_that_ends_a_silence_may_seem_a_little_older_than_its_end) {
    quality_facts facts = received();
    facts.device_since_ms = facts.written_ms + 50;
    EXPECT_EQ(judged(facts), "good");
    facts.device_since_ms = facts.written_ms + 51;
    EXPECT_EQ(judged(facts), "bad:not_refreshed");
}

TEST(quality, the_consume_timeout_of_its_own_transaction_ages_a_value) {
    quality_facts facts = received();
    facts.max_age_ms = 1000;
    EXPECT_EQ(judged(facts), "good");
    facts.max_age_ms = 999;
    EXPECT_EQ(judged(facts), "bad:transaction_timeout");
}

TEST(quality, without_its_service_nothing_is_good) {
    for (quality_facts facts : {received(), set_by_others()}) {
        facts.provider_alive = false;
        EXPECT_EQ(judged(facts), "bad:service_down");
        facts.is_status = true;
        EXPECT_EQ(judged(facts), "bad:service_down");
    }
}

TEST(quality, a_status_is_as_good_as_its_service) {
    quality_facts facts = received();
    facts.is_status = true;
    facts.device = device_state::timed_out;
    facts.writes = 0;
    EXPECT_EQ(judged(facts), "good");
}

TEST(quality, what_others_set_does_not_depend_on_the_device) {
    quality_facts facts = set_by_others();
    facts.device = device_state::timed_out;
    EXPECT_EQ(judged(facts), "good");
    facts.writes = 0;
    EXPECT_EQ(judged(facts), "uncertain:never_written");
}

TEST(quality, fault_protection_makes_what_others_set_bad) {
    quality_facts facts = set_by_others();
    facts.in_fault = true;
    EXPECT_EQ(judged(facts), "bad:fault_protection");
}

TEST(quality, every_status_but_two_is_a_timeout) {
    EXPECT_EQ(device_state_of(0x80000000), device_state::no_frame_yet);
    EXPECT_EQ(device_state_of(0), device_state::communicating);
    EXPECT_EQ(device_state_of(0x80000001), device_state::timed_out);
    EXPECT_EQ(device_state_of(7), device_state::timed_out);
}
