#include "dx_fixture.h"
#include "registry.h"

#include <cstddef>
#include <cstring>
#include <random>
#include <sys/stat.h>

using kt_dx::store_identity;
using kt_dx::store_layout;

class dx_damage : public dx_test {
protected:
    /** A store without providers. */
    void make_store() { ASSERT_TRUE(new_provider()); }

    void change_identity(const std::function<void(store_identity &)> &change, bool sign) {
        const store_view view(store_path());
        change(view->header.identity);
        if (sign) {
            view->header.identity.checksum = identity_checksum(view->header.identity);
        }
    }

    /** What provider and client say; both have to refuse with the same line. */
    std::string refusal() {
        testing::internal::CaptureStderr();
        EXPECT_FALSE(new_provider());
        const std::string provider_line = testing::internal::GetCapturedStderr();
        testing::internal::CaptureStderr();
        dx_client *client = nullptr;
        EXPECT_EQ(dx_client_open(&client), DX_STORE_REFUSED);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), provider_line);
        const std::string start = "kt-dx: " + store_path() + ": ";
        EXPECT_TRUE(provider_line.starts_with(start)) << provider_line;
        return provider_line.substr(std::min(start.size(), provider_line.size()));
    }
};

TEST_F(dx_damage, foreign_files_are_refused) {
    make_store();
    std::filesystem::remove(store_path());
    write(store_path(), "");
    EXPECT_EQ(refusal(), "not a tag store (truncated)\n");
    write(store_path(), "#!/bin/sh\n");
    EXPECT_EQ(refusal(), "not a tag store (truncated)\n");
    write(store_path(), std::string(sizeof(store_layout), 'x'));
    EXPECT_EQ(refusal(), "not a tag store (bad magic)\n");
    std::filesystem::remove(store_path());
    std::filesystem::create_directory(store_path());
    EXPECT_EQ(refusal(), "Is a directory\n");
    std::filesystem::remove(store_path());
    ASSERT_EQ(mkfifo(store_path().c_str(), 0600), 0);
    EXPECT_EQ(refusal(), "not a tag store (not a regular file)\n");
}

TEST_F(dx_damage, symbolic_links_are_not_followed) {
    make_store();
    std::filesystem::rename(store_path(), path("elsewhere"));
    std::filesystem::create_symlink(path("elsewhere"), store_path());
    EXPECT_EQ(refusal(), "is a symbolic link\n");
    std::filesystem::remove(path("elsewhere"));
    EXPECT_EQ(refusal(), "is a symbolic link\n");
    EXPECT_FALSE(std::filesystem::exists(path("elsewhere")));
}

TEST_F(dx_damage, every_header_field_is_checked) {
    const struct {
        size_t offset;
        const char *line;
    } fields[] = {
        {offsetof(store_identity, magic), "not a tag store (bad magic)\n"},
        {offsetof(store_identity, magic) + 7, "not a tag store (bad magic)\n"},
        {offsetof(store_identity, layout), "made by another version (layout 3, not 2)\n"},
        {offsetof(store_identity, abi), "made by a build for another processor or C library\n"},
        {offsetof(store_identity, total_bytes), "damaged (bad header checksum)\n"},
        {offsetof(store_identity, tags), "damaged (bad header checksum)\n"},
        {offsetof(store_identity, providers), "damaged (bad header checksum)\n"},
        {offsetof(store_identity, name_bytes), "damaged (bad header checksum)\n"},
        {offsetof(store_identity, boot_id), "damaged (bad header checksum)\n"},
        {offsetof(store_identity, checksum), "damaged (bad header checksum)\n"},
    };
    make_store();
    for (const auto &field : fields) {
        const auto flip = [&](store_identity &identity) {
            reinterpret_cast<char *>(&identity)[field.offset] ^= 1;
        };
        change_identity(flip, false);
        EXPECT_EQ(refusal(), field.line) << field.offset;
        change_identity(flip, false);
    }
    EXPECT_TRUE(new_provider());
}

TEST_F(dx_damage, store_with_other_limits_is_refused) {
    uint32_t store_identity::*const limits[] = {
        &store_identity::tags, &store_identity::providers, &store_identity::name_bytes};
    make_store();
    for (const auto limit : limits) {
        change_identity([&](store_identity &identity) { ++(identity.*limit); }, true);
        EXPECT_EQ(refusal(), "made with other limits\n");
        change_identity([&](store_identity &identity) { --(identity.*limit); }, true);
    }
    change_identity([](store_identity &identity) { identity.total_bytes += 1; }, true);
    EXPECT_EQ(refusal(), "made with other limits\n");
}

TEST_F(dx_damage, wrong_file_size_is_refused) {
    make_store();
    for (const size_t size : {sizeof(store_layout) - 1,
                              sizeof(store_layout) + 1,
                              sizeof(kt_dx::store_header),
                              sizeof(store_identity)}) {
        std::filesystem::resize_file(store_path(), size);
        EXPECT_EQ(refusal(), "damaged (wrong file size)\n") << size;
    }
    std::filesystem::resize_file(store_path(), sizeof(store_identity) - 1);
    EXPECT_EQ(refusal(), "not a tag store (truncated)\n");
}

TEST_F(dx_damage, store_of_an_earlier_start_is_made_anew) {
    make_store();
    change_identity([](store_identity &identity) { identity.boot_id[0] ^= 1; }, true);
    dx_client *client = nullptr;
    EXPECT_EQ(dx_client_open(&client), DX_NO_STORE);
    const handle_ptr handle = new_provider();
    ASSERT_TRUE(handle);
    EXPECT_TRUE(add(handle, "tag"));
    EXPECT_EQ(list(open_client()), std::vector<std::string>{"tag"});
}

TEST_F(dx_damage, folder_that_cannot_be_made_is_an_error) {
    write(path("run"), "a file");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(new_provider());
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "kt-dx: " + store_path() + ": Not a directory\n");
    ASSERT_EQ(setenv("KT_ROOT", std::string(PATH_MAX, 'x').c_str(), 1), 0);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(new_provider());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "kt-dx: : KT_ROOT is too long\n");
}

TEST_F(dx_damage, slots_with_impossible_content_are_not_shown) {
    const handle_ptr handle = new_provider();
    for (int i = 0; i < 6; ++i) {
        ASSERT_TRUE(add(handle, "tag" + std::to_string(i)));
    }
    const store_view view(store_path());
    view->tags[0].name_length = 387;
    view->tags[1].name_length = 0;
    view->tags[2].provider = 200;
    view->tags[3].size = 9;
    view->tags[4].mode = 0;
    const client_ptr client = open_client();
    EXPECT_EQ(list(client), std::vector<std::string>{"tag5"});
    kt_dx::tag_record record;
    for (uint32_t slot = 0; slot < 6; ++slot) {
        EXPECT_EQ(kt_dx::read_record(*view, slot, record), slot == 5);
    }
}

TEST_F(dx_damage, damaged_index_is_rebuilt_by_the_next_registration) {
    const handle_ptr handle = new_provider();
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(add(handle, "tag" + std::to_string(i)));
    }
    const store_view view(store_path());
    for (auto &bucket : view->buckets) {
        bucket = UINT16_MAX;
    }
    EXPECT_TRUE(known(open_client(), "tag49")); // found by looking at the slots
    EXPECT_FALSE(add(handle, "tag49"));
    for (uint32_t slot = 0; slot < 50; ++slot) {
        view->tags[slot].next = static_cast<uint16_t>(slot + 1); // circles
    }
    EXPECT_TRUE(known(open_client(), "tag49"));
    EXPECT_TRUE(add(handle, "new"));
    EXPECT_FALSE(add(handle, "new"));
    EXPECT_EQ(list(open_client()).size(), 51U);
}

TEST_F(dx_damage, lowered_bounds_do_not_overwrite_tags) {
    const handle_ptr handle = new_provider();
    std::vector<dx_tag *> tags;
    for (int i = 0; i < 200; ++i) {
        tags.push_back(add(handle, "tag" + std::to_string(i)));
    }
    const uint64_t value = 77;
    ASSERT_EQ(dx_tag_write(handle.get(), tags[150], &value, 8), 0);
    const store_view view(store_path());
    view->header.slot_end = 10;
    view->header.reserved_end = 10;
    view->header.lowest_free = 150;
    ASSERT_TRUE(add(handle, "new"));
    EXPECT_EQ(read_u64(tags[150]), 77U);
    EXPECT_EQ(find(open_client(), "new").slot, 200U);
}

TEST_F(dx_damage, slot_taken_away_is_never_written) {
    const handle_ptr handle = new_provider();
    dx_tag *tag = add(handle, "tag");
    const store_view view(store_path());
    view->tags[0].version += 2;
    const uint64_t value = 5;
    EXPECT_EQ(dx_tag_write(handle.get(), tag, &value, 8), -1);
    EXPECT_EQ(view->tags[0].value[1], 0U);
    dx_tag_destroy(tag);
    EXPECT_EQ(view->tags[0].version, 3U); // another one's by now
}

TEST_F(dx_damage, unusable_lock_is_an_error) {
    make_store();
    const store_view view(store_path());
    auto *bytes = reinterpret_cast<unsigned char *>(&view->header.registration);
    unsigned char before[sizeof(pthread_mutex_t)];
    memcpy(before, bytes, sizeof before);
    std::mt19937 random(1);
    for (int round = 0; round < 4; ++round) {
        for (size_t i = 0; i < sizeof before; ++i) {
            bytes[i] = static_cast<unsigned char>(random());
        }
        child_process child([] { return new_provider() ? 1 : 0; });
        EXPECT_EQ(child.wait(), 0);
    }
    // A lock word of its own: one that a thread which is not there seems to hold.
    memcpy(bytes, before, sizeof before);
    view->header.registration.__data.__lock = 0x3FFFFFF0;
    child_process child([] { return new_provider() ? 1 : 0; });
    EXPECT_EQ(child.wait(), 0);
    memcpy(bytes, before, sizeof before);
    EXPECT_TRUE(new_provider());
}

namespace {

struct span {
    size_t begin;
    size_t size;
};

/** Where 100 tags leave their traces; without the lock, which would cost seconds each time. */
constexpr span touched[] = {
    {0, offsetof(kt_dx::store_header, registration)},
    {offsetof(store_layout, header) + offsetof(kt_dx::store_header, changing),
     sizeof(kt_dx::store_header) - offsetof(kt_dx::store_header, changing)},
    {offsetof(store_layout, providers), 4 * sizeof(kt_dx::provider_slot)},
    {offsetof(store_layout, buckets), sizeof(store_layout::buckets)},
    {offsetof(store_layout, tags), 100 * sizeof(kt_dx::tag_slot)},
    {offsetof(store_layout, tags), 100 * sizeof(kt_dx::tag_slot)},
    {offsetof(store_layout, name_heads), 100 * sizeof(kt_dx::name_head)},
    {offsetof(store_layout, name_tails), 100 * sizeof(kt_dx::name_tail)},
};

void damage(store_layout &map, std::mt19937 &random) {
    auto *bytes = reinterpret_cast<unsigned char *>(&map);
    const unsigned count = 1U << random() % 12;
    for (unsigned i = 0; i < count; ++i) {
        const span &where = touched[1 + random() % (std::size(touched) - 1)];
        const auto value = static_cast<unsigned char>(random() % 2 ? random() : random() % 3);
        bytes[where.begin + random() % where.size] = value;
    }
    if (random() % 8 == 0) {
        bytes[random() % touched[0].size] = static_cast<unsigned char>(random());
    }
}

int ignore(void *, const dx_tag_info *, const dx_sample *) {
    return 0;
}

void read_all(dx_handle *handle, const uint8_t *bitmap) {
    for (unsigned index = 0; index < DX_INDEX_COUNT; ++index) {
        dx_entry *entry =
            bitmap[index / 8] >> (index % 8) & 1 ? dx_lookup_head(handle, index) : nullptr;
        for (; entry; entry = entry->next) {
            uint64_t value = 0;
            (void)dx_tag_read(entry->tag, &value, sizeof value);
        }
    }
}

void use_client(const client_ptr &client) {
    if (!client) {
        return;
    }
    (void)dx_client_changes(client.get(), ignore, nullptr);
    (void)dx_client_list(client.get(), nullptr, ignore, nullptr);
    for (int i = 0; i < 100; ++i) {
        dx_tag_info info;
        dx_sample sample;
        const uint64_t value = 1;
        const std::string name = "tag" + std::to_string(i);
        if (dx_client_find(client.get(), name.c_str(), &info) == DX_OK) {
            (void)dx_client_read(client.get(), &info, &sample);
            (void)dx_client_write(client.get(), &info, &value, info.size);
        }
    }
    (void)dx_client_changes(client.get(), ignore, nullptr);
    (void)dx_client_wait(client.get(), 1);
}

void use_provider(const handle_ptr &handle, const std::vector<dx_tag *> &tags) {
    const uint64_t value = 2;
    for (dx_tag *tag : tags) {
        (void)dx_tag_write(handle.get(), tag, &value, sizeof value);
        (void)dx_tag_has_read(tag);
    }
    (void)dx_tag_notify(handle.get());
    for (size_t i = 0; i < tags.size(); i += 3) {
        dx_tag_destroy(tags[i]);
    }
    for (int i = 0; i < 30; ++i) {
        const std::string name = "later" + std::to_string(i);
        (void)dx_tag_provider_new(handle.get(), name.c_str(), 8, 8, DX_WRITE_ONLY);
    }
}

} // namespace

TEST_F(dx_damage, random_damage_is_refused_or_served) {
    for (unsigned seed = 1; seed <= 300; ++seed) {
        std::filesystem::remove_all(path("run"));
        child_process child([&] {
            (void)freopen("/dev/null", "w", stderr);
            const handle_ptr handle = new_provider(read_all);
            std::vector<dx_tag *> tags;
            for (int i = 0; i < 100; ++i) {
                tags.push_back(add(handle, "tag" + std::to_string(i)));
            }
            const client_ptr before = open_client();
            std::mt19937 random(seed);
            damage(*store_view(store_path()), random);
            use_client(before);
            use_client(open_client());
            damage(*store_view(store_path()), random);
            use_provider(handle, tags);
            if (const handle_ptr next = new_provider(read_all)) {
                use_provider(next, {});
            }
            use_client(open_client());
            return 0;
        });
        ASSERT_EQ(child.wait(), 0) << "seed " << seed;
    }
}
