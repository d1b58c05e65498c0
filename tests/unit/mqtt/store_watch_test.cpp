#include "platform/dx_fixture.h"
#include "store_watch.h"

#include <cstring>

namespace {

class store_watch_test : public dx_test {
protected:
    store_watch_test() {
        watch_.tables = {&table_};
        watch_.statistics = &statistics_;
        watch_.changed = [this] { ++changes_; };
    }
    ~store_watch_test() override { store_watch_stop(watch_); }

    void publish(const handle_ptr &handle, dx_tag *tag, uint64_t value) {
        EXPECT_EQ(dx_tag_write(handle.get(), tag, &value, sizeof value), 0);
        EXPECT_EQ(dx_tag_notify(handle.get()), 0);
    }
    uint64_t value_of(const std::string &name) const {
        const auto found = table_.find(name);
        uint64_t value = UINT64_MAX;
        if (found) {
            memcpy(&value, found->value, sizeof value);
        }
        return value;
    }
    std::string reason_of(const std::string &name) const {
        const auto found = table_.find(name);
        return found ? reason_text(found->quality.reason) : "unknown";
    }
    bool comes(const std::string &name, uint64_t value) const {
        return eventually([&] { return value_of(name) == value && reason_of(name).empty(); });
    }

    tag_table table_;
    bridge_statistics statistics_;
    store_watch watch_;
    std::atomic<int> changes_{0};
};

} // namespace

TEST_F(store_watch_test, values_from_before_the_start_and_after_it_come) {
    const handle_ptr provider = new_provider();
    dx_tag *tag = add(provider, "unit/a", 8, DX_READ_ONLY);
    publish(provider, tag, 1);
    publish(provider, tag, 2);
    store_watch_start(watch_);
    EXPECT_TRUE(comes("unit/a", 2));
    publish(provider, tag, 3);
    EXPECT_TRUE(comes("unit/a", 3));
    // Told behind the value.
    EXPECT_TRUE(eventually([&] { return statistics_.changes >= 1 && changes_ >= 2; }));
}

TEST_F(store_watch_test, a_store_that_comes_later_is_found) {
    store_watch_start(watch_);
    const handle_ptr provider = new_provider();
    dx_tag *tag = add(provider, "unit/a", 8, DX_READ_ONLY);
    publish(provider, tag, 1);
    publish(provider, tag, 2);
    EXPECT_TRUE(comes("unit/a", 2));
}

TEST_F(store_watch_test, a_tag_that_comes_later_is_seen_with_its_first_value) {
    const handle_ptr provider = new_provider();
    store_watch_start(watch_);
    ASSERT_TRUE(eventually([&] { return statistics_.store_opens == 1; }));
    publish(provider, add(provider, "unit/late", 8, DX_READ_ONLY), 9);
    EXPECT_TRUE(comes("unit/late", 9)); // a look amid its write does not count it yet
}

TEST_F(store_watch_test, a_provider_that_leaves_makes_its_values_bad) {
    handle_ptr provider = new_provider();
    publish(provider, add(provider, "unit/a", 8, DX_WRITE_ONLY), 1);
    store_watch_start(watch_);
    ASSERT_TRUE(eventually([&] { return value_of("unit/a") == 1; }));
    provider.reset();
    EXPECT_TRUE(eventually([&] { return reason_of("unit/a") == "service_down"; }));
    EXPECT_EQ(value_of("unit/a"), 1U);
}

TEST_F(store_watch_test, a_provider_that_is_killed_makes_its_values_bad) {
    const signal_pipe ready;
    child_process provider([&] {
        const handle_ptr handle = new_provider();
        publish(handle, add(handle, "unit/a", 8, DX_WRITE_ONLY), 5);
        (void)ready.send();
        (void)pause();
        return 0;
    });
    ASSERT_TRUE(ready.wait());
    store_watch_start(watch_);
    ASSERT_TRUE(eventually([&] { return value_of("unit/a") == 5; }));
    provider.kill_hard();
    EXPECT_TRUE(eventually([&] { return reason_of("unit/a") == "service_down"; }));
}

TEST_F(store_watch_test, a_store_without_its_file_is_used_while_its_provider_lives) {
    handle_ptr provider = new_provider();
    dx_tag *tag = add(provider, "unit/a", 8, DX_READ_ONLY);
    publish(provider, tag, 1);
    store_watch_start(watch_);
    ASSERT_TRUE(eventually([&] { return value_of("unit/a") == 1; }));
    std::filesystem::remove(store_path());
    publish(provider, tag, 2);
    EXPECT_TRUE(comes("unit/a", 2));
    provider.reset();
    EXPECT_TRUE(eventually([&] { return reason_of("unit/a") == "service_down"; }));
    const handle_ptr next = new_provider();
    dx_tag *again = add(next, "unit/a", 8, DX_READ_ONLY);
    publish(next, again, 6);
    publish(next, again, 7);
    EXPECT_TRUE(comes("unit/a", 7));
    EXPECT_EQ(statistics_.store_opens, 2U);
}

TEST_F(store_watch_test, a_file_that_is_no_store_is_tried_again) {
    std::filesystem::create_directories(path("run/kt-dx"));
    write(store_path(), "no store at all");
    ::testing::internal::CaptureStderr();
    store_watch_start(watch_);
    EXPECT_TRUE(eventually([&] { return statistics_.store_refusals > 0; }));
    std::filesystem::remove(store_path());
    const handle_ptr provider = new_provider();
    publish(provider, add(provider, "unit/a", 8, DX_READ_ONLY), 4);
    EXPECT_TRUE(eventually([&] { return value_of("unit/a") == 4; }));
    (void)::testing::internal::GetCapturedStderr(); // the lines come once in each look
}
