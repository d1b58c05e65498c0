#include "import_faults.h"

#include <cstdio>
#include <cstring>
#include <sqlite3.h>

import_faults g_import_faults;

extern "C" {

int __real_sqlite3_step(sqlite3_stmt *statement);
int __real_sqlite3_get_autocommit(sqlite3 *db);
int __real_ferror(FILE *file);

int __wrap_sqlite3_step(sqlite3_stmt *statement) {
    if (g_import_faults.before_step) {
        g_import_faults.before_step(sqlite3_sql(statement));
    }
    const std::string &part = g_import_faults.interrupted;
    const bool is_meant = !part.empty() && strstr(sqlite3_sql(statement), part.c_str()) != nullptr;
    if (!is_meant || --g_import_faults.nth > 0) {
        return __real_sqlite3_step(statement);
    }
    g_import_faults.interrupted.clear();
    sqlite3 *db = sqlite3_db_handle(statement);
    sqlite3_progress_handler(
        db, 1, [](void *) { return 1; }, nullptr);
    const int result = __real_sqlite3_step(statement);
    sqlite3_progress_handler(db, 0, nullptr, nullptr);
    return result;
}

int __wrap_sqlite3_get_autocommit(sqlite3 *db) {
    return g_import_faults.no_transaction ? 1 : __real_sqlite3_get_autocommit(db);
}

int __wrap_ferror(FILE *file) {
    return g_import_faults.unreadable ? 1 : __real_ferror(file);
}

} // extern "C"
