#ifndef KT_CONFIG_SQLITE_GUARDS_H
#define KT_CONFIG_SQLITE_GUARDS_H

#include "core/guards.h"

#include <memory>
#include <sqlite3.h>

/* Declare the connection before its statements: a connection with live statements does not close.
 */

using db_ptr = std::unique_ptr<sqlite3, call_on_delete<sqlite3_close>>;
using stmt_ptr = std::unique_ptr<sqlite3_stmt, call_on_delete<sqlite3_finalize>>;
using sqlite_text_ptr = std::unique_ptr<char, call_on_delete<sqlite3_free>>;

#endif
