#include "config/authorizer.h"

#include "config/tables.h"

#include <cstring>

namespace {

bool is_configuration_table(const char *name) {
    for (int id = 0; id < TABLE_COUNT; id++) {
        if (strcmp(name, table_of(static_cast<table_id>(id)).name) == 0) {
            return true;
        }
    }
    return false;
}

int authorize(void * /*context*/,
              int action,
              const char *subject,
              const char * /*detail*/,
              const char * /*database*/,
              const char * /*trigger*/) {
    switch (action) {
    case SQLITE_SELECT:
    case SQLITE_TRANSACTION:
    case SQLITE_FUNCTION:
        return SQLITE_OK;
    case SQLITE_READ:
    case SQLITE_INSERT:
    case SQLITE_UPDATE:
    case SQLITE_DELETE:
        return subject != nullptr && is_configuration_table(subject) ? SQLITE_OK : SQLITE_DENY;
    default:
        return SQLITE_DENY;
    }
}

} // namespace

void allow_configuration_rows_only(sqlite3 *db) {
    (void)sqlite3_set_authorizer(db, authorize, nullptr); // fails for a missing connection only
}
