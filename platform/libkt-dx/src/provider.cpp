#include "registration.h"
#include "registry.h"
#include "sync.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <iterator>
#include <mutex>
#include <new>
#include <utility>

using namespace kt_dx;

struct dx_handle {
    std::atomic<uint64_t> batch_ms{0}; // time of the first write since the last notify, 0 for none
    store file;
    uint32_t provider = no_slot;
    dx_dispatch dispatch = nullptr;
    pthread_t thread{};
    bool thread_started = false;
    std::atomic<bool> stop{false};
    std::atomic<void *> user_data{nullptr};
    std::mutex dispatch_lock; // held by the dispatch function; guards heads
    dx_entry *heads[DX_INDEX_COUNT] = {};
};

struct dx_tag {
    dx_handle *handle;
    tag_slot *slot;
    std::atomic<uint64_t> *value;
    std::atomic<uint32_t> *group; // change counter
    uint32_t version;
    uint8_t short_size; // the size of a short value that nobody else writes, else 0
    uint8_t size;
    std::atomic<void *> user_data;
    dx_entry entry;
};

namespace {

constexpr size_t type_width[] = {0, 1, 2, 4, 8, 1, 2, 4, 8, 4, 8};

bool take_changes(provider_slot &place, uint8_t (&bitmap)[DX_BITMAP_BYTES]) {
    bool any = false;
    memset(bitmap, 0, sizeof bitmap);
    for (uint32_t i = 0; i < bitmap_words; ++i) {
        if (place.changed[i].load(std::memory_order_relaxed) == 0) {
            continue;
        }
        const uint32_t word = place.changed[i].exchange(0, std::memory_order_acq_rel);
        for (uint32_t byte = 0; byte < 4; ++byte) {
            bitmap[i * 4 + byte] = static_cast<uint8_t>(word >> (8 * byte));
        }
        any = true;
    }
    return any;
}

void dispatch_loop(dx_handle &handle) noexcept {
    provider_slot &place = handle.file.map->providers[handle.provider];
    uint8_t bitmap[DX_BITMAP_BYTES];
    while (true) {
        // Read before the bits: a change that comes after them also changes the futex word.
        const uint32_t wake = place.wake.load(std::memory_order_acquire);
        if (handle.stop.load(std::memory_order_acquire)) {
            return;
        }
        if (take_changes(place, bitmap)) {
            const std::lock_guard<std::mutex> lock(handle.dispatch_lock);
            handle.dispatch(&handle, bitmap);
        } else {
            (void)futex_wait(place.wake, wake); // the loop looks at everything again
        }
    }
}

void *dispatch_thread(void *argument) {
    dispatch_loop(*static_cast<dx_handle *>(argument));
    return nullptr;
}

/** Signals stay with the threads of the program. */
int start_dispatch(dx_handle &handle) {
    sigset_t all;
    sigset_t before;
    (void)sigfillset(&all); // cannot fail
    int code = pthread_sigmask(SIG_SETMASK, &all, &before);
    if (code != 0) {
        return -code;
    }
    code = pthread_create(&handle.thread, nullptr, dispatch_thread, &handle);
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr); // worked a moment ago
    if (code != 0) {
        return -code;
    }
    (void)pthread_setname_np(handle.thread, "dx-dispatch"); // for people only
    handle.thread_started = true;
    return 0;
}

void stop_dispatch(dx_handle &handle) {
    if (!handle.thread_started) {
        return;
    }
    provider_slot &place = handle.file.map->providers[handle.provider];
    handle.stop.store(true, std::memory_order_release);
    place.wake.fetch_add(1, std::memory_order_release);
    (void)futex_wake_all(place.wake);
    (void)pthread_join(handle.thread, nullptr); // fails only for a thread that is not there
}

void fill_place(provider_slot &place, const char *name) {
    for (uint32_t i = 0; i <= provider_name_max; ++i) {
        const bool end = *name == '\0' || i == provider_name_max;
        place.name[i].store(end ? 0 : static_cast<uint8_t>(*name++), std::memory_order_relaxed);
    }
    for (auto &word : place.changed) {
        word.store(0, std::memory_order_relaxed);
    }
    place.pid.store(static_cast<uint32_t>(getpid()), std::memory_order_relaxed);
    place.used.store(1, std::memory_order_release);
}

/** Take the first place that no living provider holds, with the registration mutex held. */
bool claim_place(dx_handle &handle, const char *name) {
    for (uint32_t i = 0; i < max_providers; ++i) {
        if (lock_byte(handle.file, i)) {
            remove_tags_of(handle.file, i);
            fill_place(handle.file.map->providers[i], name);
            handle.provider = i;
            return true;
        }
    }
    complain(handle.file, "all places for providers are taken");
    return false;
}

int join_store(dx_handle &handle, const char *name) {
    if (const int code = open_store(handle.file, open_mode::create)) {
        return code;
    }
    const registration lock(handle.file);
    if (lock.code() != 0) {
        complain(handle.file, "registration lock not available", strerror(-lock.code()));
        return lock.code();
    }
    remove_dead(handle.file);
    return claim_place(handle, name) ? 0 : -EUSERS;
}

/** Leave nothing in the store. Without the lock the next one to come finds this provider dead. */
void leave_store(dx_handle &handle) {
    if (handle.provider == no_slot) {
        return;
    }
    const registration lock(handle.file);
    if (lock.code() == 0) {
        remove_tags_of(handle.file, handle.provider);
        handle.file.map->providers[handle.provider].used.store(0, std::memory_order_release);
    }
}

void delete_tags(dx_handle &handle) {
    for (dx_entry *&head : handle.heads) {
        while (head) {
            delete std::exchange(head, head->next)->tag;
        }
    }
}

void release_handle(dx_handle *handle) {
    leave_store(*handle);
    delete_tags(*handle);
    delete handle;
}

/** False when the name belongs to a living provider; a dead one's tags are removed. */
bool free_name(dx_handle &handle, std::string_view name) {
    const uint32_t slot = find_tag(handle.file, name);
    if (slot == no_slot) {
        return true;
    }
    tag_record record;
    if (read_record(*handle.file.map, slot, record) &&
        provider_alive(handle.file, record.provider, handle.provider)) {
        return false;
    }
    remove_tag(handle.file, slot);
    return true;
}

uint32_t register_tag(dx_handle &handle, const tag_request &request) {
    const registration lock(handle.file);
    if (lock.code() != 0 || !free_name(handle, request.name)) {
        return no_slot;
    }
    const uint32_t slot = add_tag(handle.file, request);
    if (slot != no_slot) {
        return slot;
    }
    remove_dead(handle.file, handle.provider);
    return add_tag(handle.file, request);
}

void fill_tag(dx_tag &tag, dx_handle &handle, uint32_t index, const tag_request &request) {
    tag.handle = &handle;
    tag.slot = &handle.file.map->tags[index];
    tag.value = &value_of(*tag.slot, request.mode);
    tag.group = &handle.file.map->header.group_changes[index / group_slots];
    tag.version = tag.slot->version.load(std::memory_order_relaxed);
    tag.size = request.size;
    tag.short_size =
        request.mode == DX_READ_ONLY && request.size <= sizeof(short_value) ? request.size : 0;
    dx_entry *&head = handle.heads[index % DX_INDEX_COUNT];
    tag.entry = {&tag, head};
    head = &tag.entry;
}

uint32_t slot_of(const dx_tag &tag) {
    return static_cast<uint32_t>(tag.slot - tag.handle->file.map->tags);
}

void unlink_entry(dx_handle &handle, dx_tag &tag) {
    dx_entry **link = &handle.heads[slot_of(tag) % DX_INDEX_COUNT];
    while (*link && *link != &tag.entry) {
        link = &(*link)->next;
    }
    if (*link) {
        *link = tag.entry.next;
    }
}

/** False when the slot was taken from this tag, which only damage to the store can do. */
bool still_ours(const dx_tag &tag) {
    return tag.slot->version.load(std::memory_order_relaxed) == tag.version;
}

/** Apart, so that the writes which follow carry none of its registers. */
[[gnu::noinline]] uint64_t begin_batch(dx_handle &handle) {
    const uint64_t time_ms = stamp_now_ms();
    handle.batch_ms.store(time_ms, std::memory_order_relaxed);
    return time_ms;
}

/** All writes of a batch carry the time of its first one: one clock read for a frame of tags. */
uint64_t batch_time_ms(dx_handle &handle) {
    const uint64_t time_ms = handle.batch_ms.load(std::memory_order_relaxed);
    return time_ms != 0 ? time_ms : begin_batch(handle);
}

/** Any value of any tag. Apart, so that the usual write keeps everything in registers. */
[[gnu::noinline]] int write_any(dx_handle &handle, dx_tag &tag, const void *data, size_t size) {
    if (size > tag.size) {
        return -1;
    }
    uint64_t value = 0;
    memcpy(&value, data, size);
    tag.value->store(value, std::memory_order_relaxed);
    tag.slot->stamp_ms.store(batch_time_ms(handle), std::memory_order_relaxed);
    count_write(*tag.slot, *tag.group);
    return 0;
}

/** @retval false the size is not one of the usual ones */
bool load_short(const void *data, size_t size, short_value *value) {
    if (size == 2) {
        uint16_t two = 0;
        memcpy(&two, data, sizeof two);
        *value = two;
        return true;
    }
    if (size == 1) {
        *value = *static_cast<const uint8_t *>(data);
        return true;
    }
    if (size == sizeof *value) {
        memcpy(value, data, sizeof *value);
        return true;
    }
    return false;
}

} // namespace

dx_handle *dx_new(const char *name, dx_dispatch dispatch) {
    if (!name || *name == '\0') {
        (void)fprintf(stderr, "kt-dx: a provider needs a name\n");
        return nullptr;
    }
    auto *handle = new (std::nothrow) dx_handle;
    if (!handle) {
        (void)fprintf(stderr, "kt-dx: out of memory\n");
        return nullptr;
    }
    handle->dispatch = dispatch;
    const int code = join_store(*handle, name);
    if (code == 0 && dispatch && start_dispatch(*handle) != 0) {
        complain(handle->file, "dispatch thread cannot be started");
        release_handle(handle);
        return nullptr;
    }
    if (code != 0) {
        release_handle(handle);
        return nullptr;
    }
    return handle;
}

void dx_destroy(dx_handle *handle) {
    if (handle) {
        stop_dispatch(*handle);
        release_handle(handle);
    }
}

void dx_set_user_data(dx_handle *handle, void *data) {
    if (handle) {
        handle->user_data.store(data, std::memory_order_release);
    }
}

void *dx_get_user_data(dx_handle *handle) {
    return handle ? handle->user_data.load(std::memory_order_acquire) : nullptr;
}

size_t dx_get_value_size(int type, size_t size) {
    const bool numeric = type > 0 && static_cast<size_t>(type) < std::size(type_width);
    return numeric ? std::max(type_width[type], size) : size;
}

dx_tag *dx_tag_provider_new(dx_handle *handle, const char *name, int type, size_t size, int mode) {
    const size_t value_size = dx_get_value_size(type, size);
    const size_t length = name ? strnlen(name, DX_NAME_MAX + 1) : 0;
    if (!handle || length == 0 || length > DX_NAME_MAX || value_size == 0 ||
        value_size > DX_VALUE_MAX || (mode != DX_READ_ONLY && mode != DX_WRITE_ONLY)) {
        return nullptr;
    }
    auto *tag = new (std::nothrow) dx_tag{};
    if (!tag) {
        return nullptr;
    }
    const tag_request request = {{name, length},
                                 handle->provider,
                                 type,
                                 static_cast<uint8_t>(value_size),
                                 static_cast<uint8_t>(mode)};
    const std::lock_guard<std::mutex> lock(handle->dispatch_lock);
    const uint32_t slot = register_tag(*handle, request);
    if (slot == no_slot) {
        delete tag;
        return nullptr;
    }
    fill_tag(*tag, *handle, slot, request);
    return tag;
}

void dx_tag_destroy(dx_tag *tag) {
    if (!tag) {
        return;
    }
    dx_handle &handle = *tag->handle;
    {
        const std::lock_guard<std::mutex> lock(handle.dispatch_lock);
        unlink_entry(handle, *tag);
        const registration registered(handle.file);
        if (registered.code() == 0 && still_ours(*tag)) {
            remove_tag(handle.file, slot_of(*tag));
        }
    }
    delete tag;
}

void dx_tag_set_user_data(dx_tag *tag, void *data) {
    if (tag) {
        tag->user_data.store(data, std::memory_order_release);
    }
}

void *dx_tag_get_user_data(const dx_tag *tag) {
    return tag ? tag->user_data.load(std::memory_order_acquire) : nullptr;
}

int dx_tag_read(dx_tag *tag, void *buffer, size_t size) {
    if (!tag || !buffer) {
        return -1;
    }
    // Taken first: a value that comes after the load below leaves its own mark.
    (void)tag->slot->pending.exchange(0, std::memory_order_acq_rel);
    const uint64_t value = tag->value->load(std::memory_order_acquire);
    const size_t count = std::min<size_t>(size, tag->size);
    memcpy(buffer, &value, count);
    return static_cast<int>(count);
}

int dx_tag_write(dx_handle *handle, dx_tag *tag, const void *data, size_t size) {
    if (!tag || !data) [[unlikely]] {
        return -1;
    }
    // A tag has a handle, so a missing one is another one.
    if (tag->handle != handle || !still_ours(*tag)) {
        return -1;
    }
    const uint64_t time_ms = handle->batch_ms.load(std::memory_order_relaxed);
    if (time_ms == 0) [[unlikely]] {
        return write_any(*handle, *tag, data, size);
    }
    short_value value = 0;
    if (size > tag->short_size || !load_short(data, size, &value)) [[unlikely]] {
        return write_any(*handle, *tag, data, size);
    }
    tag_slot &slot = *tag->slot;
    store_short(*tag->value, value);
    slot.stamp_ms.store(time_ms, std::memory_order_relaxed);
    count_own_write(slot, *tag->group);
    return 0;
}

int dx_tag_notify(dx_handle *handle) {
    if (!handle) {
        return -1;
    }
    handle->batch_ms.store(0, std::memory_order_relaxed);
    commit_changes(handle->file.map->header);
    return 0;
}

dx_entry *dx_lookup_head(dx_handle *handle, unsigned index) {
    return handle && index < DX_INDEX_COUNT ? handle->heads[index] : nullptr;
}

int dx_tag_has_read(const dx_tag *tag) {
    return tag && tag->slot->pending.load(std::memory_order_acquire) == tag->version ? 0 : 1;
}
