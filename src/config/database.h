#ifndef KT_CONFIG_DATABASE_H
#define KT_CONFIG_DATABASE_H

#include <cstddef>
#include <sqlite3.h>

/*
 * Connections to the configuration database.
 *
 * The working copy is the only database that the rest of the service sees. Every operation opens a
 * connection of its own and closes it again.
 *
 * THREAD SAFETY: any thread; SQLite's file locks serialise. A connection waits for another one's
 * lock for at most database_busy_timeout_ms.
 */

constexpr int database_busy_timeout_ms = 5000;

/** Bytes of an SQL statement, terminator included. */
constexpr size_t sql_text_bytes = 4096;

/**
 * Open the working copy, with foreign keys on and its integrity tested.
 *
 * A corrupt file makes all three databases go (default, persistent, working) and sets
 * can_proprietary_restart, so that the next pass builds them anew from the schema. A lock that does
 * not come free, a lack of memory or a failing disk is not corruption and removes nothing.
 *
 * @return the connection, nullptr on failure (logged); close with can_proprietary_db_close() or
 *         can_proprietary_db_end_set_db()
 */
sqlite3 *can_proprietary_db_get();

/** @retval 0 closed, or db is nullptr @retval -1 the close failed (logged) */
int can_proprietary_db_close(sqlite3 *db);

/** "BEGIN TRANSACTION;". Failures are only logged: the statements that follow report their own. */
void can_proprietary_db_start_set_db(sqlite3 *db);

/**
 * "COMMIT;" or "ROLLBACK;", then close.
 * @return the result of the close; -1 as well when the commit failed (logged) and changed nothing
 */
int can_proprietary_db_end_set_db(sqlite3 *db, int commit);

/**
 * Count the rows of a table.
 *
 * @param condition    SQL after WHERE; nullptr or empty for all rows
 * @param[out] count   untouched on failure
 * @retval  0  counted
 * @retval -1  missing argument (logged) or failed statement
 */
int can_proprietary_db_get_row_count(sqlite3 *db,
                                     const char *table_name,
                                     const char *condition,
                                     int *count);

/**
 * Copy a whole database with SQLite's online backup. A missing destination appears complete or not
 * at all; an existing one is overwritten in one transaction. Waits while either file is locked.
 *
 * @retval  0  copied and on the disk
 * @retval -1  failed (logged)
 */
int db_copy(const char *dst_path, const char *src_path);

/**
 * The backup of db_copy() into that very file, existing or not.
 * @param shown  destination path to name in messages
 */
int db_copy_into(const char *file, const char *shown, const char *src_path);

/**
 * Open a database without foreign keys, to write port rows.
 * @param path   file to open
 * @param shown  path to name in messages
 * @return as can_proprietary_db_get()
 */
sqlite3 *open_db_no_foreign(const char *path, const char *shown);

#endif
