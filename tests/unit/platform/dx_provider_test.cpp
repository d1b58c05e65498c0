#include "dx_fixture.h"

#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <thread>

namespace {

/** Hangs on a handle; notes what its dispatch function saw. */
struct recorder {
    std::mutex lock;
    std::vector<std::set<unsigned>> calls; // indices of the bits that were set
    std::multimap<dx_tag *, uint64_t> taken;
    char thread_name[16] = "";
    sigset_t signals{};

    size_t call_count() {
        const std::lock_guard<std::mutex> guard(lock);
        return calls.size();
    }
    size_t taken_count(dx_tag *tag) {
        const std::lock_guard<std::mutex> guard(lock);
        return taken.count(tag);
    }
    bool has_taken(dx_tag *tag, uint64_t value) {
        const std::lock_guard<std::mutex> guard(lock);
        const auto [begin, end] = taken.equal_range(tag);
        return std::any_of(begin, end, [=](const auto &pair) { return pair.second == value; });
    }
};

void record(dx_handle *handle, const uint8_t *bitmap) {
    auto &notes = *static_cast<recorder *>(dx_get_user_data(handle));
    std::set<unsigned> indices;
    const std::lock_guard<std::mutex> guard(notes.lock);
    (void)pthread_getname_np(pthread_self(), notes.thread_name, sizeof notes.thread_name);
    (void)pthread_sigmask(SIG_SETMASK, nullptr, &notes.signals);
    for (unsigned index = 0; index < DX_INDEX_COUNT; ++index) {
        if (!(bitmap[index / 8] >> (index % 8) & 1)) {
            continue;
        }
        indices.insert(index);
        for (dx_entry *entry = dx_lookup_head(handle, index); entry; entry = entry->next) {
            if (!dx_tag_has_read(entry->tag)) {
                uint64_t value = 0;
                (void)dx_tag_read(entry->tag, &value, sizeof value);
                notes.taken.emplace(entry->tag, value);
            }
        }
    }
    notes.calls.push_back(indices);
}

void count_only(dx_handle *handle, const uint8_t *) {
    static_cast<std::atomic<int> *>(dx_get_user_data(handle))->fetch_add(1);
}

} // namespace

class dx_provider : public dx_test {};

TEST_F(dx_provider, makes_the_store_below_the_root_with_its_modes) {
    const handle_ptr handle = new_provider();
    ASSERT_TRUE(handle);
    struct stat info;
    ASSERT_EQ(stat(store_path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0660U);
    ASSERT_EQ(stat(path("run/kt-dx").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0755U);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(path("run/kt-dx")), {}), 1);
}

TEST_F(dx_provider, needs_a_name) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(dx_new(nullptr, nullptr), nullptr);
    EXPECT_EQ(dx_new("", nullptr), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "kt-dx: a provider needs a name\nkt-dx: a provider needs a name\n");
}

TEST_F(dx_provider, value_size_is_the_wider_of_type_and_configured_size) {
    const size_t widths[] = {1, 2, 4, 8, 1, 2, 4, 8, 4, 8};
    for (int type = 1; type <= 10; ++type) {
        for (size_t size = 0; size <= 9; ++size) {
            EXPECT_EQ(dx_get_value_size(type, size), std::max(widths[type - 1], size));
        }
    }
    for (const int raw : {-1, 0, 11, 12, 13, 1000}) {
        EXPECT_EQ(dx_get_value_size(raw, 0), 0U);
        EXPECT_EQ(dx_get_value_size(raw, 5), 5U);
    }
}

TEST_F(dx_provider, refuses_impossible_tags) {
    const handle_ptr handle = new_provider();
    const std::string longest(DX_NAME_MAX, 'n');
    EXPECT_EQ(dx_tag_provider_new(nullptr, "a", 1, 1, DX_READ_ONLY), nullptr);
    EXPECT_EQ(dx_tag_provider_new(handle.get(), nullptr, 1, 1, DX_READ_ONLY), nullptr);
    EXPECT_EQ(dx_tag_provider_new(handle.get(), "", 1, 1, DX_READ_ONLY), nullptr);
    EXPECT_EQ(add(handle, longest + "n"), nullptr);
    EXPECT_EQ(dx_tag_provider_new(handle.get(), "a", 13, 0, DX_READ_ONLY), nullptr);
    EXPECT_EQ(dx_tag_provider_new(handle.get(), "a", 13, 9, DX_READ_ONLY), nullptr);
    EXPECT_EQ(dx_tag_provider_new(handle.get(), "a", 1, 9, DX_READ_ONLY), nullptr);
    EXPECT_EQ(dx_tag_provider_new(handle.get(), "a", 1, 1, 0), nullptr);
    EXPECT_EQ(dx_tag_provider_new(handle.get(), "a", 1, 1, 3), nullptr);
    EXPECT_TRUE(list(open_client()).empty());
    EXPECT_NE(add(handle, longest), nullptr);
    EXPECT_NE(dx_tag_provider_new(handle.get(), "width of its type", 3, 0, DX_READ_ONLY), nullptr);
    EXPECT_EQ(find(open_client(), "width of its type").size, 4U);
}

TEST_F(dx_provider, names_of_every_length_come_back) {
    const handle_ptr handle = new_provider();
    const client_ptr client = open_client();
    for (size_t length = 1; length <= DX_NAME_MAX; ++length) {
        std::string name(length, 'n');
        for (size_t i = 0; i < length; ++i) {
            name[i] = static_cast<char>('a' + (length + i) % 26);
        }
        ASSERT_NE(add(handle, name), nullptr) << length;
        EXPECT_EQ(find(client, name).name, name);
    }
}

TEST_F(dx_provider, value_starts_as_zero_also_where_another_tag_was) {
    const handle_ptr handle = new_provider();
    dx_tag *first = add(handle, "first");
    const uint64_t value = 0x1122334455667788;
    ASSERT_EQ(dx_tag_write(handle.get(), first, &value, 8), 0);
    dx_tag_destroy(first);
    EXPECT_EQ(read_u64(add(handle, "second")), 0U);
    EXPECT_EQ(find(open_client(), "second").slot, 0U);
}

TEST_F(dx_provider, writes_up_to_the_value_size_and_fills_with_zero) {
    const handle_ptr handle = new_provider();
    dx_tag *tag = dx_tag_provider_new(handle.get(), "raw", 13, 5, DX_READ_ONLY);
    const uint8_t all[6] = {1, 2, 3, 4, 5, 6};
    uint8_t got[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    EXPECT_EQ(dx_tag_write(handle.get(), tag, all, 6), -1);
    EXPECT_EQ(dx_tag_write(handle.get(), tag, all, 5), 0);
    EXPECT_EQ(dx_tag_read(tag, got, 8), 5);
    EXPECT_EQ(memcmp(got, "\1\2\3\4\5\11\11\11", 8), 0);
    EXPECT_EQ(dx_tag_write(handle.get(), tag, all, 2), 0);
    EXPECT_EQ(dx_tag_read(tag, got, 8), 5);
    EXPECT_EQ(memcmp(got, "\1\2\0\0\0", 5), 0);
    EXPECT_EQ(dx_tag_write(handle.get(), tag, all, 0), 0);
    EXPECT_EQ(dx_tag_read(tag, got, 1), 1);
    EXPECT_EQ(got[0], 0);
    EXPECT_EQ(dx_tag_read(tag, got, 0), 0);
}

TEST_F(dx_provider, a_value_of_any_size_follows_one_of_any_other) {
    const handle_ptr handle = new_provider();
    for (size_t width = 1; width <= DX_VALUE_MAX; ++width) {
        for (const int mode : {DX_READ_ONLY, DX_WRITE_ONLY}) {
            const std::string name = std::to_string(width) + "/" + std::to_string(mode);
            dx_tag *tag = dx_tag_provider_new(handle.get(), name.c_str(), 13, width, mode);
            const client_ptr client = open_client();
            const dx_tag_info info = find(client, name);
            uint32_t writes = 0;
            for (size_t first = 0; first <= width + 1; ++first) {
                for (size_t second = 0; second <= width; ++second) {
                    const uint8_t value[] = {0x81, 0x92, 0xa3, 0xb4, 0xc5, 0xd6, 0xe7, 0xf8, 0x19};
                    const bool fits = first <= width;
                    ASSERT_EQ(dx_tag_write(handle.get(), tag, value, first), fits ? 0 : -1);
                    ASSERT_EQ(dx_tag_write(handle.get(), tag, value, second), 0);
                    writes += fits ? 2 : 1;
                    uint8_t wanted[DX_VALUE_MAX] = {};
                    memcpy(wanted, value, second);
                    dx_sample sample;
                    ASSERT_EQ(dx_client_read(client.get(), &info, &sample), DX_OK);
                    EXPECT_EQ(memcmp(sample.value, wanted, DX_VALUE_MAX), 0)
                        << name << ' ' << first << ' ' << second;
                    EXPECT_EQ(sample.sequence, writes);
                    EXPECT_EQ(dx_tag_notify(handle.get()), 0);
                }
            }
        }
    }
}

TEST_F(dx_provider, every_write_counts_where_clients_write_as_well) {
    constexpr uint32_t each = 20000;
    const handle_ptr handle = new_provider();
    dx_tag *tag = dx_tag_provider_new(handle.get(), "shared", 7, 4, DX_WRITE_ONLY);
    const auto write_as_client = [&] {
        const client_ptr client = open_client();
        const dx_tag_info info = find(client, "shared");
        for (uint32_t i = 0; i < each; ++i) {
            ASSERT_EQ(dx_client_write(client.get(), &info, &i, sizeof i), DX_OK);
        }
    };
    std::thread first(write_as_client);
    std::thread second(write_as_client);
    for (uint32_t i = 0; i < each; ++i) {
        EXPECT_EQ(dx_tag_write(handle.get(), tag, &i, sizeof i), 0);
    }
    first.join();
    second.join();
    const client_ptr client = open_client();
    const dx_tag_info info = find(client, "shared");
    dx_sample sample;
    ASSERT_EQ(dx_client_read(client.get(), &info, &sample), DX_OK);
    EXPECT_EQ(sample.sequence, 3 * each);
}

TEST_F(dx_provider, refuses_null_and_tags_of_another_handle) {
    const handle_ptr handle = new_provider();
    const handle_ptr other = new_provider();
    dx_tag *tag = add(handle, "tag");
    uint64_t value = 0;
    EXPECT_EQ(dx_tag_write(nullptr, tag, &value, 8), -1);
    EXPECT_EQ(dx_tag_write(handle.get(), nullptr, &value, 8), -1);
    EXPECT_EQ(dx_tag_write(handle.get(), tag, nullptr, 8), -1);
    EXPECT_EQ(dx_tag_write(other.get(), tag, &value, 8), -1);
    EXPECT_EQ(dx_tag_read(nullptr, &value, 8), -1);
    EXPECT_EQ(dx_tag_read(tag, nullptr, 8), -1);
    EXPECT_EQ(dx_tag_notify(nullptr), -1);
    EXPECT_EQ(dx_tag_notify(handle.get()), 0);
    EXPECT_EQ(dx_lookup_head(nullptr, 0), nullptr);
    EXPECT_EQ(dx_lookup_head(handle.get(), DX_INDEX_COUNT), nullptr);
    EXPECT_EQ(dx_tag_get_user_data(nullptr), nullptr);
    EXPECT_EQ(dx_get_user_data(nullptr), nullptr);
    EXPECT_EQ(dx_tag_has_read(nullptr), 1);
    dx_set_user_data(nullptr, &value);
    dx_tag_set_user_data(nullptr, &value);
    dx_tag_destroy(nullptr);
    dx_destroy(nullptr);
}

TEST_F(dx_provider, keeps_user_data) {
    const handle_ptr handle = new_provider();
    dx_tag *tag = add(handle, "tag");
    int handle_data = 0;
    int tag_data = 0;
    EXPECT_EQ(dx_get_user_data(handle.get()), nullptr);
    EXPECT_EQ(dx_tag_get_user_data(tag), nullptr);
    dx_set_user_data(handle.get(), &handle_data);
    dx_tag_set_user_data(tag, &tag_data);
    EXPECT_EQ(dx_get_user_data(handle.get()), &handle_data);
    EXPECT_EQ(dx_tag_get_user_data(tag), &tag_data);
}

TEST_F(dx_provider, name_of_a_living_provider_is_taken_until_its_tag_is_destroyed) {
    const handle_ptr handle = new_provider();
    const handle_ptr other = new_provider();
    dx_tag *tag = add(handle, "tag");
    EXPECT_EQ(add(handle, "tag"), nullptr);
    EXPECT_EQ(add(other, "tag"), nullptr);
    dx_tag_destroy(tag);
    EXPECT_NE(add(other, "tag"), nullptr);
}

TEST_F(dx_provider, leaving_removes_every_tag) {
    handle_ptr handle = new_provider();
    const handle_ptr other = new_provider();
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(add(i % 2 ? handle : other, "tag" + std::to_string(i)));
    }
    const client_ptr client = open_client();
    EXPECT_EQ(list(client).size(), 100U);
    handle.reset();
    EXPECT_EQ(list(client).size(), 50U);
    EXPECT_FALSE(known(client, "tag1"));
    EXPECT_TRUE(known(client, "tag0"));
}

TEST_F(dx_provider, change_by_a_client_is_dispatched_once_and_unread_until_read) {
    recorder notes;
    const handle_ptr handle = new_provider(record);
    dx_set_user_data(handle.get(), &notes);
    (void)add(handle, "filler");
    dx_tag *tag = add(handle, "tag");
    const client_ptr client = open_client();
    const dx_tag_info info = find(client, "tag");
    ASSERT_EQ(write_u64(client, info, 42), DX_OK);
    ASSERT_TRUE(eventually([&] { return notes.has_taken(tag, 42); }));
    EXPECT_EQ(dx_tag_has_read(tag), 1);
    ASSERT_EQ(write_u64(client, info, 42), DX_OK); // the same value is a change as well
    ASSERT_TRUE(eventually([&] { return notes.taken_count(tag) == 2; }));
    const std::lock_guard<std::mutex> guard(notes.lock);
    ASSERT_EQ(notes.calls.size(), 2U);
    EXPECT_EQ(notes.calls[0], std::set<unsigned>{info.slot % DX_INDEX_COUNT});
    EXPECT_STREQ(notes.thread_name, "dx-dispatch");
    for (const int signal : {SIGINT, SIGTERM, SIGQUIT, SIGUSR1, SIGPIPE}) {
        EXPECT_EQ(sigismember(&notes.signals, signal), 1);
    }
}

TEST_F(dx_provider, change_stays_unread_until_the_provider_reads_it) {
    const handle_ptr handle = new_provider();
    dx_tag *tag = add(handle, "tag");
    dx_tag *untouched = add(handle, "untouched");
    EXPECT_EQ(dx_tag_has_read(tag), 1);
    const client_ptr client = open_client();
    ASSERT_EQ(write_u64(client, find(client, "tag"), 7), DX_OK);
    EXPECT_EQ(dx_tag_has_read(tag), 0);
    EXPECT_EQ(dx_tag_has_read(tag), 0);
    EXPECT_EQ(dx_tag_has_read(untouched), 1);
    EXPECT_EQ(read_u64(tag), 7U);
    EXPECT_EQ(dx_tag_has_read(tag), 1);
}

TEST_F(dx_provider, own_write_is_no_change_by_another) {
    std::atomic<int> calls{0};
    const handle_ptr handle = new_provider(count_only);
    dx_set_user_data(handle.get(), &calls);
    dx_tag *tag = add(handle, "tag");
    const uint64_t value = 1;
    ASSERT_EQ(dx_tag_write(handle.get(), tag, &value, 8), 0);
    ASSERT_EQ(dx_tag_notify(handle.get()), 0);
    EXPECT_EQ(dx_tag_has_read(tag), 1);
    EXPECT_EQ(read_u64(tag), 1U);
    // A later change by a client comes alone.
    const client_ptr client = open_client();
    ASSERT_EQ(write_u64(client, find(client, "tag"), 2), DX_OK);
    ASSERT_TRUE(eventually([&] { return calls > 0; }));
    EXPECT_EQ(calls, 1);
}

TEST_F(dx_provider, tags_beyond_1024_share_indices_through_chains) {
    constexpr int count = 2 * DX_INDEX_COUNT + 5;
    recorder notes;
    const handle_ptr handle = new_provider(record);
    dx_set_user_data(handle.get(), &notes);
    std::vector<dx_tag *> tags;
    for (int i = 0; i < count; ++i) {
        tags.push_back(add(handle, "tag" + std::to_string(i)));
        ASSERT_TRUE(tags.back());
    }
    size_t entries = 0;
    for (unsigned index = 0; index < DX_INDEX_COUNT; ++index) {
        size_t length = 0;
        for (dx_entry *entry = dx_lookup_head(handle.get(), index); entry; entry = entry->next) {
            ++length;
        }
        EXPECT_EQ(length, index < 5 ? 3U : 2U);
        entries += length;
    }
    EXPECT_EQ(entries, tags.size());
    const client_ptr client = open_client();
    for (const int i : {0, 1024, 2048, 2052, 1023, 2047}) {
        const dx_tag_info info = find(client, "tag" + std::to_string(i));
        ASSERT_EQ(write_u64(client, info, static_cast<uint64_t>(i) + 1), DX_OK);
        EXPECT_TRUE(eventually([&] {
            return notes.has_taken(tags[static_cast<size_t>(i)], static_cast<uint64_t>(i) + 1);
        }));
    }
    const std::lock_guard<std::mutex> guard(notes.lock);
    EXPECT_EQ(notes.taken.size(), 6U);
}

TEST_F(dx_provider, no_change_is_lost_however_fast_clients_write) {
    constexpr uint64_t last = 20000;
    recorder notes;
    const handle_ptr handle = new_provider(record);
    dx_set_user_data(handle.get(), &notes);
    dx_tag *tags[] = {add(handle, "a"), add(handle, "b")};
    const auto hammer = [&](const char *name) {
        const client_ptr client = open_client();
        const dx_tag_info info = find(client, name);
        for (uint64_t value = 1; value <= last; ++value) {
            ASSERT_EQ(write_u64(client, info, value), DX_OK);
        }
    };
    std::thread first(hammer, "a");
    std::thread second(hammer, "b");
    first.join();
    second.join();
    EXPECT_TRUE(eventually([&] { return notes.has_taken(tags[0], last); }));
    EXPECT_TRUE(eventually([&] { return notes.has_taken(tags[1], last); }));
}

TEST_F(dx_provider, two_handles_get_their_own_changes) {
    recorder notes[2];
    const handle_ptr handles[2] = {new_provider(record, "one"), new_provider(record, "two")};
    dx_tag *tags[2] = {add(handles[0], "a"), add(handles[1], "b")};
    dx_set_user_data(handles[0].get(), &notes[0]);
    dx_set_user_data(handles[1].get(), &notes[1]);
    const client_ptr client = open_client();
    ASSERT_EQ(write_u64(client, find(client, "b"), 5), DX_OK);
    ASSERT_TRUE(eventually([&] { return notes[1].has_taken(tags[1], 5); }));
    ASSERT_EQ(write_u64(client, find(client, "a"), 6), DX_OK);
    ASSERT_TRUE(eventually([&] { return notes[0].has_taken(tags[0], 6); }));
    EXPECT_EQ(notes[0].call_count(), 1U);
    EXPECT_EQ(notes[1].call_count(), 1U);
}

TEST_F(dx_provider, destroyed_tag_is_out_of_reach_of_the_dispatch_function) {
    constexpr size_t rounds = 500;
    static std::atomic<int> touched_dead;
    static std::atomic<int> touched;
    touched_dead = touched = 0;
    const auto touch = [](dx_handle *handle, const uint8_t *bitmap) {
        for (unsigned index = 0; index < DX_INDEX_COUNT; ++index) {
            dx_entry *entry =
                bitmap[index / 8] >> (index % 8) & 1 ? dx_lookup_head(handle, index) : nullptr;
            for (; entry; entry = entry->next) {
                auto *alive = static_cast<std::atomic<bool> *>(dx_tag_get_user_data(entry->tag));
                std::this_thread::sleep_for(std::chrono::microseconds(50)); // as if it worked
                uint64_t value = 0;
                (void)dx_tag_read(entry->tag, &value, 8);
                touched_dead += !alive || *alive ? 0 : 1;
                touched += alive ? 1 : 0;
            }
        }
    };
    std::vector<std::atomic<bool>> alive(rounds);
    const handle_ptr handle = new_provider(touch);
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        const client_ptr client = open_client();
        while (!stop) {
            dx_tag_info info;
            if (dx_client_find(client.get(), "tag", &info) == DX_OK) {
                (void)write_u64(client, info, 1); // the tag may go at any moment
            }
        }
    });
    for (std::atomic<bool> &flag : alive) {
        const int before = touched;
        flag = true;
        dx_tag *tag = add(handle, "tag");
        ASSERT_TRUE(tag);
        dx_tag_set_user_data(tag, &flag);
        EXPECT_TRUE(eventually([&] { return touched != before; }));
        dx_tag_destroy(tag);
        flag = false;
    }
    stop = true;
    writer.join();
    EXPECT_EQ(touched_dead, 0);
}

TEST_F(dx_provider, destroy_ends_a_busy_dispatch_thread) {
    std::atomic<int> calls{0};
    std::atomic<bool> stop{false};
    handle_ptr handle = new_provider(count_only);
    dx_set_user_data(handle.get(), &calls);
    (void)add(handle, "tag");
    std::thread writer([&] {
        const client_ptr client = open_client();
        const dx_tag_info info = find(client, "tag");
        while (!stop) {
            (void)write_u64(client, info, 1);
        }
    });
    EXPECT_TRUE(eventually([&] { return calls > 10; }));
    handle.reset();
    const int after = calls;
    stop = true;
    writer.join();
    EXPECT_EQ(calls, after);
}

TEST_F(dx_provider, full_store_takes_no_tag_until_one_goes) {
    const handle_ptr handle = new_provider();
    dx_tag *some = nullptr;
    for (uint32_t i = 0; i < kt_dx::max_tags; ++i) {
        dx_tag *tag = add(handle, "tag" + std::to_string(i));
        ASSERT_TRUE(tag) << i;
        some = i == 777 ? tag : some;
    }
    EXPECT_EQ(add(handle, "one too many"), nullptr);
    const client_ptr client = open_client();
    EXPECT_EQ(list(client).size(), kt_dx::max_tags);
    dx_tag_destroy(some);
    EXPECT_NE(add(handle, "fits again"), nullptr);
    EXPECT_EQ(find(client, "fits again").slot, 777U);
    EXPECT_TRUE(known(client, "tag16383"));
    EXPECT_EQ(add(handle, "one too many"), nullptr);
}

TEST_F(dx_provider, low_slots_are_used_first) {
    const handle_ptr handle = new_provider();
    std::vector<dx_tag *> tags;
    for (int i = 0; i < 10; ++i) {
        tags.push_back(add(handle, "tag" + std::to_string(i)));
    }
    for (const size_t i : {7U, 2U, 5U}) {
        dx_tag_destroy(tags[i]);
    }
    const client_ptr client = open_client();
    for (const uint32_t slot : {2U, 5U, 7U, 10U}) {
        const std::string name = "new" + std::to_string(slot);
        ASSERT_TRUE(add(handle, name));
        EXPECT_EQ(find(client, name).slot, slot);
    }
}

TEST_F(dx_provider, one_provider_too_many_is_refused) {
    std::vector<handle_ptr> handles;
    for (uint32_t i = 0; i < kt_dx::max_providers; ++i) {
        handles.push_back(new_provider());
        ASSERT_TRUE(handles.back());
    }
    testing::internal::CaptureStderr();
    EXPECT_FALSE(new_provider());
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "kt-dx: " + store_path() + ": all places for providers are taken\n");
    handles.erase(handles.begin() + 20);
    EXPECT_TRUE(new_provider());
}

TEST_F(dx_provider, goes_on_when_the_file_is_removed) {
    recorder notes;
    const handle_ptr handle = new_provider(record);
    dx_set_user_data(handle.get(), &notes);
    dx_tag *tag = add(handle, "tag");
    const client_ptr client = open_client();
    const dx_tag_info info = find(client, "tag");
    std::filesystem::remove(store_path());
    ASSERT_EQ(write_u64(client, info, 3), DX_OK);
    EXPECT_TRUE(eventually([&] { return notes.has_taken(tag, 3); }));
    EXPECT_TRUE(add(handle, "another"));
    const handle_ptr next = new_provider(); // makes a store of its own
    EXPECT_TRUE(add(next, "tag"));
    EXPECT_EQ(list(open_client()), std::vector<std::string>{"tag"});
}
