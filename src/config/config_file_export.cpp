#include "config/config_file.h"
#include "config/database.h"
#include "config/frame_owner.h"
#include "config/model.h"
#include "config/row.h"
#include "config/sqlite_guards.h"
#include "config/tables.h"
#include "core/log.h"
#include "core/runtime_file.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

using working_copy_ptr = std::unique_ptr<sqlite3, call_on_delete<can_proprietary_db_close>>;
using block_ptr = std::unique_ptr<block_config, call_on_delete<conf_free_block_list>>;

constexpr const char *block_writer = "export_block_parm";

constexpr uint8_t block_type_column = 2;
constexpr uint8_t tag_type_column = 5;
constexpr uint8_t constant_size_column = 18;

const char *text_of(sqlite3_stmt *row, int position) {
    const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(row, position));
    return text == nullptr ? "" : text;
}

/* What each value of each row goes through: without the lock of a stream that nobody shares, and
   without printf(), which takes longer than the database for what this writes. */

void put(FILE *file, std::string_view text) {
    (void)fwrite_unlocked(text.data(), 1, text.size(), file);
}

void put_number(FILE *file, int number) {
    std::array<char, 16> text{};
    put(file, {text.data(), std::to_chars(text.begin(), text.end(), number).ptr});
}

/** As "%f" does it. */
void put_real(FILE *file, double number) {
    std::array<char, 512> text; // 309 digits, six behind the point
    constexpr auto fixed = std::chars_format::fixed;
    put(file, {text.data(), std::to_chars(text.begin(), text.end(), number, fixed, 6).ptr});
}

/** Errors of the stream are looked at once, when the file is complete. */
void write_value(FILE *file, const column &column, sqlite3_stmt *row) {
    const int position = column.source;
    switch (column.kind) {
    case column_kind::NUMBER:
        put_number(file, sqlite3_column_int(row, position));
        break;
    case column_kind::FLAG:
        put_number(file, sqlite3_column_int(row, position) != 0 ? 1 : 0);
        break;
    case column_kind::CAN_ID:
        (void)fprintf(file, "%X", static_cast<unsigned>(sqlite3_column_int(row, position)));
        break;
    case column_kind::REAL:
        put_real(file, sqlite3_column_double(row, position));
        break;
    case column_kind::TEXT:
    case column_kind::NAME: {
        const std::string_view text = text_of(row, position);
        put(file, column.text_max == 0 ? text : text.substr(0, column.text_max));
        break;
    }
    case column_kind::CONSTANT:
        (void)fprintf(file,
                      "%0*" PRIX64,
                      2 * sqlite3_column_int(row, constant_size_column),
                      parse_constant_value(text_of(row, position)));
        break;
    }
}

/** What the import would ask for; it treats a tagType above 13 as not scalable, the export does. */
uint16_t exported_relevance(const table &table, uint8_t position, int32_t value, uint16_t known) {
    if (&table == &table_of(TABLE_BLOCK) && position == tag_type_column && (known & TAG) != 0) {
        return value != TAG_RAW ? SCALABLE : 0;
    }
    return relevance_of(table, position, value, known);
}

/** @retval 0 @retval -1 the owner of a tag cannot be looked up (logged) */
int write_row(FILE *file, const table &table, sqlite3_stmt *row, frame_owner *owner) {
    uint16_t known = 0;
    const auto count = static_cast<uint8_t>(table.columns.size());
    for (uint8_t i = 0; i < count; i++) {
        const column &column = table.columns[i];
        if (i > 0) {
            (void)putc_unlocked(',', file);
        }
        if (!is_relevant(column, known)) {
            continue;
        }
        write_value(file, column, row);
        if (!gives_relevance(table, i)) {
            continue;
        }
        const uint16_t given = exported_relevance(table, i, sqlite3_column_int(row, i), known);
        known = static_cast<uint16_t>(known | given);
        if (&table == &table_of(TABLE_BLOCK) && i == block_type_column && (given & TAG) != 0) {
            const int fault_value = owner->has_fault_value(sqlite3_column_int(row, 1));
            if (fault_value < 0) {
                log_write_error(block_writer, __LINE__, "write_tag_detail_info_to_csv is fail");
                return -1;
            }
            known = static_cast<uint16_t>(known | (fault_value == 1 ? FAULT_VALUE : 0));
        }
    }
    (void)putc_unlocked('\n', file);
    return 0;
}

/** A block that its record cannot hold is not written. @retval 0 @retval -1 @retval -7 (logged) */
int check_block(sqlite3_stmt *row) {
    const block_ptr record(allocate_zeroed<block_config>().release());
    if (record == nullptr) {
        log_write_error(block_writer, __LINE__, "Memory allocation failed\n");
        return -7;
    }
    const int kind = sqlite3_column_int(row, block_type_column);
    // Of the others the reader of rows says what is wrong.
    return kind == BLOCK_TAG || kind == BLOCK_CONSTANT ? 0 : block_get_row(row, record.get());
}

int write_rows(const char *function, table_id id, sqlite3 *db, FILE *file) {
    const table &table = table_of(id);
    char sql[64];
    (void)snprintf(sql, sizeof sql, "SELECT * FROM %s", table.name);
    sqlite3_stmt *prepared = nullptr;
    const int result = sqlite3_prepare_v2(db, sql, -1, &prepared, nullptr);
    const stmt_ptr rows(prepared);
    if (result != SQLITE_OK) {
        log_write_error(function, __LINE__, "%s. Sql: %s\n", sqlite3_errmsg(db), sql);
        return -1;
    }
    frame_owner owner(db, "write_tag_detail_info_to_csv");
    int step = sqlite3_step(prepared);
    for (; step == SQLITE_ROW; step = sqlite3_step(prepared)) {
        if (const int checked = id == TABLE_BLOCK ? check_block(prepared) : 0; checked != 0) {
            return checked;
        }
        if (write_row(file, table, prepared, &owner) != 0) {
            return -1;
        }
    }
    if (step != SQLITE_DONE) {
        log_write_error(function, __LINE__, "%s. Sql: %s\n", sqlite3_errmsg(db), sql);
        return -1;
    }
    return 0;
}

/** Head, header, rows and an empty line, which also stands behind rows that failed. */
int write_section(const char *function, table_id id, sqlite3 *db, FILE *file) {
    const table &table = table_of(id);
    (void)fprintf(file, "%s\n%s\n", table.head, table.header);
    const int result = write_rows(function, id, db, file);
    (void)fputc('\n', file);
    return result;
}

} // namespace

int export_interface_setting_parm(sqlite3 *db, FILE *file) {
    return write_section(__func__, TABLE_INTERFACE, db, file);
}

int export_device_parm(sqlite3 *db, FILE *file) {
    return write_section(__func__, TABLE_DEVICE, db, file);
}

int export_transaction_parm(sqlite3 *db, FILE *file) {
    return write_section(__func__, TABLE_TRANSACTIONS, db, file);
}

int export_frame_parm(sqlite3 *db, FILE *file) {
    return write_section(__func__, TABLE_FRAME, db, file);
}

int export_block_parm(sqlite3 *db, FILE *file) {
    return write_section(__func__, TABLE_BLOCK, db, file);
}

int can_proprietary_conf_export(const char *path) {
    if (path == nullptr) {
        log_error("Null parm.\n");
        return -1;
    }
    const working_copy_ptr db(can_proprietary_db_get());
    if (db == nullptr) {
        log_error("get db fail\n");
        return -1;
    }
    const file_ptr file = open_runtime_file(path, "w");
    if (file == nullptr) {
        const int error = errno;
        log_error("open fail\n");
        errno = error;
        perror("Error: ");
        return 0; // kept: the caller finds the missing file itself
    }
    // One state of the database for all five sections.
    (void)sqlite3_exec(db.get(), "BEGIN", nullptr, nullptr, nullptr);
    (void)fputs("version: 1.0.0\n\n", file.get());
    for (const auto write : {export_interface_setting_parm,
                             export_device_parm,
                             export_transaction_parm,
                             export_frame_parm,
                             export_block_parm}) {
        if (const int result = write(db.get(), file.get()); result != 0) {
            return result;
        }
    }
    if (fflush(file.get()) != 0 || ferror(file.get()) != 0) {
        log_error("%s\n", strerror(errno));
        return -1;
    }
    return 0;
}
