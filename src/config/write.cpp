#include "config/write.h"

#include "config/database.h"
#include "config/sqlite_guards.h"
#include "core/log.h"

#include <array>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace {

using working_copy_ptr = std::unique_ptr<sqlite3, call_on_delete<can_proprietary_db_close>>;
using sql_ptr = heap_ptr<char>;

/**
 * @return the statement text, nullptr without memory. One that is too long comes out empty and
 * fails: cut, it could still be a statement, on other rows.
 */
template <typename... Arguments>
sql_ptr format_sql(const char *format, Arguments... arguments) {
    sql_ptr sql(static_cast<char *>(malloc(sql_text_bytes)));
    if (sql != nullptr) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
        const int length = snprintf(sql.get(), sql_text_bytes, format, arguments...);
#pragma GCC diagnostic pop
        if (length < 0 || static_cast<size_t>(length) >= sql_text_bytes) {
            sql.get()[0] = '\0';
        }
    }
    return sql;
}

/** A text can leave its single quotes only by a quote of its own. */
bool stays_quoted(const char *text) {
    return text != nullptr && strchr(text, '\'') == nullptr;
}

bool is_blank(const char *text) {
    for (; *text != '\0'; text++) {
        if (isspace(static_cast<unsigned char>(*text)) == 0) {
            return false;
        }
    }
    return true;
}

/** Execute exactly one statement. */
int execute(const char *function, sqlite3 *db, const char *sql) {
    sqlite3_stmt *prepared = nullptr;
    const char *rest = nullptr;
    int result = sqlite3_prepare_v2(db, sql, -1, &prepared, &rest);
    const stmt_ptr statement(prepared);
    if (result == SQLITE_OK && (prepared == nullptr || !is_blank(rest))) {
        log_write_error(function, __LINE__, "sqlite exec %s\n", "not exactly one statement");
        return -1;
    }
    if (result == SQLITE_OK) {
        result = sqlite3_step(prepared);
    }
    if (result != SQLITE_DONE) {
        log_write_error(function, __LINE__, "sqlite exec %s\n", sqlite3_errmsg(db));
        return -1;
    }
    return 0;
}

/** Execute a statement that embeds texts. */
int execute_with(const char *function,
                 sqlite3 *db,
                 const char *sql,
                 std::initializer_list<const char *> texts) {
    for (const char *text : texts) {
        if (!stays_quoted(text)) {
            log_write_error(function, __LINE__, "sqlite exec %s\n", "near \"'\": syntax error");
            return -1;
        }
    }
    return execute(function, db, sql);
}

int prepare(const char *function,
            sqlite3 *db,
            const char *sql,
            stmt_ptr *statement,
            const char *spelling = "SQL") {
    sqlite3_stmt *prepared = nullptr;
    const int result = sqlite3_prepare_v2(db, sql, -1, &prepared, nullptr);
    statement->reset(prepared);
    if (result != SQLITE_OK) {
        log_write_error(function, __LINE__, "%s. %s: %s\n", sqlite3_errmsg(db), spelling, sql);
        return -1;
    }
    return 0;
}

/** @retval 1 the statement yields a row @retval 0 none @retval -1 failed (logged) */
int has_row(const char *function, sqlite3 *db, sqlite3_stmt *statement) {
    switch (sqlite3_step(statement)) {
    case SQLITE_ROW:
        return 1;
    case SQLITE_DONE:
        return 0;
    default:
        log_write_error(function, __LINE__, "sqlite exec %s\n", sqlite3_errmsg(db));
        return -1;
    }
}

int check_exists(const char *function, const char *format, int id) {
    const sql_ptr sql = format_sql(format, id);
    if (sql == nullptr) {
        return -7;
    }
    const working_copy_ptr db(can_proprietary_db_get());
    if (db == nullptr) {
        log_write_error(function, __LINE__, "param fail\n");
        return -1;
    }
    stmt_ptr statement;
    if (prepare(function, db.get(), sql.get(), &statement) != 0) {
        return -1;
    }
    return has_row(function, db.get(), statement.get()) == 1 ? 0 : -1;
}

/** Key of the last row in table order, which is the row just inserted as keys only ascend. */
int last_key(const char *function, sqlite3 *db, const char *table, int *key) {
    int rows = 0;
    if (can_proprietary_db_get_row_count(db, table, nullptr, &rows) != 0 || rows == 0) {
        log_write_error(function, __LINE__, "db row count fail\n");
        return -1;
    }
    const sql_ptr sql = format_sql("SELECT * FROM %s LIMIT 1 OFFSET %d", table, rows - 1);
    if (sql == nullptr) {
        return -7;
    }
    stmt_ptr statement;
    if (prepare(function, db, sql.get(), &statement, "Sql") != 0 ||
        has_row(function, db, statement.get()) != 1) {
        return -1;
    }
    *key = sqlite3_column_int(statement.get(), 0);
    return 0;
}

/** Execute an INSERT that embeds texts. @param[out] key of the new row */
int insert(const char *function,
           sqlite3 *db,
           const sql_ptr &sql,
           std::initializer_list<const char *> texts,
           const char *table,
           int *key) {
    if (sql == nullptr) {
        return -7;
    }
    return execute_with(function, db, sql.get(), texts) == 0 ? last_key(function, db, table, key)
                                                             : -1;
}

/** Whether a bound name with its bound keys is taken. @retval 0 free @retval -1 taken or failed */
int check_name_free(const char *function,
                    sqlite3 *db,
                    const char *sql,
                    const char *name,
                    std::initializer_list<int> keys) {
    stmt_ptr statement;
    if (prepare(function, db, sql, &statement) != 0) {
        return -1;
    }
    int position = 1;
    int result = sqlite3_bind_text(statement.get(), position++, name, -1, SQLITE_STATIC);
    for (const int key : keys) {
        result |= sqlite3_bind_int(statement.get(), position++, key);
    }
    if (result != SQLITE_OK) {
        log_write_error(function, __LINE__, "sqlite exec %s\n", sqlite3_errmsg(db));
        return -1;
    }
    return has_row(function, db, statement.get()) == 0 ? 0 : -1;
}

/** Roll back and close the caller's connection, as some operations do on their failures. */
int abandon(sqlite3 **db, int result) {
    (void)can_proprietary_db_end_set_db(*db, 0); // the failure in hand is the one to report
    *db = nullptr;
    return result;
}

int param_fail(const char *function) {
    log_write_error(function, __LINE__, "param fail\n");
    return -1;
}

/** Owner of a transaction. @retval 0 @retval -1 absent or failed (logged) */
int read_owner(const char *function, sqlite3 *db, int transactionId, int *deviceId) {
    stmt_ptr statement;
    constexpr const char *sql = "SELECT deviceId FROM transactions WHERE transactionId = ?";
    if (prepare(function, db, sql, &statement) != 0 ||
        sqlite3_bind_int(statement.get(), 1, transactionId) != SQLITE_OK) {
        return -1;
    }
    const int found = has_row(function, db, statement.get());
    if (found == 0) {
        log_write_error(function, __LINE__, "transaction_id not found\n");
    }
    if (found != 1) {
        return -1;
    }
    *deviceId = sqlite3_column_int(statement.get(), 0);
    return 0;
}

/** Delete by id after a check that it is there. */
int delete_existing(
    const char *function, sqlite3 *db, int exists, const char *absent, const char *format, int id) {
    if (exists != 0) {
        log_write_error(function, __LINE__, "%s", absent);
        return exists;
    }
    const sql_ptr sql = format_sql(format, id);
    return sql == nullptr ? -7 : execute(function, db, sql.get());
}

} // namespace

int check_portId_exists(int portId) {
    return check_exists(__func__, "SELECT 1 FROM interface_setting WHERE portId = %d", portId);
}

int check_deviceId_exists(int deviceId) {
    return check_exists(__func__, "SELECT 1 FROM device WHERE deviceId = %d", deviceId);
}

int check_transactionId_exists(int transactionId) {
    return check_exists(
        __func__, "SELECT 1 FROM transactions WHERE transactionId = %d", transactionId);
}

int check_blockId_exists(int blockId) {
    return check_exists(__func__, "SELECT 1 FROM block WHERE blockId = %d", blockId);
}

int can_proprietary_conf_update_interface_config(sqlite3 **db,
                                                 const interface_config *config,
                                                 int portId) {
    if (db == nullptr || *db == nullptr || config == nullptr) {
        return param_fail(__func__);
    }
    if (const int exists = check_portId_exists(portId); exists != 0) {
        log_error("port_id not found\n");
        return exists;
    }
    const sql_ptr sql = format_sql("UPDATE interface_setting SET frameFormat=%d,baudrate=%d,"
                                   "initialDelay=%d,busOffReset=%d,resistor=%d WHERE portId=%d",
                                   config->frameFormat,
                                   config->baudrate,
                                   config->initialDelay,
                                   config->busOffReset ? 1 : 0,
                                   config->resistor ? 1 : 0,
                                   portId);
    if (sql == nullptr) {
        return abandon(db, -7);
    }
    return execute(__func__, *db, sql.get()) == 0 ? 0 : abandon(db, -1);
}

int can_proprietary_conf_insert_device_config(sqlite3 *db,
                                              const device_config *config,
                                              uint8_t *deviceId) {
    if (db == nullptr || config == nullptr || deviceId == nullptr) {
        return param_fail(__func__);
    }
    const sql_ptr sql = format_sql("INSERT INTO device (deviceName, portId) VALUES ('%s', %d)",
                                   config->deviceName,
                                   config->portId);
    int key = 0;
    if (const int result = insert(__func__, db, sql, {config->deviceName}, "device", &key);
        result != 0) {
        return result;
    }
    *deviceId = static_cast<uint8_t>(key);
    return 0;
}

int can_proprietary_conf_update_device_config(sqlite3 *db,
                                              const device_config *config,
                                              int deviceId) {
    if (db == nullptr || config == nullptr) {
        return param_fail(__func__);
    }
    if (const int exists = check_deviceId_exists(deviceId); exists != 0) {
        log_error("device_id not found\n");
        return exists;
    }
    const sql_ptr sql = format_sql(
        "UPDATE device SET deviceName = '%s' WHERE deviceId = %d", config->deviceName, deviceId);
    return sql == nullptr ? -7 : execute_with(__func__, db, sql.get(), {config->deviceName});
}

int can_proprietary_conf_delete_device_config(sqlite3 *db, int deviceId) {
    if (db == nullptr) {
        return param_fail(__func__);
    }
    return delete_existing(__func__,
                           db,
                           check_deviceId_exists(deviceId),
                           "device_id not found\n",
                           "DELETE FROM device WHERE deviceId=%d",
                           deviceId);
}

int can_proprietary_conf_insert_transaction_config(sqlite3 *db,
                                                   const transaction_config *config,
                                                   transaction_config *inserted) {
    if (db == nullptr || config == nullptr || inserted == nullptr) {
        return param_fail(__func__);
    }
    constexpr const char *taken =
        "SELECT 1 FROM transactions WHERE transactionName = ? AND deviceId = ?";
    if (check_name_free(__func__, db, taken, config->transactionName, {config->deviceId}) != 0) {
        return -1;
    }
    const sql_ptr sql = format_sql(
        "INSERT INTO transactions (deviceId, transactionEnable, TransactionName, TransactionType, "
        "triggerMode, cyclicinterval, fpFunc, fpTimeout, triggerByRTR, consumeToutEnable, "
        "consumeTimeout, timeoutRetry, responseTimeout) VALUES (%d, %d,'%s', %d, %d, %d, %d, %d, "
        "%d, %d, %d, %d, %d)",
        config->deviceId,
        config->transactionEnable,
        config->transactionName,
        config->transactionType,
        config->triggerMode,
        config->cyclicInterval,
        config->fpFunc,
        config->fpTimeout,
        config->triggerByRTR,
        config->consumeToutEnable,
        config->consumeTimeout,
        config->timeoutRetry,
        config->responseTimeout);
    int key = 0;
    if (const int result =
            insert(__func__, db, sql, {config->transactionName}, "transactions", &key);
        result != 0) {
        return result;
    }
    inserted->transactionId = static_cast<uint16_t>(key);
    return 0;
}

int can_proprietary_conf_update_transaction_config(sqlite3 *db,
                                                   const transaction_config *config,
                                                   int transactionId) {
    if (db == nullptr || config == nullptr) {
        return param_fail(__func__);
    }
    int deviceId = 0;
    if (read_owner(__func__, db, transactionId, &deviceId) != 0) {
        return -1;
    }
    constexpr const char *taken = "SELECT 1 FROM transactions WHERE transactionName = ? AND "
                                  "transactionId != ? AND deviceId = ?";
    if (check_name_free(__func__, db, taken, config->transactionName, {transactionId, deviceId}) !=
        0) {
        return -1;
    }
    const sql_ptr sql = format_sql(
        "UPDATE transactions SET transactionEnable = %d, TransactionName = '%s', TransactionType = "
        "%d, triggerMode = %d, cyclicinterval = %d, fpFunc = %d, fpTimeout = %d, triggerByRTR = "
        "%d, consumeToutEnable = %d, consumeTimeout = %d, timeoutRetry = %d, responseTimeout = %d "
        "WHERE transactionId = %d",
        config->transactionEnable,
        config->transactionName,
        config->transactionType,
        config->triggerMode,
        config->cyclicInterval,
        config->fpFunc,
        config->fpTimeout,
        config->triggerByRTR,
        config->consumeToutEnable,
        config->consumeTimeout,
        config->timeoutRetry,
        config->responseTimeout,
        transactionId);
    return sql == nullptr ? -7 : execute_with(__func__, db, sql.get(), {config->transactionName});
}

int can_proprietary_conf_delete_transaction_config(sqlite3 *db, int transactionId) {
    if (db == nullptr) {
        return param_fail(__func__);
    }
    return delete_existing(__func__,
                           db,
                           check_transactionId_exists(transactionId),
                           "transaction_id not found\n",
                           "DELETE FROM transactions WHERE transactionId = %d",
                           transactionId);
}

int can_proprietary_conf_insert_frame_config(sqlite3 *db,
                                             const frame_config *config,
                                             frame_config *inserted) {
    if (db == nullptr || config == nullptr || inserted == nullptr) {
        return param_fail(__func__);
    }
    const sql_ptr sql = format_sql("INSERT INTO frame (transactionId, canId, dataLength, "
                                   "frameType) VALUES (%d, %d, %d, %d)",
                                   config->transactionId,
                                   config->canId,
                                   config->dataLength,
                                   config->frameType);
    int key = 0;
    if (const int result = insert(__func__, db, sql, {}, "frame", &key); result != 0) {
        return result;
    }
    inserted->frameId = static_cast<uint16_t>(key);
    return 0;
}

int can_proprietary_conf_delete_frame_config(sqlite3 **db, int transactionId) {
    if (db == nullptr || *db == nullptr) {
        return param_fail(__func__);
    }
    if (const int exists = check_transactionId_exists(transactionId); exists != 0) {
        log_error("transaction_id not found\n");
        return exists;
    }
    const sql_ptr sql = format_sql("DELETE FROM frame WHERE transactionId = %d", transactionId);
    if (sql == nullptr) {
        return -7;
    }
    return execute(__func__, *db, sql.get()) == 0 ? 0 : abandon(db, -1);
}

int can_proprietary_conf_insert_tag_block_config(sqlite3 **db,
                                                 const block_config *block,
                                                 tag_block_config *inserted) {
    if (db == nullptr || *db == nullptr || block == nullptr || block->tag == nullptr ||
        inserted == nullptr) {
        return param_fail(__func__);
    }
    const tag_block_config *tag = block->tag;
    constexpr const char *taken = "SELECT 1 FROM block WHERE tagName = ? AND frameId = ?";
    if (check_name_free(__func__, *db, taken, tag->tagName, {tag->frameId}) != 0) {
        return -1;
    }
    const auto &[a, b, c, d] = tag->scaling;
    const sql_ptr sql = format_sql(
        "INSERT INTO block (frameId, blockType, startOffset, tagName, tagType, tagSize, access, "
        "swap, fpData, scalingFunc, interceptSlope, interceptOffset, pointSourceMin, "
        "pointSourceMax, pointTargetMin, pointTargetMax) VALUES (%d, %d, %d, '%s', %d, %d, '%s', "
        "%d, '%s',%d, %f, %f, %f, %f, %f, %f)",
        tag->frameId,
        block->blockType,
        tag->startOffset,
        tag->tagName,
        tag->tagType,
        tag->tagSize,
        tag->access,
        tag->swap,
        tag->fpData,
        tag->scalingFunc,
        a,
        b,
        a,
        b,
        c,
        d);
    if (sql == nullptr) {
        return abandon(db, -7);
    }
    int key = 0;
    const int result =
        insert(__func__, *db, sql, {tag->tagName, tag->access, tag->fpData}, "block", &key);
    if (result != 0) {
        return result;
    }
    inserted->blockId = static_cast<uint16_t>(key);
    return 0;
}

int can_proprietary_conf_insert_constant_block_config(sqlite3 *db,
                                                      const block_config *block,
                                                      constant_block_config *inserted) {
    if (db == nullptr || block == nullptr || block->constant == nullptr || inserted == nullptr) {
        return param_fail(__func__);
    }
    const constant_block_config *constant = block->constant;
    std::array<char, 2 * UINT8_MAX + 1> value{};
    (void)snprintf(value.data(),
                   value.size(),
                   "%0*llX",
                   2 * constant->constantSize,
                   static_cast<unsigned long long>(constant->constantValue));
    const sql_ptr sql = format_sql("INSERT INTO block (frameId, blockType, startOffset, "
                                   "constantName, constantSize, constantValue) VALUES (%d, %d, "
                                   "%d, '%s', %d, '%s')",
                                   constant->frameId,
                                   block->blockType,
                                   constant->startOffset,
                                   constant->constantName,
                                   constant->constantSize,
                                   value.data());
    int key = 0;
    if (const int result = insert(__func__, db, sql, {constant->constantName}, "block", &key);
        result != 0) {
        return result;
    }
    inserted->blockId = static_cast<uint16_t>(key);
    return 0;
}

int can_proprietary_conf_check_canId_duplicate() {
    // The runs of blanks are part of the text, which shows in messages.
    const sql_ptr sql = format_sql(
        "SELECT 1 FROM frame f1 WHERE EXISTS (    SELECT 1 FROM frame f2     WHERE f2.canId = "
        "f1.canId     AND (        (f1.frameType = %d AND f2.frameType = %d)         OR "
        "(f1.frameType = %d AND f2.frameType IN (%d,%d))     )     AND f2.frameId != f1.frameId) "
        "LIMIT 1",
        FRAME_RESPONSE,
        FRAME_CONSUMED,
        FRAME_CONSUMED,
        FRAME_CONSUMED,
        FRAME_RESPONSE);
    if (sql == nullptr) {
        return -7;
    }
    const working_copy_ptr db(can_proprietary_db_get());
    if (db == nullptr) {
        return param_fail(__func__);
    }
    stmt_ptr statement;
    if (prepare(__func__, db.get(), sql.get(), &statement) != 0) {
        return -1;
    }
    return has_row(__func__, db.get(), statement.get()) == 0 ? 0 : -1;
}
