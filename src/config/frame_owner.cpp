#include "config/frame_owner.h"

#include "config/model.h"
#include "core/log.h"

namespace {

/** Position of fpFunc among the columns of the query. */
constexpr int owner_fp_func = 7;

constexpr const char *owner_query =
    "SELECT * FROM transactions t JOIN frame f ON t.transactionId = f.transactionId WHERE "
    "f.frameId = ?";

} // namespace

int frame_owner::failed(int32_t frameId) const {
    log_write_error(function_,
                    __LINE__,
                    "%s. SQL: SELECT * FROM transactions t JOIN frame f ON t.transactionId = "
                    "f.transactionId WHERE f.frameId = %d\n",
                    sqlite3_errmsg(db_),
                    frameId);
    return -1;
}

int frame_owner::has_fault_value(int32_t frameId) {
    if (answer_ >= 0 && frame_ == frameId) {
        return answer_;
    }
    if (statement_ == nullptr) {
        sqlite3_stmt *prepared = nullptr;
        if (sqlite3_prepare_v2(db_, owner_query, -1, &prepared, nullptr) != SQLITE_OK) {
            return failed(frameId);
        }
        statement_.reset(prepared);
    }
    sqlite3_stmt *statement = statement_.get();
    (void)sqlite3_reset(statement); // reports the failure of a step that was reported already
    const bool bound = sqlite3_bind_int(statement, 1, frameId) == SQLITE_OK;
    const int step = bound ? sqlite3_step(statement) : SQLITE_ERROR;
    if (step != SQLITE_ROW && step != SQLITE_DONE) {
        return failed(frameId);
    }
    const bool found = step == SQLITE_ROW;
    frame_ = frameId;
    answer_ = found && sqlite3_column_int(statement, owner_fp_func) == FAULT_PROTECTION_VALUE;
    return answer_;
}
