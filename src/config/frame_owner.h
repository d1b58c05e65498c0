#ifndef KT_CONFIG_FRAME_OWNER_H
#define KT_CONFIG_FRAME_OWNER_H

#include "config/sqlite_guards.h"

#include <cstdint>
#include <sqlite3.h>

/**
 * What import and export ask about the transaction that owns a frame. The statement is prepared
 * when first needed, and the answer for a frame is kept: blocks of one frame stand together.
 */
class frame_owner {
public:
    /** @param function  name that failures are logged under; must outlive the object */
    frame_owner(sqlite3 *db, const char *function) : db_(db), function_(function) {}

    /**
     * @retval 1 the owning transaction has a fault value per tag
     * @retval 0 it has none, or the frame has no owner
     * @retval -1 the database failed (logged)
     */
    int has_fault_value(int32_t frameId);

private:
    int failed(int32_t frameId) const;

    sqlite3 *db_;
    const char *function_;
    stmt_ptr statement_;
    int32_t frame_ = -1;
    int answer_ = -1;
};

#endif
