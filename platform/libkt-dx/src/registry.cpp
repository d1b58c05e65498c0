#include "registry.h"

#include "sync.h"

#include <algorithm>
#include <cstring>
#include <sched.h>

namespace kt_dx {

namespace {

constexpr int look_up_attempts = 8;
constexpr int record_attempts = 8;

/** Tells readers without a lock that the index is being changed. */
class index_change {
public:
    explicit index_change(store_header &header) : header_(header) {
        header_.changing.store(header_.changing.load(std::memory_order_relaxed) | 1,
                               std::memory_order_seq_cst);
    }
    ~index_change() {
        header_.changing.store((header_.changing.load(std::memory_order_relaxed) | 1) + 1,
                               std::memory_order_release);
    }
    index_change(const index_change &) = delete;
    index_change &operator=(const index_change &) = delete;

private:
    store_header &header_;
};

uint32_t bounded(const std::atomic<uint32_t> &slots) {
    return std::min(slots.load(std::memory_order_acquire), max_tags);
}

template <typename Map>
auto &name_word(Map &map, uint32_t slot, size_t word) {
    return word < name_head_words ? map.name_heads[slot].words[word]
                                  : map.name_tails[slot].words[word - name_head_words];
}

// Every store of a field is a release and every load an acquire: a reader that sees something of
// the next tag of a slot then also sees that the version has moved on.
void store_name(store_layout &map, uint32_t slot, std::string_view name) {
    for (size_t i = 0; i * 4 < name.size(); ++i) {
        uint32_t word = 0;
        memcpy(&word, name.data() + i * 4, std::min<size_t>(4, name.size() - i * 4));
        name_word(map, slot, i).store(word, std::memory_order_release);
    }
}

/** Room for length rounded up to 4. */
void load_name(const store_layout &map, uint32_t slot, size_t length, char *name) {
    for (size_t i = 0; i * 4 < length; ++i) {
        const uint32_t word = name_word(map, slot, i).load(std::memory_order_acquire);
        memcpy(name + i * 4, &word, sizeof word);
    }
}

bool name_equals(const store_layout &map, uint32_t slot, std::string_view name) {
    char stored[name_words * 4];
    if (map.tags[slot].name_length.load(std::memory_order_acquire) != name.size()) {
        return false;
    }
    load_name(map, slot, name.size(), stored);
    return memcmp(stored, name.data(), name.size()) == 0;
}

bool holds_tag(const tag_slot &slot) {
    return slot.version.load(std::memory_order_acquire) & 1;
}

bool plausible(const tag_head &head) {
    return head.provider < max_providers && head.size >= 1 && head.size <= DX_VALUE_MAX &&
           (head.mode == DX_READ_ONLY || head.mode == DX_WRITE_ONLY) && head.name_length >= 1 &&
           head.name_length <= DX_NAME_MAX;
}

uint32_t bucket_of(uint32_t hash) {
    return hash & (bucket_count - 1);
}

struct chain_result {
    uint32_t slot;
    bool damaged; // the chain left the table, came to an empty slot or ran in circles
};

chain_result walk_chain(const store_layout &map, std::string_view name) {
    const uint32_t hash = hash_bytes(name.data(), name.size());
    uint32_t link = map.buckets[bucket_of(hash)].load(std::memory_order_acquire);
    for (uint32_t steps = 0; link != 0; ++steps) {
        if (link > max_tags || steps >= max_tags || link > bounded(map.header.slot_end)) {
            return {no_slot, true};
        }
        const uint32_t slot = link - 1;
        const tag_slot &tag = map.tags[slot];
        if (!holds_tag(tag)) {
            return {no_slot, true};
        }
        if (tag.hash.load(std::memory_order_acquire) == hash && name_equals(map, slot, name)) {
            return {slot, false};
        }
        link = tag.next.load(std::memory_order_acquire);
    }
    return {no_slot, false};
}

uint32_t scan_slots(const store_layout &map, std::string_view name) {
    const uint32_t hash = hash_bytes(name.data(), name.size());
    for (uint32_t slot = 0; slot < slot_limit(map); ++slot) {
        const tag_slot &tag = map.tags[slot];
        if (holds_tag(tag) && tag.hash.load(std::memory_order_acquire) == hash &&
            name_equals(map, slot, name)) {
            return slot;
        }
    }
    return no_slot;
}

void link_slot(store_layout &map, uint32_t slot) {
    tag_slot &tag = map.tags[slot];
    auto &bucket = map.buckets[bucket_of(tag.hash.load(std::memory_order_relaxed))];
    tag.next.store(bucket.load(std::memory_order_relaxed), std::memory_order_release);
    bucket.store(static_cast<uint16_t>(slot + 1), std::memory_order_release);
}

/** @return false when the slot is not in the chain it belongs to */
bool unlink_slot(store_layout &map, uint32_t slot) {
    tag_slot &tag = map.tags[slot];
    std::atomic<uint16_t> *link = &map.buckets[bucket_of(tag.hash.load(std::memory_order_relaxed))];
    for (uint32_t steps = 0; steps < max_tags; ++steps) {
        const uint32_t value = link->load(std::memory_order_relaxed);
        if (value == slot + 1) {
            link->store(tag.next.load(std::memory_order_relaxed), std::memory_order_release);
            return true;
        }
        if (value == 0 || value > bounded(map.header.slot_end)) {
            return false;
        }
        link = &map.tags[value - 1].next;
    }
    return false;
}

/** Empty a slot; readers that are in the middle of it see the version move on. */
void clear_slot(tag_slot &tag) {
    tag.version.fetch_add(1, std::memory_order_acq_rel);
    tag.pending.store(0, std::memory_order_release);
}

bool reserve_slot(const store &opened, uint32_t slot) {
    store_header &header = opened.map->header;
    const uint32_t begin = bounded(header.reserved_end);
    if (slot < begin) {
        return true;
    }
    const uint32_t end = std::min(max_tags, slot / group_slots * group_slots + group_slots);
    const size_t count = end - begin;
    if (reserve_memory(opened,
                       offsetof(store_layout, tags) + begin * sizeof(tag_slot),
                       count * sizeof(tag_slot)) != 0 ||
        reserve_memory(opened,
                       offsetof(store_layout, name_heads) + begin * sizeof(name_head),
                       count * sizeof(name_head)) != 0) {
        return false;
    }
    header.reserved_end.store(end, std::memory_order_release);
    return true;
}

bool reserve_name(const store &opened, uint32_t slot, size_t length) {
    return length <= sizeof(name_head) ||
           reserve_memory(opened,
                          offsetof(store_layout, name_tails) + slot * sizeof(name_tail),
                          sizeof(name_tail)) == 0;
}

uint32_t free_slot_from(const store &opened, uint32_t first) {
    for (uint32_t slot = first; slot < max_tags; ++slot) {
        if (!reserve_slot(opened, slot)) {
            return no_slot;
        }
        if (!holds_tag(opened.map->tags[slot])) {
            return slot;
        }
    }
    return no_slot;
}

/** The lowest one, so that the tags in use lie close together. */
uint32_t find_free_slot(const store &opened) {
    const uint32_t slot = free_slot_from(opened, bounded(opened.map->header.lowest_free));
    return slot == no_slot ? free_slot_from(opened, 0) : slot;
}

void fill_slot(store_layout &map, uint32_t slot, const tag_request &request) {
    tag_slot &tag = map.tags[slot];
    constexpr auto release = std::memory_order_release;
    tag.value[0].store(0, release);
    tag.value[1].store(0, release);
    tag.stamp_ms.store(stamp_now_ms(), release);
    tag.sequence.store(0, release);
    tag.pending.store(0, release);
    tag.hash.store(hash_bytes(request.name.data(), request.name.size()), release);
    tag.type.store(request.type, release);
    tag.name_length.store(static_cast<uint16_t>(request.name.size()), release);
    tag.provider.store(static_cast<uint8_t>(request.provider), release);
    tag.size.store(request.size, release);
    tag.mode.store(request.mode, release);
    store_name(map, slot, request.name);
}

void lower_slot_end(store_layout &map) {
    uint32_t end = bounded(map.header.slot_end);
    while (end > 0 && !holds_tag(map.tags[end - 1])) {
        --end;
    }
    map.header.slot_end.store(end, std::memory_order_release);
}

} // namespace

uint32_t slot_limit(const store_layout &map) {
    return bounded(map.header.slot_end);
}

namespace {

/**
 * @param more  called for a good head, with whatever else belongs to the same version
 */
template <typename More>
bool read_version(const store_layout &map, uint32_t slot, tag_head &head, More more) {
    constexpr auto acquire = std::memory_order_acquire;
    const tag_slot &tag = map.tags[slot];
    for (int attempt = 0; attempt < record_attempts; ++attempt) {
        const uint32_t version = tag.version.load(acquire);
        if (!(version & 1)) {
            return false;
        }
        head.slot = slot;
        head.version = version;
        head.type = tag.type.load(acquire);
        head.provider = tag.provider.load(acquire);
        head.size = tag.size.load(acquire);
        head.mode = tag.mode.load(acquire);
        head.name_length = tag.name_length.load(acquire);
        const bool good = plausible(head);
        if (good) {
            more();
        }
        if (tag.version.load(acquire) == version) {
            return good;
        }
    }
    return false;
}

} // namespace

bool read_head(const store_layout &map, uint32_t slot, tag_head &head) {
    return read_version(map, slot, head, [] {});
}

bool read_record(const store_layout &map, uint32_t slot, tag_record &record) {
    return read_version(map, slot, record, [&] {
        char name[name_words * 4];
        load_name(map, slot, record.name_length, name);
        memcpy(record.name, name, record.name_length);
        record.name[record.name_length] = '\0';
    });
}

uint32_t look_up(const store_layout &map, std::string_view name) {
    if (name.empty() || name.size() > DX_NAME_MAX) {
        return no_slot;
    }
    for (int attempt = 0; attempt < look_up_attempts; ++attempt) {
        const uint32_t before = map.header.changing.load(std::memory_order_acquire);
        const chain_result found = walk_chain(map, name);
        if (found.slot != no_slot) {
            return found.slot;
        }
        const bool steady =
            !(before & 1) && map.header.changing.load(std::memory_order_acquire) == before;
        if (steady && !found.damaged) {
            return no_slot;
        }
        (void)sched_yield(); // always succeeds
    }
    // Someone died in the middle of a change, or the index is damaged: the slots themselves are
    // good.
    return scan_slots(map, name);
}

bool provider_alive(const store &opened, uint32_t provider, uint32_t self) {
    return provider == self || byte_locked_elsewhere(opened, provider);
}

uint32_t find_tag(const store &opened, std::string_view name) {
    chain_result found = walk_chain(*opened.map, name);
    if (found.damaged) {
        rebuild_index(opened);
        found = walk_chain(*opened.map, name);
    }
    return found.slot;
}

uint32_t add_tag(const store &opened, const tag_request &request) {
    store_layout &map = *opened.map;
    const uint32_t slot = find_free_slot(opened);
    if (slot == no_slot || !reserve_name(opened, slot, request.name.size())) {
        return no_slot;
    }
    const index_change change(map.header);
    fill_slot(map, slot, request);
    map.header.lowest_free.store(slot + 1, std::memory_order_relaxed);
    if (slot >= bounded(map.header.slot_end)) {
        map.header.slot_end.store(slot + 1, std::memory_order_release);
    }
    map.tags[slot].version.fetch_add(1, std::memory_order_acq_rel);
    link_slot(map, slot);
    return slot;
}

void remove_tag(const store &opened, uint32_t slot) {
    store_layout &map = *opened.map;
    bool linked = false;
    {
        const index_change change(map.header);
        linked = unlink_slot(map, slot);
        clear_slot(map.tags[slot]);
    }
    if (!linked) {
        rebuild_index(opened);
        return;
    }
    if (slot < bounded(map.header.lowest_free)) {
        map.header.lowest_free.store(slot, std::memory_order_relaxed);
    }
    lower_slot_end(map);
}

void remove_tags_of(const store &opened, uint32_t provider) {
    const store_layout &map = *opened.map;
    // From the end, so that slot_end is lowered by one step each time.
    for (uint32_t slot = slot_limit(map); slot-- > 0;) {
        const tag_slot &tag = map.tags[slot];
        if (holds_tag(tag) && tag.provider.load(std::memory_order_acquire) == provider) {
            remove_tag(opened, slot);
        }
    }
}

void remove_dead(const store &opened, uint32_t self) {
    for (uint32_t i = 0; i < max_providers; ++i) {
        provider_slot &place = opened.map->providers[i];
        if (place.used.load(std::memory_order_acquire) != 0 && !provider_alive(opened, i, self)) {
            remove_tags_of(opened, i);
            place.used.store(0, std::memory_order_release);
        }
    }
}

void rebuild_index(const store &opened) {
    store_layout &map = *opened.map;
    const index_change change(map.header);
    for (auto &bucket : map.buckets) {
        bucket.store(0, std::memory_order_release);
    }
    uint32_t end = 0;
    for (uint32_t slot = 0; slot < bounded(map.header.reserved_end); ++slot) {
        tag_slot &tag = map.tags[slot];
        tag_record record;
        if (!holds_tag(tag)) {
            continue;
        }
        if (!read_record(map, slot, record) || tag.hash.load(std::memory_order_relaxed) !=
                                                   hash_bytes(record.name, record.name_length)) {
            clear_slot(tag);
            continue;
        }
        link_slot(map, slot);
        end = slot + 1;
    }
    map.header.slot_end.store(end, std::memory_order_release);
    map.header.lowest_free.store(0, std::memory_order_relaxed);
}

} // namespace kt_dx
