#ifndef KT_PROTOCOL_COMMON_H
#define KT_PROTOCOL_COMMON_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Copy a file. The destination is replaced atomically and is on the disk when the call returns, so
 * a reader or a power failure sees the old or the new content, never a mixture.
 *
 * @retval  0  copied
 * @retval -1  failed, errno says why; the destination is as it was
 */
int file_copy(const char *destination, const char *source);

/**
 * Make a folder and its parents, mode 0755 less the umask.
 * @retval  0  the folder exists
 * @retval -1  failed, errno says why
 */
int mkdir_p(const char *path);

/**
 * Convert hexadecimal text to bytes, two digits per byte in text order.
 *
 * The text ends at its first character that is not a hexadecimal digit; digits beyond 2 * size are
 * not looked at. An odd number of digits is read as if a "0" stood in front.
 *
 * @param[out] bytes  room for size bytes; bytes beyond the result are untouched
 * @return number of bytes written
 */
int atoh(const char *text, uint8_t *bytes, size_t size);

/**
 * Carry the rows of one SQLite database over into the schema of another.
 *
 * Every row of every table of old_path whose name also stands in new_path is copied by column name,
 * keys included; columns and tables that the new schema no longer has are left behind. Triggers,
 * foreign keys and CHECK constraints do not stop a row that was there before. The result is written
 * beside output_path and replaces it atomically; output_path may be one of the two inputs.
 *
 * @retval  0  merged
 * @retval -1  failed; all three files are as they were
 */
int ktsqlite3_merge(const char *new_path, const char *old_path, const char *output_path);

struct kt_semaphore;

/**
 * Take the inter-process lock that belongs to a file path. Blocks until it is free. Excludes other
 * processes and other threads of this one; not recursive. The lock of a killed process is released
 * by the kernel.
 *
 * @param key_path      the path that names the lock; the file itself is neither opened nor needed,
 *                      its folder is
 * @param[out] handle   for semaphoreUp(); untouched on failure
 * @retval  0  taken
 * @retval -1  failed, errno says why
 */
int semaphoreDown(const char *key_path, struct kt_semaphore **handle);

/** Release a lock of semaphoreDown(). @retval 0 released @retval -1 NULL handle */
int semaphoreUp(struct kt_semaphore *handle);

#ifdef __cplusplus
}
#endif

#endif
