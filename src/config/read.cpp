#include "config/read.h"

#include "config/database.h"
#include "config/database_files.h"
#include "config/row.h"
#include "config/sqlite_guards.h"
#include "core/log.h"

#include <array>
#include <cstdio>

namespace {

/** Closes a working copy connection, with the log that this brings. */
using working_copy_ptr = std::unique_ptr<sqlite3, call_on_delete<can_proprietary_db_close>>;

/** Messages of a failed statement; the interface operation spells one word its own way. */
constexpr const char *sql_failure = "%s. SQL: %s\n";
constexpr const char *interface_sql_failure = "%s. Sql: %s\n";

/** A statement for rows with a key, with its text, which messages quote. */
struct query {
    const char *function;
    sqlite3 *db;
    heap_ptr<char> sql = nullptr;
    stmt_ptr statement = nullptr;

    void log_failure(const char *format) const {
// The two formats are the constants above.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        log_write_error(function, __LINE__, format, sqlite3_errmsg(db), sql.get());
#pragma GCC diagnostic pop
    }
};

/** Ready a query for a key. It is prepared once, however many keys it serves. */
int prepare(query *query, const char *select, int key, const char *failure = sql_failure) {
    if (query->sql == nullptr) {
        query->sql.reset(static_cast<char *>(malloc(sql_text_bytes)));
    }
    if (query->sql == nullptr) {
        return -7;
    }
    int result = SQLITE_OK;
    if (query->statement == nullptr) {
        (void)snprintf(query->sql.get(), sql_text_bytes, "%s?", select);
        sqlite3_stmt *prepared = nullptr;
        result = sqlite3_prepare_v2(query->db, query->sql.get(), -1, &prepared, nullptr);
        query->statement.reset(prepared);
    }
    (void)snprintf(query->sql.get(), sql_text_bytes, "%s%d", select, key);
    if (result == SQLITE_OK) {
        (void)sqlite3_reset(query->statement.get()); // repeats the result of the last run
        result = sqlite3_bind_int(query->statement.get(), 1, key);
    }
    if (result != SQLITE_OK) {
        query->log_failure(failure);
        return result == SQLITE_NOMEM ? -7 : -1;
    }
    return 0;
}

/** @retval 1 there is a row @retval 0 there is none @retval -1 failed (logged) */
int step(const query &query, const char *failure = sql_failure) {
    switch (sqlite3_step(query.statement.get())) {
    case SQLITE_ROW:
        return 1;
    case SQLITE_DONE:
        return 0;
    default:
        query.log_failure(failure);
        return -1;
    }
}

/**
 * Build the list of all rows of a prepared query.
 *
 * @param fill  from the current row to the zeroed record, children included
 */
template <typename Record, auto FreeList, typename Fill>
int read_list(const query &query, Record **list, Fill fill) {
    std::unique_ptr<Record, call_on_delete<FreeList>> head;
    Record **tail = nullptr;
    int found = step(query);
    for (; found == 1; found = step(query)) {
        Record *record = allocate_zeroed<Record>().release();
        if (record == nullptr) {
            log_write_error(query.function, __LINE__, "Memory allocation failed\n");
            return -7;
        }
        if (tail == nullptr) {
            head.reset(record);
        } else {
            *tail = record;
        }
        tail = &record->next;
        if (const int result = fill(query.statement.get(), record); result != 0) {
            return result;
        }
    }
    if (found < 0) {
        return -1;
    }
    *list = head.release();
    return 0;
}

void free_transaction_list(transaction_config *transactions) {
    while (transactions != nullptr) {
        transaction_config *next = transactions->next;
        conf_free_transaction(transactions);
        transactions = next;
    }
}

/** The queries of a device and what is below it. */
struct tree_queries {
    explicit tree_queries(sqlite3 *db)
        : device{device_function, db}, transactions{device_function, db},
          transaction{transaction_function, db}, frames{transaction_function, db},
          frame{frame_function, db}, blocks{frame_function, db} {}

    static constexpr const char *device_function = "can_proprietary_conf_get_device_config";
    static constexpr const char *transaction_function =
        "can_proprietary_conf_get_transaction_config";
    static constexpr const char *frame_function = "can_proprietary_conf_get_frame_config";

    query device;
    query transactions;
    query transaction;
    query frames;
    query frame;
    query blocks;
};

int read_blocks(tree_queries *tree, block_config **list, int frameId) {
    query &blocks = tree->blocks;
    if (const int result = prepare(&blocks, "SELECT * FROM block WHERE frameId = ", frameId);
        result != 0) {
        return result;
    }
    return read_list<block_config, conf_free_block_list>(
        blocks, list, [&blocks](sqlite3_stmt *row, block_config *record) {
            const int result = block_get_row(row, record);
            if (result != 0) {
                log_write_error(blocks.function, __LINE__, "block_get_row fail\n");
            }
            return result;
        });
}

int read_frame(tree_queries *tree, frame_config *record, int frameId) {
    query &frame = tree->frame;
    if (const int result = prepare(&frame, "SELECT * FROM frame WHERE frameId = ", frameId);
        result != 0) {
        return result;
    }
    const int found = step(frame);
    if (found < 0) {
        return -1;
    }
    if (found == 1) {
        frame_get_row(frame.statement.get(), record);
    }
    return read_blocks(tree, &record->blocks, frameId);
}

int read_frames(tree_queries *tree, frame_config **list, int transactionId) {
    query &frames = tree->frames;
    if (const int result =
            prepare(&frames, "SELECT * FROM frame WHERE transactionId = ", transactionId);
        result != 0) {
        return result;
    }
    return read_list<frame_config, conf_free_frame_list>(
        frames, list, [tree](sqlite3_stmt *row, frame_config *record) {
            if (read_frame(tree, record, key_of_row(row)) != 0) {
                log_write_error(tree->frames.function, __LINE__, "get_constant_config error\n");
                return -1; // whatever the cause, as the callers know it
            }
            return 0;
        });
}

/** Find the one row of a key. @retval 0 @retval -1 none, or failed (logged) @retval -7 */
int find(query *query, const char *select, int key, const char *absent) {
    if (const int result = prepare(query, select, key); result != 0) {
        return result;
    }
    const int found = step(*query);
    if (found == 0) {
        log_write_error(query->function, __LINE__, "%s", absent);
    }
    return found == 1 ? 0 : -1;
}

int read_transaction(tree_queries *tree, transaction_config *record, int transactionId) {
    query &transaction = tree->transaction;
    constexpr const char *select = "SELECT * FROM transactions WHERE transactionId = ";
    if (const int result = find(&transaction, select, transactionId, "transactionId not found\n");
        result != 0) {
        return result;
    }
    if (const int result = transaction_get_row(transaction.statement.get(), record); result != 0) {
        return result;
    }
    return read_frames(tree, &record->frames, transactionId);
}

int read_transactions(tree_queries *tree, transaction_config **list, int deviceId) {
    query &transactions = tree->transactions;
    if (const int result =
            prepare(&transactions, "SELECT * FROM transactions WHERE deviceId = ", deviceId);
        result != 0) {
        return result;
    }
    return read_list<transaction_config, free_transaction_list>(
        transactions, list, [tree](sqlite3_stmt *row, transaction_config *record) {
            const int result = read_transaction(tree, record, key_of_row(row));
            if (result != 0) {
                log_write_error(tree->transactions.function,
                                __LINE__,
                                "get_device_all_transaction_config fail\n");
            }
            return result;
        });
}

int read_device(tree_queries *tree, device_config *record, int deviceId) {
    query &device = tree->device;
    constexpr const char *select = "SELECT * FROM device WHERE deviceId = ";
    if (const int result = find(&device, select, deviceId, "deviceId not found\n"); result != 0) {
        return result;
    }
    if (const int result = device_get_row(device.statement.get(), record); result != 0) {
        return result;
    }
    return read_transactions(tree, &record->transactions, deviceId);
}

working_copy_ptr open_snapshot() {
    return working_copy_ptr(conf_open_snapshot());
}

int check_port_row(sqlite3 *db, const char *function, int portId) {
    query port{function, db};
    if (const int result =
            prepare(&port, "SELECT * FROM interface_setting WHERE portId = ", portId);
        result != 0) {
        return result;
    }
    const int found = step(port);
    if (found == 0) {
        log_write_error(function, __LINE__, "portId not found\n");
    }
    return found == 1 ? 0 : -1;
}

int param_fail(const char *function) {
    log_write_error(function, __LINE__, "param fail\n");
    return -1;
}

/**
 * Rows of a device, as can_proprietary_db_get_row_count() counts them; for the many devices of a
 * port the statement is prepared once.
 * @return the count, -1 on failure
 */
int count_transactions(sqlite3 *db, stmt_ptr *count, int deviceId) {
    if (*count == nullptr) {
        sqlite3_stmt *prepared = nullptr;
        constexpr const char *sql = "SELECT count(*) FROM transactions WHERE deviceId = ?";
        const int result = sqlite3_prepare_v2(db, sql, -1, &prepared, nullptr);
        count->reset(prepared);
        if (result != SQLITE_OK) {
            return -1;
        }
    }
    (void)sqlite3_reset(count->get()); // repeats the result of the last run
    return sqlite3_bind_int(count->get(), 1, deviceId) == SQLITE_OK &&
                   sqlite3_step(count->get()) == SQLITE_ROW
               ? sqlite3_column_int(count->get(), 0)
               : -1;
}

} // namespace

sqlite3 *conf_open_snapshot() {
    sqlite3 *db = can_proprietary_db_get();
    if (db != nullptr) {
        // Without it the statements still work, each on the state of its moment.
        (void)sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
    }
    return db;
}

int conf_read_interface(sqlite3 *db, interface_config *record, int portId) {
    constexpr const char *function = "can_proprietary_conf_get_interface_config";
    if (record != nullptr) {
        *record = {};
    }
    if (db == nullptr || record == nullptr) {
        return param_fail(function);
    }
    int rows = 0;
    if (can_proprietary_db_get_row_count(db, "interface_setting", nullptr, &rows) != 0 ||
        rows == 0) {
        log_write_error(function, __LINE__, "db row count fail\n");
        return -1;
    }
    query settings{function, db};
    constexpr const char *sql = "SELECT * FROM interface_setting WHERE portId = ";
    if (const int result = prepare(&settings, sql, portId, interface_sql_failure); result != 0) {
        return result;
    }
    const int found = step(settings, interface_sql_failure);
    if (found == 0) {
        log_write_error(function, __LINE__, "portId not found\n");
    }
    if (found != 1) {
        return -1;
    }
    interface_get_row(settings.statement.get(), record);
    return 0;
}

int can_proprietary_conf_get_interface_config(interface_config *record, int portId) {
    const working_copy_ptr db = record == nullptr ? nullptr : open_snapshot();
    return conf_read_interface(db.get(), record, portId);
}

int conf_read_interface_devices(sqlite3 *db, device_config **list, int portId) {
    constexpr const char *function = "can_proprietary_conf_get_interface_device_config";
    if (db == nullptr || list == nullptr) {
        return param_fail(function);
    }
    query devices{function, db};
    if (const int result = prepare(&devices, "SELECT * FROM device WHERE portId = ", portId);
        result != 0) {
        return result;
    }
    return read_list<device_config, conf_free_device_list>(devices, list, device_get_row);
}

int can_proprietary_conf_get_interface_device_config(device_config **list, int portId) {
    const working_copy_ptr db(list == nullptr ? nullptr : can_proprietary_db_get());
    return conf_read_interface_devices(db.get(), list, portId);
}

int can_proprietary_conf_get_port_config(device_config **list, int portId) {
    const working_copy_ptr db = list == nullptr ? nullptr : open_snapshot();
    if (db == nullptr) {
        log_error("param fail\n");
        return -1;
    }
    if (const int result = check_port_row(db.get(), __func__, portId); result != 0) {
        return result;
    }
    constexpr const char *function = "can_proprietary_conf_get_port_config";
    tree_queries tree(db.get());
    query devices{function, db.get()};
    if (const int result = prepare(&devices, "SELECT * FROM device WHERE portId = ", portId);
        result != 0) {
        return result;
    }
    return read_list<device_config, conf_free_device_list>(
        devices, list, [&tree](sqlite3_stmt *row, device_config *record) {
            const int result = read_device(&tree, record, key_of_row(row));
            if (result != 0) {
                log_write_error(function, __LINE__, "can_proprietary_get_device_config fail\n");
            }
            return result;
        });
}

int can_proprietary_conf_get_device_config(sqlite3 *db, device_config *record, int deviceId) {
    if (db == nullptr || record == nullptr) {
        log_error("param fail\n");
        return -1;
    }
    tree_queries tree(db);
    return read_device(&tree, record, deviceId);
}

int can_proprietary_conf_get_device_name_config(device_config *record, int deviceId) {
    const working_copy_ptr db(record == nullptr ? nullptr : can_proprietary_db_get());
    if (db == nullptr) {
        log_error("param fail\n");
        return -1;
    }
    query device{__func__, db.get()};
    if (const int result = prepare(&device, "SELECT * FROM device WHERE deviceId = ", deviceId);
        result != 0) {
        return result;
    }
    return step(device) == 1 ? device_get_row(device.statement.get(), record) : -1;
}

int can_proprietary_conf_get_transaction_config(sqlite3 *db,
                                                transaction_config *record,
                                                int transactionId) {
    if (db == nullptr || record == nullptr) {
        log_error("param fail\n");
        return -1;
    }
    tree_queries tree(db);
    return read_transaction(&tree, record, transactionId);
}

int can_proprietary_conf_get_frame_config(sqlite3 *db, frame_config *record, int frameId) {
    if (db == nullptr || record == nullptr) {
        log_error("param fail\n");
        return -1;
    }
    tree_queries tree(db);
    return read_frame(&tree, record, frameId);
}

int can_proprietary_conf_get_device_num(uint8_t *count) {
    const working_copy_ptr db(count == nullptr ? nullptr : can_proprietary_db_get());
    if (db == nullptr) {
        log_error("param fail\n");
        return -1;
    }
    int rows = 0;
    if (can_proprietary_db_get_row_count(db.get(), "device", nullptr, &rows) != 0) {
        return -1;
    }
    *count = static_cast<uint8_t>(rows);
    return 0;
}

int conf_count_ports(sqlite3 *db, overview_info *info) {
    constexpr const char *function = "can_proprietary_conf_get_overview_port_num";
    if (db == nullptr || info == nullptr) {
        return param_fail(function);
    }
    int rows = 0;
    if (can_proprietary_db_get_row_count(db, "interface_setting", nullptr, &rows) != 0 ||
        rows == 0) {
        log_write_error(function, __LINE__, "db row count fail\n");
        return -1;
    }
    info->port_num = static_cast<uint8_t>(rows);
    return 0;
}

int can_proprietary_conf_get_overview_port_num(overview_info *info) {
    const working_copy_ptr db(info == nullptr ? nullptr : can_proprietary_db_get());
    return conf_count_ports(db.get(), info);
}

int conf_count_rows_of_port(sqlite3 *db, overview_info *info, int portId) {
    constexpr const char *function = "can_proprietary_conf_get_overview_config";
    if (db == nullptr || info == nullptr) {
        return param_fail(function);
    }
    std::array<char, 64> condition{};
    (void)snprintf(condition.data(), condition.size(), "portId = %d", portId);
    int devices = 0;
    if (can_proprietary_db_get_row_count(db, "device", condition.data(), &devices) != 0) {
        return -1;
    }
    query rows{function, db};
    if (const int result = prepare(&rows, "SELECT * FROM device WHERE portId = ", portId);
        result != 0) {
        return result;
    }
    stmt_ptr count;
    uint8_t transaction_num = 0; // the sum wraps at 8 bits, on purpose: clients know it so
    int found = step(rows);
    for (; found == 1; found = step(rows)) {
        const int transactions = count_transactions(db, &count, key_of_row(rows.statement.get()));
        if (transactions < 0) {
            return -1;
        }
        transaction_num = static_cast<uint8_t>(transaction_num + transactions);
    }
    if (found < 0) {
        return -1;
    }
    info->device_num = static_cast<uint8_t>(devices);
    info->transaction_num = transaction_num;
    return 0;
}

int can_proprietary_conf_get_overview_config(overview_info *info, int portId) {
    const working_copy_ptr db = info == nullptr ? nullptr : open_snapshot();
    return conf_count_rows_of_port(db.get(), info, portId);
}

int can_proprietary_conf_changed(int *changed) {
    if (changed == nullptr) {
        log_error("param fail\n");
        return -1;
    }
    return can_proprietary_db_get_ram_modified(changed) == 0 ? 0 : -4;
}
