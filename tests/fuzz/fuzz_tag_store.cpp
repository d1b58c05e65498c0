#include "always.h"
#include "fuzz_input.h"
#include "layout.h"
#include "standing_clock.h"

#include <kt/dx.h>
#include <kt/dx_client.h>

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

/*
 * Any content of the tag store's file, there when it is opened or changed by somebody while it is
 * in use, under a provider and clients that list, read, write and register. The store is refused or
 * served: what was written is read back, and nothing that is shown is out of its bounds.
 */

namespace {

using namespace kt_dx;

constexpr uint32_t base_tags = 48;
constexpr uint32_t living_provider = 0;
constexpr uint32_t dead_provider = 1;
constexpr size_t patches_max = 64;

struct close_client {
    void operator()(dx_client *client) const { dx_client_close(client); }
};
struct destroy_provider {
    void operator()(dx_handle *handle) const { dx_destroy(handle); }
};
using client_ptr = std::unique_ptr<dx_client, close_client>;
using provider_ptr = std::unique_ptr<dx_handle, destroy_provider>;

std::string base_name(uint32_t number) {
    return "can_proprietary/drive/state_tag" + std::to_string(number);
}

/** A store file with tags of a living provider and of one that has died, made anew for each run. */
class store_files {
public:
    store_files() {
        root_ = (getenv("TMPDIR") != nullptr ? getenv("TMPDIR") : "/dev/shm");
        root_ += "/kt-fuzz-XXXXXX";
        KT_ALWAYS(mkdtemp(root_.data()) != nullptr);
        KT_ALWAYS(setenv("KT_ROOT", root_.c_str(), 1) == 0);
        path_ = root_ + "/run/kt-dx/tags";
        const provider_ptr living(dx_new("living", nullptr));
        const provider_ptr dead(dx_new("dead", nullptr));
        KT_ALWAYS(living != nullptr && dead != nullptr);
        for (uint32_t i = 0; i < base_tags; i++) {
            KT_ALWAYS(dx_tag_provider_new((i % 4 == 3 ? dead : living).get(),
                                          base_name(i).c_str(),
                                          static_cast<int>(i % 14),
                                          1 + i % 8,
                                          i % 2 == 0 ? DX_READ_ONLY : DX_WRITE_ONLY) != nullptr);
        }
        remember();
    }

    ~store_files() {
        std::error_code ignored; // nothing is left to tell it to
        std::filesystem::remove_all(root_, ignored);
    }

    store_files(const store_files &) = delete;
    store_files &operator=(const store_files &) = delete;

    /** @return the file's content, for changes */
    store_layout &make() {
        struct stat held {};
        struct stat named {};
        const bool same = fd_ >= 0 && fstat(fd_, &held) == 0 && stat(path_.c_str(), &named) == 0 &&
                          held.st_ino == named.st_ino;
        if (!same) {
            create();
        }
        // Given back and taken anew, what was written anywhere reads as zero.
        KT_ALWAYS(ftruncate(fd_, 0) == 0 && ftruncate(fd_, sizeof(store_layout)) == 0);
        for (const piece &each : pieces_) {
            const auto size = static_cast<ssize_t>(each.bytes.size());
            KT_ALWAYS(pwrite(fd_, each.bytes.data(), each.bytes.size(), each.offset) == size);
        }
        return *map_;
    }

    void resize(off_t size) const { KT_ALWAYS(ftruncate(fd_, size) == 0); }

private:
    struct piece {
        off_t offset;
        std::vector<char> bytes;
    };

    void remember() {
        constexpr std::array<std::array<size_t, 2>, 4> extents = {
            {{0, offsetof(store_layout, tags)},
             {offsetof(store_layout, tags), base_tags * sizeof(tag_slot)},
             {offsetof(store_layout, name_heads), base_tags * sizeof(name_head)},
             {offsetof(store_layout, name_tails), base_tags * sizeof(name_tail)}}};
        const int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
        for (const auto &[offset, size] : extents) {
            piece read{static_cast<off_t>(offset), std::vector<char>(size)};
            KT_ALWAYS(pread(fd, read.bytes.data(), size, read.offset) ==
                      static_cast<ssize_t>(size));
            pieces_.push_back(std::move(read));
        }
        (void)close(fd);
    }

    /** The lock on its byte is what tells that a provider lives. */
    void create() {
        if (fd_ >= 0) {
            (void)munmap(map_, sizeof(store_layout));
            (void)close(fd_);
        }
        (void)unlink(path_.c_str());
        fd_ = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0660);
        KT_ALWAYS(fd_ >= 0);
        struct flock range {};
        range.l_type = F_WRLCK;
        range.l_start = living_provider;
        range.l_len = 1;
        KT_ALWAYS(fcntl(fd_, F_OFD_SETLK, &range) == 0);
        constexpr int access = PROT_READ | PROT_WRITE;
        void *memory = mmap(nullptr, sizeof(store_layout), access, MAP_SHARED, fd_, 0);
        KT_ALWAYS(memory != MAP_FAILED);
        map_ = static_cast<store_layout *>(memory);
    }

    std::string root_;
    std::string path_;
    std::vector<piece> pieces_;
    int fd_ = -1;
    store_layout *map_ = nullptr;
};

// Damage

uint32_t take_slot(fuzz_input &in) {
    const uint8_t slot = in.byte();
    return slot < 64 ? slot : slot < 250 ? slot % base_tags : max_tags - (256U - slot);
}

void damage_header(fuzz_input &in, store_header &header) {
    const std::array words = {&header.changing,
                              &header.slot_end,
                              &header.reserved_end,
                              &header.lowest_free,
                              &header.commit,
                              &header.group_changes[0]};
    std::atomic<uint32_t> &word = *words[in.below(words.size())];
    word = in.flag() ? in.byte() : in.take<uint32_t>();
}

void damage_bytes(fuzz_input &in, void *memory, size_t size) {
    const size_t offset = in.take<uint16_t>() % size;
    const std::string_view bytes = in.take_text(1 + in.below(8));
    bytes.copy(static_cast<char *>(memory) + offset, size - offset);
}

void damage_tag(fuzz_input &in, tag_slot &tag) {
    switch (in.below(12)) {
    case 0:
        tag.version = in.byte();
        break;
    case 1:
        tag.version = in.take<uint32_t>();
        break;
    case 2:
        tag.hash = in.take<uint32_t>();
        break;
    case 3:
        tag.next = in.byte();
        break;
    case 4:
        tag.next = in.take<uint16_t>();
        break;
    case 5:
        tag.name_length = in.take<uint16_t>();
        break;
    case 6:
        tag.provider = in.byte();
        break;
    case 7:
        tag.size = in.byte();
        break;
    case 8:
        tag.mode = in.byte();
        break;
    case 9:
        tag.type = in.take<int32_t>();
        break;
    default:
        damage_bytes(in, &tag, sizeof tag);
        break;
    }
}

void damage_bucket(fuzz_input &in, store_layout &map) {
    const std::string name = in.flag() ? base_name(in.byte()) : "fuzz/a";
    const uint32_t bucket = hash_bytes(name.data(), name.size()) % bucket_count;
    map.buckets[bucket] = in.flag() ? in.byte() : in.take<uint16_t>();
}

void damage_name(fuzz_input &in, store_layout &map) {
    const uint32_t slot = take_slot(in);
    if (in.flag()) {
        damage_bytes(in, &map.name_tails[slot], sizeof(name_tail));
    } else {
        damage_bytes(in, &map.name_heads[slot], sizeof(name_head));
    }
}

void damage_everywhere(fuzz_input &in, store_layout &map) {
    const auto value = in.take<uint16_t>();
    switch (in.below(4)) {
    case 0:
        for (auto &bucket : map.buckets) {
            bucket = value;
        }
        break;
    case 1:
        for (uint32_t i = 0; i < base_tags; i++) {
            map.tags[i].next = static_cast<uint16_t>(i + value);
        }
        break;
    case 2:
        for (auto &provider : map.providers) {
            provider.used = value;
        }
        break;
    default: // the same tag in every slot
        for (uint32_t i = base_tags; i < 64U + value % 1024U; i++) {
            memcpy(
                static_cast<void *>(&map.tags[i]), &map.tags[value % base_tags], sizeof(tag_slot));
        }
        break;
    }
}

void damage(fuzz_input &in, store_layout &map) {
    switch (in.below(8)) {
    case 0:
        damage_bytes(in, &map.header.identity, sizeof map.header.identity);
        break;
    case 1:
        damage_header(in, map.header);
        break;
    case 2:
        damage_bytes(in, &map.header.registration, sizeof map.header.registration);
        break;
    case 3:
        damage_bytes(in, &map.providers[in.below(4)], sizeof(provider_slot));
        break;
    case 4:
        damage_bucket(in, map);
        break;
    case 5:
        damage_tag(in, map.tags[take_slot(in)]);
        break;
    case 6:
        damage_name(in, map);
        break;
    default:
        damage_everywhere(in, map);
        break;
    }
}

// Use

void expect_sound(const dx_tag_info &info) {
    const size_t length = strnlen(info.name, sizeof info.name);
    KT_ALWAYS(length <= DX_NAME_MAX);
    KT_ALWAYS(info.size >= 1 && info.size <= DX_VALUE_MAX);
    KT_ALWAYS(info.mode == DX_READ_ONLY || info.mode == DX_WRITE_ONLY);
    KT_ALWAYS(info.slot < max_tags);
}

struct seen {
    std::vector<dx_tag_info> tags;
    size_t limit;
};

int look(void *context, const dx_tag_info *info, const dx_sample *sample) {
    auto &found = *static_cast<seen *>(context);
    expect_sound(*info);
    for (size_t i = info->size; i < DX_VALUE_MAX; i++) {
        KT_ALWAYS(sample->value[i] == 0);
    }
    found.tags.push_back(*info);
    return found.tags.size() < found.limit ? 0 : 1;
}

void read_and_write(dx_client *client, const dx_tag_info &info) {
    dx_sample sample;
    const int read = dx_client_read(client, &info, &sample);
    KT_ALWAYS(read == DX_OK || read == DX_UNKNOWN_TAG || read == DX_PROVIDER_DEAD);
    constexpr std::array<uint8_t, DX_VALUE_MAX> value = {0x5A, 1, 2, 3, 4, 5, 6, 7};
    const int written = dx_client_write(client, &info, value.data(), info.size);
    KT_ALWAYS(written == DX_OK || (written <= DX_UNKNOWN_TAG && written >= DX_NO_PERMISSION));
    if (written == DX_OK) {
        KT_ALWAYS(info.mode == DX_WRITE_ONLY);
        KT_ALWAYS(dx_client_read(client, &info, &sample) == DX_OK);
        KT_ALWAYS(memcmp(sample.value, value.data(), info.size) == 0);
    }
    KT_ALWAYS(dx_client_write(client, &info, value.data(), info.size + 1) < DX_OK);
}

void use_client(dx_client *client) {
    if (client == nullptr) {
        return;
    }
    seen found{{}, 200};
    KT_ALWAYS(dx_client_changes(client, look, &found) >= 0);
    const int listed = dx_client_list(client, nullptr, look, &found);
    KT_ALWAYS(listed >= 0 && static_cast<uint32_t>(listed) <= max_tags);
    found.limit = SIZE_MAX;
    KT_ALWAYS(dx_client_list(client, "*tag1*", look, &found) >= 0);
    for (const dx_tag_info &info : found.tags) {
        read_and_write(client, info);
    }
    for (uint32_t i = 0; i < base_tags; i += 5) {
        dx_tag_info info;
        const std::string name = base_name(i);
        if (dx_client_find(client, name.c_str(), &info) == DX_OK) {
            expect_sound(info);
            KT_ALWAYS(name == info.name);
            read_and_write(client, info);
        }
    }
    KT_ALWAYS(dx_client_changes(client, look, &found) >= 0);
    (void)dx_client_wait(client, 3);
    (void)dx_client_current(client);
}

client_ptr open_client() {
    dx_client *client = nullptr;
    const int code = dx_client_open(&client);
    KT_ALWAYS(code == DX_OK || code == DX_NO_STORE || code == DX_STORE_REFUSED);
    KT_ALWAYS((code == DX_OK) == (client != nullptr));
    return client_ptr(client);
}

/** A tag that was registered now is found, and carries values both ways. */
void use_new_tag(dx_handle *handle, dx_client *client, const char *name, int mode) {
    dx_tag *tag = dx_tag_provider_new(handle, name, 8, 8, mode);
    if (tag == nullptr) {
        return;
    }
    uint64_t value = 0x1122334455667788;
    KT_ALWAYS(dx_tag_write(handle, tag, &value, sizeof value) == 0 && dx_tag_notify(handle) == 0);
    dx_tag_info info;
    dx_sample sample;
    KT_ALWAYS(client == nullptr || dx_client_find(client, name, &info) == DX_OK);
    if (client != nullptr) {
        KT_ALWAYS(info.mode == mode && info.size == 8 && info.type == 8);
        KT_ALWAYS(dx_client_read(client, &info, &sample) == DX_OK);
        KT_ALWAYS(memcmp(sample.value, &value, sizeof value) == 0);
        value += 1;
        const int written = dx_client_write(client, &info, &value, sizeof value);
        KT_ALWAYS(written == (mode == DX_WRITE_ONLY ? DX_OK : DX_IS_READ_ONLY));
    }
    if (client != nullptr && mode == DX_WRITE_ONLY) {
        uint64_t read = 0;
        KT_ALWAYS(dx_tag_has_read(tag) == 0);
        KT_ALWAYS(dx_tag_read(tag, &read, sizeof read) == sizeof read && read == value);
        KT_ALWAYS(dx_tag_has_read(tag) == 1);
    }
    dx_tag_destroy(tag);
    KT_ALWAYS(client == nullptr || dx_client_find(client, name, &info) == DX_UNKNOWN_TAG);
}

void use_provider(dx_handle *handle) {
    if (handle == nullptr) {
        return;
    }
    const client_ptr client = open_client();
    use_new_tag(handle, client.get(), "fuzz/a", DX_WRITE_ONLY);
    use_new_tag(handle, client.get(), "fuzz/b", DX_READ_ONLY);
    const std::string taken = base_name(dead_provider + 2);
    use_new_tag(handle, client.get(), taken.c_str(), DX_READ_ONLY);
}

/** Damage while it is in use: whoever works on does so in its bounds. */
void use_on(dx_handle *handle, const std::vector<dx_tag *> &tags) {
    uint64_t value = 7;
    for (dx_tag *tag : tags) {
        (void)dx_tag_write(handle, tag, &value, sizeof value);
        (void)dx_tag_has_read(tag);
        (void)dx_tag_read(tag, &value, sizeof value);
    }
    (void)dx_tag_notify(handle);
    for (dx_tag *tag : tags) {
        dx_tag_destroy(tag);
    }
}

void damage_all(fuzz_input &in, store_layout &map, bool sign) {
    for (size_t i = 0; i < patches_max && !in.empty(); i++) {
        damage(in, map);
    }
    if (sign) {
        map.header.identity.checksum = identity_checksum(map.header.identity);
    }
}

void run(fuzz_input &in, store_files &files) {
    const uint8_t how = in.byte();
    const standing_clock clock;
    store_layout &map = files.make();
    client_ptr client;
    provider_ptr provider;
    std::vector<dx_tag *> tags;
    if ((how & 1) != 0) {
        client = open_client();
        provider.reset(dx_new("before", nullptr));
        KT_ALWAYS(client != nullptr && provider != nullptr);
        for (const char *name : {"before/a", "before/b", "before/c"}) {
            tags.push_back(dx_tag_provider_new(provider.get(), name, 8, 8, DX_WRITE_ONLY));
            KT_ALWAYS(tags.back() != nullptr);
        }
    } else if ((how & 0x0C) == 0x0C) {
        files.resize(in.take<uint32_t>() % (2 * sizeof(store_layout)));
        use_client(open_client().get());
        files.resize(sizeof(store_layout));
    }
    damage_all(in, map, (how & 2) != 0);
    use_client(client.get());
    use_on(provider.get(), tags);
    use_client(open_client().get());
    {
        const provider_ptr next(dx_new("fuzz", nullptr));
        use_provider(next.get());
    }
    use_client(open_client().get());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static store_files files;
    fuzz_input in(data, size);
    run(in, files);
    return 0;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    silence_the_log();
    return 0;
}
