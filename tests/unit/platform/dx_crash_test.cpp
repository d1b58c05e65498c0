#include "dx_fixture.h"
#include "registration.h"
#include "registry.h"

#include <cstring>

class dx_crash : public dx_test {
protected:
    /** A child that provides tags and says so, then works until it is killed. */
    static std::unique_ptr<child_process>
    provider_child(const signal_pipe &ready,
                   const std::function<void(dx_handle *, dx_tag **)> &work) {
        return std::make_unique<child_process>([&ready, work] {
            handle_ptr handle = new_provider(nullptr, "child");
            dx_tag *tags[] = {add(handle, "wo"), add(handle, "ro", 8, DX_READ_ONLY)};
            if (!tags[0] || !tags[1] || !ready.send()) {
                return 1;
            }
            while (true) {
                work(handle.get(), tags);
            }
        });
    }
    static void rest(dx_handle *, dx_tag **) { (void)pause(); }
};

TEST_F(dx_crash, tags_of_a_killed_provider_are_gone) {
    const signal_pipe ready;
    const auto child = provider_child(ready, rest);
    ASSERT_TRUE(ready.wait());
    const client_ptr client = open_client();
    const dx_tag_info wo = find(client, "wo");
    EXPECT_EQ(list(client).size(), 2U);
    child->kill_hard();
    dx_sample sample;
    const uint64_t value = 1;
    EXPECT_EQ(dx_client_read(client.get(), &wo, &sample), DX_PROVIDER_DEAD);
    EXPECT_EQ(dx_client_write(client.get(), &wo, &value, 8), DX_PROVIDER_DEAD);
    EXPECT_FALSE(known(client, "wo"));
    const store_view view(store_path());
    EXPECT_EQ(view->header.slot_end, 2U);
    EXPECT_TRUE(list(client).empty());
    EXPECT_EQ(view->header.slot_end, 0U); // the list removed them for good
    EXPECT_EQ(dx_client_write(client.get(), &wo, &value, 8), DX_UNKNOWN_TAG);
}

TEST_F(dx_crash, a_writer_learns_that_the_thread_it_wakes_is_gone) {
    const signal_pipe ready;
    child_process child([&ready] {
        const handle_ptr handle = new_provider([](dx_handle *, const uint8_t *) {}, "child");
        const bool there = add(handle, "wo") && ready.send();
        return there ? pause() : 1;
    });
    ASSERT_TRUE(ready.wait());
    const client_ptr client = open_client();
    const dx_tag_info wo = find(client, "wo");
    const uint64_t value = 1;
    EXPECT_EQ(dx_client_write(client.get(), &wo, &value, 8), DX_OK);
    child.kill_hard();
    EXPECT_EQ(dx_client_write(client.get(), &wo, &value, 8), DX_PROVIDER_DEAD);
}

TEST_F(dx_crash, next_provider_takes_the_names_over) {
    const signal_pipe ready;
    const auto child = provider_child(ready, rest);
    ASSERT_TRUE(ready.wait());
    const handle_ptr before = new_provider();
    EXPECT_FALSE(add(before, "wo"));
    child->kill_hard();
    EXPECT_TRUE(add(before, "wo")); // a living provider takes over the one name it asks for
    const handle_ptr after = new_provider(); // and a new one cleans up first
    EXPECT_EQ(list(open_client()), std::vector<std::string>{"wo"});
    EXPECT_TRUE(add(after, "ro"));
}

TEST_F(dx_crash, dead_providers_make_room_in_a_full_store) {
    const handle_ptr handle = new_provider();
    const signal_pipe ready;
    child_process child([&] {
        const handle_ptr other = new_provider();
        uint32_t count = 0;
        while (add(other, "tag" + std::to_string(count))) {
            ++count;
        }
        (void)ready.send();
        (void)pause();
        return 0;
    });
    ASSERT_TRUE(ready.wait());
    EXPECT_FALSE(add(handle, "mine"));
    child.kill_hard();
    EXPECT_TRUE(add(handle, "mine"));
    EXPECT_EQ(list(open_client()), std::vector<std::string>{"mine"});
}

TEST_F(dx_crash, values_are_whole_however_a_provider_is_killed) {
    for (unsigned round = 0; round < 40; ++round) {
        const signal_pipe ready;
        uint32_t number = 0;
        const auto child = provider_child(ready, [&number](dx_handle *handle, dx_tag **tags) {
            const uint64_t value = twin(++number * 2654435761U);
            (void)dx_tag_write(handle, tags[1], &value, sizeof value);
            (void)dx_tag_notify(handle);
        });
        ASSERT_TRUE(ready.wait());
        const client_ptr client = open_client();
        const dx_tag_info info = find(client, "ro");
        const store_view view(store_path());
        for (unsigned reads = 0; reads < 1000 + 97 * round; ++reads) {
            dx_sample sample;
            ASSERT_EQ(dx_client_read(client.get(), &info, &sample), DX_OK);
            uint64_t value = 0;
            memcpy(&value, sample.value, sizeof value);
            ASSERT_TRUE(is_twin(value)) << std::hex << value;
        }
        child->kill_hard();
        EXPECT_TRUE(is_twin(view->tags[info.slot].value[0]))
            << std::hex << view->tags[info.slot].value[0];
    }
    const handle_ptr handle = new_provider();
    EXPECT_TRUE(add(handle, "ro"));
    EXPECT_TRUE(add(handle, "wo"));
}

TEST_F(dx_crash, killed_clients_leave_whole_values_and_a_working_provider) {
    const auto child_writes = [](const signal_pipe &ready) {
        const client_ptr client = open_client();
        const dx_tag_info info = find(client, "wo");
        (void)ready.send();
        for (uint32_t i = 1;; ++i) {
            if (write_u64(client, info, twin(i * 2654435761U)) != DX_OK) {
                return 1;
            }
        }
    };
    const handle_ptr handle = new_provider();
    dx_tag *tag = add(handle, "wo");
    for (unsigned round = 0; round < 20; ++round) {
        const signal_pipe ready;
        child_process first([&] { return child_writes(ready); });
        child_process second([&] { return child_writes(ready); });
        ASSERT_TRUE(ready.wait());
        ASSERT_TRUE(ready.wait());
        for (unsigned reads = 0; reads < 1000 + 97 * round; ++reads) {
            ASSERT_TRUE(is_twin(read_u64(tag)));
        }
        first.kill_hard();
        second.kill_hard();
        ASSERT_TRUE(is_twin(read_u64(tag)));
    }
    (void)read_u64(tag);
    const client_ptr client = open_client();
    ASSERT_EQ(write_u64(client, find(client, "wo"), 9), DX_OK);
    EXPECT_EQ(dx_tag_has_read(tag), 0);
    EXPECT_EQ(read_u64(tag), 9U);
    EXPECT_TRUE(add(handle, "another"));
}

TEST_F(dx_crash, killed_watcher_costs_one_wake_up) {
    const handle_ptr handle = new_provider();
    const store_view view(store_path());
    child_process child([] {
        const client_ptr client = open_client();
        return dx_client_wait(client.get(), -1);
    });
    ASSERT_TRUE(eventually([&] { return (view->header.commit & 1) != 0; }));
    child.kill_hard();
    EXPECT_EQ(view->header.commit, 1U);
    EXPECT_EQ(dx_tag_notify(handle.get()), 0);
    EXPECT_EQ(view->header.commit, 2U); // nobody is waited for any more
}

TEST_F(dx_crash, registration_goes_on_after_its_owner_died_in_a_change) {
    const handle_ptr handle = new_provider();
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(add(handle, "tag" + std::to_string(i)));
    }
    child_process child([] {
        kt_dx::store file;
        if (kt_dx::open_store(file, kt_dx::open_mode::create) != 0) {
            return 1;
        }
        const kt_dx::registration lock(file);
        auto &map = *file.map;
        map.header.changing.fetch_add(1);
        for (auto &bucket : map.buckets) {
            bucket = 0;
        }
        map.header.slot_end = 3;
        (void)kill(getpid(), SIGKILL);
        return 2;
    });
    EXPECT_EQ(child.wait(), -SIGKILL);
    const client_ptr client = open_client();
    EXPECT_TRUE(known(client, "tag2")); // readers need no index
    EXPECT_FALSE(add(handle, "tag99"));
    EXPECT_TRUE(add(handle, "new"));
    EXPECT_EQ(list(client).size(), 101U);
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(known(client, "tag" + std::to_string(i)));
    }
    const store_view view(store_path());
    EXPECT_EQ(view->header.changing % 2, 0U);
}

TEST_F(dx_crash, stopped_owner_of_the_registration_is_an_error_and_no_hang) {
    handle_ptr handle = new_provider();
    dx_tag *tag = add(handle, "tag");
    const signal_pipe ready;
    child_process child([&] {
        kt_dx::store file;
        (void)kt_dx::open_store(file, kt_dx::open_mode::create);
        const kt_dx::registration lock(file);
        (void)ready.send();
        (void)pause();
        return 0;
    });
    ASSERT_TRUE(ready.wait());
    testing::internal::CaptureStderr();
    EXPECT_FALSE(new_provider());
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "kt-dx: " + store_path() +
                  ": registration lock not available (Connection timed out)\n");
    EXPECT_FALSE(add(handle, "other"));
    // Values do not care.
    const uint64_t value = 5;
    EXPECT_EQ(dx_tag_write(handle.get(), tag, &value, 8), 0);
    const client_ptr client = open_client();
    EXPECT_EQ(write_u64(client, find(client, "tag"), 6), DX_OK);
    EXPECT_EQ(read_u64(tag), 6U);
    child.kill_hard();
    EXPECT_TRUE(add(handle, "other"));
    EXPECT_TRUE(new_provider());
}

TEST_F(dx_crash, two_processes_never_tear_a_value) {
    constexpr uint32_t writes = 100000;
    const handle_ptr handle = new_provider();
    dx_tag *tag = add(handle, "wo");
    const auto hammer = [](uint32_t salt) {
        const client_ptr client = open_client();
        const dx_tag_info info = find(client, "wo");
        for (uint32_t i = 0; i < writes; ++i) {
            if (write_u64(client, info, twin((i + salt) * 2654435761U)) != DX_OK) {
                return 1;
            }
        }
        return 0;
    };
    child_process first([&] { return hammer(0); });
    child_process second([&] { return hammer(123456789); });
    const client_ptr client = open_client();
    const dx_tag_info info = find(client, "wo");
    for (uint32_t i = 0; i < writes; ++i) {
        dx_sample sample;
        ASSERT_EQ(dx_client_read(client.get(), &info, &sample), DX_OK);
        uint64_t value = 0;
        memcpy(&value, sample.value, sizeof value);
        ASSERT_TRUE(is_twin(value)) << std::hex << value;
        ASSERT_TRUE(is_twin(read_u64(tag)));
    }
    EXPECT_EQ(first.wait(), 0);
    EXPECT_EQ(second.wait(), 0);
    EXPECT_EQ(store_view(store_path())->tags[info.slot].sequence, 2 * writes);
}

TEST_F(dx_crash, racing_creators_agree_on_one_store) {
    for (int round = 0; round < 20; ++round) {
        std::filesystem::remove_all(path("run"));
        std::vector<std::unique_ptr<child_process>> children;
        const signal_pipe go;
        const signal_pipe ready;
        const signal_pipe leave;
        for (int i = 0; i < 8; ++i) {
            children.push_back(std::make_unique<child_process>([&, i] {
                (void)go.wait();
                const handle_ptr handle = new_provider();
                const bool added = handle && add(handle, "tag" + std::to_string(i));
                (void)ready.send();
                (void)leave.wait();
                return added ? 0 : 1;
            }));
        }
        for (int i = 0; i < 8; ++i) {
            ASSERT_TRUE(go.send());
        }
        for (int i = 0; i < 8; ++i) {
            ASSERT_TRUE(ready.wait());
        }
        EXPECT_EQ(list(open_client()).size(), 8U);
        for (int i = 0; i < 8; ++i) {
            ASSERT_TRUE(leave.send());
        }
        for (const auto &child : children) {
            EXPECT_EQ(child->wait(), 0);
        }
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(path("run/kt-dx")), {}), 1);
    }
}
