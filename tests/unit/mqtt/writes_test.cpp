#include "platform/dx_fixture.h"
#include "writes.h"

#include <cstring>
#include <gmock/gmock.h>

using ::testing::ElementsAre;

namespace {

constexpr char target_name[] = "can_proprietary/pump/ask_target";
constexpr char answer_name[] = "can_proprietary/pump/ask_answer";

class writes_test : public dx_test {
protected:
    writes_test() : provider_(new_provider()) {
        target_ = add(provider_, target_name, 6);
        answer_ = add(provider_, answer_name, 6, DX_READ_ONLY);
        open(256);
    }

    void open(size_t length) {
        queue_.emplace(table_,
                       statistics_,
                       write_settings{length,
                                      [this](const write_result &result) { note(result); },
                                      [this](const tag_circumstances &, bool) {
                                          const std::lock_guard lock(mutex_);
                                          return report_;
                                      }});
    }

    void note(const write_result &result) {
        const std::lock_guard lock(mutex_);
        results_.push_back((result.id.empty() ? "" : result.id + " ") +
                           outcome_text(result.outcome) +
                           (result.reason.empty() ? "" : ": " + result.reason));
    }
    std::vector<std::string> results() const {
        const std::lock_guard lock(mutex_);
        return results_;
    }
    /** The results, as soon as there are that many. */
    std::vector<std::string> results(size_t count) const {
        EXPECT_TRUE(eventually([&] { return results().size() >= count; }));
        return results();
    }
    void set_report(int state, uint32_t failed_count) {
        const std::lock_guard lock(mutex_);
        report_ = {true, state, failed_count, report_.number + 1};
    }
    /** The tag belongs to a request on change with one response tag. */
    void make_request(int64_t answer_ms) {
        tag_circumstances known;
        known.is_request = known.sent_on_change = true;
        known.answer_ms = answer_ms;
        known.response_tags = {answer_name};
        circumstances_map map;
        map[target_name] = known;
        table_.set_circumstances(map, read_clocks());
    }
    void publish(dx_tag *tag, uint16_t value) {
        EXPECT_EQ(dx_tag_write(provider_.get(), tag, &value, sizeof value), 0);
        EXPECT_EQ(dx_tag_notify(provider_.get()), 0);
    }
    uint16_t value_of(dx_tag *tag) const {
        uint16_t value = 0;
        EXPECT_GT(dx_tag_read(tag, &value, sizeof value), 0);
        return value;
    }

    handle_ptr provider_;
    dx_tag *target_ = nullptr;
    dx_tag *answer_ = nullptr;
    tag_table table_;
    bridge_statistics statistics_;
    mutable std::mutex mutex_; // guards results_ and report_
    std::vector<std::string> results_;
    transaction_report report_;
    std::optional<write_queue> queue_;
};

} // namespace

TEST_F(writes_test, a_value_is_written_and_the_result_bears_its_id) {
    queue_->start();
    queue_->add(target_name, R"({"value": 700, "id": "a1"})");
    EXPECT_THAT(results(1), ElementsAre("\"a1\" accepted"));
    EXPECT_EQ(value_of(target_), 700);
    EXPECT_EQ(statistics_.writes_accepted, 1U);
}

TEST_F(writes_test, what_cannot_be_written_is_refused_with_the_reason) {
    queue_->start();
    queue_->add(target_name, "70000");
    queue_->add(answer_name, "1");
    queue_->add("can_proprietary/nobody", "1");
    queue_->add(target_name, "");
    const std::vector<std::string> all = results(4);
    EXPECT_THAT(all,
                ::testing::Contains("refused: '70000' is out of range for uint16 (0 to 65535)"));
    EXPECT_THAT(all, ::testing::Contains("refused: tag is read-only"));
    EXPECT_THAT(all, ::testing::Contains("refused: unknown tag"));
    EXPECT_EQ(statistics_.writes_refused, 4U);
    EXPECT_EQ(value_of(target_), 0);
}

TEST_F(writes_test, a_value_of_its_own_is_taken_as_it_is) {
    queue_->start();
    queue_->add_value(target_name, "700");
    EXPECT_THAT(results(1), ElementsAre("accepted"));
    EXPECT_EQ(value_of(target_), 700);
    size_t count = 1;
    for (const std::string &text : {std::string(R"({"value":1})"),
                                    std::string(R"("1")"),
                                    std::string(" 1"),
                                    std::string("1\0", 2)}) {
        queue_->add_value(target_name, text);
        const std::string told = results(++count).back();
        EXPECT_EQ(told, "refused: '" + text + "' is not an integer (decimal or 0x)");
    }
    queue_->add_value(target_name, std::string(1025, '0'));
    EXPECT_EQ(results(++count).back(), "refused: the value has more than 1024 bytes");
    EXPECT_EQ(value_of(target_), 700);
}

TEST_F(writes_test, without_a_store_nothing_is_written) {
    provider_.reset();
    std::filesystem::remove(store_path());
    queue_->start();
    queue_->add(target_name, "1");
    EXPECT_THAT(results(1), ElementsAre("refused: no tag store: the service does not run"));
}

TEST_F(writes_test, a_retained_message_is_refused_with_its_id) {
    queue_->start();
    queue_->refuse_retained(target_name, R"({"value": 1, "id": 9})");
    EXPECT_THAT(results(1),
                ElementsAre("9 refused: retained message: send it without the retain flag"));
    EXPECT_EQ(value_of(target_), 0);
}

TEST_F(writes_test, of_waiting_writes_of_a_tag_the_latest_counts) {
    queue_->add(target_name, R"({"value": 1, "id": 1})");
    queue_->add(target_name, R"({"value": 2, "id": 2})");
    queue_->add(target_name, R"({"value": 3, "id": 3})");
    queue_->start();
    EXPECT_THAT(results(3), ElementsAre("1 superseded", "2 superseded", "3 accepted"));
    EXPECT_EQ(value_of(target_), 3);
}

TEST_F(writes_test, a_write_that_is_refused_supersedes_nothing) {
    dx_tag_info info = find(open_client(), target_name);
    table_.update(info, {}, read_clocks());
    queue_->add(target_name, "1");
    queue_->add(target_name, "70000");
    queue_->add(target_name, "[1]");
    queue_->start();
    EXPECT_EQ(results(3).back(), "accepted");
    EXPECT_EQ(value_of(target_), 1);
}

TEST_F(writes_test, a_full_queue_refuses_and_counts) {
    open(2);
    for (const char *tag : {"x/1", "x/2", "x/3"}) {
        queue_->add(tag, "1");
    }
    EXPECT_THAT(results(), ElementsAre("refused: too many writes are waiting"));
    EXPECT_EQ(statistics_.writes_dropped, 1U);
}

TEST_F(writes_test, what_waits_at_the_end_is_refused) {
    queue_->add(target_name, "1");
    queue_->stop(); // never started
    queue_->add(target_name, "2");
    EXPECT_EQ(results(1).back(), "refused: the bridge stops");
    EXPECT_EQ(value_of(target_), 0);
}

TEST_F(writes_test, the_response_completes_a_request) {
    make_request(20000);
    queue_->start();
    queue_->add(target_name, "5");
    EXPECT_THAT(results(1), ElementsAre("accepted"));
    publish(answer_, 1);
    EXPECT_THAT(results(2), ElementsAre("accepted", "completed"));
}

TEST_F(writes_test, a_failure_that_the_service_counts_fails_the_request) {
    make_request(20000);
    set_report(0, 3);
    queue_->start();
    queue_->add(target_name, R"({"value": 5, "id": 1})");
    (void)results(1);
    set_report(2, 4);
    EXPECT_THAT(results(2), ElementsAre("1 accepted", "1 timed_out"));
    queue_->add(target_name, R"({"value": 6, "id": 2})");
    (void)results(3);
    set_report(1, 5);
    EXPECT_EQ(results(4).back(), "2 failed");
}

TEST_F(writes_test, a_newer_write_supersedes_a_request_under_way) {
    make_request(20000);
    queue_->start();
    queue_->add(target_name, R"({"value": 5, "id": 1})");
    (void)results(1);
    queue_->add(target_name, R"({"value": 6, "id": 2})");
    EXPECT_THAT(results(3), ElementsAre("1 accepted", "1 superseded", "2 accepted"));
}

TEST_F(writes_test, a_request_that_nothing_is_heard_of_ends_as_unknown) {
    make_request(-2000); // and the tolerance
    queue_->start();
    queue_->add(target_name, "5");
    EXPECT_THAT(results(2),
                ElementsAre("accepted", "unknown: the service did not report an outcome in time"));
}

TEST_F(writes_test, an_outcome_that_is_awaited_at_the_end_is_unknown) {
    make_request(20000);
    queue_->start();
    queue_->add(target_name, "5");
    (void)results(1);
    queue_->stop();
    EXPECT_THAT(results(), ElementsAre("accepted", "unknown: the bridge stops"));
}

TEST_F(writes_test, an_outcome_that_is_awaited_of_another_store_is_unknown) {
    make_request(20000);
    queue_->start();
    queue_->add(target_name, "5");
    (void)results(1);
    provider_.reset();
    std::filesystem::remove(store_path());
    provider_ = new_provider();
    EXPECT_THAT(results(2), ElementsAre("accepted", "unknown: the service was started anew"));
}

TEST_F(writes_test, the_same_value_sends_no_request) {
    make_request(20000);
    queue_->start();
    queue_->add(target_name, "0");
    EXPECT_THAT(results(1),
                ElementsAre("accepted: the value is the same: the request is not sent"));
}

TEST_F(writes_test, writes_go_on_when_the_file_of_the_store_is_removed) {
    queue_->start();
    queue_->add(target_name, "1");
    (void)results(1);
    std::filesystem::remove(store_path());
    queue_->add(target_name, "2");
    EXPECT_THAT(results(2), ElementsAre("accepted", "accepted"));
    EXPECT_EQ(value_of(target_), 2);
}

TEST(write_outcome, has_a_word_for_each) {
    EXPECT_STREQ(outcome_text(write_outcome::superseded), "superseded");
    EXPECT_STREQ(outcome_text(write_outcome::unknown), "unknown");
}
