#include "dx_fixture.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <pthread.h>
#include <sys/stat.h>

class dx_client_side : public dx_test {
protected:
    struct change {
        std::string name;
        uint64_t value;
        uint32_t sequence;
    };
    /** What dx_client_changes() reports. */
    static std::vector<change> changes(const client_ptr &client) {
        std::vector<change> found;
        const auto visit = [](void *context, const dx_tag_info *info, const dx_sample *sample) {
            uint64_t value = 0;
            memcpy(&value, sample->value, sizeof value);
            static_cast<std::vector<change> *>(context)->push_back(
                {info->name, value, sample->sequence});
            return 0;
        };
        const int count = dx_client_changes(client.get(), visit, &found);
        EXPECT_EQ(count, static_cast<int>(found.size()));
        return found;
    }
    static void publish(const handle_ptr &handle, dx_tag *tag, uint64_t value) {
        ASSERT_EQ(dx_tag_write(handle.get(), tag, &value, sizeof value), 0);
        ASSERT_EQ(dx_tag_notify(handle.get()), 0);
    }
    static dx_sample read_sample(const client_ptr &client, const dx_tag_info &info) {
        dx_sample sample{};
        EXPECT_EQ(dx_client_read(client.get(), &info, &sample), DX_OK);
        return sample;
    }
};

TEST_F(dx_client_side, does_not_make_a_store) {
    dx_client *client = nullptr;
    EXPECT_EQ(dx_client_open(&client), DX_NO_STORE);
    EXPECT_EQ(client, nullptr);
    EXPECT_TRUE(names().empty());
    EXPECT_EQ(dx_client_open(nullptr), DX_BAD_ARGUMENT);
    dx_client_close(nullptr);
}

TEST_F(dx_client_side, finds_what_the_provider_registered) {
    const handle_ptr handle = new_provider();
    const std::string longest(DX_NAME_MAX, 'n');
    ASSERT_TRUE(dx_tag_provider_new(handle.get(), "a/raw", 13, 5, DX_WRITE_ONLY));
    ASSERT_TRUE(dx_tag_provider_new(handle.get(), longest.c_str(), -7, 3, DX_READ_ONLY));
    const client_ptr client = open_client();
    dx_tag_info info = find(client, "a/raw");
    EXPECT_STREQ(info.name, "a/raw");
    EXPECT_EQ(info.type, 13);
    EXPECT_EQ(info.size, 5U);
    EXPECT_EQ(info.mode, DX_WRITE_ONLY);
    info = find(client, longest);
    EXPECT_EQ(info.name, longest);
    EXPECT_EQ(info.type, -7);
    EXPECT_EQ(info.mode, DX_READ_ONLY);
    EXPECT_FALSE(known(client, ""));
    EXPECT_FALSE(known(client, "a/ra"));
    EXPECT_FALSE(known(client, longest + "n"));
    EXPECT_EQ(dx_client_find(nullptr, "a", &info), DX_BAD_ARGUMENT);
    EXPECT_EQ(dx_client_find(client.get(), nullptr, &info), DX_BAD_ARGUMENT);
    EXPECT_EQ(dx_client_find(client.get(), "a", nullptr), DX_BAD_ARGUMENT);
}

TEST_F(dx_client_side, reads_value_number_of_writes_and_age) {
    const handle_ptr handle = new_provider();
    dx_tag *tag = add(handle, "tag", 8, DX_READ_ONLY);
    const client_ptr client = open_client();
    const dx_tag_info info = find(client, "tag");
    EXPECT_EQ(read_sample(client, info).sequence, 0U);
    publish(handle, tag, 0x0102030405060708);
    const dx_sample sample = read_sample(client, info);
    uint64_t value = 0;
    memcpy(&value, sample.value, sizeof value);
    EXPECT_EQ(value, 0x0102030405060708U);
    EXPECT_EQ(sample.sequence, 1U);
    EXPECT_LT(sample.age_ms, 10000U);
    EXPECT_TRUE(eventually([&] { return read_sample(client, info).age_ms >= 50; }));
    publish(handle, tag, 2); // a notify came in between: a new time
    EXPECT_TRUE(eventually([&] {
        publish(handle, tag, 3);
        return read_sample(client, info).age_ms < 50;
    }));
    EXPECT_EQ(dx_client_read(nullptr, &info, nullptr), DX_BAD_ARGUMENT);
}

TEST_F(dx_client_side, write_answers_why_it_was_refused) {
    handle_ptr handle = new_provider();
    dx_tag *tag = dx_tag_provider_new(handle.get(), "wo", 13, 5, DX_WRITE_ONLY);
    ASSERT_TRUE(dx_tag_provider_new(handle.get(), "ro", 13, 5, DX_READ_ONLY));
    const client_ptr client = open_client();
    const dx_tag_info wo = find(client, "wo");
    const dx_tag_info ro = find(client, "ro");
    uint8_t data[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(dx_client_write(client.get(), &wo, data, 5), DX_OK);
    EXPECT_EQ(dx_tag_has_read(tag), 0);
    uint8_t got[8] = {};
    EXPECT_EQ(dx_tag_read(tag, got, 8), 5);
    EXPECT_EQ(memcmp(got, "\1\2\3\4\5\0\0\0", 8), 0);
    EXPECT_EQ(dx_client_write(client.get(), &wo, data, 4), DX_WRONG_SIZE);
    EXPECT_EQ(dx_client_write(client.get(), &wo, data, 6), DX_WRONG_SIZE);
    EXPECT_EQ(dx_client_write(client.get(), &ro, data, 5), DX_IS_READ_ONLY);
    EXPECT_EQ(dx_client_write(client.get(), &wo, nullptr, 5), DX_BAD_ARGUMENT);
    EXPECT_EQ(dx_client_write(client.get(), nullptr, data, 5), DX_BAD_ARGUMENT);
    EXPECT_EQ(dx_client_write(nullptr, &wo, data, 5), DX_BAD_ARGUMENT);
    EXPECT_EQ(dx_tag_has_read(tag), 1);
    dx_tag_destroy(tag);
    EXPECT_EQ(dx_client_write(client.get(), &wo, data, 5), DX_UNKNOWN_TAG);
    dx_sample sample;
    EXPECT_EQ(dx_client_read(client.get(), &wo, &sample), DX_UNKNOWN_TAG);
    // Another tag in the same slot is not the one that was found.
    ASSERT_TRUE(dx_tag_provider_new(handle.get(), "wo", 13, 5, DX_WRITE_ONLY));
    ASSERT_EQ(find(client, "wo").slot, wo.slot);
    EXPECT_EQ(dx_client_write(client.get(), &wo, data, 5), DX_UNKNOWN_TAG);
    dx_tag_info wild = wo;
    wild.slot = UINT32_MAX;
    EXPECT_EQ(dx_client_write(client.get(), &wild, data, 5), DX_UNKNOWN_TAG);
}

TEST_F(dx_client_side, lists_by_pattern_and_stops_when_told) {
    const handle_ptr handle = new_provider();
    for (const char *name : {"can/a/x", "can/b/x", "other"}) {
        ASSERT_TRUE(add(handle, name));
    }
    const client_ptr client = open_client();
    EXPECT_EQ(list(client), (std::vector<std::string>{"can/a/x", "can/b/x", "other"}));
    EXPECT_EQ(list(client, "can/*"), (std::vector<std::string>{"can/a/x", "can/b/x"}));
    EXPECT_EQ(list(client, "*/[b]/?"), (std::vector<std::string>{"can/b/x"}));
    EXPECT_TRUE(list(client, "none").empty());
    int visits = 0;
    const auto stop = [](void *context, const dx_tag_info *, const dx_sample *) {
        return ++*static_cast<int *>(context) == 2 ? 1 : 0;
    };
    EXPECT_EQ(dx_client_list(client.get(), nullptr, stop, &visits), 2);
    EXPECT_EQ(visits, 2);
    EXPECT_EQ(dx_client_list(client.get(), nullptr, nullptr, nullptr), DX_BAD_ARGUMENT);
}

TEST_F(dx_client_side, changes_are_what_was_written_since_the_last_look) {
    const handle_ptr handle = new_provider();
    std::vector<dx_tag *> tags;
    for (int i = 0; i < 300; ++i) { // several groups
        tags.push_back(add(handle, "tag" + std::to_string(i), 8, DX_READ_ONLY));
        publish(handle, tags.back(), 1);
    }
    const client_ptr client = open_client();
    EXPECT_TRUE(changes(client).empty());
    EXPECT_TRUE(changes(client).empty());
    publish(handle, tags[3], 10);
    publish(handle, tags[3], 11);
    publish(handle, tags[299], 12);
    const std::vector<change> found = changes(client);
    ASSERT_EQ(found.size(), 2U);
    EXPECT_EQ(found[0].name, "tag3");
    EXPECT_EQ(found[0].value, 11U);
    EXPECT_EQ(found[0].sequence, 3U);
    EXPECT_EQ(found[1].name, "tag299");
    EXPECT_TRUE(changes(client).empty());
}

TEST_F(dx_client_side, new_tag_is_a_change_from_its_first_write) {
    const handle_ptr handle = new_provider();
    dx_tag *old = add(handle, "old", 8, DX_READ_ONLY);
    publish(handle, old, 1);
    const client_ptr client = open_client();
    EXPECT_TRUE(changes(client).empty());
    dx_tag_destroy(old);
    dx_tag *tag = add(handle, "new", 8, DX_READ_ONLY);
    EXPECT_TRUE(changes(client).empty());
    publish(handle, tag, 5);
    const std::vector<change> found = changes(client);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].name, "new");
}

TEST_F(dx_client_side, changes_cut_short_come_at_the_next_call) {
    const handle_ptr handle = new_provider();
    dx_tag *tags[] = {add(handle, "a"), add(handle, "b")};
    const client_ptr client = open_client();
    EXPECT_TRUE(changes(client).empty());
    publish(handle, tags[0], 1);
    publish(handle, tags[1], 2);
    const auto stop = [](void *, const dx_tag_info *, const dx_sample *) { return 1; };
    EXPECT_EQ(dx_client_changes(client.get(), stop, nullptr), 1);
    const std::vector<change> rest = changes(client);
    ASSERT_EQ(rest.size(), 1U);
    EXPECT_EQ(rest[0].name, "b");
}

TEST_F(dx_client_side, wait_ends_with_a_commit_and_not_with_a_write) {
    const handle_ptr handle = new_provider();
    dx_tag *tag = add(handle, "tag");
    const client_ptr client = open_client();
    (void)changes(client);
    EXPECT_EQ(dx_client_wait(client.get(), 0), 0);
    const uint64_t value = 1;
    ASSERT_EQ(dx_tag_write(handle.get(), tag, &value, 8), 0);
    EXPECT_EQ(dx_client_wait(client.get(), 50), 0);
    ASSERT_EQ(dx_tag_notify(handle.get()), 0);
    EXPECT_EQ(dx_client_wait(client.get(), -1), 1);
    EXPECT_EQ(dx_client_wait(client.get(), 0), 1); // until the changes are looked at
    EXPECT_EQ(changes(client).size(), 1U);
    EXPECT_EQ(dx_client_wait(client.get(), 0), 0);
    EXPECT_EQ(dx_client_wait(nullptr, 0), DX_BAD_ARGUMENT);
}

TEST_F(dx_client_side, every_sleeping_watcher_wakes) {
    constexpr int watcher_count = 4;
    constexpr uint64_t last = 500;
    const handle_ptr handle = new_provider();
    dx_tag *tag = add(handle, "tag", 8, DX_READ_ONLY);
    std::atomic<int> ready{0};
    std::array<std::atomic<uint64_t>, watcher_count> seen{};
    const auto watch = [&](std::atomic<uint64_t> &value) {
        const client_ptr client = open_client();
        (void)changes(client);
        ++ready;
        while (value != last) {
            ASSERT_EQ(dx_client_wait(client.get(), 30000), 1); // a lost wake-up would end here
            for (const change &found : changes(client)) {
                value = found.value;
            }
        }
    };
    std::vector<std::thread> watchers;
    for (std::atomic<uint64_t> &value : seen) {
        watchers.emplace_back(watch, std::ref(value));
    }
    EXPECT_TRUE(eventually([&] { return ready == watcher_count; }));
    for (uint64_t value = 1; value <= last; ++value) {
        publish(handle, tag, value);
        EXPECT_TRUE(eventually([&] {
            return std::all_of(seen.begin(), seen.end(), [=](const auto &s) { return s == value; });
        }));
    }
    for (std::thread &watcher : watchers) {
        watcher.join();
    }
}

TEST_F(dx_client_side, signal_ends_a_wait) {
    const handle_ptr handle = new_provider();
    const client_ptr client = open_client();
    (void)changes(client);
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    std::atomic<bool> done{false};
    const pthread_t waiter = pthread_self();
    std::thread sender([&] {
        while (!done) { // the first ones may come before the wait has begun
            (void)pthread_kill(waiter, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    EXPECT_EQ(dx_client_wait(client.get(), -1), 0);
    done = true;
    sender.join();
    (void)signal(SIGUSR1, SIG_DFL);
}

TEST_F(dx_client_side, client_without_write_permission_reads_and_watches) {
    const handle_ptr handle = new_provider();
    dx_tag *tag = add(handle, "tag");
    ASSERT_EQ(chmod(path_.c_str(), 0755), 0);
    ASSERT_EQ(chmod(store_path().c_str(), 0664), 0);
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to become someone else";
    }
    const signal_pipe ready;
    child_process child([&] {
        if (setgid(65534) != 0 || setuid(65534) != 0) {
            return 1;
        }
        const client_ptr client = open_client();
        if (!client || list(client).size() != 1 || !known(client, "tag")) {
            return 2;
        }
        if (write_u64(client, find(client, "tag"), 1) != DX_NO_PERMISSION) {
            return 3;
        }
        (void)changes(client);
        (void)ready.send();
        if (dx_client_wait(client.get(), 30000) != 1 || changes(client).size() != 1) {
            return 4;
        }
        return dx_client_wait(client.get(), 30) == 0 ? 0 : 5;
    });
    ASSERT_TRUE(ready.wait());
    publish(handle, tag, 1);
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(dx_client_side, knows_when_its_store_was_replaced) {
    const handle_ptr handle = new_provider();
    const client_ptr client = open_client();
    EXPECT_EQ(dx_client_current(client.get()), 1);
    std::filesystem::remove(store_path());
    EXPECT_EQ(dx_client_current(client.get()), 0);
    const handle_ptr next = new_provider();
    EXPECT_EQ(dx_client_current(client.get()), 0);
    EXPECT_EQ(dx_client_current(open_client().get()), 1);
    EXPECT_EQ(dx_client_current(nullptr), 0);
}

TEST_F(dx_client_side, look_up_and_list_go_on_while_tags_come_and_go) {
    const handle_ptr handle = new_provider();
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(add(handle, "steady" + std::to_string(i)));
    }
    std::atomic<bool> stop{false};
    std::thread churn([&] {
        while (!stop) {
            std::vector<dx_tag *> tags;
            for (int i = 0; i < 50; ++i) {
                tags.push_back(add(handle, "passing" + std::to_string(i)));
            }
            for (dx_tag *tag : tags) {
                dx_tag_destroy(tag);
            }
        }
    });
    const client_ptr client = open_client();
    for (int round = 0; round < 300; ++round) {
        ASSERT_TRUE(known(client, "steady" + std::to_string(round % 50)));
        ASSERT_EQ(list(client, "steady*").size(), 50U);
        for (const std::string &name : list(client)) {
            ASSERT_TRUE(name.starts_with("steady") || name.starts_with("passing")) << name;
        }
    }
    stop = true;
    churn.join();
}
