#ifndef KT_DX_REGISTRY_H
#define KT_DX_REGISTRY_H

#include "store_file.h"

#include <string_view>

/*
 * The table of tags and its index by name.
 *
 * THREAD SAFETY. Everything under "registration" needs the registration mutex; look-ups and copies
 * for readers need no lock and tolerate any content of the file.
 */
namespace kt_dx {

inline constexpr uint32_t no_slot = UINT32_MAX;

/** What a tag is, apart from its name and its value. */
struct tag_head {
    uint32_t slot;
    uint32_t version;
    int32_t type;
    uint32_t provider;
    uint8_t size;
    uint8_t mode;
    uint16_t name_length;
};

/** What a tag is, apart from its value. */
struct tag_record : tag_head {
    char name[DX_NAME_MAX + 1];
};

struct tag_request {
    std::string_view name; // 1 to DX_NAME_MAX bytes
    uint32_t provider;
    int32_t type;
    uint8_t size; // 1 to DX_VALUE_MAX
    uint8_t mode;
};

// Readers

/** Number of slots a walk over all tags has to look at. */
uint32_t slot_limit(const store_layout &map);

/** Copy the tag of a slot as it was at one instant; false when it holds none. */
bool read_record(const store_layout &map, uint32_t slot, tag_record &record);

/** The same without the name, which takes most of the time. */
bool read_head(const store_layout &map, uint32_t slot, tag_head &head);

/** Slot of a name, no_slot when there is none. */
uint32_t look_up(const store_layout &map, std::string_view name);

/** True when the provider of that slot lives; self (or no_slot) is known to. */
bool provider_alive(const store &opened, uint32_t provider, uint32_t self = no_slot);

// Registration

/** Slot of a name, no_slot when there is none. */
uint32_t find_tag(const store &opened, std::string_view name);

/** Add a tag whose name is not in use. @return its slot, no_slot when the store is full */
uint32_t add_tag(const store &opened, const tag_request &request);

void remove_tag(const store &opened, uint32_t slot);
void remove_tags_of(const store &opened, uint32_t provider);

/** Remove the tags of providers that have died and free their places. */
void remove_dead(const store &opened, uint32_t self = no_slot);

/** Make index and bounds anew from the slots; a slot with impossible content is emptied. */
void rebuild_index(const store &opened);

} // namespace kt_dx

#endif
