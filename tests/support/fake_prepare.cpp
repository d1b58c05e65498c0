#include "fake_prepare.h"

#include <sqlite3.h>

fake_prepare g_fake_prepare;

extern "C" {

int __real_sqlite3_prepare_v2(sqlite3 *, const char *, int, sqlite3_stmt **, const char **);

int __wrap_sqlite3_prepare_v2(
    sqlite3 *db, const char *sql, int bytes, sqlite3_stmt **statement, const char **tail) {
    if (g_fake_prepare.before) {
        g_fake_prepare.before();
    }
    return __real_sqlite3_prepare_v2(db, sql, bytes, statement, tail);
}

} // extern "C"
