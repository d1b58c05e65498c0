#ifndef KT_DX_STORE_FILE_H
#define KT_DX_STORE_FILE_H

#include "guards.h"
#include "layout.h"
#include "rooted.h"

namespace kt_dx {

/** One process's view of the store file. */
struct store {
    store_layout *map = nullptr;
    unique_fd fd;
    bool writable = false;
    path_text path;

    store() = default;
    store(const store &) = delete;
    store &operator=(const store &) = delete;
    ~store();
};

enum class open_mode {
    create,  // make the store when it is missing
    existing // read-only when the file may not be written
};

/**
 * Open, check and map the store below KT_ROOT.
 * @retval  0       mapped
 * @retval -ENOENT  no store, or one that an earlier start of the machine left (existing only)
 * @retval <0       negative errno; the reason was printed on standard error
 */
int open_store(store &opened, open_mode mode);

/** One line on standard error: the library, the file, the reason and its detail if there is one. */
void complain(const store &about, const char *reason, const char *detail = nullptr);

/**
 * Take the record lock of a byte of the file for as long as this open file lives. The kernel gives
 * it back when the process dies.
 * @return false when another open file has it
 */
bool lock_byte(const store &opened, uint32_t byte);

/** True when another open file holds the record lock of that byte. */
bool byte_locked_elsewhere(const store &opened, uint32_t byte);

/**
 * Give a range of the file its memory, so that a later store cannot hit a full file system.
 * @retval 0 or negative errno
 */
int reserve_memory(const store &opened, size_t offset, size_t bytes);

} // namespace kt_dx

#endif
