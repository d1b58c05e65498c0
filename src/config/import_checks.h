#ifndef KT_CONFIG_IMPORT_CHECKS_H
#define KT_CONFIG_IMPORT_CHECKS_H

#include "config/config_file.h"
#include "config/frame_owner.h"
#include "config/sqlite_guards.h"
#include "config/tables.h"

#include <cstdint>
#include <sqlite3.h>

/** Set the key of an import error. */
void set_import_key(conf_import_error *err, const char *key);

/**
 * What an import asks the database about the rows it has inserted. Statements are prepared when
 * first needed and used for every row of the section. Failures are logged under the section
 * reader's name.
 */
class section_checks {
public:
    section_checks(const char *function, table_id table, sqlite3 *db)
        : function_(function), table_(table), db_(db), owner_(db, function) {}

    /** @retval 1 the frame's transaction has a fault value per tag @retval 0 not @retval -1 failed
     */
    int owner_has_fault_value(int32_t frameId, conf_import_error *err);

    /** Duplicate names and the size of a frame's tags. @retval 0 @retval -1 */
    int after_row(int32_t group, bool is_tag, conf_import_error *err);

    /** The number of port rows, the number of frames of every transaction. @retval 0 @retval -1 */
    int after_section(conf_import_error *err);

private:
    int prepare(stmt_ptr *statement, const char *sql, conf_import_error *err);
    /** Ask about one key. @retval 1 a row came @retval 0 none @retval -1 failed (logged) */
    int run(stmt_ptr *statement, const char *sql, int32_t key, conf_import_error *err);
    int query_failed(conf_import_error *err);
    int check_duplicate(const char *sql, int32_t group, const char *format, conf_import_error *err);
    int check_tag_size(int32_t frameId, conf_import_error *err);
    int check_port_rows(conf_import_error *err);
    int check_frame_counts(conf_import_error *err);
    int check_frame_count(int type, int32_t transactionId, conf_import_error *err);

    const char *function_;
    table_id table_;
    sqlite3 *db_;
    frame_owner owner_;
    stmt_ptr duplicate_;
    stmt_ptr size_;
    stmt_ptr count_;
};

#endif
