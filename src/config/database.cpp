#include "config/database.h"

#include "config/authorizer.h"
#include "config/database_files.h"
#include "config/files.h"
#include "config/sqlite_guards.h"
#include "core/log.h"
#include "core/no_memory.h"
#include "core/state.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <string>
#include <unistd.h>

namespace {

enum class integrity { sound, corrupt, unknown };

/** Results that speak of the surroundings and say nothing about the content of the file. */
bool is_environment_failure(int result) {
    switch (result & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_NOMEM:
    case SQLITE_INTERRUPT:
    case SQLITE_IOERR:
    case SQLITE_FULL:
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_CANTOPEN:
        return true;
    default:
        return false;
    }
}

/** Rows other than "ok" are not looked at: only a check that cannot run says corrupt. On purpose.
 */
integrity run_integrity_check(sqlite3 *db, sqlite_text_ptr *text) {
    char *message = nullptr;
    const int result = sqlite3_exec(db, "PRAGMA integrity_check", nullptr, nullptr, &message);
    text->reset(message);
    if (result == SQLITE_OK) {
        return integrity::sound;
    }
    return is_environment_failure(result) || message == nullptr ? integrity::unknown
                                                                : integrity::corrupt;
}

/** Through the connection's own descriptor: closing another one would drop the locks of all. */
bool is_readable(sqlite3 *db) {
    sqlite3_file *file = nullptr;
    sqlite3_int64 size = 0;
    if (sqlite3_file_control(db, "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK ||
        file->pMethods == nullptr || file->pMethods->xFileSize(file, &size) != SQLITE_OK) {
        return false;
    }
    std::array<char, 4096> bytes{};
    for (sqlite3_int64 at = 0; at < size; at += static_cast<sqlite3_int64>(bytes.size())) {
        const auto wanted = std::min(size - at, static_cast<sqlite3_int64>(bytes.size()));
        if (file->pMethods->xRead(file, bytes.data(), static_cast<int>(wanted), at) != SQLITE_OK) {
            return false;
        }
    }
    return true;
}

/** SQLite takes a read that the system fails (EIO) for corruption, and that may pass. */
integrity is_db_integrity_corrupt(sqlite3 *db) {
    sqlite_text_ptr text;
    integrity found = run_integrity_check(db, &text);
    if (found == integrity::corrupt) {
        found = is_readable(db) ? run_integrity_check(db, &text) : integrity::unknown;
    }
    if (found == integrity::corrupt) {
        log_error("db is corrupt by integrity check, %s\n", text.get());
    }
    return found;
}

void set_pragmas(sqlite3 *db, const char *path, bool foreign_keys) {
    const std::array<const char *, 3> pragmas = {"PRAGMA synchronous = OFF",
                                                 foreign_keys ? "PRAGMA foreign_keys = ON"
                                                              : "PRAGMA foreign_keys = OFF",
                                                 "PRAGMA journal_mode = DELETE"};
    for (const char *pragma : pragmas) {
        const int result = sqlite3_exec(db, pragma, nullptr, nullptr, nullptr);
        if (result == SQLITE_OK) {
            continue;
        }
        if ((result & 0xff) == SQLITE_BUSY) {
            (void)sqlite3_busy_timeout(db, 0); // waited for in full: not once more for each step
        }
        if (foreign_keys) {
            log_write_error("open_db", __LINE__, "SQL %s. %s\n", sqlite3_errmsg(db), path);
        } else {
            log_write_error(
                "open_db_no_foreign", __LINE__, "SQL error: %s. %s\n", sqlite3_errmsg(db), path);
        }
    }
    // The pragma may fail for want of memory, and this cannot. Without foreign keys a delete would
    // leave what hangs on the row, for the next row of that key to inherit.
    (void)sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_FKEY, foreign_keys ? 1 : 0, nullptr);
}

db_ptr open_tested(const char *function, const char *path, const char *shown, bool foreign_keys) {
    sqlite3 *opened = nullptr;
    constexpr int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX;
    const int result = sqlite3_open_v2(path, &opened, flags, nullptr);
    db_ptr db(opened);
    if (result != SQLITE_OK) {
        log_write_error(
            function, __LINE__, "Can't open database: %s. %s\n", sqlite3_errmsg(opened), shown);
        return nullptr;
    }
    (void)sqlite3_busy_timeout(opened, database_busy_timeout_ms);
    set_pragmas(opened, shown, foreign_keys);
    switch (is_db_integrity_corrupt(opened)) {
    case integrity::sound:
        (void)sqlite3_busy_timeout(opened, database_busy_timeout_ms);
        return db;
    case integrity::unknown:
        log_write_error(
            function, __LINE__, "Can't open database: %s. %s\n", sqlite3_errmsg(opened), shown);
        return nullptr;
    case integrity::corrupt:
        break;
    }
    log_write_error(function, __LINE__, "db '%s' is corrupt, remove db and exit process\n", shown);
    remove_all_databases();
    can_proprietary_restart.store(1, std::memory_order_relaxed);
    return nullptr;
}

sqlite3 *open_db(const char *path) {
    return open_tested(__func__, path, path, true).release();
}

void sleep_between_steps() {
    constexpr timespec pause = {0, 250'000'000};
    (void)nanosleep(&pause, nullptr); // a signal may cut the pause short
}

bool is_retried(int step_result) {
    return step_result == SQLITE_OK || step_result == SQLITE_BUSY || step_result == SQLITE_LOCKED;
}

/** The backup proper; messages are those of db_copy() and name the paths its caller was given. */
int run_backup(sqlite3 *destination, sqlite3 *source) {
    // The journal must be gone for good before success is reported, or a power failure could still
    // roll the copy back.
    (void)sqlite3_exec(destination, "PRAGMA synchronous = EXTRA", nullptr, nullptr, nullptr);
    sqlite3_backup *backup = sqlite3_backup_init(destination, "main", source, "main");
    if (backup == nullptr) {
        return sqlite3_errcode(destination);
    }
    int step = sqlite3_backup_step(backup, -1);
    while (is_retried(step) && !stop_requested()) {
        sleep_between_steps();
        step = sqlite3_backup_step(backup, -1);
    }
    const int finished = sqlite3_backup_finish(backup);
    // finish does not report a lock that was given up on
    return finished == SQLITE_OK && step != SQLITE_DONE ? step : finished;
}

} // namespace

sqlite3 *can_proprietary_db_get() {
    sqlite3 *db =
        unless_no_memory<>(__func__, nullptr, [] { return open_db(working_db_path().c_str()); });
    if (db != nullptr) {
        // Names stand in statements as they came from outside.
        allow_configuration_rows_only(db);
    }
    return db;
}

sqlite3 *open_db_no_foreign(const char *path, const char *shown) {
    return open_tested(__func__, path, shown, false).release();
}

int can_proprietary_db_close(sqlite3 *db) {
    if (sqlite3_close(db) != SQLITE_OK) {
        log_error("close db fail\n");
        return -1;
    }
    return 0;
}

void can_proprietary_db_start_set_db(sqlite3 *db) {
    if (db == nullptr) {
        log_error("db is NULL\n");
    }
    if (sqlite3_exec(db, "BEGIN TRANSACTION;", nullptr, nullptr, nullptr) != SQLITE_OK) {
        log_error("sqlite: begin transaction is fail\n");
    }
}

int can_proprietary_db_end_set_db(sqlite3 *db, int commit) {
    if (commit == 0) {
        (void)sqlite3_exec(db, "ROLLBACK;", nullptr, nullptr, nullptr); // the close rolls back too
        return can_proprietary_db_close(db);
    }
    const bool committed = sqlite3_exec(db, "COMMIT;", nullptr, nullptr, nullptr) == SQLITE_OK;
    if (!committed) {
        log_error("sqlite exec %s\n", sqlite3_errmsg(db));
    }
    const int closed = can_proprietary_db_close(db);
    return committed ? closed : -1;
}

int can_proprietary_db_get_row_count(sqlite3 *db,
                                     const char *table_name,
                                     const char *condition,
                                     int *count) {
    if (db == nullptr) {
        log_error("db is null\n");
        return -1;
    }
    if (table_name == nullptr) {
        log_error("table_name is null\n");
        return -1;
    }
    if (count == nullptr) {
        log_error("output_count is null\n");
        return -1;
    }
    const bool all = condition == nullptr || condition[0] == '\0';
    std::array<char, sql_text_bytes> sql{};
    const int length = snprintf(sql.data(),
                                sql.size(),
                                "SELECT count(*) FROM %s WHERE %s",
                                table_name,
                                all ? "1" : condition);
    if (length < 0 || static_cast<size_t>(length) >= sql.size()) {
        return -1; // cut, it could still be a statement, and count other rows
    }
    sqlite3_stmt *prepared = nullptr;
    const int result = sqlite3_prepare_v2(db, sql.data(), -1, &prepared, nullptr);
    const stmt_ptr statement(prepared);
    if (result != SQLITE_OK || sqlite3_step(prepared) != SQLITE_ROW) {
        return -1;
    }
    *count = sqlite3_column_int(prepared, 0);
    return 0;
}

int db_copy_into(const char *file, const char *shown, const char *src_path) {
    sqlite3 *opened = nullptr;
    int result = sqlite3_open(src_path, &opened);
    const db_ptr source(opened);
    if (result != SQLITE_OK) {
        log_write_error("db_copy", __LINE__, "sqlite source file (%s) open fail\n", src_path);
        return -1;
    }
    opened = nullptr;
    result = sqlite3_open(file, &opened);
    const db_ptr destination(opened);
    if (result != SQLITE_OK) {
        log_write_error("db_copy", __LINE__, "sqlite dest file (%s) open fail\n", shown);
        return -1;
    }
    result = run_backup(destination.get(), source.get());
    if (result != SQLITE_OK) {
        log_write_error("db_copy", __LINE__, "sqlite3_backup_step rc=%d\n", result);
        return -1;
    }
    return 0;
}

int db_copy(const char *dst_path, const char *src_path) {
    if (src_path == nullptr) {
        log_error("src_path is null\n");
        return -1;
    }
    if (dst_path == nullptr) {
        log_error("dst_path is null\n");
        return -1;
    }
    if (access(dst_path, F_OK) == 0) {
        return db_copy_into(dst_path, dst_path, src_path);
    }
    // A half-made copy must never pass for a database, so a new one is made beside its place.
    const std::string fresh = std::string(dst_path) + ".new";
    remove_database(fresh);
    if (db_copy_into(fresh.c_str(), dst_path, src_path) != 0 || !install_file(fresh, dst_path)) {
        remove_database(fresh);
        return -1;
    }
    return 0;
}
