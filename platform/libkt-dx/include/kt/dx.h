#ifndef KT_DX_H
#define KT_DX_H

#include <stddef.h>
#include <stdint.h>

/*
 * Data-exchange (tag) service: provider side and client side of the shared tag store.
 *
 * THREAD SAFETY. A handle may be used from any thread. The dispatch function runs on the library's
 * own thread, one call at a time, with the handle's dispatch lock held; dx_tag_provider_new() and
 * dx_tag_destroy() take the same lock, so once dx_tag_destroy() has returned no dispatch function
 * works with that tag any more. They must not be called from inside the dispatch function, nor with
 * a lock held that the dispatch function takes.
 */

#ifdef __cplusplus
extern "C" {
#endif

enum {
    DX_INDEX_COUNT = 1024,                /* change indices of one provider */
    DX_BITMAP_BYTES = DX_INDEX_COUNT / 8, /* bit i of byte i / 8, least significant bit first */
    DX_NAME_MAX = 386,                    /* bytes of a tag name without its terminator */
    DX_VALUE_MAX = 8                      /* bytes of a value: what one CAN frame can carry */
};

enum dx_tag_mode {
    DX_READ_ONLY = 1, /* the provider writes, others read */
    DX_WRITE_ONLY = 2 /* others write, the provider reads */
};

struct dx_handle;
struct dx_tag;

/** One element of the chain of tags that share a change index. */
struct dx_entry {
    struct dx_tag *tag;
    struct dx_entry *next;
};

/**
 * Called when other applications wrote tags of this provider.
 * @param bitmap  DX_BITMAP_BYTES bytes; a set bit says that some tag of that index changed
 */
typedef void (*dx_dispatch)(struct dx_handle *handle, const uint8_t *bitmap);

/**
 * Join the tag store (made when missing) as a provider and start the dispatch thread.
 *
 * A store left by a provider of the same name that has died is cleaned: its tags are removed.
 *
 * @param dispatch  may be NULL
 * @return handle, NULL when the store cannot be used (the reason goes to standard error);
 *         release with dx_destroy()
 */
struct dx_handle *dx_new(const char *name, dx_dispatch dispatch);

/** Stop the dispatch thread, remove every tag of this provider and leave the store; NULL accepted.
 */
void dx_destroy(struct dx_handle *handle);

void dx_set_user_data(struct dx_handle *handle, void *data);
void *dx_get_user_data(struct dx_handle *handle);

/**
 * Provide a tag. Its value starts as zero.
 *
 * @param type  value type: 1-4 signed 8/16/32/64 bit, 5-8 unsigned 8/16/32/64 bit, 9 float,
 *              10 double, any other raw bytes
 * @param size  configured size in bytes
 * @param mode  dx_tag_mode
 * @return the tag, NULL when the name is taken by a living provider, empty or too long, the value
 *         size is 0 or above DX_VALUE_MAX, or the store is full. Release with dx_tag_destroy().
 */
struct dx_tag *
dx_tag_provider_new(struct dx_handle *handle, const char *name, int type, size_t size, int mode);

/** Remove a tag from the store; NULL accepted. */
void dx_tag_destroy(struct dx_tag *tag);

void dx_tag_set_user_data(struct dx_tag *tag, void *data);
void *dx_tag_get_user_data(const struct dx_tag *tag);

/**
 * Bytes that a value of that type and configured size takes: the width of a numeric type or the
 * configured size, whichever is larger; the configured size for raw bytes.
 */
size_t dx_get_value_size(int type, size_t size);

/**
 * Read a tag's value and mark its change as taken.
 * @return number of bytes copied (the smaller of size and the value size), -1 on a NULL argument
 */
int dx_tag_read(struct dx_tag *tag, void *buffer, size_t size);

/**
 * Publish a value. Bytes beyond size read as zero. Watchers learn of it at the next
 * dx_tag_notify(). A read-only tag is written by one thread at a time.
 * @retval  0  written
 * @retval -1  NULL argument, tag of another handle, or size above the value size
 */
int dx_tag_write(struct dx_handle *handle, struct dx_tag *tag, const void *data, size_t size);

/** Commit the writes made so far: wakes watchers. No system call while nobody watches. 0 or -1. */
int dx_tag_notify(struct dx_handle *handle);

/** First entry of the chain of tags registered under an index, NULL when empty. Dispatch only. */
struct dx_entry *dx_lookup_head(struct dx_handle *handle, unsigned index);

/** 1 when the tag's latest change by another application has been read, 0 when not. */
int dx_tag_has_read(const struct dx_tag *tag);

#ifdef __cplusplus
}
#endif

#endif
