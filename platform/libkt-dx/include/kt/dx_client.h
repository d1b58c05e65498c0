#ifndef KT_DX_CLIENT_H
#define KT_DX_CLIENT_H

#include <kt/dx.h>

#include <stddef.h>
#include <stdint.h>

/*
 * Client side of the shared tag store: find, read, write and watch the tags that providers offer.
 *
 * A tag whose provider has died is never found, listed or written. Reading takes no lock and makes
 * no system call beyond the check that the provider lives; it never blocks a provider.
 *
 * THREAD SAFETY. A client belongs to one thread at a time; open one for each thread. Any number of
 * clients may work on the store at once.
 */

#ifdef __cplusplus
extern "C" {
#endif

/** Results of the client calls. */
enum dx_result {
    DX_OK = 0,
    DX_BAD_ARGUMENT = -1,
    DX_UNKNOWN_TAG = -2,  /* never there, or removed meanwhile */
    DX_IS_READ_ONLY = -3, /* the provider alone writes it */
    DX_WRONG_SIZE = -4,   /* not the value size of the tag */
    DX_PROVIDER_DEAD = -5,
    DX_NO_PERMISSION = -6, /* the store may be read only */
    DX_NO_STORE = -7,      /* no provider has made it yet */
    DX_STORE_REFUSED = -8, /* damaged, foreign, not accessible: printed on standard error */
    DX_NO_MEMORY = -9
};

struct dx_client;

/** What a tag is. Stays valid as a description when the tag goes; calls then answer so. */
struct dx_tag_info {
    char name[DX_NAME_MAX + 1]; /* any bytes but zero */
    int type;
    size_t size; /* of the value, 1 to DX_VALUE_MAX bytes */
    int mode;    /* dx_tag_mode */
    uint32_t slot;
    uint32_t version;
};

/** A value with its circumstances. */
struct dx_sample {
    uint8_t value[DX_VALUE_MAX]; /* bytes beyond the size are zero */
    uint64_t age_ms;             /* since the last write, resolution of one scheduler tick; since
                                    its registration when it was never written */
    uint32_t sequence;           /* number of writes */
};

/** Called for one tag. @return 0 to go on, anything else to end the walk */
typedef int (*dx_visit)(void *context,
                        const struct dx_tag_info *info,
                        const struct dx_sample *sample);

/**
 * Open the store below KT_ROOT. Never makes one. Falls back to reading when writing is not allowed.
 *
 * @param[out] client  release with dx_client_close(); untouched on failure
 * @retval DX_OK, DX_BAD_ARGUMENT, DX_NO_STORE, DX_STORE_REFUSED, DX_NO_MEMORY
 */
int dx_client_open(struct dx_client **client);

/** Release a client; NULL accepted. */
void dx_client_close(struct dx_client *client);

/**
 * 1 when the store of this client is still the one that new programs open, 0 when its file was
 * removed or replaced: close the client and open another.
 */
int dx_client_current(const struct dx_client *client);

/** Find a tag. @retval DX_OK, DX_BAD_ARGUMENT, DX_UNKNOWN_TAG (info untouched) */
int dx_client_find(struct dx_client *client, const char *name, struct dx_tag_info *info);

/**
 * Read a tag. The value is whole; time and number of writes belong to it unless the provider writes
 * faster than they can be read.
 * @retval DX_OK, DX_BAD_ARGUMENT, DX_UNKNOWN_TAG, DX_PROVIDER_DEAD (sample untouched)
 */
int dx_client_read(struct dx_client *client,
                   const struct dx_tag_info *info,
                   struct dx_sample *sample);

/**
 * Write a tag and tell its provider.
 *
 * @param size  exactly info->size
 * @retval DX_OK, DX_BAD_ARGUMENT, DX_UNKNOWN_TAG, DX_IS_READ_ONLY, DX_WRONG_SIZE, DX_PROVIDER_DEAD,
 *         DX_NO_PERMISSION; nothing was written unless DX_OK. A dead provider's tag may have taken
 *         the value, which nobody reads any more.
 */
int dx_client_write(struct dx_client *client,
                    const struct dx_tag_info *info,
                    const void *data,
                    size_t size);

/**
 * Visit every tag whose name matches a shell pattern ("*" also matches "/"), in no particular
 * order. Removes the tags of dead providers first where the store may be written.
 *
 * @param pattern  NULL for all
 * @return number of tags visited, DX_BAD_ARGUMENT
 */
int dx_client_list(struct dx_client *client, const char *pattern, dx_visit visit, void *context);

/**
 * Visit every tag that was written since the previous call. The first call visits nothing: it marks
 * the beginning. Several writes of a tag between two calls are one change. The cost grows with the
 * tags that changed, not with the size of the store. Tags still to be visited when visit ends the
 * walk come at the next call.
 *
 * @return number of tags visited, DX_BAD_ARGUMENT, DX_NO_MEMORY
 */
int dx_client_changes(struct dx_client *client, dx_visit visit, void *context);

/**
 * Wait until a provider or client has committed writes since dx_client_changes() was last called.
 *
 * @param timeout_ms  negative waits without end
 * @retval 1 there are commits
 * @retval 0 time is up, or a signal handler ran
 * @retval DX_BAD_ARGUMENT
 */
int dx_client_wait(struct dx_client *client, int timeout_ms);

#ifdef __cplusplus
}
#endif

#endif
