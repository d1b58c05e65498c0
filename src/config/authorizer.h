#ifndef KT_CONFIG_AUTHORIZER_H
#define KT_CONFIG_AUTHORIZER_H

#include <sqlite3.h>

/**
 * Let a connection from now on read and change the rows of the five configuration tables and
 * nothing else: no other table, no schema, no PRAGMA, no ATTACH. A statement beyond that fails to
 * prepare.
 */
void allow_configuration_rows_only(sqlite3 *db);

#endif
