#ifndef KT_CONFIG_ROW_H
#define KT_CONFIG_ROW_H

#include "config/model.h"

#include <sqlite3.h>

/*
 * From the current row of a "SELECT *" statement to a record.
 *
 * Columns are read by position. Values wider than their field are cut, except keys, which the
 * schema keeps within their width. NULL text reads as empty text. Fields that hold no column
 * (lists, next) stay as they are.
 *
 * Results: 0; -1 the row cannot be represented (logged); -7 out of memory. A record filled in part
 * is released with the conf_free_* functions like a whole one.
 */

void interface_get_row(sqlite3_stmt *row, interface_config *record);
int device_get_row(sqlite3_stmt *row, device_config *record);
int transaction_get_row(sqlite3_stmt *row, transaction_config *record);
void frame_get_row(sqlite3_stmt *row, frame_config *record);

/** Allocates the constant or tag record. -1 for a blockType other than BLOCK_TAG, BLOCK_CONSTANT.
 */
int block_get_row(sqlite3_stmt *row, block_config *record);

/** Key in the first column, at its full width. */
int key_of_row(sqlite3_stmt *row);

/**
 * Value of a constant's hexadecimal text: a text of odd length is read as if a "0" stood in front,
 * then its first 16 digits count, first byte most significant.
 */
uint64_t parse_constant_value(const char *text);

#endif
