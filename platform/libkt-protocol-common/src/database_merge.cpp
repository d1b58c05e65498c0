#include "replace.h"

#include <kt/protocol_common.h>

#include <cerrno>
#include <cstdio>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using connection_ptr = std::unique_ptr<sqlite3, call_on_delete<sqlite3_close>>;
using statement_ptr = std::unique_ptr<sqlite3_stmt, call_on_delete<sqlite3_finalize>>;
using sql_text = std::unique_ptr<char, call_on_delete<sqlite3_free>>;

constexpr int busy_timeout_ms = 5000;

int complain(sqlite3 *db, const char *what) {
    (void)fprintf(stderr, "ktsqlite3_merge: %s: %s\n", what, sqlite3_errmsg(db));
    return -1;
}

// Never creates the file. Falls back to read-only by itself where the file cannot be written.
connection_ptr open_existing(const char *path) {
    sqlite3 *raw = nullptr;
    const int rc = sqlite3_open_v2(path, &raw, SQLITE_OPEN_READWRITE, nullptr);
    connection_ptr db(raw);
    if (rc != SQLITE_OK) {
        (void)complain(raw, path);
        return nullptr;
    }
    (void)sqlite3_busy_timeout(raw, busy_timeout_ms); // fails only on a NULL connection
    return db;
}

int run(sqlite3 *db, const char *sql) {
    return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK ? 0 : complain(db, sql);
}

statement_ptr prepare(sqlite3 *db, const char *sql) {
    sqlite3_stmt *raw = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &raw, nullptr) != SQLITE_OK) {
        (void)complain(db, sql);
    }
    return statement_ptr(raw);
}

const char *text_of(const statement_ptr &statement, int column) {
    return reinterpret_cast<const char *>(sqlite3_column_text(statement.get(), column));
}

int check_integrity(sqlite3 *db, const char *pragma) {
    const statement_ptr check = prepare(db, pragma);
    if (!check || sqlite3_step(check.get()) != SQLITE_ROW) {
        return complain(db, pragma);
    }
    const char *verdict = text_of(check, 0);
    if (!verdict || sqlite3_stricmp(verdict, "ok") != 0) {
        (void)fprintf(stderr, "ktsqlite3_merge: %s: %s\n", pragma, verdict ? verdict : "no memory");
        return -1;
    }
    return 0;
}

// Copies the database with its schema and settings, page by page.
int copy_database(sqlite3 *to, sqlite3 *from) {
    sqlite3_backup *backup = sqlite3_backup_init(to, "main", from, "main");
    const bool copied = backup && sqlite3_backup_step(backup, -1) == SQLITE_DONE;
    if (!backup || sqlite3_backup_finish(backup) != SQLITE_OK || !copied) {
        return complain(to, "copying the new database");
    }
    return 0;
}

// Gives the statement that carries a table over, in row order and by the columns that both have; no
// row when they have none. A NULL that a column no longer takes becomes the column's default.
constexpr const char *insert_statement =
    "SELECT printf('INSERT INTO main.\"%w\"(%s) SELECT %s FROM old.\"%w\" %s', ?1,"
    " group_concat(printf('\"%w\"', name)),"
    " group_concat(CASE WHEN fallback IS NULL THEN printf('\"%w\"', name)"
    " ELSE printf('ifnull(\"%w\",%s)', name, fallback) END),"
    " ?1, iif(?2, 'ORDER BY rowid', ''))"
    " FROM (SELECT n.name, iif(n.\"notnull\", n.dflt_value, NULL) AS fallback"
    " FROM pragma_table_info(?1, 'main') n JOIN pragma_table_xinfo(?1, 'old') o"
    " ON o.name = n.name COLLATE NOCASE ORDER BY n.cid)"
    " HAVING count(*) > 0";

int merge_table(sqlite3 *db, const char *table, bool has_rowid) {
    const statement_ptr make = prepare(db, insert_statement);
    if (!make || sqlite3_bind_text(make.get(), 1, table, -1, SQLITE_STATIC) != SQLITE_OK ||
        sqlite3_bind_int(make.get(), 2, has_rowid) != SQLITE_OK) {
        return -1;
    }
    const int made = sqlite3_step(make.get());
    const char *insert = made == SQLITE_ROW ? text_of(make, 0) : nullptr;
    if (!insert) {
        return made == SQLITE_DONE ? 0 : complain(db, table);
    }
    int rc = sqlite3_exec(db, insert, nullptr, nullptr, nullptr);
    if (rc == SQLITE_CONSTRAINT) {
        // Rows that the new database was delivered with give way to the old ones.
        const sql_text clear(sqlite3_mprintf("DELETE FROM main.\"%w\"", table));
        rc = clear && run(db, clear.get()) == 0
                 ? sqlite3_exec(db, insert, nullptr, nullptr, nullptr)
                 : SQLITE_ERROR;
    }
    return rc == SQLITE_OK ? 0 : complain(db, table);
}

// AUTOINCREMENT never gives a key out twice, so its counters come along.
int merge_key_counters(sqlite3 *db) {
    const statement_ptr both =
        prepare(db,
                "SELECT (SELECT count(*) FROM main.sqlite_schema WHERE name = 'sqlite_sequence')"
                " + (SELECT count(*) FROM old.sqlite_schema WHERE name = 'sqlite_sequence')");
    if (!both || sqlite3_step(both.get()) != SQLITE_ROW) {
        return -1;
    }
    if (sqlite3_column_int(both.get(), 0) != 2) {
        return 0;
    }
    return run(db,
               "UPDATE main.sqlite_sequence AS n SET seq = o.seq FROM old.sqlite_sequence AS o"
               " WHERE o.name = n.name COLLATE NOCASE AND o.seq > n.seq;"
               "INSERT INTO main.sqlite_sequence (name, seq) SELECT t.name, o.seq"
               " FROM old.sqlite_sequence AS o JOIN main.sqlite_schema AS t"
               " ON t.name = o.name COLLATE NOCASE AND t.type = 'table'"
               " AND t.sql LIKE '%autoincrement%'"
               " WHERE NOT EXISTS (SELECT 1 FROM main.sqlite_sequence AS n"
               " WHERE n.name = t.name COLLATE NOCASE)");
}

int merge_tables(sqlite3 *db) {
    const statement_ptr tables =
        prepare(db,
                "SELECT n.name, o.wr = 0 FROM pragma_table_list n JOIN pragma_table_list o"
                " ON o.name = n.name COLLATE NOCASE"
                " WHERE n.schema = 'main' AND o.schema = 'old' AND n.type = 'table'"
                " AND o.type = 'table' AND n.name NOT LIKE 'sqlite\\_%' ESCAPE '\\'");
    if (!tables) {
        return -1;
    }
    int rc;
    while ((rc = sqlite3_step(tables.get())) == SQLITE_ROW) {
        const char *table = text_of(tables, 0);
        if (!table || merge_table(db, table, sqlite3_column_int(tables.get(), 1) != 0) != 0) {
            return -1;
        }
    }
    return rc == SQLITE_DONE ? merge_key_counters(db) : complain(db, "listing the tables");
}

int attach_old(sqlite3 *db, const char *old_path) {
    const statement_ptr attach = prepare(db, "ATTACH ?1 AS old");
    if (!attach || sqlite3_bind_text(attach.get(), 1, old_path, -1, SQLITE_STATIC) != SQLITE_OK ||
        sqlite3_step(attach.get()) != SQLITE_DONE) {
        return complain(db, old_path);
    }
    return 0;
}

// Fills the database at temporary_path. Journals of it are kept in memory: after a failure the file
// is thrown away, and no journal must be left beside it.
int build(const char *temporary_path, const char *new_path, const char *old_path) {
    const connection_ptr db = open_existing(temporary_path);
    if (!db || run(db.get(), "PRAGMA journal_mode = MEMORY; PRAGMA synchronous = OFF") != 0) {
        return -1;
    }
    {
        const connection_ptr fresh = open_existing(new_path);
        if (!fresh || copy_database(db.get(), fresh.get()) != 0) {
            return -1;
        }
    }
    (void)sqlite3_db_config(db.get(), SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
    if (run(db.get(),
            "PRAGMA journal_mode = MEMORY; PRAGMA foreign_keys = OFF;"
            " PRAGMA ignore_check_constraints = ON") != 0 ||
        attach_old(db.get(), old_path) != 0 || run(db.get(), "BEGIN IMMEDIATE") != 0 ||
        check_integrity(db.get(), "PRAGMA old.integrity_check(1)") != 0 ||
        merge_tables(db.get()) != 0 || run(db.get(), "COMMIT") != 0) {
        return -1;
    }
    return check_integrity(db.get(), "PRAGMA main.integrity_check(1)");
}

// Finishes or rolls back what a killed process left half done in a database.
int settle(const char *path) {
    sqlite3 *raw = nullptr;
    int rc = sqlite3_open_v2(path, &raw, SQLITE_OPEN_READWRITE, nullptr);
    const connection_ptr db(raw);
    if (rc == SQLITE_OK) {
        (void)sqlite3_busy_timeout(raw, busy_timeout_ms); // fails only on a NULL connection
        rc = sqlite3_exec(raw, "SELECT 1 FROM sqlite_schema", nullptr, nullptr, nullptr);
    }
    // Nothing to settle in a file that does not exist or is no database.
    const bool settled = rc == SQLITE_OK || rc == SQLITE_CANTOPEN || rc == SQLITE_NOTADB;
    return settled || rc == SQLITE_CORRUPT ? 0 : complain(raw, path);
}

// A journal of the file that is about to be replaced must not be played back into its successor.
int retire_journals(const char *output_path) {
    if (settle(output_path) != 0) {
        return -1;
    }
    for (const char *suffix : {"-journal", "-wal", "-shm"}) {
        const sql_text path(sqlite3_mprintf("%s%s", output_path, suffix));
        if (!path || (unlink(path.get()) != 0 && errno != ENOENT)) {
            return -1;
        }
    }
    return 0;
}

} // namespace

int ktsqlite3_merge(const char *new_path, const char *old_path, const char *output_path) {
    struct stat fresh;
    struct stat old;
    // SQLite takes some names, the empty one for instance, for databases that are no files.
    if (!new_path || !old_path || !output_path || stat(new_path, &fresh) != 0 ||
        stat(old_path, &old) != 0) {
        return -1;
    }
    replacement output(output_path);
    if (!output.made() || build(output.temporary_path(), new_path, old_path) != 0 ||
        retire_journals(output_path) != 0) {
        return -1;
    }
    return output.commit(fresh.st_mode);
}
