#include "config/authorizer.h"
#include "config/config_file.h"
#include "config/database.h"
#include "config/import_checks.h"
#include "config/sqlite_guards.h"
#include "config/tables.h"
#include "core/log.h"
#include "core/no_memory.h"
#include "core/runtime_file.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

/** Characters of a line that are read at once; what is longer is read as a further line. */
constexpr size_t line_max = 255;

constexpr uint8_t block_type_column = 2;

using working_copy_ptr = std::unique_ptr<sqlite3, call_on_delete<can_proprietary_db_close>>;
using line_buffer = std::array<char, line_max + 1>;

/** What differs between the five readers. */
struct section_reader {
    const char *function;
    table_id table;
    const char *column_message; /* of a header that does not fit */
    const char *no_header_message;
    bool restart_lines;        /* the interface reader goes on counting, on purpose */
    bool short_row_is_invalid; /* a row with too few columns; else its value is missing */
};

/** A row on its way into the database. */
struct row_reading {
    const section_reader *reader;
    section_checks *checks;
    conf_import_error *err;
    uint16_t known;      /* relevances so far */
    int32_t group;       /* the key that duplicate tests are about, -1 while unread */
    const char *refusal; /* what is wrong with a value that must not reach SQL, else nullptr */
    std::string sql;
};

int fail(conf_import_error *err, const char *key, int column = 0) {
    set_import_key(err, key);
    if (column != 0) {
        err->column = column;
    }
    return -1;
}

bool read_line(FILE *file, line_buffer &line) {
    return fgets(line.data(), static_cast<int>(line.size()), file) != nullptr;
}

bool is_only_commas(const char *line) {
    const size_t commas = strspn(line, ",");
    return commas > 0 && line[commas + strspn(line + commas, "\r\n")] == '\0';
}

bool ends_section(const char *line) {
    return isspace(static_cast<unsigned char>(line[0])) != 0 || line[0] == '\0' ||
           is_only_commas(line);
}

void cut_line_end(char *line) {
    const size_t carriage_return = strcspn(line, "\r");
    line[line[carriage_return] != '\0' ? carriage_return : strcspn(line, "\n")] = '\0';
}

/** Put NULL into every empty field. @return false when the line grows beyond its limit */
bool fill_empty_fields(const char *line, std::string *filled) {
    filled->clear();
    for (const char *field = line;; field++) {
        const size_t length = strcspn(field, ",");
        filled->append(length == 0 ? "NULL" : std::string(field, length));
        if (field[length] == '\0') {
            return filled->size() <= line_max;
        }
        filled->push_back(',');
        field += length;
    }
}

/** Take the next field; a view without data when there is none left. */
std::string_view next_field(std::string_view *rest, bool *at_end) {
    if (*at_end) {
        return {};
    }
    const size_t comma = rest->find(',');
    const std::string_view field = rest->substr(0, comma);
    *at_end = comma == std::string_view::npos;
    rest->remove_prefix(*at_end ? rest->size() : comma + 1);
    return field;
}

bool is_name(std::string_view text) {
    for (const char c : text) {
        if (isalnum(static_cast<unsigned char>(c)) == 0 && strchr("-._~", c) == nullptr) {
            return false;
        }
    }
    return true;
}

bool is_hexadecimal(std::string_view text) {
    return text.starts_with("0x") || text.starts_with("0X");
}

/** What may stand in a number column: one number, which no operator makes another one. */
bool is_number_like(std::string_view text, bool hexadecimal) {
    char before = '\0';
    for (const char c : text) {
        const bool is_sign = c == '+' || c == '-';
        const bool may_be_signed =
            before == '\0' || (!hexadecimal && (before == 'e' || before == 'E'));
        if (is_sign
                ? !may_be_signed
                : isalnum(static_cast<unsigned char>(c)) == 0 && strchr(". _\t", c) == nullptr) {
            return false;
        }
        before = c;
    }
    return true;
}

/** A name with characters that names must not have; each table words and keys it its own way. */
int invalid_name(const row_reading &row, const char *name, int column) {
    const section_reader &reader = *row.reader;
    if (reader.table != TABLE_DEVICE && reader.table != TABLE_TRANSACTIONS) {
        log_write_error(reader.function, __LINE__, "Data error: Invalid characters in %s", name);
        return fail(row.err, "invalid-name");
    }
    log_write_error(reader.function,
                    __LINE__,
                    "Data error: Invalid characters in '%s' at line %d, column %d\n",
                    name,
                    row.err->line,
                    column);
    // A device's is not "invalid-name", as clients know it.
    return fail(row.err, reader.table == TABLE_DEVICE ? "syntax-err" : "invalid-name", column);
}

int refused(const row_reading &row, const char *message) {
    log_write_error(row.reader->function,
                    __LINE__,
                    "Data error at line %d, sqlite insert data error ( %s )\n",
                    row.err->line,
                    message);
    const std::string prefix = std::string(table_of(row.reader->table).name) + ".";
    classify_import_error(row.err, message, prefix.c_str());
    return -1;
}

/** Such a value fails with its row, as it would if SQL saw it: what else is wrong is said first. */
void refuse_unless_number_like(row_reading *row, std::string_view field, column_kind kind) {
    field.remove_prefix(std::min(field.find_first_not_of(" \t"), field.size()));
    // A CAN identifier without its prefix is hexadecimal too: 6E+02 would be a sum.
    if (!is_number_like(field, kind == column_kind::CAN_ID || is_hexadecimal(field))) {
        row->refusal = "unrecognized token";
    }
}

/** An identifier is hexadecimal with and without its prefix. */
void append_can_id(std::string *sql, std::string_view field) {
    constexpr size_t completed_max = 19;
    if (is_hexadecimal(field)) {
        sql->append(field);
    } else {
        sql->append((std::string("0x").append(field)).substr(0, completed_max));
    }
}

int append_value(row_reading *row, const column &column, std::string_view field, int position) {
    switch (column.kind) {
    case column_kind::NAME:
        if (!is_name(field)) {
            return invalid_name(*row, column.name, position);
        }
        [[fallthrough]];
    case column_kind::TEXT:
    case column_kind::CONSTANT:
        if (field.find('\'') != std::string_view::npos) {
            row->refusal = "near \"'\": syntax error"; // it would leave its quotes
        }
        row->sql.append("'").append(field).append("'");
        return 0;
    case column_kind::CAN_ID:
        refuse_unless_number_like(row, field, column.kind);
        append_can_id(&row->sql, field);
        return 0;
    default:
        refuse_unless_number_like(row, field, column.kind);
        row->sql.append(field);
        return 0;
    }
}

int missing_value(const row_reading &row, int column) {
    log_write_error(row.reader->function,
                    __LINE__,
                    "Data error at line %d, missing necessary parameter in column %d\n",
                    row.err->line,
                    column);
    return fail(row.err, "missing-necessary-parameter", column);
}

int missing_column(const row_reading &row, int column) {
    if (!row.reader->short_row_is_invalid) {
        return missing_value(row, column);
    }
    // column before line, as the message has always had it
    log_write_error(row.reader->function,
                    __LINE__,
                    "Missing value for column %d at line %d\n",
                    column,
                    row.err->line);
    return fail(row.err, "invalid-val", column);
}

/** What a value that was just read makes relevant, and which group its row belongs to. */
int learn(row_reading *row, uint8_t column, std::string_view field) {
    const section_reader &reader = *row->reader;
    const int base = is_hexadecimal(field) ? 16 : 10; // as SQL reads it
    const long long read = strtoll(std::string(field).c_str(), nullptr, base);
    const auto value = static_cast<int32_t>(std::clamp<long long>(read, INT32_MIN, INT32_MAX));
    const uint16_t given = relevance_of(table_of(reader.table), column, value, row->known);
    row->known = static_cast<uint16_t>(row->known | given);
    if (column == 1) {
        row->group = value;
    }
    if (reader.table == TABLE_BLOCK && column == block_type_column && (given & TAG) != 0) {
        const int fault_value = row->checks->owner_has_fault_value(row->group, row->err);
        if (fault_value < 0) {
            return -1;
        }
        row->known = static_cast<uint16_t>(row->known | (fault_value == 1 ? FAULT_VALUE : 0));
    }
    return 0;
}

/** Turn a line into the row's INSERT. */
int build_statement(row_reading *row, std::string_view line) {
    const table &table = table_of(row->reader->table);
    row->sql.assign("INSERT INTO ").append(table.name).append(" VALUES (");
    bool at_end = false;
    const auto count = static_cast<uint8_t>(table.columns.size());
    for (uint8_t i = 0; i < count; i++) {
        const column &column = table.columns[i];
        if (at_end) {
            return missing_column(*row, i + 1);
        }
        const std::string_view field = next_field(&line, &at_end);
        row->sql.append(i == 0 ? "" : ",");
        if (!is_relevant(column, row->known)) {
            row->sql.append(column.fallback);
            continue;
        }
        if (field == "NULL") {
            return missing_value(*row, i + 1);
        }
        if (append_value(row, column, field, i + 1) != 0 || learn(row, i, field) != 0) {
            return -1;
        }
    }
    row->sql.push_back(')');
    return 0;
}

int insert(sqlite3 *db, const row_reading &row) {
    if (row.refusal != nullptr) {
        return refused(row, row.refusal);
    }
    sqlite3_stmt *prepared = nullptr;
    int result = SQLITE_TOOBIG;
    if (row.sql.size() < sql_text_bytes) {
        result = sqlite3_prepare_v2(db, row.sql.c_str(), -1, &prepared, nullptr);
    }
    const stmt_ptr statement(prepared);
    if (result != SQLITE_OK || sqlite3_step(prepared) != SQLITE_DONE) {
        return refused(row, sqlite3_errmsg(db));
    }
    return 0;
}

int read_row(const section_reader &reader,
             sqlite3 *db,
             char *line,
             section_checks *checks,
             conf_import_error *err) {
    cut_line_end(line);
    std::string filled;
    if (!fill_empty_fields(line, &filled)) {
        return fail(err, "internal-err");
    }
    row_reading row{&reader, checks, err, 0, -1, nullptr, {}};
    if (build_statement(&row, filled) != 0 || insert(db, row) != 0) {
        return -1;
    }
    return checks->after_row(row.group, (row.known & TAG) != 0, err);
}

int read_header(const section_reader &reader, FILE *file, conf_import_error *err) {
    line_buffer line{};
    if (!read_line(file, line)) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        log_write_error(reader.function, __LINE__, reader.no_header_message, err->line);
#pragma GCC diagnostic pop
        return fail(err, "syntax-err");
    }
    if (strstr(line.data(), table_of(reader.table).header) == nullptr) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        log_write_error(reader.function, __LINE__, reader.column_message, err->line);
#pragma GCC diagnostic pop
        return fail(err, "column-name-failed");
    }
    return 0;
}

int delete_rows(const section_reader &reader, sqlite3 *db, conf_import_error *err) {
    const std::string sql = std::string("DELETE FROM ") + table_of(reader.table).name;
    if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
        log_write_error(reader.function, __LINE__, "sqlite exec %s\n", sqlite3_errmsg(db));
        return fail(err, "internal-err");
    }
    return 0;
}

int read_section(const section_reader &reader, sqlite3 *db, FILE *file, conf_import_error *err) {
    if (reader.restart_lines) {
        err->line = 0;
    }
    if (read_header(reader, file, err) != 0 || delete_rows(reader, db, err) != 0) {
        return -1;
    }
    section_checks checks(reader.function, reader.table, db);
    line_buffer line{};
    while (read_line(file, line)) {
        err->line++; // the line that ends the section counts, too
        if (ends_section(line.data())) {
            break;
        }
        if (read_row(reader, db, line.data(), &checks, err) != 0) {
            return -1;
        }
    }
    return checks.after_section(err);
}

constexpr const char *no_header = "get csv_line error";
constexpr const char *colum_message = "Data error at line %d, colum name error\n";

constexpr std::array<section_reader, TABLE_COUNT> sections = {{
    {"import_interface_setting_parm",
     TABLE_INTERFACE,
     "Data error at line %d, column name error\n",
     no_header,
     false,
     false},
    {"import_device_parm", TABLE_DEVICE, colum_message, no_header, true, false},
    {"import_transaction_parm",
     TABLE_TRANSACTIONS,
     "Data error at line %d, transaction column name error\n",
     no_header,
     true,
     true},
    {"import_frame_parm", TABLE_FRAME, colum_message, no_header, true, false},
    {"import_block_parm",
     TABLE_BLOCK,
     colum_message,
     "Data error at line %d, syntax error\n",
     true,
     true},
}};

constexpr int no_memory = -7;

constexpr const char *import_function = "can_proprietary_conf_import";

void copy_table_name(conf_import_error *err, table_id id) {
    (void)snprintf(err->table_name, sizeof err->table_name, "%s", table_of(id).name);
}

/** Table of a section head, TABLE_COUNT for an unknown one. */
table_id table_of_head(const char *line) {
    int id = 0;
    while (id < TABLE_COUNT && strstr(line, table_of(static_cast<table_id>(id)).head) == nullptr) {
        id++;
    }
    return static_cast<table_id>(id);
}

/** A failed import leaves the file alone, and so its time, by which changes are known. */
void keep_changes_in_memory(sqlite3 *db) {
    (void)sqlite3_set_authorizer(db, nullptr, nullptr); // it lets no PRAGMA pass
    (void)sqlite3_exec(db, "PRAGMA cache_spill = OFF", nullptr, nullptr, nullptr);
    allow_configuration_rows_only(db);
}

int check_all_seen(const std::array<bool, TABLE_COUNT> &seen, conf_import_error *err) {
    int result = 0;
    for (int id = 0; id < TABLE_COUNT; id++) {
        if (seen[static_cast<size_t>(id)]) {
            continue;
        }
        const auto missing = static_cast<table_id>(id);
        log_write_error(import_function, __LINE__, "miss table %s\n", table_of(missing).name);
        copy_table_name(err, missing); // the last one missing stays
        result = fail(err, "missing-table");
    }
    return result;
}

int read_sections(sqlite3 *db, FILE *file, conf_import_error *err) {
    std::array<bool, TABLE_COUNT> seen{};
    line_buffer line{};
    while (read_line(file, line)) {
        if (line[0] != '[') {
            continue;
        }
        const table_id id = table_of_head(line.data());
        if (id == TABLE_COUNT) {
            log_write_error(import_function,
                            __LINE__,
                            "Data error at line %d, table name error : %s\n",
                            err->line,
                            line.data());
            return fail(err, "syntax-err");
        }
        seen[id] = true;
        if (read_section(sections[id], db, file, err) != 0) {
            copy_table_name(err, id);
            return -1;
        }
    }
    return check_all_seen(seen, err);
}

} // namespace

int import_interface_setting_parm(sqlite3 *db, FILE *file, conf_import_error *err) {
    return read_section(sections[TABLE_INTERFACE], db, file, err);
}

int import_device_parm(sqlite3 *db, FILE *file, conf_import_error *err) {
    return read_section(sections[TABLE_DEVICE], db, file, err);
}

int import_transaction_parm(sqlite3 *db, FILE *file, conf_import_error *err) {
    return read_section(sections[TABLE_TRANSACTIONS], db, file, err);
}

int import_frame_parm(sqlite3 *db, FILE *file, conf_import_error *err) {
    return read_section(sections[TABLE_FRAME], db, file, err);
}

int import_block_parm(sqlite3 *db, FILE *file, conf_import_error *err) {
    return read_section(sections[TABLE_BLOCK], db, file, err);
}

int can_proprietary_conf_import(const char *path, conf_import_error *err) {
    if (path == nullptr) {
        log_error("Null parm.\n");
        return -1;
    }
    const file_ptr file = open_runtime_file(path, "r");
    if (file == nullptr) {
        log_error("open fail\n");
        return -1;
    }
    working_copy_ptr db(can_proprietary_db_get());
    if (db == nullptr) {
        log_error("get db fail\n");
        return -1;
    }
    keep_changes_in_memory(db.get());
    can_proprietary_db_start_set_db(db.get());
    if (sqlite3_get_autocommit(db.get()) != 0) {
        return fail(err, "internal-err"); // every row would count at once
    }
    const auto read = [&] { return read_sections(db.get(), file.get(), err); };
    int result = unless_no_memory(__func__, no_memory, read);
    if (result == no_memory || (result == 0 && ferror(file.get()) != 0)) {
        result = fail(err, "internal-err"); // what was read is not the whole file
    }
    const int ended = can_proprietary_db_end_set_db(db.release(), result == 0 ? 1 : 0);
    if (result == 0 && ended != 0) {
        return fail(err, "internal-err"); // a commit that failed changed nothing
    }
    return result;
}
