#ifndef KT_DX_LAYOUT_H
#define KT_DX_LAYOUT_H

#include <kt/dx.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <pthread.h>

/*
 * What stands in the tag store file. Everything that another process may change is an atomic, and
 * nothing read from it is used as an index or a length before it was checked against these bounds.
 */
namespace kt_dx {

inline constexpr uint32_t max_tags = 16384;
inline constexpr uint32_t max_providers = 64;
inline constexpr uint32_t group_slots = 64; // tags that share one change counter
inline constexpr uint32_t group_count = max_tags / group_slots;
inline constexpr uint32_t bucket_count = max_tags;
inline constexpr uint32_t layout_version = 2;
inline constexpr uint32_t bitmap_words = DX_INDEX_COUNT / 32;
inline constexpr uint32_t name_words = (DX_NAME_MAX + 3) / 4;
inline constexpr uint32_t name_head_words = 16; // 64 bytes, which most names fit into
inline constexpr uint32_t name_tail_words = name_words - name_head_words;
inline constexpr uint32_t provider_name_max = 63;
inline constexpr char store_magic[8] = {'K', 'T', 'D', 'X', 'T', 'A', 'G', 'S'};

// A value is one word of 64 bits: nobody ever sees half of one, whoever dies while writing.
static_assert(std::atomic<uint64_t>::is_always_lock_free);
static_assert(std::atomic<uint32_t>::is_always_lock_free);
static_assert(std::atomic<uint16_t>::is_always_lock_free);
static_assert(std::atomic<uint8_t>::is_always_lock_free);
static_assert(sizeof(uint64_t) == DX_VALUE_MAX);

/** Constant for the life of a file; a reader compares every field with what it expects. */
struct store_identity {
    char magic[8];
    uint32_t layout;
    uint32_t abi;
    uint64_t total_bytes;
    uint32_t tags;
    uint32_t providers;
    uint32_t name_bytes;
    char boot_id[40]; // of the running kernel: ages and locks mean nothing after a restart
    uint32_t checksum;
};

struct alignas(64) store_header {
    store_identity identity;
    alignas(64) pthread_mutex_t registration;
    // Written with the registration mutex held.
    std::atomic<uint32_t> changing;     // odd while the index is being changed
    std::atomic<uint32_t> slot_end;     // no tag at or above this slot
    std::atomic<uint32_t> reserved_end; // slots below it have their memory
    std::atomic<uint32_t> lowest_free;  // no free slot below it
    // Bit 0: someone waits. Above it: number of commits.
    alignas(64) std::atomic<uint32_t> commit;
    uint8_t spare[60]; // to the end of the cache line that every commit takes
    std::atomic<uint32_t> group_changes[group_count];
};

struct alignas(64) provider_slot {
    std::atomic<uint32_t> used; // written with the registration mutex held
    std::atomic<uint32_t> pid;
    std::atomic<uint32_t> wake; // futex of the dispatch thread
    std::atomic<uint8_t> name[provider_name_max + 1];
    alignas(64) std::atomic<uint32_t> changed[bitmap_words];
};

/** What is touched for every value: one cache line. */
struct alignas(64) tag_slot {
    // Index DX_READ_ONLY - 1 is written by the provider only, so that a client which is stopped in
    // the middle of a write and goes on when the slot has another owner cannot hurt a published
    // value.
    std::atomic<uint64_t> value[2];
    std::atomic<uint64_t> stamp_ms; // monotonic time of the last write
    std::atomic<uint32_t> version;  // odd while the slot holds a tag, another one for each tag
    std::atomic<uint32_t> sequence; // number of writes
    std::atomic<uint32_t> pending;  // version of the tag whose change waits to be taken
    std::atomic<uint32_t> hash;
    std::atomic<int32_t> type;
    std::atomic<uint16_t> next; // slot + 1 of the next tag of the bucket
    std::atomic<uint16_t> name_length;
    std::atomic<uint8_t> provider;
    std::atomic<uint8_t> size;
    std::atomic<uint8_t> mode;
};

struct name_head {
    std::atomic<uint32_t> words[name_head_words];
};

/** What the head has no room for. Takes memory only where a name is that long. */
struct name_tail {
    std::atomic<uint32_t> words[name_tail_words];
};

struct store_layout {
    store_header header;
    provider_slot providers[max_providers];
    std::atomic<uint16_t> buckets[bucket_count]; // slot + 1 of the first tag
    alignas(4096) tag_slot tags[max_tags];
    alignas(4096) name_head name_heads[max_tags];
    alignas(4096) name_tail name_tails[max_tags];
};

static_assert(sizeof(tag_slot) == 64);
static_assert(max_tags < UINT16_MAX && max_providers < UINT8_MAX);
static_assert(group_count * group_slots == max_tags);
static_assert((bucket_count & (bucket_count - 1)) == 0);

/** Differs between builds whose view of the file differs: word size, mutex, byte order. */
constexpr uint32_t store_abi() {
    constexpr uint32_t little = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? 1 : 2;
    return static_cast<uint32_t>(sizeof(pthread_mutex_t)) << 24 |
           static_cast<uint32_t>(sizeof(store_header)) << 8 |
           static_cast<uint32_t>(sizeof(void *)) << 4 | little;
}

/** 32-bit FNV-1a. */
constexpr uint32_t hash_bytes(const char *bytes, size_t size) {
    uint32_t hash = 2166136261U;
    for (size_t i = 0; i < size; ++i) {
        hash = (hash ^ static_cast<uint8_t>(bytes[i])) * 16777619U;
    }
    return hash;
}

inline uint32_t identity_checksum(const store_identity &identity) {
    return hash_bytes(reinterpret_cast<const char *>(&identity),
                      offsetof(store_identity, checksum));
}

/** A value of at most 4 bytes. */
using short_value = uint32_t;

/**
 * Store a value into the word of a tag whose values are all short: the upper half is zero and stays
 * so. On 32-bit ARM the store of a whole word is a loop.
 */
inline void store_short(std::atomic<uint64_t> &word, short_value value) {
    static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the lower half comes first");
    using half [[gnu::may_alias]] = short_value;
    __atomic_store_n(reinterpret_cast<half *>(&word), value, __ATOMIC_RELAXED);
}

inline std::atomic<uint64_t> &value_of(tag_slot &slot, int mode) {
    return slot.value[mode == DX_READ_ONLY ? 0 : 1];
}

} // namespace kt_dx

#endif
