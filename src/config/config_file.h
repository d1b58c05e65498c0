#ifndef KT_CONFIG_CONFIG_FILE_H
#define KT_CONFIG_CONFIG_FILE_H

#include <cstdint>
#include <cstdio>
#include <sqlite3.h>

/*
 * The whole configuration as one sectioned text file, one section per table.
 *
 * THREAD SAFETY: any thread. An import is one SQL transaction on the working copy.
 */

/** Where and why an import failed; zeroed by the caller before. */
struct conf_import_error {
    int32_t line;         /* row within the failing section, from 1 */
    int32_t column;       /* from 1; 0 where the error names none */
    char key[50];         /* what is wrong, for programs */
    char column_name[50]; /* from a constraint's message */
    char table_name[52];
};

/**
 * Write the working copy to a file.
 * @retval  0  written; also when the file could not be opened (logged), which callers rely on
 * @retval -1  failed (logged) @retval -7 out of memory
 */
int can_proprietary_conf_export(const char *path);

/**
 * Replace the working copy's rows by a file's.
 * @param[out] err  filled on failure
 * @retval  0  committed
 * @retval -1  failed (logged), nothing changed
 */
int can_proprietary_conf_import(const char *path, conf_import_error *err);

/* Writers of one section: 0; -1 when a row cannot be written, -7 out of memory (both logged). */
int export_interface_setting_parm(sqlite3 *db, FILE *file);
int export_device_parm(sqlite3 *db, FILE *file);
int export_transaction_parm(sqlite3 *db, FILE *file);
int export_frame_parm(sqlite3 *db, FILE *file);
int export_block_parm(sqlite3 *db, FILE *file);

/* Readers of one section, from behind its head: 0, or -1 with err filled. */
int import_interface_setting_parm(sqlite3 *db, FILE *file, conf_import_error *err);
int import_device_parm(sqlite3 *db, FILE *file, conf_import_error *err);
int import_transaction_parm(sqlite3 *db, FILE *file, conf_import_error *err);
int import_frame_parm(sqlite3 *db, FILE *file, conf_import_error *err);
int import_block_parm(sqlite3 *db, FILE *file, conf_import_error *err);

/**
 * Fill key and column_name from the message of a failed INSERT.
 * @param message        SQLite's, may be nullptr
 * @param column_prefix  such as "device."
 */
void classify_import_error(conf_import_error *err, const char *message, const char *column_prefix);

#endif
