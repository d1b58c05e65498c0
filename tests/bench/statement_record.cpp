#include "statement_record.h"

#include "bench_gateway.h"

#include <benchmark/benchmark.h>
#include <sqlite3.h>

namespace {

std::vector<std::vector<std::string>> g_connections;

int note_statement(unsigned /*type*/, void *list, void *statement, void *sql) {
    const std::string text = static_cast<const char *>(sql);
    if (!text.starts_with("--")) { // what a trigger does belongs to its statement
        char *expanded = sqlite3_expanded_sql(static_cast<sqlite3_stmt *>(statement));
        g_connections[reinterpret_cast<size_t>(list)].emplace_back(expanded);
        sqlite3_free(expanded);
    }
    return 0;
}

int note_connection(sqlite3 *db, char ** /*error*/, const struct sqlite3_api_routines * /*api*/) {
    g_connections.emplace_back();
    void *list = reinterpret_cast<void *>(g_connections.size() - 1);
    return sqlite3_trace_v2(db, SQLITE_TRACE_STMT, note_statement, list);
}

void read_row(sqlite3_stmt *row) {
    for (int i = 0; i < sqlite3_column_count(row); i++) {
        switch (sqlite3_column_type(row, i)) {
        case SQLITE_TEXT:
            benchmark::DoNotOptimize(sqlite3_column_text(row, i));
            break;
        case SQLITE_FLOAT:
            benchmark::DoNotOptimize(sqlite3_column_double(row, i));
            break;
        default:
            benchmark::DoNotOptimize(sqlite3_column_int(row, i));
        }
    }
}

void run(sqlite3 *db, const std::string &sql) {
    sqlite3_stmt *statement = nullptr;
    int result = sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr);
    if (result == SQLITE_OK) {
        for (result = sqlite3_step(statement); result == SQLITE_ROW;
             result = sqlite3_step(statement)) {
            read_row(statement);
        }
    }
    if (result != SQLITE_DONE) {
        give_up(sql + ": " + sqlite3_errmsg(db));
    }
    (void)sqlite3_finalize(statement);
}

using entry_point = void (*)();

} // namespace

statement_record::statement_record() {
    g_connections.clear();
    if (sqlite3_auto_extension(reinterpret_cast<entry_point>(note_connection)) != SQLITE_OK) {
        give_up("statements cannot be recorded");
    }
}

statement_record::~statement_record() {
    sqlite3_reset_auto_extension();
}

const std::vector<std::vector<std::string>> &statement_record::connections() {
    return g_connections;
}

void replay(const std::string &path, const std::vector<std::vector<std::string>> &connections) {
    for (const std::vector<std::string> &statements : connections) {
        sqlite3 *db = nullptr;
        constexpr int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX;
        if (sqlite3_open_v2(path.c_str(), &db, flags, nullptr) != SQLITE_OK) {
            give_up("cannot open " + path);
        }
        for (const std::string &sql : statements) {
            run(db, sql);
        }
        (void)sqlite3_close(db);
    }
}
