#include "registration.h"
#include "registry.h"
#include "sync.h"

#include <kt/dx_client.h>

#include <algorithm>
#include <cstring>
#include <fnmatch.h>
#include <memory>
#include <new>
#include <sys/stat.h>
#include <utility>

using namespace kt_dx;

namespace {

constexpr int clean_timeout_ms = 100; // a list shall not wait for someone's registration
constexpr int sample_attempts = 8;
constexpr uint64_t poll_ms = 20; // where the store is read-only and cannot be waited on

constexpr uint64_t forever_ms = UINT64_MAX;

struct seen_tag {
    uint32_t version;
    uint32_t sequence;
};

/** What the previous call of dx_client_changes() saw. */
struct watch_state {
    uint32_t group_changes[group_count];
    seen_tag tags[max_tags];
};

/** Asks the kernel about each provider once per walk. */
class liveness {
public:
    explicit liveness(const store &file) : file_(file) {}
    bool alive(uint32_t provider) {
        const uint64_t bit = 1ULL << provider;
        if (!(asked_ & bit)) {
            asked_ |= bit;
            alive_ |= provider_alive(file_, provider) ? bit : 0;
        }
        return alive_ & bit;
    }

private:
    const store &file_;
    uint64_t asked_ = 0;
    uint64_t alive_ = 0;
};
static_assert(max_providers <= 64);

} // namespace

struct dx_client {
    store file;
    uint32_t commits = 0; // at the last dx_client_changes()
    std::unique_ptr<watch_state> watched;
};

namespace {

void describe(const tag_record &record, dx_tag_info &info) {
    memcpy(info.name, record.name, record.name_length + size_t{1});
    info.type = record.type;
    info.size = record.size;
    info.mode = record.mode;
    info.slot = record.slot;
    info.version = record.version;
}

/** Value, time and number that belong together, unless the writer is faster than we are. */
dx_sample sample_slot(tag_slot &slot, int mode, size_t size) {
    dx_sample sample{};
    uint64_t value = 0;
    uint64_t stamp_ms = 0;
    for (int attempt = 0; attempt < sample_attempts; ++attempt) {
        sample.sequence = slot.sequence.load(std::memory_order_acquire);
        value = value_of(slot, mode).load(std::memory_order_acquire);
        stamp_ms = slot.stamp_ms.load(std::memory_order_acquire);
        if (slot.sequence.load(std::memory_order_relaxed) == sample.sequence) {
            break;
        }
    }
    const uint64_t now_ms = stamp_now_ms();
    sample.age_ms = now_ms > stamp_ms ? now_ms - stamp_ms : 0;
    memcpy(sample.value, &value, size);
    return sample;
}

/** The tag that info describes, if it is still there. */
bool current_head(const dx_client &client, const dx_tag_info &info, tag_head &head) {
    return info.slot < max_tags && (info.version & 1) &&
           read_head(*client.file.map, info.slot, head) && head.version == info.version;
}

bool anyone_dead(const store &file) {
    for (uint32_t i = 0; i < max_providers; ++i) {
        if (file.map->providers[i].used.load(std::memory_order_acquire) != 0 &&
            !provider_alive(file, i)) {
            return true;
        }
    }
    return false;
}

void clean_store(const store &file) {
    if (!file.writable || !anyone_dead(file)) {
        return;
    }
    const registration lock(file, clean_timeout_ms);
    if (lock.code() == 0) {
        remove_dead(file);
    }
}

bool matches(const char *pattern, const char *name) {
    return !pattern || fnmatch(pattern, name, 0) == 0;
}

/** @return whether its dispatch thread waited for that */
bool tell_provider(provider_slot &place, uint32_t slot) {
    const uint32_t index = slot % DX_INDEX_COUNT;
    place.changed[index / 32].fetch_or(1U << (index % 32), std::memory_order_release);
    place.wake.fetch_add(1, std::memory_order_release);
    return futex_wake_all(place.wake);
}

/** @return whether a dispatch thread was woken for it */
bool store_value(dx_client &client, const tag_head &head, uint64_t value) {
    store_layout &map = *client.file.map;
    tag_slot &slot = map.tags[head.slot];
    value_of(slot, DX_WRITE_ONLY).store(value, std::memory_order_release);
    slot.stamp_ms.store(stamp_now_ms(), std::memory_order_release);
    count_write(map, head.slot);
    slot.pending.store(head.version, std::memory_order_release);
    const bool woken = tell_provider(map.providers[head.provider], head.slot);
    commit_changes(map.header);
    return woken;
}

/** Marks everything as seen. */
int begin_watch(dx_client &client) {
    store_layout &map = *client.file.map;
    client.watched.reset(new (std::nothrow) watch_state{});
    if (!client.watched) {
        return DX_NO_MEMORY;
    }
    for (uint32_t group = 0; group < group_count; ++group) {
        client.watched->group_changes[group] =
            map.header.group_changes[group].load(std::memory_order_acquire);
    }
    for (uint32_t i = 0; i < slot_limit(map); ++i) {
        client.watched->tags[i] = {map.tags[i].version.load(std::memory_order_acquire),
                                   map.tags[i].sequence.load(std::memory_order_acquire)};
    }
    return 0;
}

/** True once for every write or row of writes; a tag that is new counts from its first write. */
bool take_change(const tag_slot &slot, seen_tag &seen) {
    const uint32_t version = slot.version.load(std::memory_order_acquire);
    if (!(version & 1)) {
        return false;
    }
    if (seen.version != version) {
        seen = {version, 0};
    }
    const uint32_t sequence = slot.sequence.load(std::memory_order_acquire);
    return std::exchange(seen.sequence, sequence) != sequence;
}

struct change_walk {
    dx_client &client;
    liveness providers;
    dx_visit visit;
    void *context;
    int count = 0;
};

/** @return false when visit ended the walk */
bool visit_group(change_walk &walk, uint32_t group) {
    store_layout &map = *walk.client.file.map;
    const uint32_t end = std::min((group + 1) * group_slots, slot_limit(map));
    for (uint32_t i = group * group_slots; i < end; ++i) {
        tag_record record;
        if (!take_change(map.tags[i], walk.client.watched->tags[i]) ||
            !read_record(map, i, record) || !walk.providers.alive(record.provider)) {
            continue;
        }
        dx_tag_info info;
        describe(record, info);
        const dx_sample sample = sample_slot(map.tags[i], record.mode, record.size);
        ++walk.count;
        if (walk.visit(walk.context, &info, &sample) != 0) {
            return false;
        }
    }
    return true;
}

timespec milliseconds(uint64_t ms) {
    timespec time{};
    time.tv_sec = static_cast<time_t>(ms / 1000);
    time.tv_nsec = static_cast<long>(ms % 1000 * 1000000);
    return time;
}

/**
 * Sleep until the commit word changes or the time is up; may return early.
 * @return false when a signal handler ran
 */
bool wait_commit(dx_client &client, uint32_t seen, uint64_t left_ms) {
    std::atomic<uint32_t> &commit = client.file.map->header.commit;
    if (!client.file.writable) {
        const timespec slice = milliseconds(std::min(left_ms, poll_ms));
        return nanosleep(&slice, nullptr) == 0;
    }
    if (!(seen & 1) && !commit.compare_exchange_strong(seen, seen | 1, std::memory_order_relaxed)) {
        return true;
    }
    const timespec timeout = milliseconds(left_ms);
    return futex_wait(commit, seen | 1, left_ms == forever_ms ? nullptr : &timeout);
}

} // namespace

int dx_client_open(dx_client **client) {
    if (!client) {
        return DX_BAD_ARGUMENT;
    }
    std::unique_ptr<dx_client> made(new (std::nothrow) dx_client);
    if (!made) {
        return DX_NO_MEMORY;
    }
    const int code = open_store(made->file, open_mode::existing);
    if (code != 0) {
        return code == -ENOENT ? DX_NO_STORE : DX_STORE_REFUSED;
    }
    clean_store(made->file);
    *client = made.release();
    return DX_OK;
}

void dx_client_close(dx_client *client) {
    delete client;
}

int dx_client_current(const dx_client *client) {
    struct stat opened;
    struct stat named;
    return client && fstat(client->file.fd.get(), &opened) == 0 &&
                   lstat(client->file.path.text, &named) == 0 && opened.st_dev == named.st_dev &&
                   opened.st_ino == named.st_ino
               ? 1
               : 0;
}

int dx_client_find(dx_client *client, const char *name, dx_tag_info *info) {
    if (!client || !name || !info) {
        return DX_BAD_ARGUMENT;
    }
    const std::string_view wanted(name, strnlen(name, DX_NAME_MAX + 1));
    const uint32_t slot = look_up(*client->file.map, wanted);
    tag_record record;
    if (slot == no_slot || !read_record(*client->file.map, slot, record) ||
        wanted != std::string_view(record.name, record.name_length) ||
        !provider_alive(client->file, record.provider)) {
        return DX_UNKNOWN_TAG;
    }
    describe(record, *info);
    return DX_OK;
}

int dx_client_read(dx_client *client, const dx_tag_info *info, dx_sample *sample) {
    if (!client || !info || !sample) {
        return DX_BAD_ARGUMENT;
    }
    tag_head head;
    if (!current_head(*client, *info, head)) {
        return DX_UNKNOWN_TAG;
    }
    if (!provider_alive(client->file, head.provider)) {
        return DX_PROVIDER_DEAD;
    }
    tag_slot &slot = client->file.map->tags[head.slot];
    const dx_sample taken = sample_slot(slot, head.mode, head.size);
    if (slot.version.load(std::memory_order_acquire) != info->version) {
        return DX_UNKNOWN_TAG;
    }
    *sample = taken;
    return DX_OK;
}

int dx_client_write(dx_client *client, const dx_tag_info *info, const void *data, size_t size) {
    if (!client || !info || !data) {
        return DX_BAD_ARGUMENT;
    }
    tag_head head;
    if (!current_head(*client, *info, head)) {
        return DX_UNKNOWN_TAG;
    }
    if (head.mode != DX_WRITE_ONLY) {
        return DX_IS_READ_ONLY;
    }
    if (size != head.size) {
        return DX_WRONG_SIZE;
    }
    if (!client->file.writable) {
        return provider_alive(client->file, head.provider) ? DX_NO_PERMISSION : DX_PROVIDER_DEAD;
    }
    uint64_t value = 0;
    memcpy(&value, data, size);
    // Whose thread was woken lives. Asked first, the kernel would keep every frame waiting for
    // that.
    const bool woken = store_value(*client, head, value);
    return woken || provider_alive(client->file, head.provider) ? DX_OK : DX_PROVIDER_DEAD;
}

int dx_client_list(dx_client *client, const char *pattern, dx_visit visit, void *context) {
    if (!client || !visit) {
        return DX_BAD_ARGUMENT;
    }
    clean_store(client->file);
    store_layout &map = *client->file.map;
    liveness providers(client->file);
    int count = 0;
    for (uint32_t i = 0; i < slot_limit(map); ++i) {
        tag_record record;
        if (!read_record(map, i, record) || !matches(pattern, record.name) ||
            !providers.alive(record.provider)) {
            continue;
        }
        dx_tag_info info;
        describe(record, info);
        const dx_sample sample = sample_slot(map.tags[i], record.mode, record.size);
        ++count;
        if (visit(context, &info, &sample) != 0) {
            break;
        }
    }
    return count;
}

int dx_client_changes(dx_client *client, dx_visit visit, void *context) {
    if (!client || !visit) {
        return DX_BAD_ARGUMENT;
    }
    store_layout &map = *client->file.map;
    // Before the look at the tags: a commit in between ends the next wait at once.
    client->commits = map.header.commit.load(std::memory_order_acquire) >> 1;
    if (!client->watched) {
        return begin_watch(*client);
    }
    change_walk walk{*client, liveness(client->file), visit, context};
    for (uint32_t group = 0; group < group_count; ++group) {
        const uint32_t changes = map.header.group_changes[group].load(std::memory_order_acquire);
        uint32_t &seen = client->watched->group_changes[group];
        if (changes == seen) {
            continue;
        }
        if (!visit_group(walk, group)) {
            break;
        }
        seen = changes;
    }
    return walk.count;
}

int dx_client_wait(dx_client *client, int timeout_ms) {
    if (!client) {
        return DX_BAD_ARGUMENT;
    }
    const std::atomic<uint32_t> &commit = client->file.map->header.commit;
    const uint64_t start_ms = clock_ms(CLOCK_MONOTONIC);
    while (true) {
        const uint32_t seen = commit.load(std::memory_order_acquire);
        if (seen >> 1 != client->commits) {
            return 1;
        }
        uint64_t left_ms = forever_ms;
        if (timeout_ms >= 0) {
            const uint64_t passed_ms = clock_ms(CLOCK_MONOTONIC) - start_ms;
            const auto limit_ms = static_cast<uint64_t>(timeout_ms);
            left_ms = limit_ms - std::min(passed_ms, limit_ms);
        }
        if (left_ms == 0 || !wait_commit(*client, seen, left_ms)) {
            return 0;
        }
    }
}
