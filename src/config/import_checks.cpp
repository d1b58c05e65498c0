#include "config/import_checks.h"

#include "config/model.h"
#include "core/log.h"
#include "core/state.h"

#include <cstdio>

namespace {

constexpr int tag_size_limit = 8;

int fail(conf_import_error *err, const char *key) {
    set_import_key(err, key);
    return -1;
}

/** Ready a statement for its next run with one key. */
bool rebind(sqlite3_stmt *statement, int32_t key) {
    (void)sqlite3_reset(statement); // repeats the result of the last run
    return sqlite3_bind_int(statement, 1, key) == SQLITE_OK;
}

} // namespace

void set_import_key(conf_import_error *err, const char *key) {
    (void)snprintf(err->key, sizeof err->key, "%s", key);
}

int section_checks::query_failed(conf_import_error *err) {
    log_write_error(
        function_, __LINE__, "sqlite exec %s, at line %d\n", sqlite3_errmsg(db_), err->line);
    return fail(err, "internal-err");
}

int section_checks::prepare(stmt_ptr *statement, const char *sql, conf_import_error *err) {
    if (*statement != nullptr) {
        return 0;
    }
    sqlite3_stmt *prepared = nullptr;
    const int result = sqlite3_prepare_v2(db_, sql, -1, &prepared, nullptr);
    statement->reset(prepared);
    return result == SQLITE_OK ? 0 : query_failed(err);
}

int section_checks::run(stmt_ptr *statement, const char *sql, int32_t key, conf_import_error *err) {
    if (prepare(statement, sql, err) != 0) {
        return -1;
    }
    const int step = rebind(statement->get(), key) ? sqlite3_step(statement->get()) : SQLITE_ERROR;
    if (step != SQLITE_ROW && step != SQLITE_DONE) {
        return query_failed(err);
    }
    return step == SQLITE_ROW ? 1 : 0;
}

int section_checks::owner_has_fault_value(int32_t frameId, conf_import_error *err) {
    const int answer = owner_.has_fault_value(frameId);
    if (answer < 0) {
        err->column = 3;
        return fail(err, "internal-err");
    }
    return answer;
}

int section_checks::check_duplicate(const char *sql,
                                    int32_t group,
                                    const char *format,
                                    conf_import_error *err) {
    if (const int found = run(&duplicate_, sql, group, err); found <= 0) {
        return found;
    }
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    log_write_error(function_, __LINE__, format, group);
#pragma GCC diagnostic pop
    return fail(err, "duplicate-name");
}

int section_checks::check_tag_size(int32_t frameId, conf_import_error *err) {
    constexpr const char *sql = "SELECT SUM(tagSize) FROM block WHERE frameId = ?";
    if (run(&size_, sql, frameId, err) < 0) {
        return -1;
    }
    const int total = sqlite3_column_int(size_.get(), 0);
    if (total <= tag_size_limit) {
        return 0;
    }
    log_write_error(function_,
                    __LINE__,
                    "tagSize total in frameId = %d exceeds limit (total = %d)\n",
                    frameId,
                    total);
    return fail(err, "tagsize-exceeds-limit");
}

int section_checks::after_row(int32_t group, bool is_tag, conf_import_error *err) {
    if (table_ == TABLE_TRANSACTIONS) {
        return check_duplicate("SELECT transactionName, COUNT(*) FROM transactions WHERE deviceId "
                               "= ? GROUP BY transactionName HAVING COUNT(*) > 1",
                               group,
                               "transaction name duplicate in deviceId = %d\n",
                               err);
    }
    if (table_ != TABLE_BLOCK || !is_tag) {
        return 0;
    }
    const int result = check_duplicate("SELECT tagName, COUNT(*) FROM block WHERE frameId = ? "
                                       "GROUP BY tagName HAVING COUNT(*) > 1",
                                       group,
                                       "tag name duplicate in frameId = %d\n",
                                       err);
    return result != 0 ? result : check_tag_size(group, err);
}

int section_checks::check_port_rows(conf_import_error *err) {
    constexpr const char *sql = "SELECT COUNT(*) FROM interface_setting";
    sqlite3_stmt *prepared = nullptr;
    const int result = sqlite3_prepare_v2(db_, sql, -1, &prepared, nullptr);
    const stmt_ptr statement(prepared);
    if (result != SQLITE_OK || sqlite3_step(prepared) != SQLITE_ROW) {
        log_write_error(function_, __LINE__, "%s. SQL: %s\n", sqlite3_errmsg(db_), sql);
        return fail(err, "internal-err");
    }
    if (sqlite3_column_int(prepared, 0) != g_can_port_count.load(std::memory_order_relaxed)) {
        log_write_error(
            function_,
            __LINE__,
            "interface_setting_table rows does not match the expected number of ports .\n");
        return fail(err, "internal-err");
    }
    return 0;
}

int section_checks::check_frame_count(int type, int32_t transactionId, conf_import_error *err) {
    constexpr const char *sql = "SELECT COUNT(*) FROM frame WHERE transactionId = ?";
    if (run(&count_, sql, transactionId, err) < 0) {
        return -1;
    }
    const int frames = sqlite3_column_int(count_.get(), 0);
    const bool two = type > TRANSACTION_CONSUME;
    if (frames == (two ? 2 : 1)) {
        return 0;
    }
    log_write_error(function_,
                    __LINE__,
                    two ? "must have exactly two frames\n" : "must have exactly one frame\n");
    return fail(err, "invalid-frame");
}

int section_checks::check_frame_counts(conf_import_error *err) {
    err->line = 0; // from here the position of the transaction
    stmt_ptr transactions;
    if (prepare(&transactions, "SELECT transactionType, transactionId FROM transactions", err) !=
        0) {
        return -1;
    }
    int step = sqlite3_step(transactions.get());
    for (; step == SQLITE_ROW; step = sqlite3_step(transactions.get())) {
        err->line++;
        if (check_frame_count(sqlite3_column_int(transactions.get(), 0),
                              sqlite3_column_int(transactions.get(), 1),
                              err) != 0) {
            return -1;
        }
    }
    return step == SQLITE_DONE ? 0 : query_failed(err);
}

int section_checks::after_section(conf_import_error *err) {
    switch (table_) {
    case TABLE_INTERFACE:
        return check_port_rows(err);
    case TABLE_FRAME:
        return check_frame_counts(err);
    default:
        return 0;
    }
}
