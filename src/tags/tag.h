#ifndef KT_TAGS_TAG_H
#define KT_TAGS_TAG_H

#include "can/runtime.h"

#include <kt/dx.h>

#include <cstddef>
#include <cstdint>
#include <span>

/*
 * The service's tags on the data-exchange service.
 *
 * THREAD SAFETY: the handle is made and destroyed by the main thread. Tags are registered and
 * released by the port thread that owns their records; can_proprietary_subscribe_callback() runs on
 * the data-exchange thread, and never with a tag whose release has returned.
 */

/** The process-wide handle, nullptr when the tag service cannot be used. */
extern dx_handle *g_dx_handle;

/** Longest tag name in bytes; longer ones are cut. */
constexpr size_t tag_name_max_bytes = 386;

/** Join the data-exchange service as "can_proprietary"; on failure every tag is missing. */
void can_proprietary_dx_create();
void can_proprietary_dx_destroy();

/**
 * Provide the tag that a tag_info names, with a zero value. On success the tag's writes reach the
 * frame of the tag_info. A failure is printed to standard output; the port goes without the tag.
 *
 * @param mode  1 the service writes it, 2 other applications do
 * @retval 0 @retval -1
 */
int can_proprietary_tag_register(tag_info *info, const tag_block_config *block, int mode);

/** Withdraw the tag; returns once no write of it is being handled any more. */
void can_proprietary_tag_release(tag_info *info);

/** Print that a write has no tag. @return -1 */
int can_proprietary_tag_missing();

/** Publish a value. @retval 0 @retval -1 failure; a missing tag is printed to standard output */
inline int can_proprietary_tag_write(dx_tag *tag, std::span<const uint8_t> value) {
    return tag == nullptr ? can_proprietary_tag_missing()
                          : dx_tag_write(g_dx_handle, tag, value.data(), value.size());
}

/** Commit the values written so far. */
void can_proprietary_tag_commit();

/** Take a value that another application wrote into the tag's frame and wake the port. */
void can_proprietary_subscribe_callback(dx_tag *cur_tag);

#endif
